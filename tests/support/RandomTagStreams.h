#pragma once

// Random multi-channel tag streams for reference checks: bursts of close
// tags (equal times included), overflow stretches with MissedEvents records
// inside, Error tags and, on request, lone MissedEvents records.

#include <chronotick/Tag.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace chronotick::testing {

struct RandomStreamShape {
  int n_channels = 8;                 // channels 1..n_channels, unless `channels` names them
  std::vector<std::int32_t> channels; // picked uniformly (repeat one to make it more frequent)
  std::int64_t max_gap = 400;         // most gaps are uniform in [0, max_gap]
  double long_gap = 0.02;             // chance of a gap of up to 50 * max_gap
  double overflow = 0.002;            // chance that an overflow stretch starts here
  double error = 0.001;               // chance of an Error tag
  double missed = 0.3;                // chance of a MissedEvents record per tag inside an overflow
  double lone_missed = 0;             // chance of a MissedEvents record outside an overflow
};

inline Tag makeTag(std::int32_t channel, std::int64_t time, Tag::Type type = Tag::Type::TimeTag,
                   std::uint16_t missed = 0) {
  Tag tag{};
  tag.type = type;
  tag.missed_events = missed;
  tag.channel = channel;
  tag.time = time;
  return tag;
}

inline std::vector<Tag> randomTagStream(std::size_t n, std::uint64_t seed, const RandomStreamShape &shape = {}) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> chance(0.0, 1.0);
  std::uniform_int_distribution<std::int64_t> gap(0, shape.max_gap);
  std::uniform_int_distribution<std::int64_t> far_gap(0, 50 * shape.max_gap);
  const int n_channels = shape.channels.empty() ? shape.n_channels : int(shape.channels.size());
  std::uniform_int_distribution<int> pick(1, n_channels);
  auto channel = [&](auto &r) { return shape.channels.empty() ? pick(r) : shape.channels[std::size_t(pick(r) - 1)]; };
  std::uniform_int_distribution<int> stretch(5, 60);
  std::vector<Tag> tags;
  tags.reserve(n);
  std::int64_t time = 1000;
  int overflow_left = 0;
  while (tags.size() < n) {
    time += chance(rng) < shape.long_gap ? far_gap(rng) : gap(rng);
    if (overflow_left > 0) {
      if (--overflow_left == 0) {
        tags.push_back(makeTag(0, time, Tag::Type::OverflowEnd));
        continue;
      }
      if (chance(rng) < shape.missed) {
        tags.push_back(makeTag(channel(rng), time, Tag::Type::MissedEvents, static_cast<std::uint16_t>(gap(rng) + 1)));
        continue;
      }
    } else if (chance(rng) < shape.overflow) {
      tags.push_back(makeTag(0, time, Tag::Type::OverflowBegin));
      overflow_left = stretch(rng);
      continue;
    }
    if (chance(rng) < shape.error) {
      tags.push_back(makeTag(0, time, Tag::Type::Error));
      continue;
    }
    // Only when asked for, so that streams of the other shapes stay as they were.
    if (shape.lone_missed > 0 && chance(rng) < shape.lone_missed) {
      tags.push_back(makeTag(channel(rng), time, Tag::Type::MissedEvents, 7));
      continue;
    }
    tags.push_back(makeTag(channel(rng), time));
  }
  return tags;
}

inline auto tagKey(const Tag &tag) {
  return std::make_tuple(tag.time, tag.channel, static_cast<int>(tag.type), tag.missed_events);
}

// Sorts each run of equal times by channel, type and count, so that two
// streams that differ only in the order of simultaneous tags compare equal.
inline std::vector<Tag> canonicalOrder(std::vector<Tag> tags) {
  std::stable_sort(tags.begin(), tags.end(), [](const Tag &a, const Tag &b) { return tagKey(a) < tagKey(b); });
  return tags;
}

// Empty if equal; otherwise where and how the two streams first differ.
inline std::string firstDifference(const std::vector<Tag> &actual, const std::vector<Tag> &expected) {
  auto show = [](const Tag &t) {
    std::ostringstream out;
    out << "{ch " << t.channel << " t " << t.time << " type " << int(t.type) << " n " << t.missed_events << "}";
    return out.str();
  };
  for (std::size_t i = 0; i < std::min(actual.size(), expected.size()); ++i)
    if (tagKey(actual[i]) != tagKey(expected[i]))
      return "at " + std::to_string(i) + ": got " + show(actual[i]) + ", expected " + show(expected[i]);
  if (actual.size() != expected.size())
    return "sizes " + std::to_string(actual.size()) + " vs expected " + std::to_string(expected.size());
  return "";
}

} // namespace chronotick::testing
