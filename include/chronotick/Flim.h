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
class CHRONOTICK_API Flim : public TimeDifferences {
public:
  Flim(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel, std::int32_t next_channel,
       std::int64_t binwidth, std::int32_t n_bins, std::int32_t n_histograms);

  // allocate(n_histograms, n_bins); row h is pixel h, summed over frames.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_bins); element i is i * binwidth.
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
