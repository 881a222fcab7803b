#pragma once

#include <chronotick/Export.h>
#include <chronotick/FastBinning.h>
#include <chronotick/IteratorBase.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Sparse histogram of the time from a start to the first click after it,
// without an upper limit.
//
// Events handled: TimeTag on the start channel: opens a start, replacing an
// open one. TimeTag on the click channel: if a start is open, counts
// click - start in bin floor((click - start) / binwidth) and closes the start;
// otherwise nothing. With start_channel unused every click is also the next
// start, which gives the intervals between successive clicks. Error,
// OverflowBegin/End and MissedEvents close the open start; a MissedEvents tag
// on the start channel then opens a new one at its time.
// A start drops the open start; clear drops the histogram too.
// Arguments: a binwidth of 0 throws std::invalid_argument("binwidth must not
// be 0"); a negative one acts as a huge width, so every count lands in bin 0.
// Thread safety: getData may be called from any thread while the stream runs;
// it takes the measurement's lock.
class CHRONOTICK_API StartStop : public IteratorBase {
public:
  StartStop(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel = CHANNEL_UNUSED,
            std::int64_t binwidth = 1000);
  ~StartStop() override;

  // allocate(number of bins hit, 2), called under the lock; rows of
  // (lower bin edge in ps, count), by ascending time. allocate must not call
  // back into the measurement.
  void getData(std::function<std::int64_t *(std::size_t, std::size_t)> allocate);

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;
  void clear_impl() override;
  void on_start() override;

private:
  friend struct StartStopLoop;

  void resetHistogram();
  std::uint64_t *findOrCreate(std::int64_t bin);

  FastBinning binner;
  std::unordered_map<std::int64_t, std::uint64_t> histogram;
  std::int32_t click_channel;
  std::int32_t start_channel;
  std::int64_t binwidth;
  std::int64_t last_start; // 0: no start open

  // Direct-mapped cache in front of the map: bin number to its counter.
  // Map entries never move, so the pointers stay valid until a clear.
  std::vector<std::int64_t> cache_bins;
  std::vector<std::uint64_t *> cache_counts;
};

} // namespace chronotick
