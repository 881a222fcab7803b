#include <chronotick/ChronotickBase.h>
#include <chronotick/Correlation.h>

#include "FastBinningModes.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace chronotick {

Correlation::Correlation(ChronotickBase *tagger, std::int32_t channel_1, std::int32_t channel_2, std::int64_t binwidth_,
                         std::int32_t n_bins_)
    : IteratorBase(tagger), channels{channel_1, channel_2}, n_bins(n_bins_), binwidth(binwidth_), half_window(0),
      measured_duration(0), in_overflow(false), channel_counts{0, 0} {
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
  for (Recent &r : recent) {
    std::vector<std::int64_t>().swap(r.times);
    r.head = 0;
    r.tail = 0;
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

// Makes room at the back of a queue: slides the live entries to the front if
// most of the buffer is dead, else doubles it.
void makeRoom(std::vector<std::int64_t> &times, std::size_t &head, std::size_t &tail) {
  const std::size_t live = tail - head;
  if (head > 0 && live <= times.size() / 4) {
    std::memmove(times.data(), times.data() + head, live * sizeof(std::int64_t));
    head = 0;
    tail = live;
  } else {
    times.resize(std::max<std::size_t>(64, 2 * times.size()));
  }
}

} // namespace

struct CorrelationLoop {
  // Pairs a tag at `time` with the queue of the other channel. side 0: the
  // difference is time - entry; side 1: entry - time.
  template <FastBinning::Mode M, int SIDE>
  static void pair(const binning::Constants &k, std::int32_t *data, std::uint64_t n_bins, std::int64_t time,
                   std::int64_t half_window, const std::int64_t *entry, const std::int64_t *end) {
    using Mode = FastBinning::Mode;
    if constexpr (M == Mode::AlwaysZero) {
      // The difference is not looked at; the histogram has at least one bin.
      (void)k;
      (void)n_bins;
      (void)time;
      (void)half_window;
      for (; entry != end; ++entry)
        ++data[0];
    } else {
      for (; entry != end; ++entry) {
        const std::int64_t d = SIDE == 0 ? time - *entry : *entry - time;
        // Div32 sees only the low 32 bits of the sum, as binOf takes them.
        const std::uint64_t bin = binning::binOf<M>(k, static_cast<std::uint64_t>(d + half_window));
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
    }
  }

  template <FastBinning::Mode M>
  static void run(Correlation &c, const std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
    const binning::Constants k(c.binner);
    const std::int64_t half_window = c.half_window;
    const std::uint64_t n_bins = static_cast<std::uint64_t>(c.n_bins);
    const std::int32_t channel_0 = c.channels[0];
    const std::int32_t channel_1 = c.channels[1];
    std::int32_t *data = c.data.data();
    Correlation::Recent &r0 = c.recent[0];
    Correlation::Recent &r1 = c.recent[1];
    // Locals, so that the stores into data don't force reloads.
    std::int64_t *q0 = r0.times.data();
    std::int64_t *q1 = r1.times.data();
    std::size_t head0 = r0.head, tail0 = r0.tail, size0 = r0.times.size();
    std::size_t head1 = r1.head, tail1 = r1.tail, size1 = r1.times.size();
    std::uint64_t count0 = c.channel_counts[0], count1 = c.channel_counts[1];
    std::int64_t measured = c.measured_duration;
    bool overflow = c.in_overflow;
    std::int64_t segment_start = begin_time;

    for (const Tag &tag : tags) {
      const std::int64_t time = tag.time;
      switch (tag.type) {
      case Tag::Type::TimeTag: {
        const std::int32_t channel = tag.channel;
        // Both queues age at every tag, whatever its channel, so they stay short.
        while (head1 != tail1 && time - q1[head1] > half_window)
          ++head1;
        if (channel == channel_0) {
          ++count0;
          if (tail0 == size0) {
            makeRoom(r0.times, head0, tail0);
            q0 = r0.times.data();
            size0 = r0.times.size();
          }
          q0[tail0++] = time;
          pair<M, 0>(k, data, n_bins, time, half_window, q1 + head1, q1 + tail1);
        }
        while (head0 != tail0 && time - q0[head0] > half_window)
          ++head0;
        if (channel == channel_1) {
          ++count1;
          if (tail1 == size1) {
            makeRoom(r1.times, head1, tail1);
            q1 = r1.times.data();
            size1 = r1.times.size();
          }
          q1[tail1++] = time;
          pair<M, 1>(k, data, n_bins, time, half_window, q0 + head0, q0 + tail0);
        }
        break;
      }
      case Tag::Type::Error:
        // No pair crosses a break; counts and duration stay. The storage is
        // kept for the tags to come.
        head0 = tail0 = 0;
        head1 = tail1 = 0;
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
    while (head0 != tail0 && end_time - q0[head0] > half_window)
      ++head0;
    while (head1 != tail1 && end_time - q1[head1] > half_window)
      ++head1;
    if (head0 == tail0)
      head0 = tail0 = 0;
    if (head1 == tail1)
      head1 = tail1 = 0;

    r0.head = head0;
    r0.tail = tail0;
    r1.head = head1;
    r1.tail = tail1;
    c.channel_counts[0] = count0;
    c.channel_counts[1] = count1;
    c.measured_duration = measured;
    c.in_overflow = overflow;
  }
};

bool Correlation::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  binning::withBinningMode(
      binner, [&](auto mode) { CorrelationLoop::run<decltype(mode)::value>(*this, tags, begin_time, end_time); });
  return false;
}

} // namespace chronotick
