// Writes the fuzz harnesses' seed corpus with the library's own writer: a
// whole part with every kind of tag word, raw and LZ4 blocks and a marker,
// then damaged copies of it. Files named valid_* read without an error,
// damaged_* log one; tests/storage/FuzzRegressionTest.cpp holds them to that.
//
//   ct_fuzz_corpus OUT_DIR   (fills OUT_DIR/part_reader, file_reader, replay)

#include "FuzzTargets.h"

#include <cstdio>
#include <functional>
#include <map>
#include <random>

using namespace chronotick;
using namespace chronotick::ctbin;

namespace {

Tag tag(std::int32_t channel, std::int64_t time, Tag::Type type = Tag::Type::TimeTag, std::uint16_t missed = 0) {
  return Tag{type, 0, missed, channel, time};
}

// A part as FileWriter writes it: prelude, tag blocks, a marker. `index` 0
// gives a prelude only.
std::string writePart(const std::string &dir, std::uint32_t index, const FileId &id) {
  const std::string base = dir + "/made";
  {
    TagFileWriter writer(base, index, id);
    writer.writeConfiguration("{\"channels\": [1, 2, -1, 5, 8], \"resolution\": \"standard\"}");
    TagFileWriter::ChannelList channels;
    for (std::int32_t channel : fuzz::FUZZ_CHANNELS)
      channels.emplace_back(channel, -channel);
    writer.writeChannelList(channels);
    if (index > 0) {
      std::vector<std::vector<Tag>> blocks;
      std::vector<std::pair<std::int64_t, std::int64_t>> spans;
      // Small deltas on every channel; channel 3 is not recorded; an error.
      blocks.push_back({tag(1, 100), tag(2, 150), tag(-1, 151), tag(3, 170), tag(5, 900), tag(8, 1000),
                        tag(CHANNEL_UNUSED, 1200, Tag::Type::Error), tag(1, 1300), tag(2, 1310)});
      spans.emplace_back(0, 2000);
      // Deltas across 2^24 and 2^48, and a tag from the past that is dropped.
      const std::int64_t b24 = std::int64_t(1) << 24, b48 = std::int64_t(1) << 48;
      blocks.push_back({tag(1, 2000 + b24), tag(2, 2000 + b24 + 1), tag(5, 2000 + 3 * b24), tag(8, 1500),
                        tag(1, 2000 + b48 + b24 + 7), tag(2, 2000 + 2 * b48)});
      spans.emplace_back(2000, 2000 + 2 * b48 + 100);
      // An overflow stretch with missed events.
      std::int64_t t = spans.back().second;
      blocks.push_back({tag(1, t + 10), tag(CHANNEL_UNUSED, t + 20, Tag::Type::OverflowBegin),
                        tag(1, t + 25, Tag::Type::MissedEvents, 17), tag(2, t + 26, Tag::Type::MissedEvents, 65535),
                        tag(5, t + 30), tag(CHANNEL_UNUSED, t + 40, Tag::Type::OverflowEnd), tag(2, t + 50)});
      spans.emplace_back(t, t + 100);
      // Enough regular tags for an LZ4 block.
      t = spans.back().second;
      std::vector<Tag> many;
      for (int i = 0; i < 400; ++i)
        many.push_back(tag(fuzz::FUZZ_CHANNELS[std::size_t(i) % 4], t + 50 + 1256 * i + (i % 3)));
      blocks.push_back(many);
      spans.emplace_back(t, t + 50 + 1256 * 400);
      // An empty block.
      t = spans.back().second;
      blocks.push_back({});
      spans.emplace_back(t, t + 5000);
      for (std::size_t b = 0; b < blocks.size(); ++b) {
        TagBlock *block = writer.pack(blocks[b], spans[b].first, spans[b].second);
        writer.seal(block);
        writer.write(block);
        writer.recycle(block);
        if (b == 2)
          writer.writeMarker("marker after the overflow");
      }
    }
  }
  const std::string name = partName(base, index);
  std::string bytes = fuzz::readBytes(name);
  std::remove(name.c_str());
  return bytes;
}

struct Block {
  std::size_t offset;
  std::uint32_t type;
  std::uint32_t size;
};

std::vector<Block> blocksOf(const std::string &bytes) {
  std::vector<Block> blocks;
  for (std::size_t offset = 0; offset + 16 <= bytes.size();) {
    Block block{offset, fuzz::detail::load32(bytes, offset + 8), fuzz::detail::load32(bytes, offset + 4)};
    blocks.push_back(block);
    offset += 16 + (block.size + 15) / 16 * 16;
  }
  return blocks;
}

void store32(std::string &bytes, std::size_t offset, std::uint32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

// The n-th block of `type` (0-based).
const Block &nth(const std::vector<Block> &blocks, std::uint32_t type, int n) {
  for (const Block &block : blocks)
    if (block.type == type && n-- == 0)
      return block;
  std::fprintf(stderr, "no such block\n");
  std::exit(1);
}

std::uint32_t compressionOf(const std::string &bytes, const Block &block) {
  return fuzz::detail::load32(bytes, block.offset + 16 + offsetof(TimeTagBlockRecord, compression));
}

// Word streams as a board sends them: events in clock order on a few slots,
// roll-overs, multiple roll-overs, overflow and error marks, missed-event
// counts and idle words, behind the decoder harness's 16 set-up bytes.
std::string rawDecoderSeed(std::uint32_t n) {
  std::mt19937 rng(n + 5);
  auto below = [&](std::uint32_t limit) { return std::uint32_t(rng() % limit); };
  auto word = [](std::uint32_t kind, std::uint32_t code, std::uint32_t payload, std::uint32_t coarse) {
    return (kind << 30) | ((code & 63) << 24) | ((payload & 255) << 16) | (coarse & 0xFFFF);
  };
  const std::uint32_t slots = 2 * (1 + n % 8), bins = 1 + (10 + n * 7) % 64;
  std::string bytes{char(n % 8), char(10 + n * 7), char(10 + n), char(n & 7)};
  for (int i = 0; i < 8; ++i)
    bytes.push_back(char(below(256)));
  bytes += {char(0b101), char(0b1110), char(3 + n * 20), 0};
  std::uint32_t cycle = 0;
  for (int i = 0; i < 600; ++i) {
    const std::uint32_t r = below(100);
    std::uint32_t w;
    if (r < 80) {
      cycle += below(3);
      if (cycle > 0xFFFF) {
        cycle = 0;
        w = word(1, 62, std::uint32_t(i), 0);
      } else {
        w = word(1, below(slots), below(bins), cycle);
      }
    } else if (r < 85) {
      cycle = 0;
      w = word(1, 62, std::uint32_t(i), 0);
    } else if (r < 88) {
      cycle = 0;
      w = word(2, 62, below(3), 0);
    } else if (r < 90) {
      w = word(2 + below(2), 63, 0, cycle);
    } else if (r < 91) {
      w = word(1, 63, 0, cycle);
    } else if (r < 93) {
      w = word(2, below(slots), below(256), 0);
    } else {
      w = below(1u << 30); // idle
    }
    bytes.append(reinterpret_cast<const char *>(&w), 4);
  }
  return bytes;
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUT_DIR\n", argv[0]);
    return 2;
  }
  const std::string out = argv[1];
  const std::string work = out + "/.work";
  std::filesystem::create_directories(work);

  const std::string prelude = writePart(work, 0, fuzz::FUZZ_FILE_ID);
  const std::string part = writePart(work, 1, fuzz::FUZZ_FILE_ID);
  const std::string other = writePart(work, 1, FileId{1, 2, 3, 4});
  const std::vector<Block> blocks = blocksOf(part);

  const Block &header = nth(blocks, BLOCK_FILE_HEADER, 0);
  const Block &configuration = nth(blocks, BLOCK_CONFIGURATION, 0);
  const Block &map = nth(blocks, BLOCK_CHANNEL_MAP, 0);
  const Block &raw = nth(blocks, BLOCK_TIME_TAGS, 0);
  const Block &second = nth(blocks, BLOCK_TIME_TAGS, 1);
  const Block &lz4 = nth(blocks, BLOCK_TIME_TAGS, 3);
  if (compressionOf(part, raw) != COMPRESSION_NONE || compressionOf(part, lz4) != COMPRESSION_LZ4) {
    std::fprintf(stderr, "the writer no longer makes the blocks this corpus needs\n");
    return 1;
  }
  const std::size_t record = sizeof(BlockPrefix);
  const std::size_t data = record + sizeof(TimeTagBlockRecord);
  auto field = [](std::size_t member) { return sizeof(BlockPrefix) + member; };

  // Damaged copies of the whole part; each keeps the blocks before its damage.
  std::map<std::string, std::string> damaged;
  auto damage = [&](const std::string &name, const std::function<void(std::string &)> &change) {
    std::string bytes = part;
    change(bytes);
    damaged[name] = bytes;
  };
  damage("cut_in_prefix", [&](std::string &b) { b.resize(second.offset + 9); });
  damage("cut_in_record", [&](std::string &b) { b.resize(second.offset + record + 60); });
  damage("cut_in_words", [&](std::string &b) { b.resize(raw.offset + data + 12); });
  damage("cut_in_lz4_data", [&](std::string &b) { b.resize(lz4.offset + data + 40); });
  damage("cut_before_end", [&](std::string &b) { b.resize(b.size() - 16); });
  damage("bad_magic", [&](std::string &b) { store32(b, second.offset, 0x12345678); });
  damage("too_new", [&](std::string &b) {
    store32(b, header.offset + record + offsetof(FileHeaderRecord, min_reader_version), 99);
  });
  damage("huge_block_size", [&](std::string &b) { store32(b, second.offset + 4, 0xFFFFFFF0u); });
  damage("huge_text_size", [&](std::string &b) { store32(b, configuration.offset + 4, 0x7FFFFFF0u); });
  damage("huge_channel_count", [&](std::string &b) { store32(b, map.offset + record, 0x10000000u); });
  damage("huge_word_count", [&](std::string &b) {
    store32(b, raw.offset + field(offsetof(TimeTagBlockRecord, word_count)), 0x3FFFFF00u);
  });
  damage("huge_stored_size", [&](std::string &b) {
    store32(b, lz4.offset + field(offsetof(TimeTagBlockRecord, stored_size)), 0xFFFFFF00u);
  });
  damage("huge_lz4_word_count", [&](std::string &b) {
    store32(b, lz4.offset + field(offsetof(TimeTagBlockRecord, word_count)), 0x3FFFFF00u);
  });
  damage("bad_compression",
         [&](std::string &b) { store32(b, raw.offset + field(offsetof(TimeTagBlockRecord, compression)), 7); });
  damage("bad_lz4_data", [&](std::string &b) {
    for (std::size_t i = 0; i < 24; ++i)
      b[lz4.offset + data + 8 + i] = char(0xFF);
  });
  // Damage that only a reader checking hashes and signatures sees.
  std::map<std::string, std::string> unsealed;
  {
    std::string bytes = part;
    bytes[raw.offset + data + 5] ^= 0x40;
    unsealed["hash_mismatch"] = bytes;
    bytes = part;
    bytes[raw.offset + field(offsetof(TimeTagBlockRecord, signature)) + 3] ^= 0x01;
    unsealed["bad_signature"] = bytes;
  }
  // A block type of a newer writer is passed over.
  std::string newer = part;
  {
    std::string block(16 + 32, '\x5A');
    store32(block, 0, MAGIC);
    store32(block, 4, 20);
    store32(block, 8, 77);
    store32(block, 12, 0);
    newer.insert(map.offset, block);
  }

  auto save = [&](const std::string &harness, const std::string &name, const std::string &bytes) {
    const std::string dir = out + "/" + harness;
    std::filesystem::create_directories(dir);
    fuzz::writeBytes(dir + "/" + name, bytes.data(), bytes.size());
  };
  auto pair = [](const std::string &zero, const std::string &one) {
    std::string bytes(2, '\0');
    bytes[0] = char(zero.size() & 0xFF);
    bytes[1] = char(zero.size() >> 8);
    return bytes + zero + one;
  };
  auto flagged = [](std::uint8_t flags, const std::string &bytes) { return std::string(1, char(flags)) + bytes; };

  save("part_reader", "valid_part", part);
  save("part_reader", "valid_prelude", prelude);
  save("part_reader", "valid_newer_block", newer);
  save("file_reader", "valid_recording", pair(prelude, part));
  save("file_reader", "valid_newer_block", pair(prelude, newer));
  save("file_reader", "damaged_other_recording", pair(prelude, other));
  save("file_reader", "damaged_cut_prelude", pair(prelude.substr(0, prelude.size() - 40), part));
  save("replay", "valid_part", flagged(0, part));
  save("replay", "valid_sealed_as_written", flagged(fuzz::REPLAY_KEEP_SEALS, part));
  save("replay", "valid_behind_prelude", flagged(fuzz::REPLAY_AS_PART_1, part));
  for (const auto &[name, bytes] : damaged) {
    save("part_reader", "damaged_" + name, bytes);
    save("file_reader", "damaged_" + name, pair(prelude, bytes));
    save("replay", "damaged_" + name, flagged(0, bytes));
  }
  for (const auto &[name, bytes] : unsealed) {
    save("part_reader", "damaged_" + name, bytes);
    save("replay", "damaged_" + name, flagged(fuzz::REPLAY_KEEP_SEALS, bytes));
  }
  for (std::uint32_t n = 0; n < 8; ++n)
    save("raw_decoder", "valid_board_stream_" + std::to_string(n), rawDecoderSeed(n));
  std::filesystem::remove_all(work);
  return 0;
}
