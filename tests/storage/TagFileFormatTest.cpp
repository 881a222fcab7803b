#include "StorageTestSupport.h"
#include "storage/ChronotickFileIO.h"

#include <gtest/gtest.h>
#include <lz4.h>
#include <openssl/evp.h>

#include <filesystem>
#include <tuple>

using namespace chronotick;
using namespace chronotick::storage_test;

namespace {

constexpr std::uint32_t W24 = 1u << 24;

Tag timeTag(std::int32_t channel, std::int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}
Tag typed(Tag::Type type, std::int64_t time, std::int32_t channel = CHANNEL_UNUSED, std::uint16_t missed = 0) {
  return Tag{type, 0, missed, channel, time};
}
std::uint32_t word(std::uint32_t code, std::uint32_t field) {
  return code | field << 8;
}

// Deviations of a crafted time tag block from a correct one.
struct Tweaks {
  std::uint32_t compression = 0;
  std::int64_t word_count = -1; // declared count, if not the real one
  bool bad_hash = false;
  bool bad_signature = false;
  std::string excess; // bytes after the data, counted in size
  std::int64_t declared_size = -1;
};

// Builds .ctbin bytes by hand, so that the reader is tried on files that no
// writer of ours would produce.
struct Builder {
  std::string bytes;

  void raw(const void *data, std::size_t n) { bytes.append(static_cast<const char *>(data), n); }
  void u32(std::uint32_t v) { raw(&v, 4); }
  void i64(std::int64_t v) { raw(&v, 8); }
  void pad() { bytes.append((16 - bytes.size() % 16) % 16, '\0'); }
  void block(std::uint32_t type, const std::string &payload, std::int64_t declared = -1,
             std::uint32_t magic = 0x5443494E) {
    u32(magic);
    u32(declared < 0 ? std::uint32_t(payload.size()) : std::uint32_t(declared));
    u32(type);
    u32(0);
    bytes += payload;
    pad();
  }
  void header(std::uint32_t min_reader = 1, std::uint32_t id0 = 7) {
    Builder p;
    for (std::uint32_t v : {16u, 1u, min_reader, 0u, id0, 8u, 9u, 10u})
      p.u32(v);
    block(2, p.bytes);
  }
  void channelMap(const std::vector<std::tuple<std::uint32_t, std::int32_t, std::int32_t>> &entries) {
    Builder p;
    p.u32(std::uint32_t(entries.size()));
    p.bytes.append(12, '\0');
    for (auto [code, channel, inverted] : entries) {
      p.u32(code);
      p.u32(std::uint32_t(channel));
      p.u32(std::uint32_t(inverted));
      p.u32(0);
    }
    block(3, p.bytes);
  }
  void timeTags(std::int64_t begin, std::int64_t end, const std::vector<std::uint32_t> &words, Tweaks t = {}) {
    const std::size_t n = words.size() * 4;
    std::string data(reinterpret_cast<const char *>(words.data()), n);
    if (t.compression == 1) {
      std::string out(std::size_t(LZ4_compressBound(int(n))), '\0');
      out.resize(std::size_t(LZ4_compress_default(data.data(), out.data(), int(n), int(out.size()))));
      data = out;
    }
    std::uint8_t hash[32] = {};
    unsigned int length = 0;
    EVP_Digest(words.data(), n, hash, &length, EVP_sha1(), nullptr);
    std::uint8_t signature[64] = {};
    ctbin::signHash(hash, signature);
    if (t.bad_hash)
      hash[3] ^= 1;
    if (t.bad_signature)
      signature[10] ^= 1;
    Builder r;
    r.i64(begin);
    r.i64(end);
    r.i64(end - begin);
    r.u32(t.word_count < 0 ? std::uint32_t(words.size()) : std::uint32_t(t.word_count));
    r.u32(std::uint32_t(data.size()));
    r.u32(1);
    r.u32(t.compression);
    r.u32(1);
    r.u32(0);
    r.raw(hash, 32);
    r.raw(signature, 64);
    block(4, r.bytes + data + t.excess, t.declared_size);
  }
  void end() { block(1, ""); }
};

struct ReadResult {
  std::vector<std::vector<Tag>> blocks;
  std::vector<std::string> log;
};

ReadResult readAll(const std::string &name, bool check_signature = true) {
  LogRecorder recorder;
  ReadResult result;
  TagFileReader reader(name, check_signature);
  std::vector<Tag> tags;
  std::int64_t overflows = 0;
  std::int64_t begin, end;
  while (reader.getBlockSpan(begin, end)) {
    EXPECT_TRUE(reader.decodeBlock(tags, begin, overflows));
    result.blocks.push_back(tags);
  }
  EXPECT_FALSE(reader.decodeBlock(tags, 0, overflows));
  EXPECT_TRUE(tags.empty());
  result.log = recorder.messages();
  return result;
}

bool endsWith(const std::string &m, const std::string &text) {
  return m.size() >= text.size() && m.compare(m.size() - text.size(), text.size(), text) == 0;
}

} // namespace

TEST(TagFileFormat, PartNames) {
  EXPECT_EQ(ctbin::partName("data", 0), "data.ctbin");
  EXPECT_EQ(ctbin::partName("data.ctbin", 0), "data.ctbin");
  EXPECT_EQ(ctbin::partName("data.ctbin", 2), "data.2.ctbin");
  EXPECT_EQ(ctbin::partName("dir/data", 12), "dir/data.12.ctbin");
  EXPECT_EQ(ctbin::partName(".ctbin", 1), ".ctbin.1.ctbin");
  EXPECT_EQ(ctbin::partName("data.CTBIN", 0), "data.CTBIN.ctbin");
}

TEST(TagFileFormat, PackingRules) {
  TempDir dir;
  TagFileWriter writer(dir / "p", 0, {1, 2, 3, 4});
  writer.writeChannelList({{5, -5}, {9, -9}, {5, 77}}); // the repeated channel keeps code 0
  auto packWords = [&](const std::vector<Tag> &tags, std::int64_t begin, std::int64_t end) {
    ctbin::TagBlock *block = writer.pack(tags, begin, end);
    std::vector<std::uint32_t> words = block->words;
    writer.recycle(block);
    return words;
  };
  using V = std::vector<std::uint32_t>;
  const std::int64_t t0 = 1000;
  // Deltas at the 24- and 48-bit boundaries.
  EXPECT_EQ(packWords({timeTag(9, t0 + W24 - 1)}, t0, t0 + W24), (V{word(1, W24 - 1)}));
  EXPECT_EQ(packWords({timeTag(9, t0 + W24)}, t0, t0 + W24), (V{word(251, 1), word(1, 0)}));
  const std::int64_t b48 = std::int64_t(1) << 48;
  EXPECT_EQ(packWords({timeTag(5, t0 + b48)}, t0, t0 + b48), (V{word(252, 1), word(0, 0)}));
  EXPECT_EQ(packWords({timeTag(5, t0 + b48 + 3 * std::int64_t(W24) + 7)}, t0, t0 + b48 + 5 * std::int64_t(W24)),
            (V{word(252, 1), word(251, 3), word(0, 7)}));
  // Backwards, unknown and misplaced tags drop out; time never runs back.
  EXPECT_EQ(packWords({timeTag(5, 50), timeTag(5, 40), timeTag(6, 60), timeTag(9, 70),
                       typed(Tag::Type::MissedEvents, 80, 5, 3)},
                      0, 100),
            (V{word(0, 50), word(1, 20)}));
  EXPECT_EQ(packWords({timeTag(5, -1)}, 0, 10), V{});
  // Overflow: missed events keep their count and take no time; time tags go.
  V overflow = packWords({typed(Tag::Type::OverflowBegin, 10), typed(Tag::Type::MissedEvents, 500, 9, 65535),
                          timeTag(5, 20), typed(Tag::Type::Error, 30), typed(Tag::Type::OverflowEnd, 45)},
                         0, 100);
  EXPECT_EQ(overflow, (V{word(253, 10), word(1, 65535), word(255, 20), word(254, 15)}));
  // The record: overflow state at the start, valid time outside overflow.
  ctbin::TagBlock *block = writer.pack({typed(Tag::Type::OverflowBegin, 130)}, 100, 200);
  EXPECT_EQ(block->record.overflow_at_begin, 0);
  EXPECT_EQ(block->record.valid_time, 30);
  EXPECT_EQ(block->record.word_count, 1u);
  EXPECT_EQ(block->record.time_unit, 1u);
  writer.recycle(block);
  block = writer.pack({}, 200, 300);
  EXPECT_EQ(block->record.overflow_at_begin, 1);
  EXPECT_EQ(block->record.valid_time, 0);
  writer.recycle(block);
  block = writer.pack({typed(Tag::Type::OverflowEnd, 350)}, 300, 400);
  EXPECT_EQ(block->record.valid_time, 50);
  writer.recycle(block);
  block = writer.pack({}, 400, 500);
  EXPECT_EQ(block->record.valid_time, 100);
  writer.recycle(block);
  // Events: every word that makes a tag, since the part was opened.
  EXPECT_EQ(writer.getEvents(), 1 + 1 + 1 + 1 + 2 + 4 + 1 + 1);
}

TEST(TagFileFormat, WriterLayoutOnDisk) {
  TempDir dir;
  const std::string name = dir / "layout";
  const ctbin::FileId id{0xA1, 0xB2, 0xC3, 0xD4};
  std::vector<std::uint32_t> expected_words[3];
  std::int64_t bytes_before_end;
  {
    TagFileWriter writer(name, 3, id);
    EXPECT_EQ(writer.getBytes(), 48);
    writer.writeConfiguration(std::string(16, 'c')); // no padding
    EXPECT_EQ(writer.getBytes(), 48 + 32);
    writer.writeChannelList({{1, -1}, {2, -2}});
    writer.writeMarker(std::string(17, 'm')); // 15 bytes of padding
    EXPECT_EQ(writer.getBytes(), 48 + 32 + 64 + 48);
    // 255 words are stored raw; 256 compressible words go through LZ4; noise stays raw.
    std::vector<Tag> small, large, noise;
    std::mt19937_64 random(5);
    for (int i = 0; i < 255; ++i)
      small.push_back(timeTag(1, 10 * (i + 1)));
    for (int i = 0; i < 256; ++i)
      large.push_back(timeTag(2, 10000 + 10 * (i + 1)));
    std::int64_t t = 20000;
    for (int i = 0; i < 400; ++i)
      noise.push_back(timeTag(1 + int(random() % 2), t += std::int64_t(random() % W24)));
    std::int64_t begin = 0;
    int index = 0;
    for (auto *tags : {&small, &large, &noise}) {
      const std::int64_t end = tags->back().time + 1;
      ctbin::TagBlock *block = writer.pack(*tags, begin, end);
      expected_words[index++] = block->words;
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
      begin = end;
    }
    bytes_before_end = writer.getBytes();
  }
  EXPECT_FALSE(std::filesystem::exists(name + ".ctbin"));
  const std::string bytes = readFile(dir / "layout.3.ctbin");
  const auto blocks = walkBlocks(bytes);
  ASSERT_EQ(blocks.size(), 8u);
  EXPECT_EQ(bytes.size(), std::size_t(bytes_before_end) + 16);
  EXPECT_EQ(blocks.back().end, bytes.size());
  const std::vector<std::uint32_t> types{2, 5, 3, 6, 4, 4, 4, 1};
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(load<std::uint32_t>(bytes, blocks[i].offset), 0x5443494Eu);
    EXPECT_EQ(blocks[i].type, types[i]) << i;
  }
  EXPECT_EQ(bytes.substr(0, 4), "NICT");
  for (std::size_t i = 0; i < 4; ++i)
    EXPECT_EQ(load<std::uint32_t>(bytes, 16 + 4 * i), (std::vector<std::uint32_t>{16, 1, 1, 0})[i]);
  EXPECT_EQ(load<ctbin::FileId>(bytes, 32), id);
  EXPECT_EQ(blocks[3].size, 17u);
  EXPECT_EQ(bytes.substr(blocks[3].offset + 16 + 17, 15), std::string(15, '\0'));
  EXPECT_EQ(blocks[2].size, 48u);
  EXPECT_EQ(load<std::uint32_t>(bytes, blocks[2].offset + 16), 2u);
  EXPECT_EQ(load<std::int32_t>(bytes, blocks[2].offset + 48 + 4), 2);
  EXPECT_EQ(load<std::int32_t>(bytes, blocks[2].offset + 48 + 8), -2);
  EXPECT_EQ(load<std::uint32_t>(bytes, blocks[2].offset + 48), 1u);

  const std::uint32_t expected_compression[3] = {0, 1, 0};
  for (int b = 0; b < 3; ++b) {
    const std::size_t r = blocks[4 + b].offset + 16;
    const auto word_count = load<std::uint32_t>(bytes, r + 24);
    const auto stored = load<std::uint32_t>(bytes, r + 28);
    const auto compression = load<std::uint32_t>(bytes, r + 36);
    ASSERT_EQ(word_count, expected_words[b].size());
    EXPECT_EQ(blocks[4 + b].size, 144 + stored);
    EXPECT_EQ(compression, expected_compression[b]) << b;
    std::vector<std::uint32_t> words(word_count);
    if (compression == 0) {
      EXPECT_EQ(stored, word_count * 4);
      std::memcpy(words.data(), bytes.data() + r + 144, stored);
    } else {
      EXPECT_LT(stored, word_count * 4);
      EXPECT_EQ(LZ4_decompress_safe(bytes.data() + r + 144, reinterpret_cast<char *>(words.data()), int(stored),
                                    int(word_count * 4)),
                int(word_count * 4));
    }
    EXPECT_EQ(words, expected_words[b]);
    std::uint8_t digest[32] = {};
    unsigned int length = 0;
    EVP_Digest(words.data(), words.size() * 4, digest, &length, EVP_sha1(), nullptr);
    EXPECT_EQ(std::memcmp(digest, bytes.data() + r + 48, 32), 0);
    EXPECT_EQ(load<std::uint32_t>(bytes, r + 40), 1u);
    std::uint8_t hash[32], signature[64];
    std::memcpy(hash, bytes.data() + r + 48, 32);
    std::memcpy(signature, bytes.data() + r + 80, 64);
    EXPECT_TRUE(ctbin::verifyHash(hash, signature));
    signature[0] ^= 0x40;
    EXPECT_FALSE(ctbin::verifyHash(hash, signature));
  }
}

TEST(TagFileFormat, ChannelLimitAndUnwritableFile) {
  TempDir dir;
  TagFileWriter writer(dir / "c", 0, {});
  TagFileWriter::ChannelList list;
  for (int i = 0; i < 251; ++i) // codes 0 to 250
    list.emplace_back(i, -i - 1);
  list.emplace_back(0, 0); // a repeat takes no code
  EXPECT_NO_THROW(writer.writeChannelList(list));
  list.insert(list.begin(), {300, -300});
  try {
    writer.writeChannelList(list);
    ADD_FAILURE() << "251 channels accepted";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Too many channels. This format does not support more than 250 channels.");
  }

  try {
    TagFileWriter missing(dir / "no/such/dir/base.ctbin", 4, {});
    ADD_FAILURE() << "opened a file in a missing directory";
  } catch (const std::runtime_error &e) {
    EXPECT_EQ(std::string(e.what()),
              "FileWriter: Error on opening the file '" + (dir / "no/such/dir/base.ctbin") + "' for writing.");
  }

  // A full disk shows once the stream buffer goes out.
  std::filesystem::create_symlink("/dev/full", dir.path() / "full.1.ctbin");
  TagFileWriter full(dir / "full", 1, {});
  full.writeChannelList({{1, -1}});
  std::vector<Tag> tags;
  std::mt19937 random(3);
  for (int i = 0; i < 100000; ++i)
    tags.push_back(timeTag(1, std::int64_t(i) * 1000 + random() % 1000));
  bool thrown = false;
  for (int i = 0; i < 20 && !thrown; ++i) {
    ctbin::TagBlock *block = full.pack(tags, 0, 200000000);
    full.seal(block);
    try {
      full.write(block);
    } catch (const std::runtime_error &e) {
      EXPECT_STREQ(e.what(), "FileWriter: Error on writing to the disk.");
      thrown = true;
    }
    full.recycle(block);
  }
  EXPECT_TRUE(thrown);
}

TEST(TagFileFormat, ReaderDecodesCraftedFile) {
  TempDir dir;
  const std::string name = dir / "crafted.ctbin";
  Builder b;
  b.header();
  b.block(5, "{\"a\": 1}");
  b.channelMap({{0, 3, -3}, {0x101, 4, -4}}); // only the low byte of a code counts
  b.block(7, "12345");                        // a newer writer's block, with padding
  const std::int64_t big = (std::int64_t(5) << 48) + (std::int64_t(2) << 24) + 9;
  std::vector<std::uint32_t> words{word(0, 5),  word(252, 5), word(251, 2), word(1, 9), word(253, 1),
                                   word(1, 40), word(255, 3), word(254, 2), word(0, 1), word(200, 0)};
  Tweaks excess;
  excess.excess = std::string(16, 'x');
  b.timeTags(100, big + 200, words, excess);
  b.block(6, "mark");
  std::vector<std::uint32_t> many(300, word(1, 1)); // compressible
  Tweaks lz4;
  lz4.compression = 1;
  b.timeTags(big + 200, big + 600, many, lz4);
  b.end();
  b.block(6, "after the end");
  writeFile(name, b.bytes);

  LogRecorder recorder;
  TagFileReader reader(name, true);
  EXPECT_EQ(reader.getConfiguration(), "{\"a\": 1}");
  EXPECT_EQ(reader.getFileId(), (ctbin::FileId{7, 8, 9, 10}));
  EXPECT_EQ(reader.getInvertedChannel(4), -4);
  EXPECT_EQ(reader.getInvertedChannel(-3), 3);
  EXPECT_EQ(reader.getInvertedChannel(5), CHANNEL_UNUSED);
  EXPECT_EQ(reader.getLastMarker(), "");
  std::int64_t begin = 0, end = 0, overflows = 10;
  ASSERT_TRUE(reader.getBlockSpan(begin, end));
  EXPECT_EQ(begin, 100);
  EXPECT_EQ(end, big + 200);
  std::vector<Tag> tags(3);
  ASSERT_TRUE(reader.decodeBlock(tags, 1000, overflows));
  EXPECT_EQ(overflows, 12);
  const std::int64_t t = 1005 + big;
  const std::vector<Tag> expected{timeTag(3, 1005),
                                  timeTag(4, t),
                                  typed(Tag::Type::OverflowBegin, t + 1),
                                  typed(Tag::Type::MissedEvents, t + 1, 4, 40),
                                  typed(Tag::Type::Error, t + 4),
                                  typed(Tag::Type::OverflowEnd, t + 6),
                                  timeTag(3, t + 7),
                                  timeTag(CHANNEL_UNUSED, t + 7)};
  ASSERT_EQ(tags.size(), expected.size());
  for (std::size_t i = 0; i < tags.size(); ++i)
    EXPECT_TRUE(sameTag(tags[i], expected[i])) << i;
  // The marker lies between the two blocks and is read with the first.
  EXPECT_EQ(reader.getLastMarker(), "mark");
  ASSERT_TRUE(reader.decodeBlock(tags, big + 200, overflows));
  ASSERT_EQ(tags.size(), 300u);
  EXPECT_EQ(tags.back().time, big + 500);
  EXPECT_FALSE(reader.getBlockSpan(begin, end));
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(reader.getLastMarker(), "mark"); // nothing is read after BLOCK_END
  EXPECT_TRUE(recorder.messages().empty());
}

TEST(TagFileFormat, ReaderMessages) {
  TempDir dir;
  const std::string name = dir / "bad.ctbin";
  const std::vector<std::uint32_t> words{word(0, 1), word(0, 2)};
  struct Case {
    std::string what;
    Builder file;
    std::vector<std::string> messages;
    std::size_t blocks;
  };
  std::vector<Case> cases;
  auto add = [&](std::string what, std::vector<std::string> messages, std::size_t blocks, auto build) {
    Case c{std::move(what), Builder{}, std::move(messages), blocks};
    build(c.file);
    cases.push_back(std::move(c));
  };
  add("good", {}, 2, [&](Builder &b) {
    b.header();
    b.timeTags(0, 10, words);
    b.timeTags(10, 20, words);
    b.end();
  });
  add("wrong magic", {"Incorrect Header"}, 1, [&](Builder &b) {
    b.header();
    b.timeTags(0, 10, words);
    b.block(4, "", -1, 0x5443494F);
  });
  add("short prefix", {"File access failed", "Incorrect Header"}, 0, [&](Builder &b) {
    b.header();
    b.bytes += "NICT\x10";
  });
  add("short header", {"Block is too small"}, 0, [&](Builder &b) { b.block(2, std::string(16, '\0')); });
  add("short record", {"Block is too small"}, 0, [&](Builder &b) {
    b.header();
    b.block(4, std::string(100, '\0'));
  });
  add("raw words beyond size", {"Block is too small"}, 0, [&](Builder &b) {
    b.header();
    Tweaks t;
    t.word_count = 3;
    b.timeTags(0, 10, words, t);
  });
  add("unknown compression", {"Time tag block data with unknown compression"}, 1, [&](Builder &b) {
    b.header();
    b.timeTags(0, 10, words);
    Tweaks t;
    t.compression = 2;
    b.timeTags(10, 20, words, t);
  });
  add("lz4 short", {"Time tag block data could not be decompressed"}, 0, [&](Builder &b) {
    b.header();
    Tweaks t;
    t.compression = 1;
    t.word_count = 1;
    b.timeTags(0, 10, words, t);
  });
  add("lz4 long", {"Time tag block data could not be decompressed"}, 0, [&](Builder &b) {
    b.header();
    Tweaks t;
    t.compression = 1;
    t.word_count = 3;
    b.timeTags(0, 10, words, t);
  });
  add("lz4 absurd count", {"Time tag block data could not be decompressed"}, 0, [&](Builder &b) {
    b.header();
    Tweaks t;
    t.compression = 1;
    t.word_count = 0xFFFFFFFF;
    b.timeTags(0, 10, words, t);
  });
  add("hash mismatch", {"Hash missmatch", "Time tag block data with invalid hash or signature"}, 1, [&](Builder &b) {
    b.header();
    b.timeTags(0, 10, words);
    Tweaks t;
    t.bad_hash = true;
    b.timeTags(10, 20, words, t);
    b.timeTags(20, 30, words);
  });
  add("wrong signature", {"ECC signature is wrong", "Time tag block data with invalid hash or signature"}, 0,
      [&](Builder &b) {
        b.header();
        Tweaks t;
        t.bad_signature = true;
        b.timeTags(0, 10, words, t);
      });
  add("too new", {"This file is too new. Please update your Chronotick installation."}, 0, [&](Builder &b) {
    b.header(2);
    b.timeTags(0, 10, words);
  });
  add("cut data", {"File access failed", "Time tag block data could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.timeTags(0, 10, words);
    b.bytes.resize(b.bytes.size() - 16);
  });
  add("cut compressed data", {"File access failed", "Compressed time tag block data could not be loaded"}, 0,
      [&](Builder &b) {
        b.header();
        Tweaks t;
        t.compression = 1;
        b.timeTags(0, 10, std::vector<std::uint32_t>(1000, 7), t);
        b.bytes.resize(b.bytes.size() - 20);
      });
  add("cut configuration", {"File access failed", "JSON config could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.block(5, std::string(40, 'j'));
    b.bytes.resize(b.bytes.size() - 30);
  });
  add("huge configuration", {"File access failed", "JSON config could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.block(5, "{}", 0xFFFFFFF0);
  });
  add("cut marker", {"File access failed", "last_marker could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.block(6, std::string(40, 'j'));
    b.bytes.resize(b.bytes.size() - 30);
  });
  add("cut header", {"File access failed", "File header could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.bytes.resize(30);
  });
  add("cut map", {"File access failed", "Channel map could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.channelMap({{0, 1, -1}});
    b.bytes.resize(48 + 16 + 8);
  });
  add("cut map entries", {"File access failed", "Channel map data could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.channelMap({{0, 1, -1}, {1, 2, -2}});
    b.bytes.resize(48 + 16 + 16 + 20);
  });
  add("map count beyond size", {"Block is too small"}, 0, [&](Builder &b) {
    b.header();
    Builder p;
    p.u32(1000);
    p.bytes.append(12, '\0');
    b.block(3, p.bytes);
  });
  add("cut record", {"File access failed", "Time tag block header could not be loaded"}, 0, [&](Builder &b) {
    b.header();
    b.timeTags(0, 10, words);
    b.bytes.resize(48 + 16 + 100);
  });

  for (Case &c : cases) {
    SCOPED_TRACE(c.what);
    writeFile(name, c.file.bytes);
    const ReadResult result = readAll(name);
    EXPECT_EQ(result.blocks.size(), c.blocks);
    ASSERT_EQ(result.log.size(), c.messages.size());
    for (std::size_t i = 0; i < c.messages.size(); ++i)
      EXPECT_TRUE(endsWith(result.log[i], c.messages[i])) << result.log[i];
  }

  // Without signature checking a damaged hash goes unnoticed.
  Builder b;
  b.header();
  Tweaks t;
  t.bad_hash = true;
  b.timeTags(0, 10, words, t);
  writeFile(name, b.bytes);
  EXPECT_EQ(readAll(name, false).blocks.size(), 1u);
}

TEST(TagFileFormat, CutRecordings) {
  // Every prefix of a recording yields exactly the whole time tag blocks in it.
  TempDir dir;
  const std::string name = dir / "cut";
  {
    TagFileWriter writer(name, 1, {5, 6, 7, 8});
    writer.writeConfiguration("{}");
    writer.writeChannelList({{1, -1}, {2, -2}});
    std::int64_t t = 0;
    std::mt19937 random(11);
    for (int b = 0; b < 5; ++b) {
      std::vector<Tag> tags;
      const int n = b == 2 ? 400 : 20 + b;
      for (int i = 0; i < n; ++i)
        tags.push_back(timeTag(1 + int(random() % 2), t += b == 2 ? 3 : std::int64_t(random() % 100000)));
      ctbin::TagBlock *block = writer.pack(tags, t - 1000000, t + 1);
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
      if (b == 1)
        writer.writeMarker("between");
    }
  }
  const std::string full = readFile(ctbin::partName(name, 1));
  const auto blocks = walkBlocks(full);
  const ReadResult whole = readAll(ctbin::partName(name, 1));
  ASSERT_EQ(whole.blocks.size(), 5u);
  EXPECT_TRUE(whole.log.empty());

  const std::string cut_name = dir / "cut_copy.ctbin";
  for (std::size_t length = 0; length <= full.size(); ++length) {
    writeFile(cut_name, full.substr(0, length));
    std::size_t expected = 0;
    for (const BlockInfo &info : blocks)
      if (info.type == 4 && info.end <= length)
        ++expected;
    const ReadResult part = readAll(cut_name);
    ASSERT_EQ(part.blocks.size(), expected) << "cut at " << length;
    for (std::size_t i = 0; i < expected; ++i) {
      ASSERT_EQ(part.blocks[i].size(), whole.blocks[i].size());
      for (std::size_t k = 0; k < part.blocks[i].size(); ++k)
        ASSERT_TRUE(sameTag(part.blocks[i][k], whole.blocks[i][k]));
    }
    if (length < full.size()) {
      ASSERT_FALSE(part.log.empty()) << "cut at " << length;
    }
  }
  // A writer killed before its close: no BLOCK_END, all blocks, two messages.
  writeFile(cut_name, full.substr(0, full.size() - 16));
  const ReadResult killed = readAll(cut_name);
  EXPECT_EQ(killed.blocks.size(), 5u);
  ASSERT_EQ(killed.log.size(), 2u);
  EXPECT_TRUE(endsWith(killed.log[0], "File access failed"));
  EXPECT_TRUE(endsWith(killed.log[1], "Incorrect Header"));
}
