#include <chronotick/Scope.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;
using Trace = std::vector<Event>;
using Traces = std::vector<Trace>;

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
  const Trace first{{0, LevelLow}, {50, LevelHigh}, {300, LevelLow}, {350, LevelUnknown}};
  EXPECT_EQ(scope.getData(), (Traces{first, {{0, LevelHigh}}, {}, {}}));
  EXPECT_FALSE(scope.ready()); // one trace of two

  // The second trace starts with the levels known so far. The trigger tag is
  // not an event of its own, and neither is a second tag on the trigger
  // channel at the same time; an edge at the trigger's time is, at 0.
  tagger.pushAndWait({makeTag(3, 1300), makeTag(3, 1300), makeTag(2, 1300), makeTag(3, 1500), makeTag(-1, 1510)}, 1200,
                     2400);
  // The first trace is closed.
  const Trace second1{{0, LevelHigh}, {210, LevelLow}}, second2{{0, LevelLow}, {0, LevelHigh}};
  EXPECT_EQ(scope.getData(), (Traces{first, {{0, LevelHigh}}, second1, second2}));
  EXPECT_EQ(scope.triggered(), 2); // the trigger at 1500 found no trace left
  EXPECT_TRUE(scope.ready());

  // Lost data ends the open windows with unknown events and forgets the
  // levels; a clear rearms.
  scope.clear();
  EXPECT_FALSE(scope.ready());
  EXPECT_EQ(scope.triggered(), 0);
  tagger.pushAndWait({makeTag(1, 2500), makeTag(3, 2600), makeTag(0, 2800, Tag::Type::OverflowBegin),
                      makeTag(0, 2900, Tag::Type::OverflowEnd), makeTag(3, 3000)},
                     2400, 3050);
  // At the second trigger the levels are forgotten.
  const Trace unknown{{0, LevelUnknown}};
  EXPECT_EQ(
      scope.getData(),
      (Traces{{{0, LevelHigh}, {200, LevelUnknown}}, {{0, LevelUnknown}, {200, LevelUnknown}}, unknown, unknown}));
  EXPECT_FALSE(scope.ready()); // the second window is open
  tagger.pushAndWait({}, 3050, 4000);
  EXPECT_TRUE(scope.ready());

  // With one event a list, the window is full at its first event and ends
  // at the next block's end.
  Scope single(&tagger, {1}, 3, 1000000, 1, 1);
  tagger.pushAndWait({makeTag(3, 5000), makeTag(1, 5010), makeTag(-1, 5020)}, 4000, 6000);
  EXPECT_TRUE(single.ready());
  EXPECT_EQ(single.getData(), Traces{unknown});

  // No channels: the trigger only counts, and its window ends at once.
  Scope none(&tagger, {}, 3, 1000000, 2, 10);
  tagger.pushAndWait({makeTag(3, 7000)}, 6000, 7001);
  EXPECT_TRUE(none.getData().empty());
  EXPECT_EQ(none.triggered(), 1);
  EXPECT_FALSE(none.ready());
  tagger.pushAndWait({makeTag(3, 8000)}, 7001, 8001);
  EXPECT_TRUE(none.ready());
}

TEST(ScopeTest, ContinuousModePublishesEachWindow) {
  TestTagger tagger;
  Scope scope(&tagger, {1}, 3, 500, 0, 100);
  EXPECT_FALSE(scope.ready());
  tagger.pushAndWait({makeTag(1, 10), makeTag(3, 100), makeTag(-1, 200), makeTag(3, 300), makeTag(1, 400)}, 0, 550);
  EXPECT_FALSE(scope.ready()); // the window is open until 600
  tagger.pushAndWait({makeTag(-1, 700)}, 550, 700);
  EXPECT_TRUE(scope.ready());
  EXPECT_EQ(scope.triggered(), 0); // rearmed
  // The second trigger inside the window opened nothing.
  const Traces first{{{0, LevelHigh}, {100, LevelLow}, {300, LevelHigh}}};
  EXPECT_EQ(scope.getData(), first);

  // While the next window is recorded, the client sees the last one.
  tagger.pushAndWait({makeTag(3, 1000), makeTag(-1, 1100)}, 700, 1200);
  EXPECT_EQ(scope.getData(), first);
  EXPECT_EQ(scope.triggered(), 1);
  tagger.pushAndWait({}, 1200, 1600);
  // Two falling edges in a row are not judged against each other.
  const Traces second{{{0, LevelLow}, {100, LevelLow}}};
  EXPECT_EQ(scope.getData(), second);

  // Lost data inside a window: nothing is published, and no trigger is taken
  // until a clear.
  tagger.pushAndWait({makeTag(3, 2000), makeTag(0, 2100, Tag::Type::Error)}, 1600, 3000);
  tagger.pushAndWait({makeTag(3, 3100), makeTag(1, 3200)}, 3000, 4000);
  EXPECT_EQ(scope.triggered(), 1);
  EXPECT_EQ(scope.getData(), second);
  scope.clear();
  EXPECT_FALSE(scope.ready());
  EXPECT_EQ(scope.getData(), Traces(1));
  tagger.pushAndWait({makeTag(3, 4100), makeTag(1, 4200)}, 4000, 5000);
  // The first rising edge proves the unknown start low.
  EXPECT_EQ(scope.getData(), (Traces{{{0, LevelLow}, {100, LevelHigh}}}));
}
