#pragma once

#include <chronotick/Export.h>
#include <chronotick/TimeDifferences.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace chronotick {

class ChronotickBase;

// Fluorescence lifetime imaging: one histogram of the delay from an
// excitation pulse (start) to a photon (click) per pixel, the pixel clock
// (next channel) moving from pixel to pixel. A TimeDifferences without sync.
//
// Nothing is recorded before the first pixel clock tag, which selects pixel
// 0; each further one moves on by one pixel, and the one after the last pixel
// begins a new frame at pixel 0. Every photon less than n_bins * binwidth ps
// after an excitation pulse counts in bin floor((photon - pulse) / binwidth)
// of the pixel that was current at the pulse. With next_channel unused
// everything goes to pixel 0.
// Events handled: Error, OverflowBegin/End and MissedEvents drop the open
// pulses and restart the pixel count: the next pixel clock tag after a break
// selects pixel 0 again, wherever the frame was. A start does the same;
// clear also empties the histograms.
// Arguments: throws std::invalid_argument("binwidth must be at least 1 ps"),
// std::invalid_argument("n_bins must be at least 1") or
// std::invalid_argument("n_histograms must be at least 1").
// Thread safety: getters may be called from any thread while the stream runs;
// getData takes the measurement's lock.
class CHRONOTICK_API Flim : public TimeDifferences {
public:
  Flim(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel, std::int32_t next_channel,
       std::int64_t binwidth, std::int32_t n_bins, std::int32_t n_histograms);

  // allocate(n_histograms, n_bins); row h is pixel h, summed over frames.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_bins); lower bin edges, element i is i * binwidth, in ps.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);

  void start();
  void startFor(std::int64_t capture_duration, bool clear = true);
  void stop();
  void clear();
  std::int64_t getCaptureDuration();

private:
  // Runs without a limit of passes; the counters are not part of it.
  using TimeDifferences::getCounts;
  using TimeDifferences::ready;
  using TimeDifferences::setMaxCounts;
};

} // namespace chronotick
