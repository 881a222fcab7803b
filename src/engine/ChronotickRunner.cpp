#include "ChronotickRunner.h"

#include "IteratorSlot.h"
#include "Log.h"

#include <chronotick/IteratorBase.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <thread>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace chronotick {

namespace {
inline std::int32_t fenceDifference(std::uint32_t a, std::uint32_t b) {
  return static_cast<std::int32_t>(a - b);
}

thread_local ChronotickRunner *current_runner = nullptr;

// Workers run at raised priority where the process may raise it; elsewhere
// they silently keep the default.
void raiseThreadPriority() {
  const auto tid = static_cast<id_t>(::syscall(SYS_gettid));
  errno = 0;
  const int current = ::getpriority(PRIO_PROCESS, tid);
  if (errno == 0) {
    (void)::setpriority(PRIO_PROCESS, tid, current - 5);
  }
}
} // namespace

ChronotickRunner::ChronotickRunner()
    : stopping(true), idle_epoch(0), idle_waiters(0), fence_counter(0), fence_pending(false), fence_completed(0),
      fences_closed(false), chain_head(nullptr) {}

ChronotickRunner::~ChronotickRunner() {
  // stopWorkers() ran in the tagger's destructor; anything still queued was
  // never linked and is detached the same way.
  while (!new_iterator_queue.empty()) {
    IteratorSlot *slot = new_iterator_queue.front();
    new_iterator_queue.pop_front();
    detach(slot);
  }
}

void ChronotickRunner::blockDone(const Worker &) {}

ChronotickBase *ChronotickRunner::currentWorkerTagger() {
  return current_runner;
}

void ChronotickRunner::setFenceCountersForTesting(std::uint32_t counter, std::uint32_t completed) {
  std::lock_guard<std::mutex> guard(fence_mutex);
  fence_counter = counter;
  fence_completed = completed;
  fence_pending = false;
}

void ChronotickRunner::threadBody(Worker *worker) {
  raiseThreadPriority();
  current_runner = worker->runner;
  while (!worker->stop.load()) {
    // Measurements' exceptions never get here; a source that runs out of
    // memory must not take the process down with it.
    try {
      worker->runner->runAllIterators(*worker);
    } catch (const std::exception &e) {
      CT_ERROR("Unhandled exception on a worker: %s", e.what());
    } catch (...) {
      CT_ERROR("Unhandled exception on a worker");
    }
  }
}

void ChronotickRunner::startWorkers(unsigned count) {
  {
    std::lock_guard<std::mutex> guard(fence_mutex);
    fence_counter = 0;
    fence_completed = 0;
    fence_pending = false;
    fences_closed = false;
  }
  chain_head = nullptr;
  if (count == 0) {
    count = std::thread::hardware_concurrency();
    if (count == 0) {
      count = 1;
    }
  }
  std::lock_guard<std::mutex> guard(worker_mutex);
  stopping = false;
  for (unsigned i = 0; i < count; ++i) {
    auto worker = std::make_unique<Worker>();
    worker->runner = this;
    worker->thread = std::thread(&ChronotickRunner::threadBody, worker.get());
    workers.push_back(std::move(worker));
  }
}

void ChronotickRunner::detach(IteratorSlot *slot) {
  std::unique_lock<std::mutex> guard(slot->iterator_mutex);
  IteratorBase *iterator = slot->iterator.load();
  if (!iterator) {
    guard.unlock();
    delete slot;
    return;
  }
  // From here on the slot belongs to the iterator, whose destructor frees it.
  iterator->tagger = nullptr;
  if (iterator->running) {
    iterator->running = false;
    iterator->onStopLogged();
  }
}

void ChronotickRunner::stopWorkers() {
  std::list<std::unique_ptr<Worker>> stopped;
  {
    std::lock_guard<std::mutex> guard(worker_mutex);
    stopping = true;
    for (auto &worker : workers) {
      worker->stop.store(true);
    }
    stopped.swap(workers);
  }
  idle_condition.notify_all();
  for (auto &worker : stopped) {
    worker->stop.store(true);
    worker->thread.join(); // raises the standard errors for a self-join or a thread that isn't joinable
  }
  stopped.clear();
  {
    // No block will complete any more: whoever waits for a fence returns.
    std::lock_guard<std::mutex> guard(fence_mutex);
    fences_closed = true;
  }
  fence_condition.notify_all();

  while (chain_head) {
    IteratorSlot *slot = chain_head;
    chain_head = slot->next;
    slot->next = nullptr;
    detach(slot);
  }
  std::deque<IteratorSlot *> pending;
  {
    std::lock_guard<std::mutex> guard(new_iterator_mutex);
    pending.swap(new_iterator_queue);
  }
  for (IteratorSlot *slot : pending) {
    detach(slot);
  }
}

void ChronotickRunner::wakeWorker() {
  idle_epoch.fetch_add(1);
  if (idle_waiters.load() > 0) {
    { std::lock_guard<std::mutex> guard(worker_mutex); }
    idle_condition.notify_one();
  }
}

void ChronotickRunner::waitIdle(std::uint64_t seen_epoch) {
  std::unique_lock<std::mutex> guard(worker_mutex);
  idle_waiters.fetch_add(1);
  idle_condition.wait(guard, [&] { return stopping || idle_epoch.load() != seen_epoch; });
  idle_waiters.fetch_sub(1);
}

void ChronotickRunner::runCallbacks(const JobList &jobs, IteratorBase *iterator) {
  for (const auto &job : jobs) {
    auto entry = job->callbacks.find(iterator);
    if (entry == job->callbacks.end()) {
      continue;
    }
    try {
      entry->second(iterator);
    } catch (const std::exception &e) {
      if (job->state) {
        job->state->failures << "IteratorBase " << static_cast<void *>(iterator) << ": " << e.what() << std::endl;
        job->state->failed = true;
      } else {
        CT_ERROR("Unhandled exception on runSynchronized with IteratorBase %p: %s", static_cast<void *>(iterator),
                 e.what());
      }
    } catch (...) {
      if (job->state) {
        job->state->failures << "IteratorBase " << static_cast<void *>(iterator) << ": unknown exception" << std::endl;
        job->state->failed = true;
      } else {
        CT_ERROR("Unhandled exception on runSynchronized with IteratorBase %p", static_cast<void *>(iterator));
      }
    }
  }
}

void ChronotickRunner::runAllIterators(Worker &worker) {
  std::unique_lock<std::mutex> pass(read_mutex);

  std::uint32_t fence;
  {
    std::lock_guard<std::mutex> guard(fence_mutex);
    fence = fence_counter;
    fence_pending = false;
  }

  bool notified = false;
  const std::function<void()> done = [this, &notified] {
    wakeWorker();
    notified = true;
  };
  const std::uint64_t epoch = idle_epoch.load();
  const ReadResult result = readBlock(worker, pass, fence, done);
  if (result != ReadResult::Delivered || !pass.owns_lock()) {
    if (pass.owns_lock()) {
      pass.unlock();
    }
    if (result == ReadResult::Idle) {
      waitIdle(epoch);
    } else {
      std::this_thread::yield();
    }
    return;
  }

  // Every job queued up to now belongs to this block.
  JobList jobs;
  {
    std::lock_guard<std::mutex> guard(job_mutex);
    if (!job_queue.empty()) {
      jobs.assign(job_queue.begin(), job_queue.end());
      job_queue.clear();
    }
  }

  IteratorSlot **link = &chain_head;
  for (;;) {
    if (*link == nullptr) {
      std::lock_guard<std::mutex> guard(new_iterator_mutex);
      if (new_iterator_queue.empty()) {
        break;
      }
      *link = new_iterator_queue.front();
      new_iterator_queue.pop_front();
    }
    IteratorSlot *slot = *link;
    if (!jobs.empty()) {
      if (IteratorBase *iterator = slot->iterator.load()) {
        runCallbacks(jobs, iterator);
      }
    }
    std::unique_lock<std::mutex> next_lock(slot->chain_mutex);
    IteratorBase *iterator = slot->iterator.load();
    if (!iterator) {
      // The iterator is gone: unlink and free its slot.
      *link = slot->next;
      next_lock.unlock();
      delete slot;
      continue;
    }
    pass = std::move(next_lock); // hand over hand: releases the previous lock
    if (!notified) {
      wakeWorker();
      notified = true;
    }
    iterator->next(pass, worker.tags, worker.begin_time, worker.end_time, worker.fence);
    link = &slot->next;
  }

  if (!jobs.empty()) {
    {
      std::lock_guard<std::mutex> guard(job_mutex);
      for (auto &job : jobs) {
        if (job->state) {
          job->state->done = true;
        }
      }
    }
    job_condition.notify_all();
  }

  // Taken while the last slot's lock is still held: completion advances in block order.
  std::unique_lock<std::mutex> fence_lock(fence_mutex);
  if (pass.owns_lock()) {
    pass.unlock();
  }
  const bool changed = fence_completed != worker.fence;
  fence_completed = worker.fence;
  fence_lock.unlock();
  if (changed) {
    fence_condition.notify_all();
  }
  blockDone(worker);
}

IteratorSlot *ChronotickRunner::addIterator(IteratorBase *iterator) {
  auto *slot = new IteratorSlot(iterator);
  iterator->slot = slot; // before a worker can link it and call next()
  std::lock_guard<std::mutex> guard(new_iterator_mutex);
  new_iterator_queue.push_back(slot);
  return slot;
}

std::uint32_t ChronotickRunner::getFence(bool alloc) {
  std::unique_lock<std::mutex> guard(fence_mutex);
  if (!alloc || fence_pending) {
    return fence_counter;
  }
  // At most 100 fences run ahead of the completed block.
  fence_condition.wait(guard,
                       [this] { return fences_closed || fenceDifference(fence_completed, fence_counter) > -100; });
  ++fence_counter;
  fence_pending = true;
  return fence_counter;
}

bool ChronotickRunner::waitForFence(std::uint32_t fence, std::int32_t timeout) {
  std::unique_lock<std::mutex> guard(fence_mutex);
  auto reached = [this, fence] { return fenceDifference(fence_completed, fence) >= 0; };
  if (timeout == 0) {
    return reached();
  }
  auto over = [&] { return fences_closed || reached(); };
  if (timeout < 0) {
    fence_condition.wait(guard, over);
  } else {
    fence_condition.wait_for(guard, std::chrono::milliseconds(timeout), over);
  }
  return reached();
}

void ChronotickRunner::sync() {
  waitForFence(getFence(true), -1);
}

void ChronotickRunner::runSynchronized(const std::map<IteratorBase *, std::function<void(IteratorBase *)>> &callbacks,
                                       bool block) {
  auto job = std::make_shared<SyncJob>();
  job->callbacks = callbacks;
  if (!block) {
    std::lock_guard<std::mutex> guard(job_mutex);
    job_queue.push_back(std::move(job));
    return;
  }
  SyncJobState state;
  job->state = &state;
  std::unique_lock<std::mutex> guard(job_mutex);
  job_queue.push_back(job);
  job_condition.wait(guard, [&state] { return state.done; });
  if (state.failed) {
    throw std::runtime_error(state.failures.str());
  }
}

} // namespace chronotick
