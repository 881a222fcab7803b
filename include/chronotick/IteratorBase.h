#pragma once

#include <chronotick/Export.h>
#include <chronotick/OrderedBarrier.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <vector>

namespace chronotick {

class ChronotickBase;
class ChronotickRunner;
struct IteratorSlot;

// Base of every measurement and virtual channel. A subclass implements
// next_impl, which receives every block of tags while the measurement runs,
// on a worker thread and under the iterator's mutex.
//
// The rules a subclass follows are in docs/engine.md: constructor order
// (check arguments, register channels, clear(), finishInitialization() last),
// stop() first in the destructor, which hooks hold the mutex, what happens to
// exceptions, parallelize/unlock/lock for slow work, allocate-then-lock in
// getters, and fences.
class CHRONOTICK_API IteratorBase {
public:
  virtual ~IteratorBase();

  IteratorBase(const IteratorBase &) = delete;
  IteratorBase &operator=(const IteratorBase &) = delete;

  // Starts (or keeps running) without a capture limit.
  void start();
  // Runs for `capture_duration` picoseconds of stream time, then stops.
  void startFor(std::int64_t capture_duration, bool clear = true);
  // When this returns, no worker is inside this iterator's next_impl.
  void stop();
  // Drops the results; no tag of a block read before this call is seen.
  void clear();
  bool isRunning();
  std::int64_t getCaptureDuration();

  // The group interface, for SynchronizedMeasurements: each call takes the
  // iterator's mutex itself.
  // Membership: `on_destroy` runs when this iterator is destroyed, so that
  // the group forgets it; `start_with_group` keeps finishInitialization from
  // starting it (called from the group's addIterator, inside the constructor).
  void joinGroup(std::function<void(IteratorBase *)> on_destroy, bool start_with_group);
  // Ends membership; if the iterator runs on `group_tagger`, it goes on with `tagger_after`.
  void leaveGroup(ChronotickBase *group_tagger, ChronotickBase *tagger_after);
  // Blocks with an older fence than this are ignored, as after start or clear.
  void ignoreBlocksBefore(std::uint32_t fence);

protected:
  explicit IteratorBase(ChronotickBase *tagger);

  virtual void clear_impl() {}
  virtual void on_start() {}
  virtual void on_stop() {}
  // `tags` is the block in time order; what this call leaves in it is what
  // later iterators see. Returns true only if it changed or replaced `tags`.
  virtual bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) = 0;

  // Last line of every subclass constructor.
  void finishInitialization();
  void registerChannel(std::int32_t channel);
  void unregisterChannel(std::int32_t channel);
  std::int32_t getNewVirtualChannel();

  void lock();
  void unlock();
  // The iterator's mutex, already locked. Accessors of results use it.
  std::unique_lock<std::mutex> getLock();

  // For next_impl, which holds the iterator's mutex: the measurement ends its
  // own run here (running becomes false and on_stop runs).
  void stopWithinNext();

  // Opens the next ordered stage of this next_impl call (see OrderedBarrier).
  OrderedBarrier::OrderInstance parallelize(OrderedPipeline &pipeline);

  // The tagger; null once the engine has detached this iterator.
  ChronotickBase *tagger;

private:
  friend class ChronotickRunner;

  void next(std::unique_lock<std::mutex> &lock, std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time,
            std::uint32_t fence);
  void pre_stop();
  void stopAfterException();
  // Runs on_stop for the engine, which must not let its exception through.
  void onStopLogged();

  std::set<std::int32_t> channels;
  bool running;
  bool needs_start;
  std::int64_t capture_duration;
  IteratorSlot *slot;
  std::int64_t capture_limit;
  std::uint32_t block_fence;
  std::vector<Tag> cut_tags; // kept across startFor cuts to avoid reallocations
  // Set while a group holds this iterator: a destroyed member leaves its group.
  std::function<void(IteratorBase *)> leave_group;
};

} // namespace chronotick
