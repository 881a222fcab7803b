#pragma once

#include <chronotick/Export.h>
#include <chronotick/TimeDifferences.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace chronotick {

class ChronotickBase;

// Histogram of the time from each start to every later click within
// n_bins * binwidth: a TimeDifferences with one row, without next and sync.
class CHRONOTICK_API Histogram : public TimeDifferences {
public:
  Histogram(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel = CHANNEL_UNUSED,
            std::int64_t binwidth = 1000, std::int32_t n_bins = 1000);

  // allocate(n_bins).
  void getData(std::function<std::int32_t *(std::size_t)> allocate);
  // allocate(n_bins); element i is i * binwidth.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);

  void start();
  void startFor(std::int64_t capture_duration, bool clear = true);
  void stop();
  void clear();
  std::int64_t getCaptureDuration();
  bool isRunning();

private:
  // The pass counters mean nothing for a single free-running row.
  using TimeDifferences::getCounts;
  using TimeDifferences::ready;
  using TimeDifferences::setMaxCounts;
};

} // namespace chronotick
