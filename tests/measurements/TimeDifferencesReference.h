#pragma once

// Plain reference for TimeDifferences, Histogram and Flim: the sequence of
// rows is followed tag by tag to learn which row each accepted start fills,
// then every click is paired directly with each earlier accepted start that
// is less than n_bins * binwidth before it and not separated from it by a
// break in the stream.

#include <chronotick/Tag.h>

#include <cstdint>
#include <vector>

namespace chronotick::testing {

struct TimeDifferencesSetup {
  std::int32_t click = 1;
  std::int32_t start = 2; // CHANNEL_UNUSED: the click channel
  std::int32_t next = CHANNEL_UNUSED;
  std::int32_t sync = CHANNEL_UNUSED;
  std::int64_t binwidth = 10;
  std::int32_t n_bins = 100;
  std::int32_t n_histograms = 1;
  std::uint64_t max_counts = 0;
};

struct TimeDifferencesResult {
  std::vector<std::int32_t> data;
  std::uint64_t counts = 0;
};

inline TimeDifferencesResult referenceTimeDifferences(const std::vector<Tag> &tags, const TimeDifferencesSetup &s) {
  const std::int32_t start = s.start == CHANNEL_UNUSED ? s.click : s.start;
  const bool has_next = s.next != CHANNEL_UNUSED;
  const bool has_sync = s.sync != CHANNEL_UNUSED;
  const std::int64_t range = s.n_bins * s.binwidth;

  TimeDifferencesResult result;
  result.data.assign(std::size_t(s.n_bins) * std::size_t(s.n_histograms), 0);

  // Pass 1: the row of each accepted start, -1 for none.
  std::vector<std::int32_t> start_row(tags.size(), -1);
  std::int32_t row = has_next ? -1 : 0;
  bool waiting = has_sync;
  for (std::size_t i = 0; i < tags.size(); ++i) {
    const Tag &tag = tags[i];
    if (tag.type != Tag::Type::TimeTag) {
      row = has_next ? -1 : 0;
      waiting = has_sync;
      continue;
    }
    const bool open = s.max_counts == 0 || result.counts < s.max_counts;
    if (has_sync && tag.channel == s.sync && open) {
      if (!waiting)
        ++result.counts;
      waiting = false;
      row = has_next ? -1 : 0;
    }
    if (has_next && tag.channel == s.next && !waiting && open) {
      if (++row == s.n_histograms) {
        ++result.counts;
        row = has_sync ? s.n_histograms : 0;
        waiting = has_sync;
      }
    }
    if (tag.channel == start && !waiting && open && row >= 0 && row < s.n_histograms)
      start_row[i] = row;
  }

  // Pass 2: direct pairs.
  for (std::size_t j = 0; j < tags.size(); ++j) {
    if (tags[j].type != Tag::Type::TimeTag || tags[j].channel != s.click)
      continue;
    for (std::size_t i = j + 1; i-- > 0;) {
      const std::int64_t diff = tags[j].time - tags[i].time;
      if (diff >= range || tags[i].type != Tag::Type::TimeTag)
        break;
      if (start_row[i] >= 0)
        ++result.data[std::size_t(start_row[i] * s.n_bins + diff / s.binwidth)];
    }
  }
  return result;
}

} // namespace chronotick::testing
