#pragma once

// The .ctbin container: block prefix, records, tag word codes, part names and
// the integrity primitives shared by TagFileWriter and TagFileReader.
// Internal to the library.

#include <chronotick/Tag.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace chronotick {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the .ctbin codec writes host words as little-endian");

namespace ctbin {

constexpr std::uint32_t MAGIC = 0x5443494E; // "NICT"
constexpr std::uint32_t ALIGNMENT = 16;
constexpr std::uint32_t VERSION = 1;
constexpr std::uint32_t MIN_READER_VERSION = 1;
constexpr std::uint32_t READER_VERSION = 1; // files asking for more are refused
constexpr std::size_t STREAM_BUFFER_SIZE = 1048576;
constexpr std::size_t MIN_READ_BUFFER_SIZE = 4096; // a reader's buffer is the file's size within these
constexpr std::uint32_t COMPRESSION_FLOOR = 1024;  // blocks of fewer word bytes are stored raw
constexpr std::uint32_t MAX_CHANNEL_CODE = 250;
// Block times stay within +-2^62 ps (53 days), so that a time plus or minus
// any span up to that size still fits in 64 bits.
constexpr std::int64_t MAX_BLOCK_TIME = std::int64_t(1) << 62;
constexpr const char *FILE_EXTENSION = ".ctbin";

enum BlockType : std::uint32_t {
  BLOCK_END = 1,
  BLOCK_FILE_HEADER = 2,
  BLOCK_CHANNEL_MAP = 3,
  BLOCK_TIME_TAGS = 4,
  BLOCK_CONFIGURATION = 5,
  BLOCK_LAST_MARKER = 6,
};

enum Compression : std::uint32_t {
  COMPRESSION_NONE = 0,
  COMPRESSION_LZ4 = 1,
};

// Low byte of a tag word; codes 0..250 are channels.
enum TagCode : std::uint32_t {
  CODE_DELTA_24 = 251,
  CODE_DELTA_48 = 252,
  CODE_OVERFLOW_BEGIN = 253,
  CODE_OVERFLOW_END = 254,
  CODE_ERROR = 255,
};

inline constexpr std::uint32_t makeWord(std::uint32_t code, std::uint32_t field) {
  return (field << 8) | code;
}

// Zero bytes that follow `size` bytes up to the next multiple of `alignment` (0: none).
constexpr std::size_t paddingOf(std::size_t size, std::uint32_t alignment) {
  return alignment == 0 ? 0 : (alignment - size % alignment) % alignment;
}

struct BlockPrefix {
  std::uint32_t magic;
  std::uint32_t size; // payload bytes without padding
  std::uint32_t block_type;
  std::uint32_t reserved;
};
static_assert(sizeof(BlockPrefix) == 16);

using FileId = std::array<std::uint32_t, 4>;

struct FileHeaderRecord {
  std::uint32_t alignment;
  std::uint32_t version;
  std::uint32_t min_reader_version;
  std::uint32_t reserved;
  FileId file_id;
};
static_assert(sizeof(FileHeaderRecord) == 32);

struct ChannelMapPreamble {
  std::uint32_t count;
  std::uint8_t reserved[12];
};
static_assert(sizeof(ChannelMapPreamble) == 16);

struct ChannelMapEntry {
  std::uint32_t code; // only the low byte is meaningful
  std::int32_t channel;
  std::int32_t inverted_channel;
  std::uint32_t reserved;
};
static_assert(sizeof(ChannelMapEntry) == 16);

struct TimeTagBlockRecord {
  std::int64_t begin_time;
  std::int64_t end_time;
  std::int64_t valid_time; // picoseconds outside overflow
  std::uint32_t word_count;
  std::uint32_t stored_size;
  std::uint32_t time_unit;
  std::uint32_t compression;
  std::uint32_t integrity_scheme;
  std::uint8_t overflow_at_begin;
  std::uint8_t reserved[3];
  std::uint8_t hash[32];      // SHA-1 digest of the words, zero-filled
  std::uint8_t signature[64]; // over the whole hash field
};
static_assert(sizeof(TimeTagBlockRecord) == 144);
static_assert(offsetof(TimeTagBlockRecord, overflow_at_begin) == 44 && offsetof(TimeTagBlockRecord, hash) == 48 &&
              offsetof(TimeTagBlockRecord, signature) == 80);

// "data", "data.ctbin" -> "data.ctbin", "data.1.ctbin", ...
std::string partName(const std::string &base_name, std::uint32_t part_index);

// One engine block on its way to disk; pooled by TagFileWriter.
struct TagBlock {
  TimeTagBlockRecord record{};
  std::vector<std::uint32_t> words;
  std::vector<char> compressed;
  bool use_compressed = false;
};

// Sets up the hashing and signing library and the key pair now rather than at
// the first block, so that its own exit handlers are registered before any
// that frees taggers.
void prepareIntegrity();

// Integrity primitives shared by writer and reader. Each returns false on failure.
bool sha1Field(const void *data, std::size_t size, std::uint8_t (&field)[32]);
bool signHash(const std::uint8_t (&hash)[32], std::uint8_t (&signature)[64]);
bool verifyHash(const std::uint8_t (&hash)[32], const std::uint8_t (&signature)[64]);

} // namespace ctbin

} // namespace chronotick
