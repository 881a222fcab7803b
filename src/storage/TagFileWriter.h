#pragma once

#include "storage/TagFileFormat.h"

#include <chronotick/Tag.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace chronotick {

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

} // namespace chronotick
