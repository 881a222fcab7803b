#pragma once

#include "storage/TagFileFormat.h"

#include <chronotick/Tag.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

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
