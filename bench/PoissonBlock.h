#pragma once

// The synthetic input of the channel benchmarks: one block of tags on the
// given channels with exponential gaps, times relative to the block's start.

#include <chronotick/Tag.h>

#include <cstdint>
#include <random>
#include <vector>

inline std::vector<chronotick::Tag> poissonBlock(const std::vector<std::int32_t> &channels, std::int64_t mean_gap,
                                                 std::size_t size, std::int64_t &span) {
  std::mt19937_64 rng(1);
  std::exponential_distribution<double> gap(1.0 / static_cast<double>(mean_gap));
  std::uniform_int_distribution<std::size_t> pick(0, channels.size() - 1);
  std::vector<chronotick::Tag> tags(size);
  std::int64_t t = 0;
  for (chronotick::Tag &tag : tags) {
    t += 1 + static_cast<std::int64_t>(gap(rng));
    tag = chronotick::Tag{chronotick::Tag::Type::TimeTag, 0, 0, channels[pick(rng)], t};
  }
  span = t + 1;
  return tags;
}
