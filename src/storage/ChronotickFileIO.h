#pragma once

// Codec of one part of a .ctbin recording: TagFileWriter produces a part,
// TagFileReader reads one back block by block. Internal to the library.

#include <chronotick/Tag.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
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
constexpr std::uint32_t COMPRESSION_FLOOR = 1024; // blocks of fewer word bytes are stored raw
constexpr std::uint32_t MAX_CHANNEL_CODE = 250;
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

// Writes one part. Not thread-safe except seal(), which touches nothing but
// the block it is given and may run on several threads at once.
//
// Writes go through a buffer of STREAM_BUFFER_SIZE bytes. The first failure of
// the file (a write error, or its name no longer leading to it) makes every
// writing call throw std::runtime_error "FileWriter: Error on writing to the
// disk. ..." from then on; what reached the file before stays as it is.
class TagFileWriter {
public:
  using ChannelList = std::vector<std::pair<std::int32_t, std::int32_t>>; // (channel, inverted channel)

  // Opens the part's file and writes BLOCK_FILE_HEADER. Throws std::runtime_error
  // naming `base_name` if the file can't be opened.
  TagFileWriter(const std::string &base_name, std::uint32_t part_index, const ctbin::FileId &file_id);
  // Closes the file if close() didn't; never throws.
  ~TagFileWriter();
  TagFileWriter(const TagFileWriter &) = delete;
  TagFileWriter &operator=(const TagFileWriter &) = delete;

  void writeConfiguration(const std::string &configuration);
  void writeChannelList(const ChannelList &channels);
  void writeMarker(const std::string &marker);

  // Packs the tags of one engine block into a pooled block (record fields up to overflow_at_begin).
  ctbin::TagBlock *pack(const std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time);
  // Compresses, hashes and signs.
  void seal(ctbin::TagBlock *block);
  // Appends the block to this part's file.
  void write(ctbin::TagBlock *block);
  // Returns the block to this writer's pool.
  void recycle(ctbin::TagBlock *block);
  // Writes BLOCK_END, empties the buffer and closes the file; throws if that
  // fails. A part that failed before is closed as it is, without BLOCK_END, so
  // that a reader finds the cut. Later calls do nothing.
  void close();

  // A new part of a recording continues the overflow state of the last one.
  bool inOverflow() const { return overflow; }
  void continueOverflow(bool in_overflow) { overflow = in_overflow; }

  std::int64_t getBytes() const { return bytes; }
  std::int64_t getEvents() const { return events; }
  const std::string &getFileName() const { return file_name; }
  bool hasFailed() const { return !failure.empty(); }

private:
  void writeBytes(const void *data, std::size_t size);
  void writePadding(std::size_t size);
  void flushBuffer();
  void writeOut(const char *data, std::size_t size);
  void fail(const std::string &reason);
  void checkStream();
  void checkFileName();
  void writeTextBlock(std::uint32_t block_type, const std::string &text);

  std::string file_name;
  int fd = -1;
  std::uint64_t file_device = 0; // identity of the open file, to notice its removal
  std::uint64_t file_inode = 0;
  std::unique_ptr<char[]> stream_buffer;
  std::size_t buffered = 0;
  std::string failure; // the message of the first failure, empty while all is well
  std::vector<std::pair<std::int32_t, std::uint32_t>> channel_codes; // sorted by channel
  std::int32_t dense_base = 0;                                       // dense table for a compact channel range
  std::vector<std::int16_t> dense_codes;                             // -1: not recorded
  bool overflow = false;
  std::int64_t bytes = 0;
  std::int64_t events = 0;
  std::deque<ctbin::TagBlock> blocks;
  std::vector<ctbin::TagBlock *> free_blocks;
};

// Reads one part from the front, always one time tag block ahead of its caller.
// Damage logs an error and ends the reading of this file; nothing is thrown.
class TagFileReader {
public:
  TagFileReader(const std::string &file_name, bool check_signature);
  ~TagFileReader();
  TagFileReader(const TagFileReader &) = delete;
  TagFileReader &operator=(const TagFileReader &) = delete;

  // False if no time tag block is loaded.
  bool getBlockSpan(std::int64_t &begin_time, std::int64_t &end_time) const;
  // Replaces `tags` with the loaded block, its running time starting at `start_time`;
  // adds one to `overflow_count` per OverflowBegin and Error tag. Then reads on.
  // False if no block is loaded.
  bool decodeBlock(std::vector<Tag> &tags, std::int64_t start_time, std::int64_t &overflow_count);
  // Drops the loaded block undecoded and reads on.
  void skipBlock();
  // Ends the reading of this file now, as damage would: no block is loaded
  // any more and the memory held for blocks goes back.
  void stopReading();

  bool hasBlock() const { return block_loaded; }
  bool isOpen() const;
  const ctbin::FileId &getFileId() const { return file_id; }
  const std::string &getConfiguration() const { return configuration; }
  const std::string &getLastMarker() const { return last_marker; }
  std::uint32_t getVersion() const { return version; }
  // The opposite edge's channel as recorded, or CHANNEL_UNUSED.
  std::int32_t getInvertedChannel(std::int32_t channel) const;
  // The channel recorded for a code, or CHANNEL_UNUSED.
  std::int32_t getChannelOfCode(std::uint8_t code) const { return code_channels[code]; }

private:
  void readOn();
  bool readBlock();
  bool readRaw(void *data, std::size_t size);
  bool skipRaw(std::size_t size);
  bool takeField(std::size_t size, std::uint32_t &remaining);
  bool readField(void *data, std::size_t size, std::uint32_t &remaining, const char *message);
  bool readText(std::string &text, std::uint32_t &remaining, const char *message);
  // Whether the rest of the file can hold `size` bytes; logs `message` if not.
  // Checked before anything is sized from a field of the file.
  bool fileHolds(std::uint64_t size, const char *message);
  bool verifyBlock();

  std::ifstream stream;
  std::unique_ptr<char[]> stream_buffer;
  std::uint64_t file_left = 0; // bytes not yet read
  std::uint32_t alignment = 0;
  ctbin::FileId file_id{};
  std::uint32_t version = 0;
  std::uint32_t min_reader_version = 0;
  bool check_signature;
  std::string configuration;
  std::string last_marker;
  std::array<std::int32_t, 256> code_channels;
  std::map<std::int32_t, std::int32_t> inverted_channels;
  ctbin::TimeTagBlockRecord record{};
  std::vector<std::uint32_t> words;
  std::vector<char> compressed;
  bool block_loaded = false;
  bool end_seen = false;
};

} // namespace chronotick
