#pragma once

// Helpers for tests of recordings: a scratch directory, reading of files that
// bypasses the codec, random block streams and an independent model of what
// a recording of them gives back.

#include "storage/ChronotickFileIO.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <chronotick/FileReader.h>
#include <chronotick/FileWriter.h>
#include <chronotick/Tag.h>
#include <chronotick/TimeTagStream.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace chronotick::testing {

class TempDir {
public:
  TempDir() {
    std::random_device device;
    path_ = std::filesystem::temp_directory_path() / ("ct_" + std::to_string(device()) + std::to_string(device()));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string &name) const { return (path_ / name).string(); }

private:
  std::filesystem::path path_;
};

inline std::string readFile(const std::string &name) {
  std::ifstream in(name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string &name, const std::string &bytes) {
  std::ofstream(name, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size()));
}

template <typename T> T load(const std::string &bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

// One block of a file as its prefix says (alignment 16 throughout).
struct BlockInfo {
  std::size_t offset;
  std::uint32_t type;
  std::uint32_t size;
  std::size_t end;
};

inline std::vector<BlockInfo> walkBlocks(const std::string &bytes) {
  std::vector<BlockInfo> blocks;
  for (std::size_t offset = 0; offset + 16 <= bytes.size(); offset = blocks.back().end) {
    const auto size = load<std::uint32_t>(bytes, offset + 4);
    blocks.push_back({offset, load<std::uint32_t>(bytes, offset + 8), size, offset + 16 + (size + 15ul) / 16 * 16});
  }
  return blocks;
}

// The parts of a recording on disk, as long as their numbers follow on.
inline std::vector<std::string> partFiles(const std::string &base) {
  std::vector<std::string> parts{base + ".ctbin"};
  while (std::filesystem::exists(parts.back()))
    parts.push_back(base + "." + std::to_string(parts.size()) + ".ctbin");
  parts.pop_back();
  return parts;
}

// Writes a recording: part 0 with the prelude only, then one part per entry
// of `parts`, each holding its tags in one block.
inline void writeRecording(const std::string &base, const ctbin::FileId &id, const std::vector<std::vector<Tag>> &parts,
                           const std::string &config = "{}") {
  for (std::size_t p = 0; p <= parts.size(); ++p) {
    TagFileWriter writer(base, std::uint32_t(p), id);
    writer.writeConfiguration(config);
    writer.writeChannelList({{1, -1}, {2, -2}});
    if (p > 0) {
      const std::vector<Tag> &tags = parts[p - 1];
      ctbin::TagBlock *block = writer.pack(tags, tags.front().time - 5, tags.back().time + 5);
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
    }
  }
}

inline std::vector<Tag> readRecording(const std::vector<std::string> &names) {
  FileReader reader(names);
  std::vector<Tag> all, block;
  while (reader.hasData()) {
    reader.getDataRaw(block);
    all.insert(all.end(), block.begin(), block.end());
  }
  return all;
}

inline std::vector<Tag> tagsOf(const TimeTagStreamBuffer &buffer) {
  std::vector<std::int32_t> channels;
  std::vector<std::int64_t> times;
  std::vector<std::uint16_t> missed;
  std::vector<std::uint8_t> types;
  buffer.getChannels([&](std::size_t n) { return channels.resize(n), channels.data(); });
  buffer.getTimestamps([&](std::size_t n) { return times.resize(n), times.data(); });
  buffer.getMissedEvents([&](std::size_t n) { return missed.resize(n), missed.data(); });
  buffer.getEventTypes([&](std::size_t n) { return types.resize(n), types.data(); });
  std::vector<Tag> tags;
  for (std::size_t i = 0; i < buffer.size; ++i)
    tags.push_back(makeTag(channels[i], times[i], Tag::Type(types[i]), missed[i]));
  return tags;
}

// Channel 3 is drawn but left out of the recordings.
inline const std::vector<std::int32_t> RECORDED{1, 2, -1, 5, 8};

// Records `blocks` over RECORDED with a FileWriter on a test source.
inline void record(const std::vector<Block> &blocks, const std::string &path, std::int64_t max_file_size = 0x40000000) {
  TestTagger source(8, CT_CHANNEL_NUMBER_SCHEME_ONE, 2);
  FileWriter writer(&source, path, RECORDED);
  writer.setMaxFileSize(max_file_size);
  for (const Block &block : blocks)
    source.push(block.tags, block.begin_time, block.end_time);
  source.waitUntilDone();
}

struct StreamOptions {
  int blocks = 40;
  int max_tags = 600;
  bool overflow_across_blocks = true; // else each overflow stretch ends in the block it began
  bool huge_deltas = true;            // deltas at and around 2^24 and 2^48
  std::int64_t start_time = 0;
};

// Contiguous blocks with every tag type, overflow stretches and tags that
// run back in time.
inline std::vector<Block> randomBlocks(std::uint64_t seed, const StreamOptions &o) {
  const std::int32_t channels[] = {1, 2, -1, 5, 8, 3};
  std::mt19937_64 random(seed);
  auto chance = [&](int percent) { return int(random() % 100) < percent; };
  const std::int64_t b24 = std::int64_t(1) << 24, b48 = std::int64_t(1) << 48;
  const std::int64_t boundary[] = {b24 - 1, b24, b24 + 1, 2 * b24, b48 - 1, b48, b48 + 1, b48 + b24, b48 + b24 - 1, 0};
  std::vector<Block> blocks;
  std::int64_t t = o.start_time;
  bool overflow = false;
  for (int b = 0; b < o.blocks; ++b) {
    Block block{{}, t, 0};
    const int n = chance(10) ? 0 : int(random() % std::uint64_t(o.max_tags + 1));
    for (int i = 0; i < n; ++i) {
      std::int64_t delta = std::int64_t(random() % 2000);
      if (o.huge_deltas && chance(3))
        delta = boundary[random() % std::size(boundary)];
      else if (chance(5))
        delta = std::int64_t(random() % (1u << 30));
      Tag tag = makeTag(channels[random() % std::size(channels)], 0);
      const int kind = int(random() % 100);
      if (kind < 2) {
        tag = makeTag(CHANNEL_UNUSED, 0, Tag::Type::Error);
      } else if (kind < 4) {
        tag = makeTag(CHANNEL_UNUSED, 0, overflow ? Tag::Type::OverflowEnd : Tag::Type::OverflowBegin);
        overflow = !overflow;
      } else if (kind < 12 && overflow) {
        tag.type = Tag::Type::MissedEvents;
        tag.missed_events = std::uint16_t(chance(20) ? 65535 : random() % 100);
      } else if (kind < 14) {
        tag.time = t - std::int64_t(random() % 5000); // from the past
        block.tags.push_back(tag);
        continue;
      }
      tag.time = t += delta;
      block.tags.push_back(tag);
    }
    if (overflow && !o.overflow_across_blocks) {
      block.tags.push_back(makeTag(CHANNEL_UNUSED, t += 10, Tag::Type::OverflowEnd));
      overflow = false;
    }
    block.end_time = t += std::int64_t(random() % 3000);
    blocks.push_back(std::move(block));
  }
  return blocks;
}

// What ct_child_record_until_killed records over and over, each time shifted
// to follow on, and KilledRecordingTest checks against. No overflow stretch
// crosses a block, and time stays far from the end of its range however long
// the stream runs.
inline std::vector<Block> killedRecordingBlocks(std::uint64_t seed) {
  StreamOptions options;
  options.blocks = 100;
  options.max_tags = 4000;
  options.overflow_across_blocks = false;
  options.huge_deltas = false;
  return randomBlocks(seed, options);
}

// What reading a recording of `blocks` over RECORDED gives back: a tag is
// kept if its channel is recorded and time does not run backwards; in
// overflow, time tags are lost and missed events take the running time.
inline std::vector<Tag> expectedRecording(const std::vector<Block> &blocks) {
  const std::set<std::int32_t> recorded(RECORDED.begin(), RECORDED.end());
  std::vector<Tag> out;
  bool overflow = false;
  for (const Block &block : blocks) {
    std::int64_t running = block.begin_time;
    for (const Tag &tag : block.tags) {
      const bool channel_tag = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
      if (channel_tag && !recorded.count(tag.channel))
        continue;
      if (tag.type == Tag::Type::MissedEvents) {
        if (overflow)
          out.push_back(makeTag(tag.channel, running, Tag::Type::MissedEvents, tag.missed_events));
        continue;
      }
      if (tag.time < running)
        continue;
      if (tag.type == Tag::Type::TimeTag && overflow) {
        running += (tag.time - running) & ~std::int64_t(0xFFFFFF); // only whole 2^24 steps were written
        continue;
      }
      if (tag.type == Tag::Type::OverflowBegin || tag.type == Tag::Type::OverflowEnd)
        overflow = tag.type == Tag::Type::OverflowBegin;
      out.push_back(makeTag(tag.type == Tag::Type::TimeTag ? tag.channel : CHANNEL_UNUSED, tag.time, tag.type));
      running = tag.time;
    }
  }
  return out;
}

} // namespace chronotick::testing
