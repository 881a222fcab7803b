#include <chronotick/CountBetweenMarkers.h>

#include <algorithm>
#include <cstdint>

namespace chronotick {

CountBetweenMarkers::CountBetweenMarkers(ChronotickBase *tagger_, std::int32_t click_channel_,
                                         std::int32_t begin_channel_, std::int32_t end_channel_, std::int32_t n_values_)
    : IteratorBase(tagger_), click_channel(click_channel_), begin_channel(begin_channel_), end_channel(end_channel_),
      n_values(n_values_), current_bin(-1), between_bins(true), last_begin(0), first_begin(0) {
  // A negative n_values fails here with the vector's length error.
  data.resize(n_values);
  binwidths.resize(n_values);
  index.resize(n_values);
  clear();
  registerChannel(click_channel);
  registerChannel(begin_channel);
  registerChannel(end_channel);
  finishInitialization();
}

CountBetweenMarkers::~CountBetweenMarkers() {
  stop();
}

void CountBetweenMarkers::clear_impl() {
  current_bin = -1;
  between_bins = true;
  last_begin = 0;
  first_begin = 0;
  std::fill(data.begin(), data.end(), 0);
  std::fill(binwidths.begin(), binwidths.end(), 0);
  std::fill(index.begin(), index.end(), 0);
}

bool CountBetweenMarkers::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) {
  for (const Tag &tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      continue;
    }
    const bool bin_open = !between_bins && current_bin >= 0 && current_bin < n_values;
    if (tag.channel == begin_channel) {
      if (bin_open) {
        binwidths[current_bin] = tag.time - last_begin;
      }
      between_bins = false;
      // Keeps rising after the last bin, without writing anything.
      if (current_bin != INT32_MAX) {
        ++current_bin;
      }
      last_begin = tag.time;
      if (current_bin == 0) {
        first_begin = tag.time;
        index[0] = 0;
      } else if (current_bin < n_values) {
        index[current_bin] = tag.time - first_begin;
      }
    } else if (tag.channel == end_channel) {
      if (bin_open) {
        binwidths[current_bin] = tag.time - last_begin;
      }
      between_bins = true;
    }
    if (tag.channel == click_channel && !between_bins && current_bin >= 0 && current_bin < n_values) {
      ++data[current_bin];
    }
  }
  return false;
}

void CountBetweenMarkers::getData(std::function<std::int32_t *(std::size_t)> allocate) {
  std::int32_t *out = allocate(data.size());
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void CountBetweenMarkers::getBinWidths(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(binwidths.size());
  auto guard = getLock();
  std::copy(binwidths.begin(), binwidths.end(), out);
}

void CountBetweenMarkers::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(index.size());
  auto guard = getLock();
  std::copy(index.begin(), index.end(), out);
}

bool CountBetweenMarkers::ready() {
  auto guard = getLock();
  if (!between_bins) {
    return current_bin >= n_values;
  }
  return static_cast<std::int64_t>(current_bin) + 1 >= n_values;
}

} // namespace chronotick
