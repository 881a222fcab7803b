#include <chronotick/Scope.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// A worker samples the fence before it takes a block, so a block pushed
// right after a start or clear may carry the fence from before it. One empty
// block through the chain flushes such a read.
void settle(TestTagger &tagger) {
  const std::int64_t t = tagger.lastEndTime();
  tagger.pushAndWait({}, t, t);
}

using Trace = std::vector<Event>;

} // namespace

namespace chronotick {
// Found by argument lookup from the comparisons of traces below.
static bool operator==(const Event &a, const Event &b) {
  return a.time == b.time && a.level == b.level;
}
static std::ostream &operator<<(std::ostream &out, const Event &e) {
  return out << "{" << e.time << ", " << static_cast<int>(e.level) << "}";
}
} // namespace chronotick

TEST(ScopeTest, LevelsDeadTimeAndWindowsInFixedMode) {
  TestTagger tagger;
  tagger.setDeadtime(1, 100);
  tagger.setDeadtime(-1, 200);
  // Watched: inputs 1 and 2, both edges each; trigger on 3; 1 ns windows.
  Scope scope(&tagger, {1, 2}, 3, 1000, 2, 10);
  tagger.setDeadtime(1, 5000); // too late: the scope keeps what it read
  settle(tagger);
  EXPECT_FALSE(scope.ready());
  EXPECT_EQ(scope.getWindowSize(), 1000);

  tagger.pushAndWait({makeTag(2, 50), makeTag(3, 100), makeTag(1, 150), makeTag(-1, 400), makeTag(1, 450)}, 0, 600);
  EXPECT_EQ(scope.triggered(), 1);
  EXPECT_FALSE(scope.ready()); // the window is still open
  // Input 1: the first event starts unknown and turns low with the rising
  // edge at 50, which itself is unknown (inside the 200 ps dead time of the
  // falling edge) until the falling edge at 300 proves it high. The rising
  // edge at 350 comes 50 ps after a fall: unknown, and the newest one stays so.
  // Input 2 rose before the trigger. An edge at exactly the window's end is
  // left out.
  tagger.pushAndWait({makeTag(-2, 1100)}, 600, 1200);
  auto data = scope.getData();
  ASSERT_EQ(data.size(), 4u);
  EXPECT_EQ(data[0], (Trace{{0, LevelLow}, {50, LevelHigh}, {300, LevelLow}, {350, LevelUnknown}}));
  EXPECT_EQ(data[1], (Trace{{0, LevelHigh}}));
  EXPECT_TRUE(data[2].empty() && data[3].empty());
  EXPECT_FALSE(scope.ready()); // one trace of two

  // The second trace starts with the levels known so far. The trigger tag is
  // not an event of its own, and neither is a second tag on the trigger
  // channel at the same time; an edge at the trigger's time is, at 0.
  tagger.pushAndWait({makeTag(3, 1300), makeTag(3, 1300), makeTag(2, 1300), makeTag(3, 1500), makeTag(-1, 1510)}, 1200,
                     2400);
  data = scope.getData();
  EXPECT_EQ(data[2], (Trace{{0, LevelHigh}, {210, LevelLow}}));
  EXPECT_EQ(data[3], (Trace{{0, LevelLow}, {0, LevelHigh}}));
  EXPECT_EQ(scope.triggered(), 2); // the trigger at 1500 found no trace left
  EXPECT_TRUE(scope.ready());
  EXPECT_EQ(data[0].size(), 4u); // the first trace is closed

  // Lost data ends the open windows with unknown events and forgets the
  // levels; a clear rearms.
  scope.clear();
  settle(tagger);
  EXPECT_FALSE(scope.ready());
  EXPECT_EQ(scope.triggered(), 0);
  tagger.pushAndWait({makeTag(1, 2500), makeTag(3, 2600), makeTag(0, 2800, Tag::Type::OverflowBegin),
                      makeTag(0, 2900, Tag::Type::OverflowEnd), makeTag(3, 3000)},
                     2400, 3050);
  data = scope.getData();
  EXPECT_EQ(data[0], (Trace{{0, LevelHigh}, {200, LevelUnknown}}));
  EXPECT_EQ(data[1], (Trace{{0, LevelUnknown}, {200, LevelUnknown}}));
  EXPECT_EQ(data[2], (Trace{{0, LevelUnknown}})); // the second trigger: levels forgotten
  EXPECT_EQ(data[3], (Trace{{0, LevelUnknown}}));
  EXPECT_FALSE(scope.ready()); // the second window is open
  tagger.pushAndWait({}, 3050, 4000);
  EXPECT_TRUE(scope.ready());
  scope.stop();

  // With one event a list, the window is full at its first event and ends
  // at the next block's end.
  Scope single(&tagger, {1}, 3, 1000000, 1, 1);
  settle(tagger);
  tagger.pushAndWait({makeTag(3, 5000), makeTag(1, 5010), makeTag(-1, 5020)}, 4000, 6000);
  EXPECT_TRUE(single.ready());
  EXPECT_EQ(single.getData()[0], (Trace{{0, LevelUnknown}}));
  single.stop();

  // No channels: the trigger only counts, and its window ends at once.
  Scope none(&tagger, {}, 3, 1000000, 2, 10);
  settle(tagger);
  tagger.pushAndWait({makeTag(3, 7000)}, 6000, 7001);
  EXPECT_TRUE(none.getData().empty());
  EXPECT_EQ(none.triggered(), 1);
  EXPECT_FALSE(none.ready());
  tagger.pushAndWait({makeTag(3, 8000)}, 7001, 8001);
  EXPECT_TRUE(none.ready());
  none.stop();
}

TEST(ScopeTest, ContinuousModePublishesEachWindow) {
  TestTagger tagger;
  Scope scope(&tagger, {1}, 3, 500, 0, 100);
  settle(tagger);
  EXPECT_FALSE(scope.ready());
  tagger.pushAndWait({makeTag(1, 10), makeTag(3, 100), makeTag(-1, 200), makeTag(3, 300), makeTag(1, 400)}, 0, 550);
  EXPECT_FALSE(scope.ready()); // the window is open until 600
  tagger.pushAndWait({makeTag(-1, 700)}, 550, 700);
  EXPECT_TRUE(scope.ready());
  EXPECT_EQ(scope.triggered(), 0); // rearmed
  // The second trigger inside the window opened nothing.
  const std::vector<Trace> first{{{0, LevelHigh}, {100, LevelLow}, {300, LevelHigh}}};
  EXPECT_EQ(scope.getData(), first);

  // While the next window is recorded, the client sees the last one.
  tagger.pushAndWait({makeTag(3, 1000), makeTag(-1, 1100)}, 700, 1200);
  EXPECT_EQ(scope.getData(), first);
  EXPECT_EQ(scope.triggered(), 1);
  tagger.pushAndWait({}, 1200, 1600);
  // Two falling edges in a row are not judged against each other.
  const std::vector<Trace> second{{{0, LevelLow}, {100, LevelLow}}};
  EXPECT_EQ(scope.getData(), second);

  // Lost data inside a window: nothing is published, and no trigger is taken
  // until a clear.
  tagger.pushAndWait({makeTag(3, 2000), makeTag(0, 2100, Tag::Type::Error)}, 1600, 3000);
  tagger.pushAndWait({makeTag(3, 3100), makeTag(1, 3200)}, 3000, 4000);
  EXPECT_EQ(scope.triggered(), 1);
  EXPECT_EQ(scope.getData(), second);
  scope.clear();
  settle(tagger);
  EXPECT_FALSE(scope.ready());
  EXPECT_EQ(scope.getData(), std::vector<Trace>(1));
  tagger.pushAndWait({makeTag(3, 4100), makeTag(1, 4200)}, 4000, 5000);
  // The first rising edge proves the unknown start low.
  EXPECT_EQ(scope.getData(), (std::vector<Trace>{{{0, LevelLow}, {100, LevelHigh}}}));
  scope.stop();
}
