#pragma once

// A direct table from channel number to a per-channel value, for loops that
// look up the channel of every tag in a short list.

#include <algorithm>
#include <cstdint>
#include <vector>

namespace chronotick {

// Fills lookup[channel - lookup_min] with value(i) for channel i of the list
// and -1 elsewhere. Leaves lookup empty if a channel is listed twice or the
// channels span more than max_span numbers: callers then scan the list.
template <class Value>
void buildChannelLookup(const std::vector<std::int32_t> &channels, std::vector<std::int32_t> &lookup,
                        std::int32_t &lookup_min, Value value, std::int64_t max_span = 1 << 16) {
  lookup.clear();
  lookup_min = 0;
  if (channels.empty())
    return;
  const auto [lo, hi] = std::minmax_element(channels.begin(), channels.end());
  const std::int64_t span = static_cast<std::int64_t>(*hi) - *lo + 1;
  if (span > max_span)
    return;
  std::vector<std::int32_t> table(static_cast<std::size_t>(span), -1);
  for (std::size_t i = 0; i < channels.size(); ++i) {
    std::int32_t &slot = table[static_cast<std::size_t>(static_cast<std::int64_t>(channels[i]) - *lo)];
    if (slot != -1)
      return;
    slot = value(i);
  }
  lookup.swap(table);
  lookup_min = *lo;
}

// The table above, read in a tag loop: -1 for a channel not in the list.
class ChannelTable {
public:
  ChannelTable(const std::vector<std::int32_t> &lookup, std::int32_t lookup_min)
      : table(lookup.data()), span(static_cast<std::uint32_t>(lookup.size())),
        low(static_cast<std::uint32_t>(lookup_min)) {}
  std::int32_t operator[](std::int32_t channel) const {
    const std::uint32_t offset = static_cast<std::uint32_t>(channel) - low; // one unsigned test covers both ends
    return offset < span ? table[offset] : -1;
  }

private:
  const std::int32_t *table;
  std::uint32_t span;
  std::uint32_t low;
};

} // namespace chronotick
