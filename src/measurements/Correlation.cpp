#include <chronotick/ChronotickBase.h>
#include <chronotick/Correlation.h>

#include "FastBinningModes.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <stdexcept>

namespace chronotick {

Correlation::Correlation(ChronotickBase *tagger, std::int32_t channel_1, std::int32_t channel_2, std::int64_t binwidth_,
                         std::int32_t n_bins_)
    : IteratorBase(tagger), channels{channel_1, channel_2}, n_bins(n_bins_), binwidth(binwidth_), half_window(0),
      measured_duration(0), in_overflow(false),
      recent_capacity(0), recent_head{0, 0}, recent_tail{0, 0}, channel_counts{0, 0} {
  if (binwidth < 1)
    throw std::invalid_argument("binwidth must be at least 1 ps");
  if (n_bins < 1)
    throw std::invalid_argument("n_bins must be at least 1");
  half_window = static_cast<std::int64_t>(n_bins) * binwidth / 2;
  if (tagger->isUnusedChannel(channel_2))
    channels[1] = channel_1;
  registerChannel(channels[0]);
  registerChannel(channels[1]);
  data.assign(static_cast<std::size_t>(n_bins), 0);
  binner = FastBinning(static_cast<std::uint64_t>(binwidth), static_cast<std::uint64_t>(2 * half_window));
  clear();
  finishInitialization();
}

Correlation::~Correlation() {
  stop();
}

void Correlation::getData(std::function<std::int32_t *(std::size_t)> allocate) {
  std::int32_t *out = allocate(static_cast<std::size_t>(n_bins));
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void Correlation::getDataNormalized(std::function<double *(std::size_t)> allocate) {
  double *out = allocate(static_cast<std::size_t>(n_bins));
  auto guard = getLock();
  // Pairs expected per bin for independent channels:
  // counts_1 * counts_2 * binwidth / measured_duration. Left unguarded: with
  // no tags the result is not a number.
  const double f =
      static_cast<double>(measured_duration) /
      (static_cast<double>(binwidth) * static_cast<double>(channel_counts[0]) * static_cast<double>(channel_counts[1]));
  for (std::size_t i = 0; i < data.size(); ++i)
    out[i] = static_cast<double>(data[i]) * f;
}

void Correlation::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(static_cast<std::size_t>(n_bins));
  for (std::int32_t i = 0; i < n_bins; ++i)
    out[i] = i * binwidth - half_window;
}

void Correlation::releaseRecent() {
  std::vector<std::int64_t>().swap(recent_times);
  recent_capacity = 0;
  for (int side = 0; side < 2; ++side) {
    recent_head[side] = 0;
    recent_tail[side] = 0;
  }
}

void Correlation::clear_impl() {
  std::fill(data.begin(), data.end(), 0);
  channel_counts[0] = 0;
  channel_counts[1] = 0;
  releaseRecent();
  measured_duration = 0;
  in_overflow = false;
}

namespace {

// In the buffer of recent times, element 0 of each channel's part is a
// sentinel older than any tag, and an empty queue has head == tail == the
// element after it. The newest entry, or the sentinel when there is none,
// is then always at tail - 1, so "is everything stale" is one comparison
// whether the queue is empty or not.
constexpr std::int64_t SENTINEL = INT64_MIN;

// Drops the entries of [head, tail) older than `threshold` (the time minus
// half a window: an entry exactly half a window old stays). Returns false if
// the queue is empty afterwards; it then restarts at `first`.
inline bool age(const std::int64_t *q, std::uint64_t &head, std::uint64_t &tail, std::uint64_t first,
                std::int64_t threshold) {
  if (q[tail - 1] < threshold) {
    head = first;
    tail = first;
    return false;
  }
  // The newest entry stays, so these steps cannot pass it. The first two
  // are branch-free: how many entries age out per tag varies, and a loop
  // exit that varies is a missed prediction.
  head += q[head] < threshold;
  head += q[head] < threshold;
  while (q[head] < threshold)
    ++head;
  return true;
}

// a if the mask is all ones, b if it is zero, without a branch: the channel
// of the next tag is as good as random, and a branch on it would miss half
// the time.
inline std::uint64_t pick(std::uint64_t mask, std::uint64_t a, std::uint64_t b) {
  return (a & mask) | (b & ~mask);
}

} // namespace

// Gives the queue of `side`, which is full, room for one more entry: slides
// its live entries to the front of its part if most of the part is dead,
// else doubles both parts.
void Correlation::makeRoom(int side) {
  const std::size_t cap = recent_capacity;
  const std::size_t first = static_cast<std::size_t>(side) * cap + 1;
  const std::size_t live = recent_tail[side] - recent_head[side];
  if (recent_head[side] > first && live <= cap / 4) {
    std::memmove(recent_times.data() + first, recent_times.data() + recent_head[side], live * sizeof(std::int64_t));
    recent_head[side] = first;
    recent_tail[side] = first + live;
    return;
  }
  const std::size_t grown = 2 * cap;
  std::vector<std::int64_t> times(2 * grown, SENTINEL);
  for (int s = 0; s < 2; ++s) {
    const std::size_t n = recent_tail[s] - recent_head[s];
    const std::size_t to = static_cast<std::size_t>(s) * grown + 1;
    std::copy(recent_times.begin() + static_cast<std::ptrdiff_t>(recent_head[s]),
              recent_times.begin() + static_cast<std::ptrdiff_t>(recent_tail[s]),
              times.begin() + static_cast<std::ptrdiff_t>(to));
    recent_head[s] = to;
    recent_tail[s] = to + n;
  }
  recent_times.swap(times);
  recent_capacity = grown;
}

void Correlation::prepareRecent() {
  if (recent_capacity == 0) {
    recent_capacity = 64;
    recent_times.assign(2 * recent_capacity, SENTINEL);
    for (int side = 0; side < 2; ++side)
      recent_head[side] = recent_tail[side] = static_cast<std::size_t>(side) * recent_capacity + 1;
  }
}

struct CorrelationLoop {
  // Pairs a tag at `time` with the entries [entry, end) of the other
  // channel's queue: the difference is time - entry if `negate` is false,
  // entry - time if true, so that a positive difference means that the tag
  // of the first channel came later.
  template <FastBinning::Mode M>
  static void pair(const binning::Constants &k, std::int32_t *data, std::uint64_t n_bins, std::int64_t time,
                   bool negate, std::int64_t half_window, const std::int64_t *entry, const std::int64_t *end) {
    using Mode = FastBinning::Mode;
    if constexpr (M == Mode::AlwaysZero) {
      // The difference is not looked at; the histogram has at least one bin.
      (void)k;
      (void)n_bins;
      (void)time;
      (void)negate;
      (void)half_window;
      for (; entry != end; ++entry)
        ++data[0];
    } else {
      // d + half_window, with d = time - entry or entry - time.
      if (negate) {
        const std::int64_t base = half_window - time;
        for (; entry != end; ++entry)
          count<M>(k, data, n_bins, static_cast<std::uint64_t>(*entry + base));
      } else {
        const std::int64_t base = time + half_window;
        for (; entry != end; ++entry)
          count<M>(k, data, n_bins, static_cast<std::uint64_t>(base - *entry));
      }
    }
  }

  // Counts the shifted difference v in its bin if the bin is in range. Div32
  // sees only the low 32 bits of v, as binOf takes them.
  template <FastBinning::Mode M>
  static void count(const binning::Constants &k, std::int32_t *data, std::uint64_t n_bins, std::uint64_t v) {
    using Mode = FastBinning::Mode;
    const std::uint64_t bin = binning::binOf<M>(k, v);
    if constexpr (M == Mode::MulShift32 || M == Mode::Div32) {
      // The top bits are clear here: no sign to test.
      if (bin < n_bins)
        ++data[bin];
    } else {
      const std::int64_t sbin = static_cast<std::int64_t>(bin);
      if (sbin >= 0 && sbin < static_cast<std::int64_t>(n_bins))
        ++data[sbin];
    }
  }

  // The queue of each channel is aged only right before a tag of the other
  // channel pairs with it, and at the end of the block. Ageing both at every
  // tag would leave the same entries to pair with, since times only grow
  // along the stream: whatever an earlier tag removed, this one would too.
  template <FastBinning::Mode M, bool AUTOCORRELATION>
  static void run(Correlation &c, const std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
    const binning::Constants k(c.binner);
    const std::int64_t half_window = c.half_window;
    const std::uint64_t n_bins = static_cast<std::uint64_t>(c.n_bins);
    const std::int32_t channel_0 = c.channels[0];
    const std::int32_t channel_1 = c.channels[1];
    std::int32_t *data = c.data.data();
    c.prepareRecent();
    // Locals, so that the stores into data don't force reloads.
    std::int64_t *q = c.recent_times.data();
    std::uint64_t cap = c.recent_capacity;
    std::uint64_t head0 = c.recent_head[0], tail0 = c.recent_tail[0];
    std::uint64_t head1 = c.recent_head[1], tail1 = c.recent_tail[1];
    std::uint64_t count0 = c.channel_counts[0], count1 = c.channel_counts[1];
    std::int64_t measured = c.measured_duration;
    bool overflow = c.in_overflow;
    std::int64_t segment_start = begin_time;

    auto store = [&] {
      c.recent_head[0] = head0;
      c.recent_tail[0] = tail0;
      c.recent_head[1] = head1;
      c.recent_tail[1] = tail1;
    };
    auto load = [&] {
      q = c.recent_times.data();
      cap = c.recent_capacity;
      head0 = c.recent_head[0];
      tail0 = c.recent_tail[0];
      head1 = c.recent_head[1];
      tail1 = c.recent_tail[1];
    };
    // Either queue full: make room in both, which is cheaper per tag than to
    // work out which one the tag goes to.
    auto makeRoom = [&] {
      if ((tail0 == cap) | (tail1 == 2 * cap)) {
        store();
        if (tail0 == cap)
          c.makeRoom(0);
        if (c.recent_tail[1] == 2 * c.recent_capacity)
          c.makeRoom(1);
        load();
      }
    };

    for (const Tag &tag : tags) {
      const std::int64_t time = tag.time;
      switch (tag.type) {
      case Tag::Type::TimeTag: {
        const std::int32_t channel = tag.channel;
        const bool second = channel == channel_1;
        if constexpr (!AUTOCORRELATION) {
          // Summed, not or-ed: a short-circuit would branch on the channel.
          if (static_cast<int>(second) + static_cast<int>(channel == channel_0) == 0)
            break;
          // The tag's side s and the other side o, selected by mask.
          const std::uint64_t m = 0 - static_cast<std::uint64_t>(second); // all ones on side 1
          makeRoom();
          std::uint64_t head_o = pick(m, head0, head1);
          std::uint64_t tail_o = pick(m, tail0, tail1);
          std::uint64_t tail_s = pick(m, tail1, tail0);
          if (age(q, head_o, tail_o, pick(m, 1, cap + 1), time - half_window))
            pair<M>(k, data, n_bins, time, second, half_window, q + head_o, q + tail_o);
          q[tail_s++] = time;
          count1 += second;
          count0 += !second;
          head0 = pick(m, head_o, head0);
          tail0 = pick(m, tail_o, tail_s);
          head1 = pick(m, head1, head_o);
          tail1 = pick(m, tail_s, tail_o);
        } else if (second) {
          // Side 0: appended to the first queue and paired with the second.
          // Side 1: appended to the second and paired with the first, which
          // by now holds the tag itself: one self-pair at difference 0.
          makeRoom();
          if (age(q, head1, tail1, cap + 1, time - half_window))
            pair<M>(k, data, n_bins, time, false, half_window, q + head1, q + tail1);
          q[tail0++] = time;
          ++count0;
          if (age(q, head0, tail0, 1, time - half_window))
            pair<M>(k, data, n_bins, time, true, half_window, q + head0, q + tail0);
          q[tail1++] = time;
          ++count1;
        }
        break;
      }
      case Tag::Type::Error:
        // No pair crosses a break; counts and duration stay. The storage is
        // kept for the tags to come.
        head0 = tail0 = 1;
        head1 = tail1 = cap + 1;
        break;
      case Tag::Type::OverflowBegin:
        measured += time - segment_start;
        overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        if (overflow) {
          overflow = false;
          segment_start = time;
        } else {
          measured = 0; // an end without its begin throws the duration away
        }
        break;
      default:
        break;
      }
    }

    if (!overflow)
      measured += end_time - segment_start;
    age(q, head0, tail0, 1, end_time - half_window);
    age(q, head1, tail1, cap + 1, end_time - half_window);
    store();
    c.channel_counts[0] = count0;
    c.channel_counts[1] = count1;
    c.measured_duration = measured;
    c.in_overflow = overflow;
  }
};

bool Correlation::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  binning::withBinningMode(binner, [&](auto mode) {
    if (channels[0] == channels[1])
      CorrelationLoop::run<decltype(mode)::value, true>(*this, tags, begin_time, end_time);
    else
      CorrelationLoop::run<decltype(mode)::value, false>(*this, tags, begin_time, end_time);
  });
  return false;
}

} // namespace chronotick
