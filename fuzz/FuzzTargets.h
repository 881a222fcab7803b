#pragma once

// What each fuzz harness does with one input, kept apart from libFuzzer so
// that tests/storage/FuzzRegressionTest.cpp runs saved inputs through the very
// same code. Every function writes the input to files in a per-process scratch
// directory, reads them the way one of the library's readers does, and returns
// a summary; none of them may crash, hang or allocate beyond what the file
// could hold, whatever the bytes.

#include "device/RawDecoder.h"
#include "engine/Worker.h"
#include "storage/ChronotickFileIO.h"

#include <chronotick/Correlation.h>
#include <chronotick/Countrate.h>
#include <chronotick/FileReader.h>
#include <chronotick/Library.h>
#include <chronotick/Tag.h>
#include <chronotick/TimeTagStream.h>

#include <lz4.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace chronotick::fuzz {

// What one run saw. `consistent` is false if two views of the same tags
// disagree, which is a fault even when nothing crashed.
struct RunSummary {
  std::uint64_t blocks = 0;
  std::uint64_t tags = 0;
  bool consistent = true;
};

// Recordings made for a run live here; removed when the process ends
// normally. CT_FUZZ_SCRATCH names the parent, else /dev/shm (memory, so
// that writing every input costs little), else the temporary directory.
class Scratch {
public:
  static const Scratch &instance() {
    static const Scratch scratch;
    return scratch;
  }
  std::string operator/(const std::string &name) const { return (path_ / name).string(); }

private:
  Scratch() {
    std::filesystem::path parent;
    if (const char *named = std::getenv("CT_FUZZ_SCRATCH"); named && *named)
      parent = named;
    else if (std::filesystem::is_directory("/dev/shm"))
      parent = "/dev/shm";
    else
      parent = std::filesystem::temp_directory_path();
    std::random_device device;
    path_ = parent / ("ct_fuzz_" + std::to_string(::getpid()) + "_" + std::to_string(device()));
    std::filesystem::create_directories(path_);
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::filesystem::path path_;
};

inline void writeBytes(const std::string &name, const void *data, std::size_t size) {
  std::ofstream out(name, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char *>(data), static_cast<std::streamsize>(size));
}

inline std::string readBytes(const std::string &name) {
  std::ifstream in(name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The recording id of every file the harnesses make themselves.
inline const ctbin::FileId FUZZ_FILE_ID{0x7a7a7a01, 0x7a7a7a02, 0x7a7a7a03, 0x7a7a7a04};
inline const std::vector<std::int32_t> FUZZ_CHANNELS{1, 2, -1, 5, 8};

// A whole part 0 as FileWriter leaves it (prelude only), written once per process.
inline const std::string &validPartZero() {
  static const std::string bytes = [] {
    const std::string name = Scratch::instance() / "prelude.ctbin";
    {
      TagFileWriter writer(name, 0, FUZZ_FILE_ID);
      writer.writeConfiguration("{\"fuzz\": true}");
      TagFileWriter::ChannelList channels;
      for (std::int32_t channel : FUZZ_CHANNELS)
        channels.emplace_back(channel, -channel);
      writer.writeChannelList(channels);
    }
    std::string written = readBytes(name);
    std::filesystem::remove(name);
    return written;
  }();
  return bytes;
}

namespace detail {

inline std::uint32_t load32(const std::string &bytes, std::size_t offset) {
  std::uint32_t value;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

inline std::uint64_t paddingOf(std::uint64_t size, std::uint32_t alignment) {
  return alignment == 0 ? 0 : (alignment - size % alignment) % alignment;
}

// Drains a reader the way the recording readers do, with a skip now and
// then, and touches every getter.
inline void drainPart(TagFileReader &reader, RunSummary &summary) {
  std::vector<Tag> tags;
  std::int64_t overflows = 0;
  std::int64_t begin = 0, end = 0;
  for (std::uint64_t n = 0; reader.getBlockSpan(begin, end); ++n) {
    if (n % 4 == 3) {
      reader.skipBlock();
      continue;
    }
    if (!reader.decodeBlock(tags, begin, overflows)) {
      // Only a block whose times leave it fails to decode, and it ends the part.
      if (reader.hasBlock() || !tags.empty())
        summary.consistent = false;
      return;
    }
    // What measurements rely on: tags in order, inside their block.
    std::int64_t last = begin;
    for (const Tag &tag : tags) {
      if (tag.time < last || tag.time > end)
        summary.consistent = false;
      last = tag.time;
    }
    ++summary.blocks;
    summary.tags += tags.size();
  }
  if (reader.hasBlock())
    summary.consistent = false;
  for (std::int32_t channel : {1, -1, 8, CHANNEL_UNUSED})
    (void)reader.getInvertedChannel(channel);
  for (unsigned code = 0; code < 256; code += 51)
    (void)reader.getChannelOfCode(std::uint8_t(code));
  (void)reader.getConfiguration().size();
  (void)reader.getLastMarker().size();
  (void)reader.getVersion();
  (void)reader.isOpen();
}

} // namespace detail

// Gives every time tag block of `bytes` that is whole a correct hash and
// signature, so that a replay (which checks them) gets on to decoding. Walks
// the blocks as the part reader does; stops where it can't follow them.
inline void resealTimeTagBlocks(std::string &bytes) {
  using namespace ctbin;
  std::uint32_t alignment = 0;
  std::uint64_t offset = 0;
  std::vector<std::uint32_t> words;
  while (offset + sizeof(BlockPrefix) <= bytes.size()) {
    BlockPrefix prefix;
    std::memcpy(&prefix, bytes.data() + offset, sizeof(prefix));
    if (prefix.magic != MAGIC || prefix.block_type == BLOCK_END)
      return;
    const std::uint64_t body = offset + sizeof(prefix);
    if (prefix.block_type == BLOCK_FILE_HEADER && prefix.size >= sizeof(FileHeaderRecord) &&
        body + sizeof(FileHeaderRecord) <= bytes.size())
      alignment = detail::load32(bytes, body);
    if (prefix.block_type == BLOCK_TIME_TAGS && prefix.size >= sizeof(TimeTagBlockRecord) &&
        body + sizeof(TimeTagBlockRecord) <= bytes.size()) {
      TimeTagBlockRecord record;
      std::memcpy(&record, bytes.data() + body, sizeof(record));
      const std::uint64_t data = body + sizeof(record) + detail::paddingOf(sizeof(record), alignment);
      const std::uint64_t n = std::uint64_t(record.word_count) * 4;
      const std::uint64_t stored = record.compression == COMPRESSION_LZ4 ? record.stored_size : n;
      bool hashed = false;
      // Sizes are bounded by the input, so this allocates no more than the reader would.
      if (data + stored <= bytes.size() && stored <= prefix.size - sizeof(record)) {
        if (record.compression == COMPRESSION_NONE) {
          hashed = sha1Field(bytes.data() + data, n, record.hash);
        } else if (record.compression == COMPRESSION_LZ4 && n <= stored * 255 + 16 &&
                   n <= std::uint64_t(LZ4_MAX_INPUT_SIZE)) {
          words.resize(record.word_count);
          const int result =
              LZ4_decompress_safe(bytes.data() + data, reinterpret_cast<char *>(words.data()), int(stored), int(n));
          hashed = result >= 0 && std::uint64_t(result) == n && sha1Field(words.data(), n, record.hash);
        }
      }
      if (hashed && signHash(record.hash, record.signature))
        std::memcpy(bytes.data() + body, &record, sizeof(record));
    }
    offset = body + prefix.size + detail::paddingOf(prefix.size, alignment);
  }
}

// The part reader on arbitrary bytes: as part 1 of a recording whose part 0
// is whole (signatures unchecked, as FileReader reads), and as part 0 of its
// own recording (signatures checked, as a replay reads).
inline RunSummary runPartReader(const std::uint8_t *data, std::size_t size) {
  const Scratch &scratch = Scratch::instance();
  // Part 0 stays the same for every input: written and read once.
  static const std::string base = scratch / "part.ctbin";
  static const ctbin::FileId recording = [&] {
    writeBytes(base, validPartZero().data(), validPartZero().size());
    return TagFileReader(base, false).getFileId();
  }();
  RunSummary summary;
  summary.consistent = recording == FUZZ_FILE_ID;
  const std::string continuation = ctbin::partName(base, 1);
  writeBytes(continuation, data, size);
  {
    TagFileReader reader(continuation, false);
    // The recording readers compare ids before reading a part on.
    (void)(reader.getFileId() == recording);
    detail::drainPart(reader, summary);
  }
  const std::string own = scratch / "own.ctbin";
  writeBytes(own, data, size);
  {
    TagFileReader reader(own, true);
    detail::drainPart(reader, summary);
  }
  return summary;
}

// FileReader over a recording of two parts. The first two bytes (little
// endian) give the length of part 0, the rest is part 1.
inline RunSummary runFileReader(const std::uint8_t *data, std::size_t size) {
  const Scratch &scratch = Scratch::instance();
  std::size_t first = 0;
  if (size >= 2) {
    first = std::size_t(data[0]) | std::size_t(data[1]) << 8;
    data += 2;
    size -= 2;
  }
  if (first > size)
    first = size;
  const std::string base = scratch / "reader.ctbin";
  writeBytes(base, data, first);
  writeBytes(ctbin::partName(base, 1), data + first, size - first);

  RunSummary summary;
  std::uint64_t raw_tags = 0;
  {
    FileReader reader(base);
    std::vector<Tag> block;
    // Every call either hands out a block or moves on by a part: more calls
    // than the input has bytes means the reader went round in circles.
    for (std::size_t calls = 0; reader.hasData(); ++calls) {
      if (calls > size + 8) {
        summary.consistent = false;
        break;
      }
      reader.getDataRaw(block);
      ++summary.blocks;
      raw_tags += block.size();
      (void)reader.getLastMarker().size();
    }
    (void)reader.getConfiguration().size();
  }
  {
    FileReader reader(std::vector<std::string>{base});
    // A small and odd read size makes reads end inside blocks.
    const std::uint64_t chunk = 1 + (size % 997);
    for (std::size_t calls = 0; reader.hasData(); ++calls) {
      if (calls > size + raw_tags + 8) {
        summary.consistent = false;
        break;
      }
      const TimeTagStreamBuffer buffer = reader.getData(chunk);
      summary.tags += buffer.size;
      std::vector<std::int32_t> channels;
      buffer.getChannels([&](std::size_t n) { return channels.resize(n), channels.data(); });
      if (channels.size() != buffer.size)
        summary.consistent = false;
    }
    (void)reader.getConfiguration().size();
    (void)reader.getLastMarker().size();
  }
  // Both ways of reading hand out the same tags.
  if (summary.tags != raw_tags)
    summary.consistent = false;
  return summary;
}

// Flag bits of the first byte of a replay input.
constexpr std::uint8_t REPLAY_KEEP_SEALS = 1; // replay the bytes as they are, with their hashes and signatures
constexpr std::uint8_t REPLAY_AS_PART_1 = 2;  // behind a whole part 0, with the recording id made to match

// The replay tagger, as fast as it goes, on one part (the input after its
// flag byte) with a Countrate, a Correlation and a TimeTagStream attached:
// the whole way from bytes to results.
inline RunSummary runReplay(const std::uint8_t *data, std::size_t size) {
  const Scratch &scratch = Scratch::instance();
  const std::uint8_t flags = size > 0 ? data[0] : 0;
  std::string part(reinterpret_cast<const char *>(data) + (size > 0 ? 1 : 0), size > 0 ? size - 1 : 0);
  if (!(flags & REPLAY_KEEP_SEALS))
    resealTimeTagBlocks(part);
  const std::string base = scratch / "replay.ctbin";
  const std::string continuation = ctbin::partName(base, 1);
  if (flags & REPLAY_AS_PART_1) {
    // The id sits at bytes 32..47 when the part starts with its file header.
    if (part.size() >= 48 && detail::load32(part, 0) == ctbin::MAGIC &&
        detail::load32(part, 8) == ctbin::BLOCK_FILE_HEADER)
      std::memcpy(part.data() + 32, FUZZ_FILE_ID.data(), 16);
    writeBytes(base, validPartZero().data(), validPartZero().size());
    writeBytes(continuation, part.data(), part.size());
  } else {
    writeBytes(base, part.data(), part.size());
    std::error_code ignored;
    std::filesystem::remove(continuation, ignored);
  }

  RunSummary summary;
  const std::vector<std::int32_t> counted{1, 2, -1, 5};
  constexpr std::uint64_t STREAM_CAPACITY = 1 << 16;
  ChronotickVirtual *tagger = createChronotickVirtual();
  tagger->setReplaySpeed(-1);
  // An idle replay tagger delivers its next (empty) block only after a pause
  // of ChronotickVirtualImpl::IDLE_SLEEP_NS, and every sync waits for a block.
  // Setting the speed again (to the same value) ends such a pause, which
  // keeps a run at well under a millisecond instead of tens of them.
  std::atomic<bool> finished{false};
  std::thread nudge([&] {
    while (!finished.load()) {
      tagger->setReplaySpeed(-1);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  {
    Countrate rate(tagger, counted);
    Correlation correlation(tagger, 1, 2, 1000, 64);
    TimeTagStream stream(tagger, STREAM_CAPACITY);
    bool queued = true;
    try {
      tagger->replay(base);
    } catch (const std::runtime_error &) {
      queued = false; // refused up front: not a recording at all
    }
    if (queued)
      tagger->waitForCompletion();

    std::vector<std::int64_t> totals;
    rate.getCountsTotal([&](std::size_t n) { return totals.resize(n), totals.data(); });
    std::vector<double> rates;
    rate.getData([&](std::size_t n) { return rates.resize(n), rates.data(); });
    std::vector<std::int32_t> histogram;
    correlation.getData([&](std::size_t n) { return histogram.resize(n), histogram.data(); });
    std::vector<double> normalized;
    correlation.getDataNormalized([&](std::size_t n) { return normalized.resize(n), normalized.data(); });
    std::vector<std::int64_t> index;
    correlation.getIndex([&](std::size_t n) { return index.resize(n), index.data(); });

    const TimeTagStreamBuffer buffer = stream.getData();
    std::vector<std::int32_t> channels;
    std::vector<std::uint16_t> missed;
    std::vector<std::uint8_t> types;
    std::vector<std::int64_t> times;
    buffer.getChannels([&](std::size_t n) { return channels.resize(n), channels.data(); });
    buffer.getMissedEvents([&](std::size_t n) { return missed.resize(n), missed.data(); });
    buffer.getEventTypes([&](std::size_t n) { return types.resize(n), types.data(); });
    buffer.getTimestamps([&](std::size_t n) { return times.resize(n), times.data(); });
    summary.tags = buffer.size;
    summary.consistent = channels.size() == buffer.size && missed.size() == buffer.size &&
                         types.size() == buffer.size && times.size() == buffer.size &&
                         totals.size() == counted.size() && histogram.size() == 64;

    // Countrate counted the same tags that the stream holds, unless the
    // stream ran full.
    if (summary.consistent && buffer.size < STREAM_CAPACITY) {
      for (std::size_t c = 0; c < counted.size(); ++c) {
        std::int64_t expected = 0;
        for (std::size_t i = 0; i < buffer.size; ++i) {
          if (channels[i] != counted[c])
            continue;
          if (types[i] == std::uint8_t(Tag::Type::TimeTag))
            expected += 1;
          else if (types[i] == std::uint8_t(Tag::Type::MissedEvents))
            expected += missed[i];
        }
        if (totals[c] != expected)
          summary.consistent = false;
      }
    }
  }
  finished = true;
  nudge.join();
  freeChronotick(tagger);
  return summary;
}

// The raw word decoder on arbitrary words. The first 16 bytes set up the
// board (slots, bins, clock, delays, filter, normalization, block length),
// the rest are words, decoded block by block into one state. Every block must
// keep what measurements rely on: tags in time order inside [begin, end],
// and blocks that follow each other.
inline RunSummary runRawDecoder(const std::uint8_t *data, std::size_t size) {
  RunSummary summary;
  if (size < 16)
    return summary;
  DeviceChannelState state;
  const int slots = 2 * (1 + data[0] % 8);
  const int bins = 1 + data[1] % 64;
  state.setup(1000 + 100 * std::int64_t(data[2]), bins, slots);
  for (int s = 0; s < slots; ++s) {
    state.slot_channels[std::size_t(s)] = s + 1;
    state.pending_delays[std::size_t(s)] = 37 * std::int64_t(data[4 + s % 8]) * (data[3] & 1 ? 1000 : 1);
  }
  DecodeSettings settings;
  settings.normalization = data[3] & 2;
  if (data[3] & 4) {
    settings.trigger_mask = data[12] % (1u << slots);
    settings.filtered_mask = data[13] % (1u << slots);
  }
  const std::size_t block = 1 + data[14] * 4u;
  const std::size_t count = (size - 16) / 4;
  std::vector<std::uint32_t> words(count);
  if (count > 0)
    std::memcpy(words.data(), data + 16, count * 4);
  Worker worker;
  std::int64_t previous_end = state.watermark;
  for (std::size_t at = 0; at <= count; at += block) {
    const std::size_t n = std::min(block, count - at);
    RawDecoder::decode(words.data() + at, n, state, settings, std::uint32_t(at), worker);
    ++summary.blocks;
    summary.tags += worker.tags.size();
    // Times may wrap after enough roll-overs: compared by their difference.
    auto before = [](std::int64_t a, std::int64_t b) { return std::int64_t(std::uint64_t(a) - std::uint64_t(b)) < 0; };
    if (worker.begin_time != previous_end || before(worker.end_time, worker.begin_time))
      summary.consistent = false;
    std::int64_t last = worker.begin_time;
    for (const Tag &tag : worker.tags) {
      if (before(tag.time, last) || before(worker.end_time, tag.time))
        summary.consistent = false;
      last = tag.time;
    }
    previous_end = worker.end_time;
  }
  return summary;
}

} // namespace chronotick::fuzz
