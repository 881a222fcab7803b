#include "Probes.h"
#include "support/TestTagger.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <random>
#include <thread>

using chronotick::IteratorBase;
using chronotick::Tag;
using chronotick::testing::TestTagger;
using probes::Recorder;
using probes::tag;

TEST(ChronotickRunner, EveryIteratorSeesEveryBlockOnceAndInOrder) {
  TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE, 4);
  std::vector<std::unique_ptr<Recorder>> chain;
  for (int i = 0; i < 6; ++i)
    chain.push_back(std::make_unique<Recorder>(&tagger));
  const int n_blocks = 2000;
  for (int k = 0; k < n_blocks; ++k)
    tagger.push({tag(1, k)}, k, k + 1);
  tagger.waitUntilDone();
  for (auto &c : chain) {
    auto blocks = c->blocks();
    ASSERT_EQ(blocks.size(), static_cast<std::size_t>(n_blocks));
    for (int k = 0; k < n_blocks; ++k)
      ASSERT_EQ(blocks[static_cast<std::size_t>(k)].tags[0].time, k);
  }
}

TEST(ChronotickRunner, IteratorsBuiltAndDestroyedWhileBlocksFlow) {
  TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE, 2);
  tagger.setAutoFeed(true, 1000);
  std::atomic<bool> go{true};
  std::vector<std::thread> clients;
  std::atomic<int> built{0};
  for (int c = 0; c < 3; ++c) {
    clients.emplace_back([&, c] {
      std::mt19937 rng(static_cast<unsigned>(c));
      while (go.load()) {
        auto rec = std::make_unique<Recorder>(&tagger);
        if (rng() % 2)
          std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
        if (rng() % 3 == 0)
          rec->clear();
        rec->stop();
        ++built;
      }
    });
  }
  for (int k = 0; k < 200; ++k)
    tagger.push({tag(1, k)}, tagger.lastEndTime() + 10);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  go = false;
  for (auto &t : clients)
    t.join();
  tagger.setAutoFeed(false);
  tagger.waitUntilDone();
  EXPECT_GT(built.load(), 10);

  // An iterator built while blocks flow sees what the earlier ones left.
  probes::Shifter shifter(&tagger, 400);
  Recorder rec(&tagger);
  tagger.pushAndWait({tag(1, tagger.lastEndTime() + 1)}, tagger.lastEndTime() + 5);
  auto tags = rec.tags();
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_EQ(tags[1].channel, 400);
}

TEST(ChronotickRunner, StopWorkersDetachesAttachedIterators) {
  auto tagger = std::make_unique<TestTagger>();
  Recorder running(tagger.get());
  Recorder stopped(tagger.get(), false);
  tagger->pushAndWait({tag(1, 1)}, 0, 10);
  tagger.reset(); // stops the workers
  EXPECT_FALSE(running.isRunning());
  EXPECT_EQ(running.stops(), 1);
  EXPECT_EQ(stopped.stops(), 0);
  EXPECT_EQ(running.blocks().size(), 1u) << "results stay readable after detachment";
  running.start(); // works without fences
  EXPECT_TRUE(running.isRunning());
  running.clear();
  EXPECT_EQ(running.blocks().size(), 0u);
  running.stop();
}

TEST(ChronotickRunner, FencesAndSync) {
  TestTagger tagger;
  const std::uint32_t f1 = tagger.getFence(true);
  EXPECT_EQ(tagger.getFence(true), f1) << "two quick calls share a fence";
  EXPECT_EQ(tagger.getFence(false), f1);
  EXPECT_FALSE(tagger.waitForFence(f1, 20));
  tagger.pushAndWait({}, 0, 10);
  EXPECT_TRUE(tagger.waitForFence(f1, 0));
  EXPECT_TRUE(tagger.waitForFence(f1, -1));
  EXPECT_EQ(tagger.getFence(true), f1 + 1);

  // sync blocks while delivery stalls and returns once a later block passed.
  auto synced = std::async(std::launch::async, [&] { tagger.sync(); });
  EXPECT_EQ(synced.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  tagger.push({}, 10, 20);
  EXPECT_EQ(synced.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(ChronotickRunner, FenceThrottleAndWrapAround) {
  TestTagger tagger;
  for (std::uint32_t completed : {0u, 0xFFFFFFF0u}) {
    // 100 fences ahead of the completed block: the next fresh fence waits.
    tagger.setFenceCountersForTesting(completed + 100, completed);
    auto fence = std::async(std::launch::async, [&] { return tagger.getFence(true); });
    EXPECT_EQ(fence.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    tagger.push({}, tagger.lastEndTime(), tagger.lastEndTime() + 1);
    ASSERT_EQ(fence.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(fence.get(), completed + 101);
    tagger.waitUntilDone();
  }
  // Across the wrap, clear still keeps old blocks away and lets new ones in;
  // an iterator that keeps the last fence before the wrap goes on receiving
  // the blocks that carry the fences after it.
  tagger.setFenceCountersForTesting(0xFFFFFFFEu, 0xFFFFFFFEu);
  Recorder steady(&tagger);
  Recorder rec(&tagger);
  for (int round = 0; round < 4; ++round) {
    const std::int64_t t0 = tagger.lastEndTime();
    tagger.pushAndWait({tag(1, t0 + 1)}, t0, t0 + 10);
    ASSERT_EQ(rec.tags().size(), 1u) << "round " << round;
    ASSERT_EQ(steady.tags().size(), std::size_t(round + 1)) << "round " << round;
    rec.clear();
  }
}

TEST(ChronotickRunner, RunSynchronizedCallsEachCallbackOnceInChainOrder) {
  TestTagger tagger;
  Recorder a(&tagger);
  Recorder b(&tagger);
  tagger.setAutoFeed(true, 1000);
  std::vector<IteratorBase *> order;
  std::vector<std::int64_t> captured;
  std::mutex m;
  std::map<IteratorBase *, std::function<void(IteratorBase *)>> callbacks;
  for (IteratorBase *it : {static_cast<IteratorBase *>(&b), static_cast<IteratorBase *>(&a)}) {
    callbacks[it] = [&](IteratorBase *self) {
      const std::int64_t duration = self->getCaptureDuration();
      std::lock_guard<std::mutex> g(m);
      order.push_back(self);
      captured.push_back(duration);
    };
  }
  tagger.runSynchronized(callbacks, true);
  EXPECT_EQ(order, (std::vector<IteratorBase *>{&a, &b}));
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0], captured[1]) << "both callbacks must run during the same pass";

  // A throwing callback makes the blocking call raise with the iterator's address.
  callbacks.clear();
  callbacks[&b] = [](IteratorBase *) { throw std::runtime_error("no way"); };
  std::ostringstream expected;
  expected << "IteratorBase " << static_cast<void *>(static_cast<IteratorBase *>(&b)) << ": no way\n";
  EXPECT_THAT([&] { tagger.runSynchronized(callbacks, true); },
              ::testing::ThrowsMessage<std::runtime_error>(expected.str()));
  tagger.runSynchronized({}, true); // an empty group returns after the next pass
  tagger.setAutoFeed(false);
}
