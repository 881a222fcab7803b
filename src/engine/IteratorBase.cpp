#include <chronotick/ChronotickBase.h>
#include <chronotick/IteratorBase.h>

#include "IteratorSlot.h"
#include "Log.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <stdexcept>

namespace chronotick {

namespace {
// Fences compare by signed 32-bit difference so that the counters may wrap.
inline bool fenceIsLater(std::uint32_t a, std::uint32_t b) {
  return static_cast<std::int32_t>(a - b) > 0;
}
} // namespace

IteratorBase::IteratorBase(ChronotickBase *tagger_)
    : tagger(tagger_), running(false), needs_start(true), capture_duration(0), slot(nullptr), capture_limit(-1),
      block_fence(0) {
  if (!tagger) {
    throw std::invalid_argument("tagger must not be null");
  }
  // The engine publishes the slot itself before a worker can see it; assign
  // only for taggers that don't.
  IteratorSlot *enrolled = tagger->addIterator(this);
  if (slot != enrolled) {
    slot = enrolled;
  }
}

IteratorBase::~IteratorBase() {
  std::function<void(IteratorBase *)> leave;
  {
    std::lock_guard<std::mutex> guard(slot->iterator_mutex);
    leave.swap(leave_group);
  }
  if (leave) {
    leave(this);
  }
  bool owns_slot;
  {
    std::lock_guard<std::mutex> chain_guard(slot->chain_mutex);
    std::lock_guard<std::mutex> guard(slot->iterator_mutex);
    if (running) {
      CT_ERROR("Iterator still running, please call stop() within the destructor");
    }
    if (tagger) {
      for (std::int32_t channel : channels) {
        tagger->unregisterChannel(channel);
      }
    }
    channels.clear();
    // Attached: the engine unlinks and frees the slot on its next pass.
    // Detached: the slot is ours.
    owns_slot = tagger == nullptr;
    slot->iterator.store(nullptr);
  }
  if (owns_slot) {
    delete slot;
  }
}

void IteratorBase::start() {
  std::unique_lock<std::mutex> guard(slot->iterator_mutex);
  capture_limit = -1;
  if (running) {
    return;
  }
  if (tagger) {
    // A fresh fence may wait for blocks to complete, which need this mutex.
    ChronotickBase *t = tagger;
    guard.unlock();
    std::uint32_t fence = t->getFence(true);
    guard.lock();
    block_fence = fence;
  }
  if (!running) {
    on_start();
    running = true;
  }
}

void IteratorBase::startFor(std::int64_t duration, bool clear) {
  std::uint32_t fence = 0;
  bool have_fence = false;
  {
    // Only a clear or the start of a stopped run cuts the stream: extending a
    // running capture leaves the fences alone.
    std::unique_lock<std::mutex> probe(slot->iterator_mutex);
    ChronotickBase *t = tagger;
    const bool needs_fence = clear || !running;
    probe.unlock();
    if (t && needs_fence) {
      fence = t->getFence(true);
      have_fence = true;
    }
  }
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  const bool attached = have_fence && tagger != nullptr;
  if (clear) {
    capture_duration = 0;
    clear_impl();
    capture_limit = duration;
    if (attached) {
      block_fence = fence;
    }
  } else {
    capture_limit = capture_duration + duration;
    if (attached && !running) {
      block_fence = fence;
    }
  }
  if (!running) {
    on_start();
    running = true;
  }
}

void IteratorBase::stop() {
  std::lock_guard<std::mutex> chain_guard(slot->chain_mutex);
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  if (running) {
    running = false;
    pre_stop();
    on_stop();
  }
}

void IteratorBase::clear() {
  std::unique_lock<std::mutex> guard(slot->iterator_mutex);
  ChronotickBase *t = tagger;
  if (t) {
    guard.unlock();
    std::uint32_t fence = t->getFence(true);
    guard.lock();
    if (tagger) {
      block_fence = fence;
    }
  }
  capture_duration = 0;
  clear_impl();
}

bool IteratorBase::isRunning() {
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  return running;
}

std::int64_t IteratorBase::getCaptureDuration() {
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  return capture_duration;
}

void IteratorBase::joinGroup(std::function<void(IteratorBase *)> on_destroy, bool start_with_group) {
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  leave_group = std::move(on_destroy);
  if (start_with_group) {
    needs_start = false;
  }
}

void IteratorBase::leaveGroup(ChronotickBase *group_tagger, ChronotickBase *tagger_after) {
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  leave_group = nullptr;
  if (tagger != nullptr && tagger == group_tagger) {
    tagger = tagger_after;
  }
}

void IteratorBase::ignoreBlocksBefore(std::uint32_t fence) {
  std::lock_guard<std::mutex> guard(slot->iterator_mutex);
  block_fence = fence;
}

void IteratorBase::finishInitialization() {
  bool start_now;
  {
    std::lock_guard<std::mutex> guard(slot->iterator_mutex);
    start_now = needs_start;
  }
  if (start_now) {
    start();
  }
}

void IteratorBase::registerChannel(std::int32_t channel) {
  if (!tagger || tagger->isUnusedChannel(channel)) {
    return;
  }
  if (channels.insert(channel).second) {
    tagger->registerChannel(channel);
  }
}

void IteratorBase::unregisterChannel(std::int32_t channel) {
  if (!tagger || tagger->isUnusedChannel(channel)) {
    return;
  }
  if (channels.erase(channel) != 0) {
    tagger->unregisterChannel(channel);
  }
}

std::int32_t IteratorBase::getNewVirtualChannel() {
  return tagger ? tagger->getNewVirtualChannel() : CHANNEL_UNUSED;
}

void IteratorBase::lock() {
  slot->iterator_mutex.lock();
}

void IteratorBase::unlock() {
  slot->iterator_mutex.unlock();
}

std::unique_lock<std::mutex> IteratorBase::getLock() {
  return std::unique_lock<std::mutex>(slot->iterator_mutex);
}

OrderedBarrier::OrderInstance IteratorBase::parallelize(OrderedPipeline &pipeline) {
  auto &barriers = slot->barriers;
  if (pipeline.position == barriers.size()) {
    barriers.push_back(std::make_unique<OrderedBarrier>());
  }
  return barriers[pipeline.position++]->queue();
}

void IteratorBase::pre_stop() {
  if (slot->barriers.empty()) {
    return;
  }
  // Barriers are only added, and only under the iterator mutex: take a snapshot.
  std::vector<OrderedBarrier *> barriers;
  for (auto &barrier : slot->barriers) {
    barriers.push_back(barrier.get());
  }
  slot->iterator_mutex.unlock();
  for (OrderedBarrier *barrier : barriers) {
    barrier->waitUntilFinished();
  }
  slot->iterator_mutex.lock();
}

void IteratorBase::stopWithinNext() {
  if (running) {
    running = false;
    on_stop();
  }
}

void IteratorBase::stopAfterException() {
  if (!running) {
    return; // next_impl ended the run itself before it threw
  }
  running = false;
  pre_stop();
  onStopLogged();
}

void IteratorBase::onStopLogged() {
  try {
    on_stop();
  } catch (const std::exception &e) {
    CT_ERROR("Unhandled exception on stopping IteratorBase %p: %s", static_cast<void *>(this), e.what());
  } catch (...) {
    CT_ERROR("Unhandled exception on stopping IteratorBase %p", static_cast<void *>(this));
  }
}

void IteratorBase::next(std::unique_lock<std::mutex> &lock, std::vector<Tag> &tags, std::int64_t begin_time,
                        std::int64_t end_time, std::uint32_t fence) {
  std::unique_lock<std::mutex> local(slot->iterator_mutex);
  if (!running) {
    return;
  }
  if (fenceIsLater(block_fence, fence)) {
    return; // read before the last start or clear
  }
  block_fence = fence;

  const std::int64_t cut_time = begin_time + capture_limit - capture_duration;
  if (capture_limit < 0 || cut_time >= end_time) {
    // Hand over: keep this iterator's mutex and let the next worker have the
    // chain position while this one works.
    lock = std::move(local);
    try {
      next_impl(tags, begin_time, end_time);
      capture_duration += end_time - begin_time;
    } catch (const std::exception &e) {
      CT_ERROR("Unhandled exception on IteratorBase %p: %s", static_cast<void *>(this), e.what());
      stopAfterException();
    } catch (...) {
      CT_ERROR("Unhandled exception on IteratorBase %p", static_cast<void *>(this));
      stopAfterException();
    }
    return;
  }

  // The capture ends inside this block: deliver only the tags before the cut.
  auto first_after = std::find_if(tags.begin(), tags.end(), [cut_time](const Tag &t) { return t.time >= cut_time; });
  cut_tags.assign(tags.begin(), first_after);
  bool changed;
  try {
    changed = next_impl(cut_tags, begin_time, cut_time);
  } catch (const std::exception &e) {
    CT_ERROR("Unhandled exception on IteratorBase %p: %s", static_cast<void *>(this), e.what());
    stopAfterException();
    return;
  } catch (...) {
    CT_ERROR("Unhandled exception on IteratorBase %p", static_cast<void *>(this));
    stopAfterException();
    return;
  }
  capture_duration += cut_time - begin_time;
  if (changed) {
    // Later iterators see the changed first part and the untouched rest.
    cut_tags.insert(cut_tags.end(), first_after, tags.end());
    tags.swap(cut_tags);
  }
  if (!running) {
    return; // next_impl already ended the run itself
  }
  running = false;
  onStopLogged();
}

} // namespace chronotick
