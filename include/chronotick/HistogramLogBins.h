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
//
// Edge i is 10^(exp_start + 12 + i * (exp_stop - exp_start) / n_bins) ps, cut
// to whole ps; bin b holds the differences d = click - start with
// edge b <= d < edge b+1. Pairs outside the edges are not reported.
// Clicks count only once the stream has run longer than the last edge since
// the start, the clear or the last break, so that every delay up to the last
// edge had its chance of a start; starts are remembered during that time.
// Events handled: TimeTag on start_channel: a start; on click_channel: pairs
// with every remembered start (a tag on both channels is a start first).
// Error: the remembered starts are dropped and the wait for the last edge
// begins again at its time; the measured time of its block up to the Error
// is lost, while the pairs counted in it stay. OverflowBegin/End: the starts
// are dropped, the time between the two is left out of the measured
// duration, and the wait begins again at OverflowEnd. MissedEvents: ignored;
// the window stays valid, with events missing from it.
// Stop and start keep the remembered starts; clear drops everything.
// Arguments: a negative n_bins is taken as 0; nothing else is checked. Edges
// that round to the same ps make bins of width 0, whose normalised values are
// not finite.
// Thread safety: getters may be called from any thread while the stream runs;
// all but getBinEdges take the measurement's lock.
class CHRONOTICK_API HistogramLogBins : public IteratorBase {
public:
  HistogramLogBins(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel, double exp_start,
                   double exp_stop, std::int32_t n_bins);
  ~HistogramLogBins() override;

  // allocate(n_bins): pairs counted per bin.
  void getData(std::function<std::uint64_t *(std::size_t)> allocate);
  // allocate(n_bins): counts divided by each bin's width in picoseconds.
  void getDataNormalizedCountsPerPs(std::function<double *(std::size_t)> allocate);
  // allocate(n_bins): counts * T / (N_clicks * N_starts * bin width), with T
  // the measured duration and N the tags counted after the wait for the last
  // edge; so independent streams give 1. Not finite before any count.
  void getDataNormalizedG2(std::function<double *(std::size_t)> allocate);
  // allocate(n_bins + 1): the edges in picoseconds.
  void getBinEdges(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  void startStep(std::int64_t time);
  void countClick(std::int64_t time);
  void growRing();
  void clearState(bool full);
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
