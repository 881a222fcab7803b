#include <chronotick/HistogramLogBins.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace chronotick {

namespace {

// Truncation toward zero that stays defined for values outside 64 bits.
std::int64_t truncateToInt64(double value) {
  if (std::isnan(value)) {
    return 0;
  }
  if (value >= 9223372036854775807.0) {
    return INT64_MAX;
  }
  if (value <= -9223372036854775808.0) {
    return INT64_MIN;
  }
  return static_cast<std::int64_t>(value);
}

// Differences below 2^8 map to themselves; above, each octave is cut into 2^8
// sub-ranges by the 8 bits after the leading one. Narrow enough that a
// sub-range rarely holds more than one bin edge.
constexpr unsigned LOOKUP_BITS = 8;
constexpr std::uint64_t LOOKUP_STEPS = std::uint64_t(1) << LOOKUP_BITS;

inline std::uint32_t lookupIndexOf(std::uint64_t d) {
  if (d < LOOKUP_STEPS) {
    return static_cast<std::uint32_t>(d);
  }
  const unsigned top = 63u - static_cast<unsigned>(__builtin_clzll(d));
  return static_cast<std::uint32_t>(((top - (LOOKUP_BITS - 1)) << LOOKUP_BITS) |
                                    ((d >> (top - LOOKUP_BITS)) & (LOOKUP_STEPS - 1)));
}

// The smallest difference that maps to index i.
inline std::uint64_t lookupLowerBound(std::uint32_t i) {
  if (i < LOOKUP_STEPS) {
    return i;
  }
  const unsigned top = (i >> LOOKUP_BITS) + (LOOKUP_BITS - 1);
  return (LOOKUP_STEPS + (i & (LOOKUP_STEPS - 1))) << (top - LOOKUP_BITS);
}

inline std::int64_t difference(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

} // namespace

HistogramLogBins::HistogramLogBins(ChronotickBase *tagger_, std::int32_t click_channel_, std::int32_t start_channel_,
                                   double exp_start, double exp_stop, std::int32_t n_bins_)
    : IteratorBase(tagger_), click_channel(click_channel_), start_channel(start_channel_), wait_for_full_window(true),
      ring_mask(15), ring_head(0), segment_start(0), measured_duration(0), warming_up(true), in_overflow(false),
      click_count(0), start_count(0), n_bins(std::max(n_bins_, 0)), split(0), edges_ascending(false),
      single_step(false) {
  // Exponents of seconds to exponents of picoseconds. The order of the double
  // operations decides the low bits of the edges and must stay.
  const double lo = exp_start + 12.0;
  const double hi = exp_stop + 12.0;
  bin_edges.resize(static_cast<std::size_t>(n_bins) + 1);
  for (std::int32_t i = 0; i <= n_bins; ++i) {
    const double exponent = static_cast<double>(i) * (hi - lo) / static_cast<double>(n_bins) + lo;
    bin_edges[i] = truncateToInt64(std::pow(10.0, exponent));
  }
  ring.resize(16);
  edge_positions.resize(static_cast<std::size_t>(n_bins) + 1);
  // Slot 0 collects the differences below the first edge; bin b is slot b + 1.
  data.resize(static_cast<std::size_t>(n_bins) + 1);

  // Pairs are only counted directly when the edges rise; otherwise every bin
  // keeps the read positions.
  edges_ascending = bin_edges.front() >= 0 && std::is_sorted(bin_edges.begin(), bin_edges.end());
  if (edges_ascending && n_bins > 0) {
    const std::int64_t last = bin_edges[n_bins];
    const std::uint32_t size = last > 0 ? lookupIndexOf(static_cast<std::uint64_t>(last - 1)) + 1 : 1;
    bin_lookup.resize(size);
    // For each index: the slot of its smallest difference, which is the
    // number of edges at or below it. The slot of a larger difference in the
    // same sub-range follows by comparisons with the next edges; if no
    // sub-range holds more than one edge, by exactly one comparison.
    auto edgesUpTo = [&](std::uint64_t d, std::int32_t from) {
      while (from < n_bins && static_cast<std::uint64_t>(bin_edges[from]) <= d) {
        ++from;
      }
      return from;
    };
    std::int32_t slot = 0;
    single_step = true;
    for (std::uint32_t i = 0; i < size; ++i) {
      slot = edgesUpTo(lookupLowerBound(i), slot);
      bin_lookup[i] = slot;
      const std::int32_t highest = edgesUpTo(lookupLowerBound(i + 1) - 1, slot);
      single_step = single_step && highest - slot <= 1;
    }
  } else {
    edges_ascending = false;
  }

  registerChannel(start_channel);
  registerChannel(click_channel);
  clear();
  finishInitialization();
}

HistogramLogBins::~HistogramLogBins() {
  stop();
}

void HistogramLogBins::clear_impl() {
  clearState(true);
}

void HistogramLogBins::clearState(bool full) {
  if (full) {
    std::fill(data.begin(), data.end(), 0);
    click_count = 0;
    start_count = 0;
    measured_duration = 0;
    in_overflow = false;
  }
  std::fill(edge_positions.begin(), edge_positions.end(), 0);
  ring_head = 0;
  segment_start = 0;
  warming_up = wait_for_full_window;
}

void HistogramLogBins::growRing() {
  const std::size_t n = ring.size();
  if (n > 4294967295ull) {
    throw std::runtime_error("maximum buffer size for HistogramLogBins");
  }
  // Every count is taken modulo the length: with the ring present twice, each
  // live start is found under the wider mask, whichever half it selects.
  ring.resize(2 * n);
  std::copy(ring.begin(), ring.begin() + static_cast<std::ptrdiff_t>(n), ring.begin() + static_cast<std::ptrdiff_t>(n));
  ring_mask = ring_mask * 2 + 1;
}

void HistogramLogBins::startStep(std::int64_t time) {
  if (!warming_up) {
    ++start_count;
  }
  if (((ring_head - edge_positions[n_bins] + 1) & ring_mask) == 0) {
    growRing();
  }
  ring[ring_head & ring_mask] = time;
  ++ring_head;
}

void HistogramLogBins::countClick(std::int64_t time) {
  ++click_count;
  const std::int64_t *const r = ring.data();
  const std::int64_t *const edges = bin_edges.data();
  std::uint32_t *const positions = edge_positions.data();
  std::uint64_t *const slots = data.data();
  const std::uint32_t head = ring_head;
  const std::uint32_t mask = ring_mask;

  // Edges from split on: each position passes the starts that are at least
  // its edge old. Every start is passed once by each of them.
  for (std::int32_t e = split; e <= n_bins; ++e) {
    const std::int64_t limit = difference(time, edges[e]);
    std::uint32_t p = positions[e];
    while (p != head && difference(limit, r[p & mask]) >= 0) {
      ++p;
    }
    positions[e] = p;
  }
  for (std::int32_t b = split; b < n_bins; ++b) {
    slots[b + 1] += static_cast<std::uint32_t>(positions[b] - positions[b + 1]);
  }

  if (split > 0) {
    if (single_step) {
      countRecentPairs<true>(time);
    } else {
      countRecentPairs<false>(time);
    }
  }
}

template <bool SingleStep> void HistogramLogBins::countRecentPairs(std::int64_t time) {
  // Bins below the split: walk back from the newest start until the
  // difference reaches the split edge, and find each slot by the lookup. The
  // ring's live part is walked as its contiguous pieces.
  const std::int64_t *const r = ring.data();
  const std::int64_t *const edges = bin_edges.data();
  const std::int32_t *const lookup = bin_lookup.data();
  std::uint64_t *const slots = data.data();
  const std::uint64_t split_edge = static_cast<std::uint64_t>(edges[split]);
  std::uint32_t remaining = ring_head - edge_positions[n_bins];
  std::uint32_t end = ring_head & ring_mask; // one past the newest start
  while (remaining != 0) {
    if (end == 0) {
      end = ring_mask + 1;
    }
    const std::uint32_t piece = std::min(remaining, end);
    const std::int64_t *const newest = r + end;
    for (std::uint32_t i = 1; i <= piece; ++i) {
      // Unsigned, so that a start after the click (a disordered stream)
      // ends the walk too.
      const std::uint64_t d = static_cast<std::uint64_t>(difference(time, newest[-static_cast<std::ptrdiff_t>(i)]));
      if (d >= split_edge) {
        return;
      }
      std::int32_t slot = lookup[lookupIndexOf(d)];
      if constexpr (SingleStep) {
        slot += static_cast<std::uint64_t>(edges[slot]) <= d ? 1 : 0;
      } else {
        while (static_cast<std::uint64_t>(edges[slot]) <= d) {
          ++slot;
        }
      }
      ++slots[slot];
    }
    remaining -= piece;
    end -= piece;
  }
}

void HistogramLogBins::chooseSplit(std::uint64_t starts, std::uint64_t clicks, std::int64_t span) {
  if (!edges_ascending || span <= 0 || clicks == 0) {
    return;
  }
  // Cost per picosecond of a split k, in units of one pair looked up: each
  // click walks the starts younger than edge k and scans the edges from k on,
  // and each start is passed once by each of those edges. An edge step, with
  // its hard-to-predict branch, measures about five lookups.
  const double start_rate = static_cast<double>(starts) / static_cast<double>(span);
  const double click_rate = static_cast<double>(clicks) / static_cast<double>(span);
  constexpr double PAIR_COST = 1.0;
  constexpr double EDGE_COST = 5.0;
  constexpr double PASS_COST = 5.0;
  std::int32_t best = 0;
  double best_cost = 0;
  for (std::int32_t k = 0; k <= n_bins; ++k) {
    const double edges_kept = static_cast<double>(n_bins + 1 - k);
    const double cost =
        click_rate * (start_rate * static_cast<double>(bin_edges[k]) * PAIR_COST + edges_kept * EDGE_COST) +
        start_rate * edges_kept * PASS_COST;
    if (k == 0 || cost < best_cost) {
      best = k;
      best_cost = cost;
    }
  }
  if (best < split) {
    // Edges that take up positions again start from the position of the
    // split edge, which is behind theirs; the next click moves them on.
    for (std::int32_t e = best; e < split; ++e) {
      edge_positions[e] = edge_positions[split];
    }
  }
  split = best;
}

bool HistogramLogBins::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  if (segment_start == 0) {
    segment_start = begin_time;
  }
  // The running time from which measured_duration is counted.
  std::int64_t mark = begin_time;
  const std::int64_t last_edge = bin_edges[n_bins];
  std::uint64_t starts_seen = 0;
  std::uint64_t clicks_seen = 0;

  for (const Tag &tag : tags) {
    if (warming_up && tag.time - segment_start > last_edge) {
      // The window of the longest delay is full from here on.
      warming_up = false;
      mark = segment_start + last_edge;
    }
    switch (tag.type) {
    case Tag::Type::TimeTag:
      if (tag.channel == start_channel) {
        ++starts_seen;
        startStep(tag.time);
      }
      if (tag.channel == click_channel && !warming_up) {
        ++clicks_seen;
        countClick(tag.time);
      }
      break;
    case Tag::Type::Error:
      // The time since mark is lost.
      clearState(false);
      segment_start = tag.time;
      break;
    case Tag::Type::OverflowBegin:
      if (!warming_up) {
        measured_duration += tag.time - mark;
      }
      clearState(false);
      segment_start = tag.time;
      in_overflow = true;
      break;
    case Tag::Type::OverflowEnd:
      clearState(false);
      segment_start = tag.time;
      in_overflow = false;
      mark = tag.time;
      break;
    default:
      // Missed events leave the window valid, with events missing from it.
      break;
    }
  }
  if (!warming_up && !in_overflow) {
    measured_duration += end_time - mark;
  }
  chooseSplit(starts_seen, clicks_seen, end_time - begin_time);
  return false;
}

void HistogramLogBins::getData(std::function<std::uint64_t *(std::size_t)> allocate) {
  std::uint64_t *out = allocate(static_cast<std::size_t>(n_bins));
  auto guard = getLock();
  std::copy(data.begin() + 1, data.end(), out);
}

void HistogramLogBins::getDataNormalizedCountsPerPs(std::function<double *(std::size_t)> allocate) {
  double *out = allocate(static_cast<std::size_t>(n_bins));
  auto guard = getLock();
  for (std::size_t b = 0; b < static_cast<std::size_t>(n_bins); ++b) {
    out[b] = static_cast<double>(data[b + 1]) / static_cast<double>(bin_edges[b + 1] - bin_edges[b]);
  }
}

void HistogramLogBins::getDataNormalizedG2(std::function<double *(std::size_t)> allocate) {
  double *out = allocate(static_cast<std::size_t>(n_bins));
  auto guard = getLock();
  const double f =
      static_cast<double>(measured_duration) / (static_cast<double>(click_count) * static_cast<double>(start_count));
  for (std::size_t b = 0; b < static_cast<std::size_t>(n_bins); ++b) {
    out[b] = static_cast<double>(data[b + 1]) * f / static_cast<double>(bin_edges[b + 1] - bin_edges[b]);
  }
}

void HistogramLogBins::getBinEdges(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(bin_edges.size());
  std::copy(bin_edges.begin(), bin_edges.end(), out);
}

} // namespace chronotick
