#include <chronotick/CountBetweenMarkers.h>
#include <chronotick/SynchronizedMeasurements.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// Records the span of every block it is given, and its hooks.
class SpanRecorder : public IteratorBase {
public:
  explicit SpanRecorder(ChronotickBase *tagger) : IteratorBase(tagger) {
    registerChannel(1);
    finishInitialization();
  }
  ~SpanRecorder() override { stop(); }

  std::vector<std::pair<std::int64_t, std::int64_t>> spans() {
    auto lock = getLock();
    return seen;
  }
  int clears() {
    auto lock = getLock();
    return n_clears;
  }

protected:
  void clear_impl() override {
    seen.clear();
    ++n_clears;
  }
  bool next_impl(std::vector<Tag> &, std::int64_t begin_time, std::int64_t end_time) override {
    seen.emplace_back(begin_time, end_time);
    return false;
  }
  std::vector<std::pair<std::int64_t, std::int64_t>> seen;
  int n_clears = 0;
};

} // namespace

TEST(SynchronizedMeasurementsTest, MembersStartStopAndClearTogether) {
  TestTagger tagger;
  tagger.setAutoFeed(true);
  SynchronizedMeasurements group(&tagger);
  ChronotickBase *proxy = group.getTagger();
  ASSERT_NE(proxy, &tagger);
  EXPECT_EQ(proxy->getInvertedChannel(3), -3);

  SpanRecorder a(proxy);
  // Something else between the members in the chain.
  SpanRecorder outsider(&tagger);
  SpanRecorder b(proxy);
  CountBetweenMarkers markers(proxy, 1, 2, 3, 4);
  EXPECT_EQ(tagger.registrations(1), 4); // channels pass through the proxy
  EXPECT_FALSE(a.isRunning() || b.isRunning() || markers.isRunning() || group.isRunning());
  EXPECT_TRUE(outsider.isRunning());

  // Blocks before the start reach no member.
  ASSERT_TRUE(eventually([&] { return outsider.spans().size() >= 3; }));
  EXPECT_TRUE(a.spans().empty());
  // Started together: both begin with the same block and see the same ones.
  group.start();
  EXPECT_TRUE(a.isRunning() && b.isRunning() && markers.isRunning() && group.isRunning());
  ASSERT_TRUE(eventually([&] { return b.spans().size() >= 5; }));
  group.stop();
  EXPECT_FALSE(a.isRunning() || b.isRunning() || markers.isRunning() || group.isRunning());
  EXPECT_TRUE(outsider.isRunning());
  const auto spans_a = a.spans();
  EXPECT_GE(spans_a.size(), 5u);
  EXPECT_EQ(spans_a, b.spans());

  // One running member makes the group run.
  a.start();
  EXPECT_TRUE(group.isRunning());
  a.stop();

  // A clear of the group clears each member once, at one block, and the
  // members go on together from there.
  group.start();
  ASSERT_TRUE(eventually([&] { return b.spans().size() > spans_a.size() + 3; }));
  group.clear();
  EXPECT_TRUE(a.clears() == 1 && b.clears() == 1);
  tagger.sync();
  group.stop();
  EXPECT_EQ(a.spans(), b.spans());
  ASSERT_FALSE(a.spans().empty());
  EXPECT_GT(a.spans().front().first, spans_a.back().first);

  // startFor: all run the same stretch of stream time and stop by themselves.
  group.startFor(2500000);
  ASSERT_TRUE(eventually([&] { return !group.isRunning(); }));
  for (IteratorBase *m : std::initializer_list<IteratorBase *>{&a, &b, &markers})
    EXPECT_EQ(m->getCaptureDuration(), 2500000);
  EXPECT_EQ(a.spans(), b.spans());

  // A measurement of the real tagger may join and leave.
  group.registerMeasurement(&outsider);
  group.stop();
  EXPECT_FALSE(outsider.isRunning());
  group.unregisterMeasurement(&outsider);
  group.start();
  EXPECT_FALSE(outsider.isRunning());
  EXPECT_TRUE(a.isRunning());
  group.stop();

  // Members may leave the group explicitly.
  for (IteratorBase *m : std::initializer_list<IteratorBase *>{&a, &b, &markers})
    group.unregisterMeasurement(m);
  EXPECT_FALSE(group.isRunning());
  group.start(); // an empty group returns after the next pass
  EXPECT_FALSE(a.isRunning());
  tagger.setAutoFeed(false);
}

TEST(SynchronizedMeasurements, MembersAndGroupMayBeDestroyedInEitherOrder) {
  TestTagger tagger;
  tagger.setAutoFeed(true);
  auto group = std::make_unique<SynchronizedMeasurements>(&tagger);
  auto gone = std::make_unique<SpanRecorder>(group->getTagger());
  SpanRecorder stays(group->getTagger());
  group->start();
  gone.reset(); // leaves the group by itself
  EXPECT_TRUE(group->isRunning());
  group->stop();
  EXPECT_FALSE(stays.isRunning());

  // The group goes first: its member carries on with the real tagger.
  group.reset();
  EXPECT_EQ(tagger.registrations(1), 1);
  stays.start();
  const std::size_t before = stays.spans().size();
  ASSERT_TRUE(eventually([&] { return stays.spans().size() > before; }));
  stays.stop();
  tagger.setAutoFeed(false);
}
