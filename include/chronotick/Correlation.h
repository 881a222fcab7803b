#pragma once

#include <chronotick/Export.h>
#include <chronotick/FastBinning.h>
#include <chronotick/IteratorBase.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Cross-correlation of two channels (autocorrelation of one): histogram of
// the differences between every tag of one and every tag of the other
// within a window centred on zero.
class CHRONOTICK_API Correlation : public IteratorBase {
public:
  Correlation(ChronotickBase *tagger, std::int32_t channel_1, std::int32_t channel_2 = CHANNEL_UNUSED,
              std::int64_t binwidth = 1000, std::int32_t n_bins = 1000);
  ~Correlation() override;

  // allocate(n_bins).
  void getData(std::function<std::int32_t *(std::size_t)> allocate);
  // allocate(n_bins); the histogram divided by the pairs expected per bin
  // for independent channels, 1 for uncorrelated signals.
  void getDataNormalized(std::function<double *(std::size_t)> allocate);
  // allocate(n_bins); lower bin edges, i * binwidth - half window.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;
  void clear_impl() override;

private:
  friend struct CorrelationLoop;

  void releaseRecent();
  void prepareRecent();
  void makeRoom(int side);

  std::int32_t channels[2];
  std::int32_t n_bins;
  std::int64_t binwidth;
  std::int64_t half_window;
  std::int64_t measured_duration;
  bool in_overflow;
  std::vector<std::int32_t> data;
  // Recent tag times of both channels, oldest first, in one buffer: channel
  // s owns [s * recent_capacity, (s + 1) * recent_capacity), which starts
  // with a sentinel older than any tag, followed by the live entries
  // [recent_head[s], recent_tail[s]).
  std::vector<std::int64_t> recent_times;
  std::size_t recent_capacity;
  std::size_t recent_head[2];
  std::size_t recent_tail[2];
  std::uint64_t channel_counts[2];
  FastBinning binner;
};

} // namespace chronotick
