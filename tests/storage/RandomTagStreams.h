#pragma once

// Random tag streams for recording round trips, and an independent model of
// what a recording gives back from them.

#include <chronotick/Tag.h>

#include <cstdint>
#include <random>
#include <set>
#include <vector>

namespace chronotick::storage_test {

struct StreamBlock {
  std::vector<Tag> tags;
  std::int64_t begin_time;
  std::int64_t end_time;
};

struct StreamOptions {
  std::vector<std::int32_t> channels{1, 2, -1, 5, 8, 3}; // drawn from; 3 is left out of the recording
  int blocks = 40;
  int max_tags = 600;
  bool overflow_across_blocks = true; // else each overflow stretch ends in the block it began
  bool huge_deltas = true;            // deltas at and around 2^24 and 2^48
  std::int64_t start_time = 0;
};

inline std::vector<StreamBlock> randomStream(std::uint64_t seed, const StreamOptions &o) {
  std::mt19937_64 random(seed);
  auto chance = [&](int percent) { return int(random() % 100) < percent; };
  const std::int64_t b24 = std::int64_t(1) << 24, b48 = std::int64_t(1) << 48;
  const std::int64_t special[] = {b24 - 1, b24, b24 + 1, 2 * b24, b48 - 1, b48, b48 + 1, b48 + b24, b48 + b24 - 1, 0};
  std::vector<StreamBlock> blocks;
  std::int64_t t = o.start_time;
  bool overflow = false;
  for (int b = 0; b < o.blocks; ++b) {
    StreamBlock block{{}, t, 0};
    const int n = chance(10) ? 0 : int(random() % std::uint64_t(o.max_tags + 1));
    for (int i = 0; i < n; ++i) {
      std::int64_t delta = std::int64_t(random() % 2000);
      if (o.huge_deltas && chance(3))
        delta = special[random() % std::size(special)];
      else if (chance(5))
        delta = std::int64_t(random() % (std::uint64_t(1) << 30));
      Tag tag{Tag::Type::TimeTag, 0, 0, o.channels[random() % o.channels.size()], 0};
      const int kind = int(random() % 100);
      if (kind < 2) {
        tag.type = Tag::Type::Error;
        tag.channel = CHANNEL_UNUSED;
      } else if (kind < 4) {
        tag.type = overflow ? Tag::Type::OverflowEnd : Tag::Type::OverflowBegin;
        tag.channel = CHANNEL_UNUSED;
        overflow = !overflow;
      } else if (kind < 12 && overflow) {
        tag.type = Tag::Type::MissedEvents;
        tag.missed_events = std::uint16_t(chance(20) ? 65535 : random() % 100);
      } else if (kind < 14) {
        // A tag from the past, which a recording can't keep.
        tag.time = t - std::int64_t(random() % 5000);
        block.tags.push_back(tag);
        continue;
      }
      t += delta;
      tag.time = t;
      block.tags.push_back(tag);
    }
    if (overflow && !o.overflow_across_blocks) {
      t += 10;
      block.tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, t});
      overflow = false;
    }
    t += std::int64_t(random() % 3000);
    block.end_time = t;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

// What reading the recording of `blocks` gives back, worked out tag by tag
// from the rules of the format: a tag is kept if its channel is recorded and
// time does not run backwards; in overflow, time tags are lost and missed
// events take the running time.
inline std::vector<Tag> expectedRecording(const std::vector<StreamBlock> &blocks,
                                          const std::set<std::int32_t> &recorded) {
  std::vector<Tag> out;
  bool overflow = false;
  for (const StreamBlock &block : blocks) {
    std::int64_t running = block.begin_time;
    for (const Tag &tag : block.tags) {
      const bool channel_tag = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
      if (channel_tag && !recorded.count(tag.channel))
        continue;
      if (tag.type == Tag::Type::MissedEvents) {
        if (overflow)
          out.push_back(Tag{Tag::Type::MissedEvents, 0, tag.missed_events, tag.channel, running});
        continue;
      }
      if (tag.time < running)
        continue;
      if (tag.type == Tag::Type::TimeTag && overflow) {
        // Only whole multiples of 2^24 of its delta were written.
        running += (tag.time - running) & ~std::int64_t(0xFFFFFF);
        continue;
      }
      if (tag.type == Tag::Type::OverflowBegin)
        overflow = true;
      if (tag.type == Tag::Type::OverflowEnd)
        overflow = false;
      out.push_back(Tag{tag.type, 0, 0, tag.type == Tag::Type::TimeTag ? tag.channel : CHANNEL_UNUSED, tag.time});
      running = tag.time;
    }
  }
  return out;
}

} // namespace chronotick::storage_test
