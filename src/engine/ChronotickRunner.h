#pragma once

#include <chronotick/ChronotickBase.h>

#include "Worker.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <vector>

namespace chronotick {

// The engine that every tagger inherits beside its public interface: a pool
// of workers that carry blocks from the source along the chain of all
// iterators, one behind the other, never overtaking.
class ChronotickRunner : public virtual ChronotickBase {
public:
  ChronotickRunner();
  ~ChronotickRunner() override;

  std::uint32_t getFence(bool alloc = true) override;
  bool waitForFence(std::uint32_t fence, std::int32_t timeout = -1) override;
  void sync() override;
  void runSynchronized(const std::map<IteratorBase *, std::function<void(IteratorBase *)>> &callbacks,
                       bool block = true) override;
  IteratorSlot *addIterator(IteratorBase *iterator) override;

  // The tagger whose worker the calling thread is, or null on any other
  // thread. A tagger can't be destroyed on one of its own workers, which
  // would have to join itself.
  static ChronotickBase *currentWorkerTagger();

protected:
  // What a source's readBlock did.
  enum class ReadResult {
    Delivered,    // the worker holds a block; `lock` still holds a lock of the source
    TryAgainSoon, // no block yet, but one may come at once: the worker asks again
    Idle,         // nothing to do: the worker sleeps until wakeWorker
  };

  // The one source-specific operation, called on a worker with the read
  // mutex held in `lock`. To deliver a block: fill worker.tags, begin_time
  // and end_time, set worker.fence = fence, and return Delivered with `lock`
  // still owning a mutex (the read mutex, or one of the source's that it was
  // handed over to), so that blocks enter the chain in the order they were
  // read. `done` may be called once, when another worker may start reading.
  // With no block, return TryAgainSoon or Idle; the engine releases `lock`.
  virtual ReadResult readBlock(Worker &worker, std::unique_lock<std::mutex> &lock, std::uint32_t fence,
                               const std::function<void()> &done) = 0;

  // Called after a block has left the chain and its fence was published.
  virtual void blockDone(const Worker &worker);

  // One worker per hardware thread unless `count` says otherwise.
  void startWorkers(unsigned count = 0);
  void stopWorkers();
  void runAllIterators(Worker &worker);

  // Wakes one worker sleeping because the source had nothing to do.
  void wakeWorker();

  // Test hook: lets tests put the fence counters anywhere (e.g. near 2^32).
  void setFenceCountersForTesting(std::uint32_t counter, std::uint32_t completed);

private:
  struct SyncJobState {
    std::ostringstream failures;
    bool failed = false;
    bool done = false;
  };
  struct SyncJob {
    std::map<IteratorBase *, std::function<void(IteratorBase *)>> callbacks;
    SyncJobState *state = nullptr;
  };

  using JobList = std::vector<std::shared_ptr<SyncJob>>;

  static void threadBody(Worker *worker);
  void waitIdle(std::uint64_t seen_epoch);
  void runCallbacks(const JobList &jobs, IteratorBase *iterator);
  static void detach(IteratorSlot *slot);

  std::mutex worker_mutex;
  std::condition_variable idle_condition;
  std::list<std::unique_ptr<Worker>> workers;
  bool stopping;
  std::atomic<std::uint64_t> idle_epoch;
  std::atomic<int> idle_waiters;

  std::mutex fence_mutex;
  std::condition_variable fence_condition;
  std::uint32_t fence_counter;
  bool fence_pending;
  std::uint32_t fence_completed;
  bool fences_closed; // set when the workers stop: fence waits return

  std::mutex job_mutex;
  std::condition_variable job_condition;
  std::deque<std::shared_ptr<SyncJob>> job_queue;

  std::mutex new_iterator_mutex;
  std::deque<IteratorSlot *> new_iterator_queue;
  IteratorSlot *chain_head;

  std::mutex read_mutex;
};

} // namespace chronotick
