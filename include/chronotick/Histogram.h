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
//
// Every click less than n_bins * binwidth ps after a start counts in bin
// floor((click - start) / binwidth); all pairs count. With start_channel
// unused each click is also a start and pairs with itself in bin 0.
// Events handled: Error, OverflowBegin/End and MissedEvents drop the open
// starts; the histogram stays. A start drops them too; clear empties the
// histogram.
// Arguments: throws std::invalid_argument("binwidth must be at least 1 ps")
// or std::invalid_argument("n_bins must be at least 1").
// Thread safety: getters may be called from any thread while the stream runs;
// getData takes the measurement's lock.
class CHRONOTICK_API Histogram : public TimeDifferences {
public:
  Histogram(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel = CHANNEL_UNUSED,
            std::int64_t binwidth = 1000, std::int32_t n_bins = 1000);

  // allocate(n_bins): counts per bin.
  void getData(std::function<std::int32_t *(std::size_t)> allocate);
  // allocate(n_bins); lower bin edges, element i is i * binwidth, in ps.
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
