#include <chronotick/ChronotickBase.h>
#include <chronotick/TimeDifferences.h>

#include "FastBinningModes.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace chronotick {

namespace {
// First element of a row in data: a 32-bit product, wrapping rather than
// overflowing.
inline std::int32_t rowOffset(std::int32_t row, std::int32_t n_bins) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(row) * static_cast<std::uint32_t>(n_bins));
}
} // namespace

TimeDifferences::TimeDifferences(ChronotickBase *tagger, std::int32_t click_channel_, std::int32_t start_channel_,
                                 std::int32_t next_channel_, std::int32_t sync_channel_, std::int64_t binwidth_,
                                 std::int32_t n_bins_, std::int32_t n_histograms_)
    : IteratorBase(tagger), click_channel(click_channel_), start_channel(start_channel_), next_channel(next_channel_),
      sync_channel(sync_channel_), next_unused(false), sync_unused(false), n_bins(n_bins_), n_histograms(n_histograms_),
      binwidth(binwidth_), range(0), starts_head(0), starts_tail(0), waiting_for_sync(false), histogram_index(-1),
      counts(0), max_counts(0) {
  if (binwidth < 1)
    throw std::invalid_argument("binwidth must be at least 1 ps");
  if (n_bins < 1)
    throw std::invalid_argument("n_bins must be at least 1");
  if (n_histograms < 1)
    throw std::invalid_argument("n_histograms must be at least 1");
  // Rows are found by 32-bit products, which must not wrap.
  if (std::int64_t(n_bins) * n_histograms > std::numeric_limits<std::int32_t>::max())
    throw std::invalid_argument("n_bins times n_histograms must not exceed 2147483647");

  if (tagger->isUnusedChannel(start_channel))
    start_channel = click_channel; // a click is its own start
  next_unused = tagger->isUnusedChannel(next_channel);
  sync_unused = tagger->isUnusedChannel(sync_channel);

  registerChannel(click_channel_);
  registerChannel(start_channel_);
  registerChannel(next_channel_);
  registerChannel(sync_channel_);

  data.assign(static_cast<std::size_t>(n_bins) * static_cast<std::size_t>(n_histograms), 0);
  range = static_cast<std::int64_t>(n_bins) * binwidth;
  binner = FastBinning(static_cast<std::uint64_t>(binwidth), static_cast<std::uint64_t>(range));

  clear();
  finishInitialization();
}

TimeDifferences::~TimeDifferences() {
  stop();
}

void TimeDifferences::getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate) {
  std::int32_t *out = allocate(static_cast<std::size_t>(n_histograms), static_cast<std::size_t>(n_bins));
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void TimeDifferences::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(static_cast<std::size_t>(n_bins));
  for (std::int32_t i = 0; i < n_bins; ++i)
    out[i] = i * binwidth;
}

void TimeDifferences::setMaxCounts(std::uint64_t max_counts_) {
  auto guard = getLock();
  max_counts = max_counts_;
}

std::uint64_t TimeDifferences::getCounts() {
  auto guard = getLock();
  return counts;
}

bool TimeDifferences::ready() {
  auto guard = getLock();
  return counts >= max_counts && starts_head == starts_tail;
}

void TimeDifferences::restart(bool release) {
  starts_head = 0;
  starts_tail = 0;
  if (release)
    std::vector<TimeDifferencesStart>().swap(starts);
  histogram_index = next_unused ? 0 : -1;
  // With a sync channel nothing is recorded before the first sync tag.
  waiting_for_sync = !sync_unused;
}

void TimeDifferences::on_start() {
  restart(true);
}

void TimeDifferences::clear_impl() {
  std::fill(data.begin(), data.end(), 0);
  counts = 0;
  on_start();
}

// Makes room for one more start at starts_tail: slides the live entries to
// the front if most of the buffer is dead, else doubles it.
void TimeDifferences::pushStart(std::int64_t time) {
  const std::size_t live = starts_tail - starts_head;
  if (starts_tail == starts.size()) {
    if (starts_head > 0 && live <= starts.size() / 4) {
      std::memmove(static_cast<void *>(starts.data()), starts.data() + starts_head,
                   live * sizeof(TimeDifferencesStart));
      starts_head = 0;
      starts_tail = live;
    } else {
      starts.resize(std::max<std::size_t>(16, 2 * starts.size()));
    }
  }
  starts[starts_tail++] = TimeDifferencesStart{time, histogram_index, rowOffset(histogram_index, n_bins)};
}

struct TimeDifferencesLoop {
  template <FastBinning::Mode M>
  static void run(TimeDifferences &td, const std::vector<Tag> &tags, std::int64_t end_time) {
    const binning::Constants k(td.binner);
    const std::int32_t click = td.click_channel;
    const std::int32_t start = td.start_channel;
    const std::int32_t next = td.next_channel;
    const std::int32_t sync = td.sync_channel;
    const std::int64_t range = td.range;
    const std::int32_t n_histograms = td.n_histograms;
    std::int32_t *data = td.data.data();

    // Hot state in locals: the stores into data would otherwise force
    // reloads of every member. store()/load() hand it over to the members
    // around the rare calls that change it.
    TimeDifferencesStart *queue = td.starts.data();
    std::size_t head = td.starts_head;
    std::size_t tail = td.starts_tail;
    std::size_t capacity = td.starts.size();
    std::int32_t index = td.histogram_index;
    bool waiting = td.waiting_for_sync;
    std::uint64_t counts = td.counts;
    const std::uint64_t max_counts = td.max_counts;
    auto store = [&] {
      td.starts_head = head;
      td.starts_tail = tail;
      td.histogram_index = index;
      td.waiting_for_sync = waiting;
      td.counts = counts;
    };
    auto load = [&] {
      queue = td.starts.data();
      capacity = td.starts.size();
      head = td.starts_head;
      tail = td.starts_tail;
      index = td.histogram_index;
      waiting = td.waiting_for_sync;
    };

    for (const Tag &tag : tags) {
      if (tag.type != Tag::Type::TimeTag) {
        // Any break drops the open starts and rewinds the sequence; the
        // storage is kept for the next starts.
        store();
        td.restart(false);
        load();
        continue;
      }
      const std::int32_t channel = tag.channel;
      const std::int64_t time = tag.time;
      const bool not_full = max_counts == 0 || max_counts > counts;

      if (channel == sync && not_full) {
        if (!waiting)
          ++counts; // the sync cut a running pass short
        waiting = false;
        index = td.next_unused ? 0 : -1;
      }
      if (channel == next && !waiting && not_full) {
        const std::int32_t h = index + 1;
        if (h < n_histograms) {
          index = h;
        } else if (td.sync_unused) {
          index = 0;
          ++counts;
        } else {
          index = h;
          waiting = true;
          ++counts;
        }
      }
      if (channel == start && !waiting && not_full && index >= 0 && index < n_histograms) {
        if (tail == capacity) {
          store();
          td.pushStart(time);
          load();
        } else {
          queue[tail++] = TimeDifferencesStart{time, index, rowOffset(index, td.n_bins)};
        }
      }
      while (head != tail && time - queue[head].time >= range)
        ++head;
      if (channel == click) {
        // Every open start lies within [0, range) of this click, so the bin
        // needs no range test.
        for (std::size_t i = head; i != tail; ++i) {
          const std::uint64_t bin = binning::binOf<M>(k, static_cast<std::uint64_t>(time - queue[i].time));
          ++data[static_cast<std::int64_t>(queue[i].offset) + static_cast<std::int64_t>(bin)];
        }
      }
    }

    while (head != tail && end_time - queue[head].time >= range)
      ++head;
    if (head == tail)
      head = tail = 0;
    store();
  }
};

bool TimeDifferences::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  binning::withBinningMode(binner,
                           [&](auto mode) { TimeDifferencesLoop::run<decltype(mode)::value>(*this, tags, end_time); });
  return false;
}

} // namespace chronotick
