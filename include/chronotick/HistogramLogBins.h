#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// Histogram of the times from start tags to click tags, all pairs counted, on
// bins of logarithmically growing width. exp_start and exp_stop are decimal
// exponents of the first and last edge in seconds (-6 is 1 microsecond).
class CHRONOTICK_API HistogramLogBins : public IteratorBase {
public:
  HistogramLogBins(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel, double exp_start,
                   double exp_stop, std::int32_t n_bins);
  ~HistogramLogBins() override;

  void getData(std::function<std::uint64_t *(std::size_t)> allocate);
  // Counts divided by each bin's width in picoseconds.
  void getDataNormalizedCountsPerPs(std::function<double *(std::size_t)> allocate);
  // Normalised so that independent streams give 1.
  void getDataNormalizedG2(std::function<double *(std::size_t)> allocate);
  // The n_bins + 1 edges in picoseconds.
  void getBinEdges(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  void startStep(std::int64_t time);
  void on_stop_event(std::int64_t time);
  void increase_ring_buffer();
  void clear_internal(bool full);
  void chooseSplit(std::uint64_t starts, std::uint64_t clicks, std::int64_t span);
  template <bool SingleStep> void countRecentPairs(std::int64_t time);

  std::int32_t click_channel;
  std::int32_t start_channel;
  std::vector<std::int64_t> bin_edges;
  bool wait_for_full_window;
  std::vector<std::int64_t> ring;
  std::uint32_t ring_mask;
  std::uint32_t ring_head;
  std::vector<std::uint32_t> edge_positions;
  std::vector<std::uint64_t> data; // slot 0: below the first edge; bin b is slot b + 1
  std::int64_t segment_start;
  std::int64_t measured_duration;
  bool warming_up;
  bool in_overflow;
  std::uint64_t click_count;
  std::uint64_t start_count;

  // Pairs closer than bin_edges[split] are counted by walking back from the
  // newest start and finding the bin through bin_lookup, indexed by the
  // leading bits of the difference; only the edges from
  // split on keep read positions. Both ways give the same counts, so split is
  // chosen per block from the rates, whichever is cheaper.
  std::int32_t n_bins;
  std::int32_t split;
  bool edges_ascending;
  bool single_step; // no sub-range of bin_lookup holds more than one edge
  std::vector<std::int32_t> bin_lookup;
};

} // namespace chronotick
