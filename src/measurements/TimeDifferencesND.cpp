#include <chronotick/ChronotickBase.h>
#include <chronotick/TimeDifferencesND.h>

#include "measurements/FastBinningModes.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace chronotick {

namespace {

// Runs before the measurement enrols, so that bad arguments leave no trace
// in the tagger.
ChronotickBase *checkedTagger(ChronotickBase *tagger, const std::vector<std::int32_t> &next_channels,
                              const std::vector<std::int32_t> &sync_channels,
                              const std::vector<std::int32_t> &n_histograms, std::int64_t binwidth,
                              std::uint64_t n_bins) {
  if ((!sync_channels.empty() && sync_channels.size() != next_channels.size()) ||
      n_histograms.size() != next_channels.size()) {
    throw std::invalid_argument("dimension mismatch of input arguments");
  }
  if (binwidth < 1) {
    throw std::invalid_argument("binwidth must be at least 1 ps");
  }
  if (n_bins == 0) {
    throw std::invalid_argument("n_bins must be at least 1");
  }
  for (std::int32_t n : n_histograms) {
    if (n < 1) {
      throw std::invalid_argument("all elements of n_histograms must be at least 1");
    }
  }
  return tagger;
}

} // namespace

TimeDifferencesND::TimeDifferencesND(ChronotickBase *tagger_, std::int32_t click_channel_, std::int32_t start_channel_,
                                     std::vector<std::int32_t> next_channels_, std::vector<std::int32_t> sync_channels_,
                                     std::vector<std::int32_t> n_histograms_, std::int64_t binwidth_,
                                     std::uint64_t n_bins_)
    : IteratorBase(checkedTagger(tagger_, next_channels_, sync_channels_, n_histograms_, binwidth_, n_bins_)),
      click_channel(click_channel_), start_channel(start_channel_), next_channels(std::move(next_channels_)),
      sync_channels(std::move(sync_channels_)), n_histograms(std::move(n_histograms_)), binwidth(binwidth_),
      n_bins(n_bins_), n_dimensions(next_channels.size()), starts_front(0), starts_count(0), histogram_offset(0),
      histogram_valid(false) {
  std::uint64_t n_total = n_bins;
  for (std::int32_t n : n_histograms) {
    n_total *= static_cast<std::uint64_t>(n);
  }
  data.resize(n_total);
  sync_unused.resize(n_dimensions);
  waiting_for_sync.resize(n_dimensions);
  histogram_index.resize(n_dimensions);

  registerChannel(click_channel);
  registerChannel(start_channel);
  for (std::size_t i = 0; i < n_dimensions; ++i) {
    registerChannel(next_channels[i]);
    if (!sync_channels.empty()) {
      registerChannel(sync_channels[i]);
    }
  }
  for (std::size_t i = 0; i < n_dimensions; ++i) {
    sync_unused[i] = sync_channels.empty() ? 1 : (tagger->isUnusedChannel(sync_channels[i]) ? 1 : 0);
  }
  // Tags outside this range can't move a position: most tags skip the scan.
  position_channels_min = INT32_MAX;
  position_channels_max = INT32_MIN;
  for (const auto *list : {&next_channels, &sync_channels}) {
    for (std::int32_t channel : *list) {
      position_channels_min = std::min(position_channels_min, channel);
      position_channels_max = std::max(position_channels_max, channel);
    }
  }
  binner = FastBinning(static_cast<std::uint64_t>(binwidth), n_bins * static_cast<std::uint64_t>(binwidth));
  // The positions as a start would set them, for a member that waits for the
  // start of its group.
  TimeDifferencesND::on_start();
  clear();
  finishInitialization();
}

TimeDifferencesND::~TimeDifferencesND() {
  stop();
}

void TimeDifferencesND::on_start() {
  histogram_offset = 0;
  histogram_valid = false;
  for (std::size_t i = 0; i < n_dimensions; ++i) {
    waiting_for_sync[i] = sync_unused[i] ? 0 : 1;
    histogram_index[i] = -1;
  }
}

void TimeDifferencesND::clear_impl() {
  // The scan positions stay: a clear during a scan keeps its place.
  std::vector<TimeDifferencesNDStart>().swap(starts);
  starts_front = 0;
  starts_count = 0;
  std::fill(data.begin(), data.end(), 0);
}

void TimeDifferencesND::growStarts() {
  // Powers of two; the ring is unrolled into the new storage.
  std::vector<TimeDifferencesNDStart> grown(starts.empty() ? 16 : 2 * starts.size());
  const std::size_t mask = starts.size() - 1;
  for (std::size_t i = 0; i < starts_count; ++i) {
    grown[i] = starts[(starts_front + i) & mask];
  }
  starts.swap(grown);
  starts_front = 0;
}

void TimeDifferencesND::selectHistogram() {
  histogram_offset = 0;
  histogram_valid = true;
  std::uint64_t stride = n_bins;
  for (std::size_t i = 0; i < n_dimensions; ++i) {
    // A dimension at -1 adds a wrapped negative; valid is false then.
    histogram_offset += static_cast<std::uint64_t>(static_cast<std::int64_t>(histogram_index[i])) * stride;
    stride *= static_cast<std::uint64_t>(n_histograms[i]);
    if (histogram_index[i] < 0 || histogram_index[i] >= n_histograms[i] || waiting_for_sync[i]) {
      histogram_valid = false;
    }
  }
}

template <class ModeTag> void TimeDifferencesND::process(const std::vector<Tag> &tags, std::int64_t end_time) {
  constexpr FastBinning::Mode M = ModeTag::value;
  const binning::Constants k(binner);
  const std::int64_t range = static_cast<std::int64_t>(n_bins * static_cast<std::uint64_t>(binwidth));
  const bool have_sync = !sync_channels.empty();
  std::int32_t *const out = data.data();
  // The ring in locals; refreshed when a start makes it grow.
  TimeDifferencesNDStart *ring = starts.data();
  std::size_t size = starts.size();
  std::size_t mask = size - 1;
  std::size_t front = starts_front;
  std::size_t count = starts_count;

  for (const Tag &tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      // Positions are forgotten; data and the open starts stay.
      on_start();
      continue;
    }
    const std::int32_t channel = tag.channel;

    if (channel >= position_channels_min && channel <= position_channels_max) {
      if (have_sync) {
        for (std::size_t i = 0; i < n_dimensions; ++i) {
          if (channel == sync_channels[i]) {
            histogram_index[i] = -1;
            waiting_for_sync[i] = 0;
            histogram_valid = false;
          }
        }
      }
      bool moved = false;
      for (std::size_t i = 0; i < n_dimensions; ++i) {
        if (channel == next_channels[i] && !waiting_for_sync[i]) {
          moved = true;
          if (++histogram_index[i] >= n_histograms[i]) {
            if (sync_unused[i]) {
              histogram_index[i] = 0;
            } else {
              waiting_for_sync[i] = 1;
            }
          }
        }
      }
      if (moved) {
        selectHistogram();
      }
    }

    // Every tag is written behind the open starts, and only a start is kept
    // by counting it: no branch on the channel, which is hard to predict.
    const bool take = (channel == start_channel) & histogram_valid;
    if (count == size && take) {
      starts_front = front;
      starts_count = count;
      growStarts();
      ring = starts.data();
      size = starts.size();
      mask = size - 1;
      front = starts_front;
    }
    if (count != size) {
      ring[(front + count) & mask] = TimeDifferencesNDStart{tag.time, histogram_offset};
      count += take ? 1 : 0;
    }

    if (channel == click_channel) {
      // Starts age only where it matters, before a click: the same starts
      // are gone then as if every tag had aged them, since times only grow.
      while (count != 0 && tag.time - ring[front].time >= range) {
        front = (front + 1) & mask;
        --count;
      }
      // Every open start lies within the range after ageing, so the bin
      // needs no range test. The ring is walked as its two contiguous parts.
      const std::size_t first_end = std::min(front + count, mask + 1);
      const std::size_t wrapped = front + count - first_end;
      const std::uint64_t t = static_cast<std::uint64_t>(tag.time);
      for (std::size_t i = front; i < first_end; ++i) {
        ++out[binning::binOf<M>(k, t - static_cast<std::uint64_t>(ring[i].time)) + ring[i].offset];
      }
      for (std::size_t i = 0; i < wrapped; ++i) {
        ++out[binning::binOf<M>(k, t - static_cast<std::uint64_t>(ring[i].time)) + ring[i].offset];
      }
    }
  }
  while (count != 0 && end_time - ring[front].time >= range) {
    front = (front + 1) & mask;
    --count;
  }
  starts_front = front;
  starts_count = count;
}

bool TimeDifferencesND::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  // The mode is resolved once per block; each mode has its own loop.
  binning::withBinningMode(binner, [&](auto mode) { process<decltype(mode)>(tags, end_time); });
  return false;
}

void TimeDifferencesND::getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate) {
  std::int32_t *out = allocate(data.size() / n_bins, n_bins);
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void TimeDifferencesND::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(n_bins);
  for (std::uint64_t i = 0; i < n_bins; ++i) {
    out[i] = static_cast<std::int64_t>(i) * binwidth;
  }
}

} // namespace chronotick
