#include <chronotick/ChronotickBase.h>
#include <chronotick/StartStop.h>

#include "FastBinningModes.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace chronotick {

namespace {
constexpr std::size_t CACHE_SIZE = 4096; // power of two
constexpr std::size_t HISTOGRAM_BUCKETS = 8;
} // namespace

StartStop::StartStop(ChronotickBase *tagger, std::int32_t click_channel_, std::int32_t start_channel_,
                     std::int64_t binwidth_)
    : IteratorBase(tagger), histogram(HISTOGRAM_BUCKETS), click_channel(click_channel_), start_channel(start_channel_),
      binwidth(binwidth_), last_start(0), cache_bins(CACHE_SIZE, 0), cache_counts(CACHE_SIZE, nullptr) {
  // A bin width of 0 would divide by zero in the binning. (A negative one acts
  // as a huge divisor: everything lands in bin 0.)
  if (binwidth == 0)
    throw std::invalid_argument("binwidth must not be 0");
  histogram.max_load_factor(1.0f);
  if (tagger->isUnusedChannel(start_channel))
    start_channel = click_channel;
  registerChannel(click_channel_);
  registerChannel(start_channel_);
  binner = FastBinning(static_cast<std::uint64_t>(binwidth),
                       static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
  clear();
  finishInitialization();
}

StartStop::~StartStop() {
  stop();
}

void StartStop::getData(std::function<std::int64_t *(std::size_t, std::size_t)> allocate) {
  // The row count must match what is written, so allocate runs under the lock.
  auto guard = getLock();
  std::vector<std::pair<std::int64_t, std::uint64_t>> rows(histogram.begin(), histogram.end());
  std::sort(rows.begin(), rows.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  std::int64_t *out = allocate(rows.size(), 2);
  for (std::size_t r = 0; r < rows.size(); ++r) {
    out[2 * r] = rows[r].first * binwidth;
    out[2 * r + 1] = static_cast<std::int64_t>(rows[r].second);
  }
}

void StartStop::resetHistogram() {
  std::unordered_map<std::int64_t, std::uint64_t> fresh(HISTOGRAM_BUCKETS);
  fresh.max_load_factor(1.0f);
  histogram.swap(fresh);
  std::fill(cache_counts.begin(), cache_counts.end(), nullptr);
}

void StartStop::clear_impl() {
  last_start = 0;
  resetHistogram();
}

// No pair crosses a stop.
void StartStop::on_start() {
  last_start = 0;
}

std::uint64_t *StartStop::findOrCreate(std::int64_t bin) {
  const std::size_t slot = static_cast<std::size_t>(bin) & (CACHE_SIZE - 1);
  if (cache_counts[slot] == nullptr || cache_bins[slot] != bin) {
    cache_bins[slot] = bin;
    cache_counts[slot] = &histogram[bin];
  }
  return cache_counts[slot];
}

struct StartStopLoop {
  template <FastBinning::Mode M> static void run(StartStop &ss, const std::vector<Tag> &tags) {
    const binning::Constants k(ss.binner);
    const std::int32_t click = ss.click_channel;
    const std::int32_t start = ss.start_channel;
    std::int64_t last = ss.last_start;
    for (const Tag &tag : tags) {
      if (tag.type != Tag::Type::TimeTag) {
        // A break closes the open start, but the tag may open a new one below.
        last = 0;
      } else if (tag.channel == click && last != 0) {
        std::int64_t bin = 0;
        if constexpr (M != FastBinning::Mode::AlwaysZero)
          bin = static_cast<std::int64_t>(binning::binOf<M>(k, static_cast<std::uint64_t>(tag.time - last)));
        ++*ss.findOrCreate(bin);
        last = 0;
      }
      if (tag.channel == start)
        last = tag.time;
    }
    ss.last_start = last;
  }
};

bool StartStop::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) {
  binning::withBinningMode(binner, [&](auto mode) { StartStopLoop::run<decltype(mode)::value>(*this, tags); });
  return false;
}

} // namespace chronotick
