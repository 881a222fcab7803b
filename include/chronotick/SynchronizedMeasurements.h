#pragma once

#include <chronotick/Export.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>

namespace chronotick {

class ChronotickBase;
class ChronotickProxy;
class IteratorBase;

// Starts, stops and clears a group of measurements at the same point of the
// stream. Measurements built on getTagger() join the group and stay stopped
// until the group's start or startFor.
//
// The group doesn't look at the tags itself; each member handles them as its
// own header says. clear, start, startFor and stop act on every member during
// the next pass of the stream, so that all members begin with the same block,
// and return when all have acted; an exception of a member comes back as a
// std::runtime_error. A measurement registered from outside the group keeps
// running until the group stops it.
// Thread safety: the group's functions may be called from any thread.
class CHRONOTICK_API SynchronizedMeasurements {
public:
  explicit SynchronizedMeasurements(ChronotickBase *tagger);
  // Members are not stopped: they carry on, on the real tagger. A member
  // destroyed earlier has left the group by itself. (Don't destroy a member
  // and the group at the same time on different threads.)
  ~SynchronizedMeasurements();

  SynchronizedMeasurements(const SynchronizedMeasurements &) = delete;
  SynchronizedMeasurements &operator=(const SynchronizedMeasurements &) = delete;

  // The tagger to build members on.
  ChronotickBase *getTagger();
  // Adds a measurement built on the real tagger; it keeps its state.
  void registerMeasurement(IteratorBase *measurement);
  // Removes a member; it carries on as it is.
  void unregisterMeasurement(IteratorBase *measurement);

  void clear();
  void start();
  void stop();
  void startFor(std::int64_t capture_duration, bool clear = true);
  // True if any member runs.
  bool isRunning();

protected:
  // Calls callback on every member during the next pass of the stream.
  void runCallback(std::function<void(IteratorBase *)> callback, bool block = true);

private:
  friend class ChronotickProxy; // enrols each measurement built on getTagger()

  // Adds a member; one built on getTagger() waits for the group's start.
  void enrol(IteratorBase *measurement, bool start_with_group);
  // Runs action on every member, then moves each onto one shared fence.
  void runWithSharedFence(const std::function<void(IteratorBase *)> &action);
  void forget(IteratorBase *measurement);

  std::set<IteratorBase *> measurements;
  std::mutex mutex;
  ChronotickBase *tagger;
  ChronotickProxy *proxy;
};

} // namespace chronotick
