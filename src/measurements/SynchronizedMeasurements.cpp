#include <chronotick/ChronotickBase.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/SynchronizedMeasurements.h>

#include "measurements/ChronotickProxy.h"

#include <map>

namespace chronotick {

SynchronizedMeasurements::SynchronizedMeasurements(ChronotickBase *tagger_)
    : tagger(tagger_), proxy(new ChronotickProxy(tagger_, this)) {}

SynchronizedMeasurements::~SynchronizedMeasurements() {
  // Members carry on as they are, on the real tagger from now on (destroyed
  // members have left the group already).
  std::set<IteratorBase *> members;
  {
    std::lock_guard<std::mutex> guard(mutex);
    members.swap(measurements);
  }
  for (IteratorBase *m : members) {
    m->leaveGroup(proxy, tagger);
  }
  delete proxy;
}

ChronotickBase *SynchronizedMeasurements::getTagger() {
  return proxy;
}

void SynchronizedMeasurements::registerMeasurement(IteratorBase *measurement) {
  enrol(measurement, false);
}

void SynchronizedMeasurements::enrol(IteratorBase *measurement, bool start_with_group) {
  {
    std::lock_guard<std::mutex> guard(mutex);
    measurements.insert(measurement);
  }
  measurement->joinGroup([this](IteratorBase *m) { forget(m); }, start_with_group);
}

void SynchronizedMeasurements::unregisterMeasurement(IteratorBase *measurement) {
  measurement->leaveGroup(nullptr, nullptr);
  forget(measurement);
}

void SynchronizedMeasurements::forget(IteratorBase *measurement) {
  std::lock_guard<std::mutex> guard(mutex);
  measurements.erase(measurement);
}

void SynchronizedMeasurements::runWithSharedFence(const std::function<void(IteratorBase *)> &action) {
  // One fence for all, taken by the first callback of the pass, on the
  // worker: every block already on the chain was read before it, so all
  // members ignore the same blocks and begin with the same one. (A fence
  // taken before the job was queued could be carried by a block running
  // ahead of the pass, which would reach only the members it passes after
  // their callbacks ran.) The callbacks of one pass run one after another.
  ChronotickBase *real = tagger;
  bool have_fence = false;
  std::uint32_t fence = 0;
  runCallback(
      [&](IteratorBase *m) {
        if (!have_fence) {
          fence = real->getFence(true);
          have_fence = true;
        }
        action(m);
        m->ignoreBlocksBefore(fence);
      },
      true);
}

void SynchronizedMeasurements::clear() {
  runWithSharedFence([](IteratorBase *m) { m->clear(); });
}

void SynchronizedMeasurements::start() {
  runWithSharedFence([](IteratorBase *m) { m->start(); });
}

void SynchronizedMeasurements::startFor(std::int64_t capture_duration, bool clear) {
  runWithSharedFence([capture_duration, clear](IteratorBase *m) { m->startFor(capture_duration, clear); });
}

void SynchronizedMeasurements::stop() {
  runCallback([](IteratorBase *m) { m->stop(); }, true);
}

bool SynchronizedMeasurements::isRunning() {
  std::lock_guard<std::mutex> guard(mutex);
  for (IteratorBase *m : measurements) {
    if (m->isRunning()) {
      return true;
    }
  }
  return false;
}

void SynchronizedMeasurements::runCallback(std::function<void(IteratorBase *)> callback, bool block) {
  std::map<IteratorBase *, std::function<void(IteratorBase *)>> callbacks;
  std::unique_lock<std::mutex> guard(mutex);
  for (IteratorBase *m : measurements) {
    callbacks.emplace(m, callback);
  }
  // The set may change again once the map is built; the pass itself needs
  // no lock of ours.
  guard.unlock();
  tagger->runSynchronized(callbacks, block);
}

} // namespace chronotick
