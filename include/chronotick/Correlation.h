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
//
// The difference is d = t(channel_1) - t(channel_2), positive when the tag of
// channel_1 came later. With W = n_bins * binwidth / 2 (whole ps), pairs with
// |d| <= W are taken and d counts in bin floor((d + W) / binwidth) if that is
// below n_bins. With channel_2 unused (or equal to channel_1) it is the
// autocorrelation: each pair of tags counts at +d and -d, and each tag pairs
// once with itself at 0.
// Events handled: TimeTag on either channel: pairs with the tags of the other
// channel of the last W ps. Error: no pair spans it; the tag counts and the
// measured duration go on. OverflowBegin/End: the time between them is left
// out of the measured duration (used by getDataNormalized); tags on either
// side still pair. An OverflowEnd without its OverflowBegin drops the
// duration measured so far. MissedEvents: ignored.
// Stop and start keep everything; clear empties the histogram, the tag counts
// and the duration.
// Arguments: throws std::invalid_argument("binwidth must be at least 1 ps")
// or std::invalid_argument("n_bins must be at least 1").
// Thread safety: getters may be called from any thread while the stream runs;
// getData and getDataNormalized take the measurement's lock.
class CHRONOTICK_API Correlation : public IteratorBase {
public:
  Correlation(ChronotickBase *tagger, std::int32_t channel_1, std::int32_t channel_2 = CHANNEL_UNUSED,
              std::int64_t binwidth = 1000, std::int32_t n_bins = 1000);
  ~Correlation() override;

  // allocate(n_bins): pairs per bin.
  void getData(std::function<std::int32_t *(std::size_t)> allocate);
  // allocate(n_bins); the histogram divided by the pairs expected per bin
  // for independent channels, N_1 * N_2 * binwidth / T (N: tags of each
  // channel, T: measured duration), so 1 for uncorrelated signals. Not finite
  // while either channel has no tags.
  void getDataNormalized(std::function<double *(std::size_t)> allocate);
  // allocate(n_bins); lower bin edges in ps, i * binwidth - W.
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
