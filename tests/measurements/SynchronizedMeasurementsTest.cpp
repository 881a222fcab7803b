#include <chronotick/CountBetweenMarkers.h>
#include <chronotick/SynchronizedMeasurements.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

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

private:
  std::vector<std::pair<std::int64_t, std::int64_t>> seen;
  int n_clears = 0;
};

template <class F> bool eventually(F condition) {
  for (int i = 0; i < 5000; ++i) {
    if (condition())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

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
  EXPECT_FALSE(a.isRunning());
  EXPECT_FALSE(b.isRunning());
  EXPECT_FALSE(markers.isRunning());
  EXPECT_TRUE(outsider.isRunning());
  EXPECT_FALSE(group.isRunning());

  // Started together: both begin with the same block and see the same ones.
  group.start();
  EXPECT_TRUE(a.isRunning() && b.isRunning() && markers.isRunning());
  EXPECT_TRUE(group.isRunning());
  ASSERT_TRUE(eventually([&] { return b.spans().size() >= 5; }));
  group.stop();
  EXPECT_FALSE(a.isRunning() || b.isRunning() || markers.isRunning());
  EXPECT_FALSE(group.isRunning());
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
  EXPECT_EQ(a.clears(), 1);
  EXPECT_EQ(b.clears(), 1);
  tagger.sync();
  group.stop();
  EXPECT_EQ(a.spans(), b.spans());
  ASSERT_FALSE(a.spans().empty());
  EXPECT_GT(a.spans().front().first, spans_a.back().first);

  // startFor: all run the same stretch of stream time and stop by themselves.
  group.startFor(2500000);
  ASSERT_TRUE(eventually([&] { return !group.isRunning(); }));
  EXPECT_EQ(a.getCaptureDuration(), 2500000);
  EXPECT_EQ(b.getCaptureDuration(), 2500000);
  EXPECT_EQ(markers.getCaptureDuration(), 2500000);
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

  // Members leave the group before they are destroyed.
  for (IteratorBase *m :
       {static_cast<IteratorBase *>(&a), static_cast<IteratorBase *>(&b), static_cast<IteratorBase *>(&markers)})
    group.unregisterMeasurement(m);
  EXPECT_FALSE(group.isRunning());
  group.start(); // an empty group returns after the next pass
  EXPECT_FALSE(a.isRunning());
  tagger.setAutoFeed(false);
}

TEST(SynchronizedMeasurementsTest, MembersSeeTheSameDataFromTheSameBlock) {
  TestTagger tagger;
  SynchronizedMeasurements group(&tagger);
  CountBetweenMarkers first(group.getTagger(), 1, 2, CHANNEL_UNUSED, 3);
  CountBetweenMarkers second(group.getTagger(), 1, 2, CHANNEL_UNUSED, 3);
  // Blocks before the start reach neither.
  tagger.pushAndWait({makeTag(2, 100), makeTag(1, 110)}, 0, 1000);
  tagger.setAutoFeed(true, 100);
  group.start();
  tagger.setAutoFeed(false);
  tagger.waitUntilDone();
  const std::int64_t t = tagger.lastEndTime();
  tagger.pushAndWait({makeTag(2, t + 100), makeTag(1, t + 110), makeTag(1, t + 120), makeTag(2, t + 200)}, t, t + 1000);
  std::vector<std::int32_t> a, b;
  first.getData([&](std::size_t n) {
    a.resize(n);
    return a.data();
  });
  second.getData([&](std::size_t n) {
    b.resize(n);
    return b.data();
  });
  EXPECT_EQ(a, (std::vector<std::int32_t>{2, 0, 0}));
  EXPECT_EQ(a, b);
  tagger.setAutoFeed(true); // the group's calls wait for a pass
  group.stop();
  tagger.setAutoFeed(false);
  EXPECT_FALSE(first.isRunning() || second.isRunning());
  group.unregisterMeasurement(&first);
  group.unregisterMeasurement(&second);
}
