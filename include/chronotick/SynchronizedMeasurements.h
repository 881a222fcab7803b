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
class CHRONOTICK_API SynchronizedMeasurements {
public:
  explicit SynchronizedMeasurements(ChronotickBase *tagger);
  // Members are neither stopped nor touched; build them after the group and
  // destroy them before it, since they use its proxy as their tagger.
  ~SynchronizedMeasurements();

  SynchronizedMeasurements(const SynchronizedMeasurements &) = delete;
  SynchronizedMeasurements &operator=(const SynchronizedMeasurements &) = delete;

  // The tagger to build members on.
  ChronotickBase *getTagger();
  void registerMeasurement(IteratorBase *measurement);
  // Must be called before a member is destroyed.
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
  // Runs action on every member, then moves each onto one shared fence.
  void runWithSharedFence(const std::function<void(IteratorBase *)> &action);

  std::set<IteratorBase *> measurements;
  std::mutex mutex;
  ChronotickBase *tagger;
  ChronotickProxy *proxy;
};

} // namespace chronotick
