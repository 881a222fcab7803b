#include "support/TestTagger.h"

#include <chronotick/IteratorBase.h>
#include <chronotick/OrderedBarrier.h>

#include <gtest/gtest.h>

#include <thread>

using chronotick::OrderedBarrier;
using chronotick::Tag;

TEST(OrderedBarrier, TicketsFinishInOrderWhateverTheThreadOrder) {
  OrderedBarrier barrier;
  barrier.waitUntilFinished(); // a fresh barrier has nothing to wait for
  { OrderedBarrier::OrderInstance unused; }

  std::vector<OrderedBarrier::OrderInstance> tickets;
  for (int i = 0; i < 3; ++i)
    tickets.push_back(barrier.queue());
  std::mutex m;
  std::vector<int> finished;
  std::vector<std::thread> threads;
  for (int i = 2; i >= 0; --i) {
    threads.emplace_back([&, i] {
      tickets[static_cast<std::size_t>(i)].sync();
      {
        std::lock_guard<std::mutex> g(m);
        finished.push_back(i);
      }
      tickets[static_cast<std::size_t>(i)].release();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(finished, (std::vector<int>{0, 1, 2}));
  barrier.waitUntilFinished();

  // An instance released through its destructor lets the next one go.
  {
    auto a = barrier.queue();
    a.sync();
  }
  auto b = barrier.queue();
  b.sync();
  b.release();
  barrier.waitUntilFinished();
}

namespace {
// Works on several blocks at once and appends each block's number in order.
class ParallelStages : public chronotick::IteratorBase {
public:
  explicit ParallelStages(chronotick::ChronotickBase *t) : IteratorBase(t) { finishInitialization(); }
  ~ParallelStages() override { stop(); }
  std::vector<std::int64_t> order;

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) override {
    chronotick::OrderedPipeline pipeline;
    auto first = parallelize(pipeline);
    auto second = parallelize(pipeline);
    unlock();
    std::this_thread::sleep_for(std::chrono::microseconds(300 * (tags[0].time % 3)));
    first.sync();
    first.release();
    second.sync();
    lock();
    order.push_back(tags[0].time);
    second.release();
    return false;
  }
};
} // namespace

TEST(OrderedBarrier, ParallelStagesKeepBlockOrderAndStopWaitsForThem) {
  chronotick::testing::TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE, 2);
  ParallelStages stages(&tagger);
  std::vector<std::int64_t> expected;
  for (int k = 0; k < 200; ++k) {
    tagger.push({Tag{Tag::Type::TimeTag, 0, 0, 1, k}}, k, k + 1);
    expected.push_back(k);
  }
  tagger.waitUntilDone();
  stages.stop();
  EXPECT_EQ(stages.order, expected);
}
