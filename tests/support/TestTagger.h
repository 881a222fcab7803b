#pragma once

// A tagger for tests and benchmarks: the real engine (workers, chain, fences)
// fed with blocks that the test pushes. With nothing queued the workers sleep.

#include <chronotick/ChronotickBase.h>
#include <chronotick/Tag.h>

#include "engine/ChronotickRunner.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace chronotick::testing {

struct Block {
  std::vector<Tag> tags;
  std::int64_t begin_time = 0;
  std::int64_t end_time = 0;
};

class TestTagger : public ChronotickRunner {
public:
  // n_inputs physical inputs numbered with `scheme` (ZERO or ONE).
  // workers: number of worker threads, 0 for one per hardware thread.
  explicit TestTagger(int n_inputs = 8, int scheme = CT_CHANNEL_NUMBER_SCHEME_ONE, unsigned workers = 0);
  ~TestTagger() override;

  // Queues a block. Blocks are handed to the engine in push order.
  void push(std::vector<Tag> tags, std::int64_t begin_time, std::int64_t end_time);
  // Queues a block spanning [end of the last pushed block, end_time].
  void push(std::vector<Tag> tags, std::int64_t end_time);
  // Queues a copy of `tags` in a recycled vector: no allocation once warm,
  // which keeps source costs out of benchmarks.
  void pushCopy(const std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time);
  // Queues a block and waits until it has passed the whole chain.
  void pushAndWait(std::vector<Tag> tags, std::int64_t begin_time, std::int64_t end_time);
  void pushAndWait(std::vector<Tag> tags, std::int64_t end_time);
  // Waits until every pushed block has passed the whole chain.
  void waitUntilDone();
  // Pushes `tags` as blocks cut at the given tag indices (sorted, within
  // [0, tags.size()]); block spans are contiguous from begin_time to
  // end_time and each cut block ends at its first excluded tag's time.
  void pushCut(const std::vector<Tag> &tags, const std::vector<std::size_t> &cuts, std::int64_t begin_time,
               std::int64_t end_time);

  // While on, an empty queue yields empty blocks of `span` ps (about one per
  // millisecond), as a running instrument would; runSynchronized needs them.
  void setAutoFeed(bool on, std::int64_t span = 1000000);

  // End time of the last block queued.
  std::int64_t lastEndTime();

  // How often a channel is registered now (0 if not at all).
  int registrations(std::int32_t channel);

  using ChronotickRunner::setFenceCountersForTesting;

  // ChronotickBase
  std::int32_t getInvertedChannel(std::int32_t channel) override;
  bool isUnusedChannel(std::int32_t channel) override;
  std::string getConfiguration() override;
  void setInputDelay(std::int32_t channel, std::int64_t delay) override;
  std::int64_t getInputDelay(std::int32_t channel) override;
  std::int64_t setDeadtime(std::int32_t channel, std::int64_t deadtime) override;
  std::int64_t getDeadtime(std::int32_t channel) override;
  void setTestSignal(std::vector<std::int32_t> channels, bool enable) override;
  void setTestSignal(std::int32_t channel, bool enable) override;
  bool getTestSignal(std::int32_t channel) override;
  std::int64_t getOverflows() override;
  void clearOverflows() override;
  std::int64_t getOverflowsAndClear() override;
  std::int32_t getNewVirtualChannel() override;
  void registerChannel(std::int32_t channel) override;
  void unregisterChannel(std::int32_t channel) override;

protected:
  ReadResult readBlock(Worker &worker, std::unique_lock<std::mutex> &lock, std::uint32_t fence,
                       const std::function<void()> &done) override;
  void blockDone(const Worker &worker) override;

private:
  bool isPhysical(std::int32_t channel) const;

  const int n_inputs;
  const int channel_scheme;

  std::mutex queue_mutex;
  std::condition_variable done_condition;
  std::deque<Block> queue;
  std::vector<std::vector<Tag>> spare; // vectors handed back by workers
  std::uint64_t pushed = 0;            // blocks queued so far
  std::uint64_t handed = 0;            // blocks handed to workers so far
  std::uint64_t completed = 0;         // highest block number that left the chain
  std::int64_t last_end = 0;
  bool auto_feed = false;
  std::int64_t auto_span = 1000000;

  std::mutex config_mutex;
  std::int32_t next_virtual = 257;
  std::map<std::int32_t, int> registered;
  std::map<std::int32_t, std::int64_t> delays;
  std::map<std::int32_t, std::int64_t> deadtimes;
  std::map<std::int32_t, bool> test_signals;
  std::int64_t overflows = 0;
};

// Random helpers for reference checks.
std::vector<std::size_t> randomCuts(std::size_t n_tags, std::size_t n_cuts, std::uint64_t seed);

// Polls `done` until it holds; the limit only keeps a broken build from hanging.
template <typename F> bool eventually(F done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

} // namespace chronotick::testing
