#include "storage/ChronotickFileIO.h"
#include "support/AllocationProbe.h"
#include "support/CraftedFiles.h"
#include "support/LogCapture.h"
#include "support/TagFiles.h"

#include <gtest/gtest.h>
#include <lz4.h>
#include <openssl/evp.h>

#include <filesystem>
#include <functional>
#include <tuple>

// Crafted blocks name only the fields they change.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using namespace chronotick;
using namespace chronotick::testing;

namespace {

constexpr std::uint32_t W24 = 1u << 24;
const std::int64_t B48 = std::int64_t(1) << 48;

struct ReadResult {
  std::vector<std::vector<Tag>> blocks;
  std::vector<std::string> log;
};

ReadResult readAll(const std::string &name, bool check_signature = true) {
  LogCapture capture;
  ReadResult result;
  TagFileReader reader(name, check_signature);
  std::vector<Tag> tags;
  std::int64_t overflows = 0, begin, end;
  while (reader.getBlockSpan(begin, end)) {
    if (!reader.decodeBlock(tags, begin, overflows))
      break; // a damaged block ends the part
    result.blocks.push_back(tags);
  }
  EXPECT_FALSE(reader.decodeBlock(tags, 0, overflows));
  EXPECT_TRUE(tags.empty());
  result.log = capture.messages();
  return result;
}

// The log holds exactly `messages`, in order (each after its file and line).
void expectLog(const std::vector<std::string> &log, const std::vector<std::string> &messages) {
  ASSERT_EQ(log.size(), messages.size());
  for (std::size_t i = 0; i < messages.size(); ++i)
    EXPECT_TRUE(log[i].ends_with(messages[i])) << log[i];
}

} // namespace

TEST(TagFileFormat, PartNames) {
  EXPECT_EQ(ctbin::partName("data", 0), "data.ctbin");
  EXPECT_EQ(ctbin::partName("data.ctbin", 2), "data.2.ctbin");
  EXPECT_EQ(ctbin::partName("dir/data", 12), "dir/data.12.ctbin");
  EXPECT_EQ(ctbin::partName("data.CTBIN", 0), "data.CTBIN.ctbin");
}

TEST(TagFileFormat, PackingRules) {
  TempDir dir;
  TagFileWriter writer(dir / "p", 0, {1, 2, 3, 4});
  writer.writeChannelList({{5, -5}, {9, -9}, {5, 77}}); // the repeated channel keeps code 0
  auto pack = [&](const std::vector<Tag> &tags, std::int64_t begin, std::int64_t end) {
    ctbin::TagBlock *block = writer.pack(tags, begin, end);
    auto result = std::make_tuple(block->words, block->record.valid_time, int(block->record.overflow_at_begin));
    writer.recycle(block);
    return result;
  };
  auto words = [&](const std::vector<Tag> &tags, std::int64_t begin, std::int64_t end) {
    return std::get<0>(pack(tags, begin, end));
  };
  const std::int64_t t0 = 1000;
  // Deltas at the 24- and 48-bit boundaries.
  EXPECT_EQ(words({makeTag(9, t0 + W24 - 1)}, t0, t0 + W24), (Words{word(1, W24 - 1)}));
  EXPECT_EQ(words({makeTag(9, t0 + W24)}, t0, t0 + W24), (Words{word(251, 1), word(1, 0)}));
  EXPECT_EQ(words({makeTag(5, t0 + B48)}, t0, t0 + B48), (Words{word(252, 1), word(0, 0)}));
  EXPECT_EQ(words({makeTag(5, t0 + B48 + 3 * W24 + 7)}, t0, t0 + B48 + 5 * W24),
            (Words{word(252, 1), word(251, 3), word(0, 7)}));
  // Backwards, unknown and misplaced tags drop out; time never runs back.
  EXPECT_EQ(words({makeTag(5, 50), makeTag(5, 40), makeTag(6, 60), makeTag(9, 70),
                   makeTag(5, 80, Tag::Type::MissedEvents, 3)},
                  0, 100),
            (Words{word(0, 50), word(1, 20)}));
  EXPECT_EQ(words({makeTag(5, -1)}, 0, 10), Words{});
  // The record: valid time outside overflow, and the overflow state at the start.
  EXPECT_EQ(pack({makeTag(0, 130, Tag::Type::OverflowBegin)}, 100, 200), std::make_tuple(Words{word(253, 30)}, 30l, 0));
  EXPECT_EQ(pack({}, 200, 300), std::make_tuple(Words{}, 0l, 1));
  EXPECT_EQ(std::get<1>(pack({makeTag(0, 350, Tag::Type::OverflowEnd)}, 300, 400)), 50);
  // Events: every word that makes a tag, since the part was opened.
  EXPECT_EQ(writer.getEvents(), 1 + 1 + 1 + 1 + 2 + 1 + 1);
}

TEST(TagFileFormat, ReaderDecodesCraftedFile) {
  TempDir dir;
  const std::string name = dir / "crafted.ctbin";
  const std::int64_t big = 5 * B48 + 2 * W24 + 9;
  const Words words{word(0, 5),  word(252, 5), word(251, 2), word(1, 9), word(253, 1),
                    word(1, 40), word(255, 3), word(254, 2), word(0, 1), word(200, 0)};
  writeFile(name, Builder()
                      .header()
                      .block(5, "{\"a\": 1}")
                      .channelMap({{0, 3, -3}, {0x101, 4, -4}}) // only the low byte of a code counts
                      .block(7, "12345")                        // a newer writer's block type, skipped
                      .timeTags(100, big + 200, words, {.excess = std::string(16, 'x')})
                      .block(6, "mark")
                      .timeTags(big + 200, big + 600, Words(300, word(1, 1)), {.compression = 1})
                      .end()
                      .block(6, "after the end")
                      .bytes);

  LogCapture capture;
  TagFileReader reader(name, true);
  EXPECT_EQ(reader.getConfiguration(), "{\"a\": 1}");
  EXPECT_EQ(reader.getFileId(), (ctbin::FileId{7, 8, 9, 10}));
  EXPECT_EQ(reader.getInvertedChannel(4), -4);
  EXPECT_EQ(reader.getInvertedChannel(-3), 3);
  EXPECT_EQ(reader.getInvertedChannel(5), CHANNEL_UNUSED);
  std::int64_t begin = 0, end = 0, overflows = 10;
  ASSERT_TRUE(reader.getBlockSpan(begin, end));
  EXPECT_EQ(std::make_pair(begin, end), std::make_pair(std::int64_t(100), big + 200));
  std::vector<Tag> tags(3);
  ASSERT_TRUE(reader.decodeBlock(tags, 1000, overflows));
  EXPECT_EQ(overflows, 12);
  const std::int64_t t = 1005 + big;
  EXPECT_EQ(firstDifference(
                tags, {makeTag(3, 1005), makeTag(4, t), makeTag(CHANNEL_UNUSED, t + 1, Tag::Type::OverflowBegin),
                       makeTag(4, t + 1, Tag::Type::MissedEvents, 40), makeTag(CHANNEL_UNUSED, t + 4, Tag::Type::Error),
                       makeTag(CHANNEL_UNUSED, t + 6, Tag::Type::OverflowEnd), makeTag(3, t + 7),
                       makeTag(CHANNEL_UNUSED, t + 7)}),
            "");
  // The marker lies between the two blocks and is read with the first.
  EXPECT_EQ(reader.getLastMarker(), "mark");
  ASSERT_TRUE(reader.decodeBlock(tags, big + 200, overflows));
  ASSERT_EQ(tags.size(), 300u);
  EXPECT_EQ(tags.back().time, big + 500);
  EXPECT_FALSE(reader.getBlockSpan(begin, end));
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(reader.getLastMarker(), "mark"); // nothing is read after BLOCK_END
  EXPECT_TRUE(capture.messages().empty());
}

TEST(TagFileFormat, ReaderMessages) {
  TempDir dir;
  const std::string name = dir / "bad.ctbin";
  const Words w{word(0, 1), word(0, 2)};
  const std::string access = "File access failed", small = "Block is too small", header = "Incorrect Header",
                    lz4 = "Time tag block data could not be decompressed",
                    invalid = "Time tag block data with invalid hash or signature";
  auto check = [&](const char *what, const Builder &b, std::size_t blocks, std::vector<std::string> messages) {
    SCOPED_TRACE(what);
    writeFile(name, b.bytes);
    const ReadResult result = readAll(name);
    EXPECT_EQ(result.blocks.size(), blocks);
    expectLog(result.log, messages);
  };
  auto file = [] { return Builder().header(); };
  check("good", file().timeTags(0, 10, w).timeTags(10, 20, w).end(), 2, {});
  check("wrong magic", file().timeTags(0, 10, w).block(4, "", -1, 0x5443494F), 1, {header});
  check("short prefix", file().raw(std::string("NICT\x10")), 0, {access, header});
  check("short record", file().block(4, std::string(100, '\0')), 0, {small});
  check("raw words beyond size", file().timeTags(0, 10, w, {.word_count = 3}), 0, {small});
  check("unknown compression", file().timeTags(0, 10, w).timeTags(10, 20, w, {.compression = 2}), 1,
        {"Time tag block data with unknown compression"});
  check("lz4 short", file().timeTags(0, 10, w, {.compression = 1, .word_count = 1}), 0, {lz4});
  check("lz4 long", file().timeTags(0, 10, w, {.compression = 1, .word_count = 3}), 0, {lz4});
  check("lz4 absurd", file().timeTags(0, 10, w, {.compression = 1, .word_count = 0xFFFFFFFF}), 0, {lz4});
  check("hash mismatch", file().timeTags(0, 10, w).timeTags(10, 20, w, {.bad_hash = true}).timeTags(20, 30, w), 1,
        {"Hash missmatch", invalid});
  check("wrong signature", file().timeTags(0, 10, w, {.bad_signature = true}), 0, {"ECC signature is wrong", invalid});
  check("too new", Builder().header(2).timeTags(0, 10, w), 0,
        {"This file is too new. Please update your Chronotick installation."});
  check("huge configuration", file().block(5, "{}", 0xFFFFFFF0), 0, {access, "JSON config could not be loaded"});
  // Times that would leave their block, run backwards or overflow would reach
  // every measurement: such a block ends the part.
  const std::string past = "Time tag block data runs past the end of its block",
                    data = "Time tag block data could not be loaded";
  check("tag after the end", file().timeTags(0, 10, w).timeTags(10, 20, {word(0, 9), word(0, 2)}).timeTags(20, 30, w),
        1, {past, data});
  check("wrapping delta", file().timeTags(0, 10, {word(252, 0xFFFFFF), word(252, 0xFFFFFF), word(0, 1)}), 0,
        {past, data});
  check("huge delta", file().timeTags(0, std::int64_t(1) << 62, {word(252, 0xFFFFFF), word(0, 1)}), 0, {past, data});
  check("delta wrapping back into the block",
        file().timeTags(0, std::int64_t(1) << 49, {word(252, 1), word(0, 10), word(252, 0xFFFF), word(0, 5)}), 0,
        {past, data});
  check("backwards block", file().timeTags(10, 0, w), 0,
        {"Time tag block runs from 10 ps to 0 ps", "Time tag block header could not be loaded"});
  check("beyond 2^62 ps", file().timeTags(0, (std::int64_t(1) << 62) + 1, w), 0,
        {"Time tag block runs from 0 ps to 4611686018427387905 ps", "Time tag block header could not be loaded"});

  // A file cut inside a block says which part of it could not be loaded.
  const std::string whole = file()
                                .block(5, "{\"a\": 1}")
                                .channelMap({{0, 3, -3}, {1, 4, -4}})
                                .timeTags(0, 10, w)
                                .block(6, "mark")
                                .timeTags(10, 20, Words(300, word(0, 1)), {.compression = 1})
                                .end()
                                .bytes;
  const auto info = walkBlocks(whole);
  const struct {
    std::size_t block, at; // cut `at` bytes into the payload of info[block]
    std::size_t blocks;
    const char *message;
  } cuts[] = {{0, 10, 0, "File header could not be loaded"},
              {1, 3, 0, "JSON config could not be loaded"},
              {2, 8, 0, "Channel map could not be loaded"},
              {2, 20, 0, "Channel map data could not be loaded"},
              {3, 100, 0, "Time tag block header could not be loaded"},
              {3, 148, 0, "Time tag block data could not be loaded"},
              {5, 148, 1, "Compressed time tag block data could not be loaded"},
              {4, 2, 1, "last_marker could not be loaded"}};
  for (const auto &c : cuts) {
    const std::string prefix = whole.substr(0, info[c.block].offset + 16 + c.at);
    check(c.message, Builder().raw(prefix), c.blocks, {access, c.message});
  }
  // Without signature checking a damaged hash goes unnoticed.
  writeFile(name, file().timeTags(0, 10, w, {.bad_hash = true}).bytes);
  EXPECT_EQ(readAll(name, false).blocks.size(), 1u);
}

TEST(TagFileFormat, SizeFieldsThatTheFileCantHoldAllocateNothing) {
  namespace allocation = chronotick::testing::allocation;
  TempDir dir;
  const std::string name = dir / "claims.ctbin";
  const std::string access = "File access failed";
  auto claim = [](std::uint32_t type, const std::string &payload, std::uint32_t size) {
    return Builder().header().claim(type, payload, size);
  };
  auto record = Builder::timeTagRecord;
  const std::uint32_t huge = 0xFFFFFFF0, huge_data = huge - 144;
  const struct {
    const char *what;
    Builder file;
    std::vector<std::string> messages;
  } cases[] = {
      {"raw words",
       claim(4, record(huge_data / 4, huge_data, 0), huge),
       {access, "Time tag block data could not be loaded"}},
      {"compressed bytes",
       claim(4, record(16, huge_data, 1), huge),
       {access, "Compressed time tag block data could not be loaded"}},
      {"decompressed words",
       Builder().header().timeTags(0, 10, {word(0, 1)}, {.compression = 1, .word_count = 0x3FFFFFFF}),
       {"Time tag block data could not be decompressed"}},
      {"channel map",
       claim(3, Builder().u32s({0x0FFFFFFE, 0, 0, 0}).bytes, huge),
       {access, "Channel map data could not be loaded"}},
      {"marker", claim(6, "abc", huge), {access, "last_marker could not be loaded"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    writeFile(name, c.file.bytes);
    allocation::startMeasuring();
    const ReadResult result = readAll(name);
    const allocation::Usage usage = allocation::usage();
    allocation::stopMeasuring();
    EXPECT_TRUE(result.blocks.empty());
    expectLog(result.log, c.messages);
    EXPECT_LT(usage.largest, std::size_t(2) << 20) << "the stream buffer is the largest thing a reader needs";
  }

  // What a large good block made the reader hold goes back once a damaged
  // block ends the file, although the reader lives on.
  Words zeros(1 << 20, word(0, 0));
  writeFile(name, Builder()
                      .header()
                      .timeTags(0, 10, zeros, {.compression = 1})
                      .timeTags(10, 20, {word(0, 1)}, {.word_count = 3})
                      .bytes);
  LogCapture capture;
  allocation::startMeasuring();
  {
    TagFileReader reader(name, true);
    EXPECT_TRUE(reader.hasBlock());
    EXPECT_GT(allocation::usage().growth, std::int64_t(4) << 20);
    reader.skipBlock();
    EXPECT_FALSE(reader.hasBlock());
    EXPECT_LT(allocation::usage().growth, std::int64_t(2) << 20);
  }
  allocation::stopMeasuring();
  EXPECT_EQ(capture.count("Block is too small"), 1);
}

TEST(TagFileFormat, WriterLayoutAndCutRecordings) {
  TempDir dir;
  const ctbin::FileId id{0xA1, 0xB2, 0xC3, 0xD4};
  // 255 words are stored raw, 256 compressible words as LZ4, noise raw again.
  std::vector<Tag> blocks[3];
  std::mt19937_64 random(5);
  for (int i = 1; i <= 256; ++i) {
    if (i < 256)
      blocks[0].push_back(makeTag(1, 10 * i));
    blocks[1].push_back(makeTag(2, 10000 + 10 * i));
  }
  for (std::int64_t i = 0, t = 20000; i < 400; ++i)
    blocks[2].push_back(makeTag(1 + int(random() % 2), t += std::int64_t(random() % W24)));
  {
    TagFileWriter writer(dir / "rec", 3, id);
    writer.writeConfiguration(std::string(16, 'c'));
    writer.writeChannelList({{1, -1}, {2, -2}});
    for (int b = 0; b < 3; ++b) {
      ctbin::TagBlock *block = writer.pack(blocks[b], b ? blocks[b - 1].back().time + 1 : 0, blocks[b].back().time + 1);
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
      if (b == 0)
        writer.writeMarker(std::string(17, 'm')); // 15 bytes of padding
    }
  }
  const std::string full = readFile(dir / "rec.3.ctbin");
  const auto info = walkBlocks(full);
  Words types;
  for (const BlockInfo &b : info)
    types.push_back(b.type);
  ASSERT_EQ(types, (Words{2, 5, 3, 4, 6, 4, 4, 1}));
  EXPECT_EQ((load<std::array<std::uint32_t, 4>>(full, 16)), (std::array<std::uint32_t, 4>{16, 1, 1, 0}));
  EXPECT_EQ(load<ctbin::FileId>(full, 32), id);
  EXPECT_EQ(info[4].size, 17u);
  EXPECT_EQ(full.substr(info[4].offset + 16 + 17, 15), std::string(15, '\0'));
  for (int b = 0; b < 3; ++b) {
    const BlockInfo &block = info[b == 0 ? 3 : 4 + b];
    const auto record = load<ctbin::TimeTagBlockRecord>(full, block.offset + 16);
    EXPECT_EQ(block.size, 144 + record.stored_size);
    EXPECT_EQ(record.compression, b == 1 ? 1u : 0u) << b;
    EXPECT_EQ(record.stored_size < blocks[b].size() * 4, b == 1) << b;
  }
  // The reader, checked on crafted files, verifies the rest: channel map,
  // alignment, hashes and signatures.
  const ReadResult whole = readAll(dir / "rec.3.ctbin");
  EXPECT_TRUE(whole.log.empty());
  ASSERT_EQ(whole.blocks.size(), 3u);
  for (int b = 0; b < 3; ++b)
    EXPECT_EQ(firstDifference(whole.blocks[b], blocks[b]), "") << b;

  // Every prefix of the file yields exactly the whole time tag blocks in it.
  const std::string cut_name = dir / "copy.ctbin";
  for (std::size_t length = 0; length <= full.size(); ++length) {
    writeFile(cut_name, full.substr(0, length));
    std::size_t expected = 0;
    for (const BlockInfo &block : info)
      expected += block.type == 4 && block.end <= length;
    const ReadResult part = readAll(cut_name);
    ASSERT_EQ(part.blocks.size(), expected) << "cut at " << length;
    for (std::size_t i = 0; i < expected; ++i)
      ASSERT_EQ(firstDifference(part.blocks[i], blocks[i]), "") << "cut at " << length;
    ASSERT_EQ(part.log.empty(), length == full.size()) << "cut at " << length;
  }
  // A writer killed before its close: no BLOCK_END, all blocks, two messages.
  writeFile(cut_name, full.substr(0, full.size() - 16));
  const ReadResult killed = readAll(cut_name);
  EXPECT_EQ(killed.blocks.size(), 3u);
  expectLog(killed.log, {"File access failed", "Incorrect Header"});
}
