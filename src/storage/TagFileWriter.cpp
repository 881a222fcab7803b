#include "storage/TagFileWriter.h"

#include "engine/Log.h"

#include <fcntl.h>
#include <lz4.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace chronotick {

using namespace ctbin;

namespace {
const char zeros[ALIGNMENT] = {};
} // namespace

TagFileWriter::TagFileWriter(const std::string &base_name, std::uint32_t part_index, const FileId &file_id)
    : file_name(partName(base_name, part_index)), stream_buffer(new char[STREAM_BUFFER_SIZE]) {
  fd = ::open(file_name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0)
    throw std::runtime_error("FileWriter: Error on opening the file '" + base_name + "' for writing.");
  struct stat status;
  if (::fstat(fd, &status) == 0) {
    file_device = std::uint64_t(status.st_dev);
    file_inode = std::uint64_t(status.st_ino);
  }

  BlockPrefix prefix{MAGIC, sizeof(FileHeaderRecord), BLOCK_FILE_HEADER, 0};
  FileHeaderRecord header{ALIGNMENT, VERSION, MIN_READER_VERSION, 0, file_id};
  writeBytes(&prefix, sizeof(prefix));
  writeBytes(&header, sizeof(header));
  bytes += sizeof(prefix) + sizeof(header);
}

TagFileWriter::~TagFileWriter() {
  try {
    close();
  } catch (...) {
    // Only the next reader of the part can tell now.
  }
}

void TagFileWriter::close() {
  if (fd < 0)
    return;
  const bool failed_before = hasFailed();
  if (!failed_before) {
    BlockPrefix prefix{MAGIC, 0, BLOCK_END, 0};
    writeBytes(&prefix, sizeof(prefix));
    checkFileName();
    flushBuffer();
  }
  const int closing = fd;
  fd = -1;
  if (::close(closing) != 0 && errno != EINTR)
    fail(std::generic_category().message(errno));
  if (!failed_before)
    checkStream();
}

void TagFileWriter::fail(const std::string &reason) {
  if (failure.empty())
    failure = "FileWriter: Error on writing to the disk. Writing '" + file_name + "' failed: " + reason + ".";
}

void TagFileWriter::writeOut(const char *data, std::size_t size) {
  while (size > 0 && !hasFailed()) {
    const ssize_t n = ::write(fd, data, size);
    if (n > 0) {
      data += n;
      size -= std::size_t(n);
    } else if (n == 0) {
      fail("the disk took nothing");
    } else if (errno != EINTR) {
      fail(std::generic_category().message(errno));
    }
  }
}

void TagFileWriter::flushBuffer() {
  writeOut(stream_buffer.get(), buffered);
  buffered = 0;
}

// After a failure nothing more goes to the file: it keeps what it held, cut
// where the failure left it.
void TagFileWriter::writeBytes(const void *data, std::size_t size) {
  if (size == 0 || hasFailed()) // an empty text or channel map may come with no data at all
    return;
  if (buffered + size > STREAM_BUFFER_SIZE) {
    flushBuffer();
    if (size >= STREAM_BUFFER_SIZE) {
      writeOut(static_cast<const char *>(data), size);
      return;
    }
    if (hasFailed())
      return;
  }
  std::memcpy(stream_buffer.get() + buffered, data, size);
  buffered += size;
}

void TagFileWriter::writePadding(std::size_t size) {
  const std::size_t padding = paddingOf(size, ALIGNMENT);
  if (padding)
    writeBytes(zeros, padding);
}

void TagFileWriter::checkStream() {
  if (hasFailed())
    throw std::runtime_error(failure);
}

// On POSIX systems writing to a removed file succeeds and goes nowhere: the
// part's name must still lead to the file that is open.
void TagFileWriter::checkFileName() {
  if (fd < 0 || hasFailed() || file_inode == 0)
    return;
  struct stat status;
  if (::stat(file_name.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR)
      fail("the file was removed or moved");
  } else if (std::uint64_t(status.st_dev) != file_device || std::uint64_t(status.st_ino) != file_inode) {
    fail("another file took its name");
  }
}

void TagFileWriter::writeTextBlock(std::uint32_t block_type, const std::string &text) {
  checkFileName();
  BlockPrefix prefix{MAGIC, static_cast<std::uint32_t>(text.size()), block_type, 0};
  writeBytes(&prefix, sizeof(prefix));
  writeBytes(text.data(), text.size());
  writePadding(text.size());
  checkStream();
  bytes += sizeof(prefix) + text.size() + paddingOf(text.size(), ALIGNMENT);
}

void TagFileWriter::writeConfiguration(const std::string &configuration) {
  writeTextBlock(BLOCK_CONFIGURATION, configuration);
}

void TagFileWriter::writeMarker(const std::string &marker) {
  writeTextBlock(BLOCK_LAST_MARKER, marker);
}

void TagFileWriter::writeChannelList(const ChannelList &channels) {
  std::vector<std::pair<std::int32_t, std::uint32_t>> table;
  std::vector<ChannelMapEntry> entries;
  std::uint32_t next_code = 0;
  for (const auto &[channel, inverted] : channels) {
    const std::int32_t wanted = channel; // a structured binding can't be captured everywhere
    const bool known = std::any_of(table.begin(), table.end(), [&](const auto &e) { return e.first == wanted; });
    if (known)
      continue;
    table.emplace_back(channel, next_code);
    entries.push_back(ChannelMapEntry{next_code, channel, inverted, 0});
    if (next_code > MAX_CHANNEL_CODE)
      throw std::runtime_error("Too many channels. This format does not support more than 250 channels.");
    ++next_code;
  }
  std::sort(table.begin(), table.end());
  channel_codes = std::move(table);

  // Tagger channels are few and close together; a direct table spares the search per tag.
  dense_codes.clear();
  if (!channel_codes.empty()) {
    const std::int64_t low = channel_codes.front().first;
    const std::int64_t span = std::int64_t(channel_codes.back().first) - low + 1;
    if (span <= 4096) {
      dense_base = static_cast<std::int32_t>(low);
      dense_codes.assign(static_cast<std::size_t>(span), -1);
      for (const auto &[channel, code] : channel_codes)
        dense_codes[static_cast<std::size_t>(std::int64_t(channel) - low)] = static_cast<std::int16_t>(code);
    }
  }

  BlockPrefix prefix{MAGIC,
                     static_cast<std::uint32_t>(sizeof(ChannelMapPreamble) + entries.size() * sizeof(ChannelMapEntry)),
                     BLOCK_CHANNEL_MAP, 0};
  ChannelMapPreamble preamble{static_cast<std::uint32_t>(entries.size()), {}};
  writeBytes(&prefix, sizeof(prefix));
  writeBytes(&preamble, sizeof(preamble));
  writeBytes(entries.data(), entries.size() * sizeof(ChannelMapEntry));
  writePadding(prefix.size);
  checkStream();
  bytes += sizeof(prefix) + prefix.size + paddingOf(prefix.size, ALIGNMENT);
}

TagBlock *TagFileWriter::pack(const std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  TagBlock *block;
  if (free_blocks.empty()) {
    block = &blocks.emplace_back();
  } else {
    block = free_blocks.back();
    free_blocks.pop_back();
  }
  std::vector<std::uint32_t> &words = block->words;
  words.clear();

  // The dense table, or a binary search for far-apart channel numbers.
  const std::int16_t *dense = dense_codes.data();
  const std::uint64_t dense_size = dense_codes.size();
  const std::int32_t base = dense_base;
  auto codeOf = [&](std::int32_t channel) -> std::int32_t {
    if (dense_size) {
      const std::uint64_t index = std::uint64_t(std::int64_t(channel) - base);
      return index < dense_size ? dense[index] : -1;
    }
    auto it = std::lower_bound(channel_codes.begin(), channel_codes.end(), channel,
                               [](const auto &e, std::int32_t c) { return e.first < c; });
    return it != channel_codes.end() && it->first == channel ? std::int32_t(it->second) : -1;
  };

  constexpr std::uint64_t bit24 = std::uint64_t(1) << 24;
  constexpr std::uint64_t bit48 = std::uint64_t(1) << 48;
  std::int64_t running = begin_time;
  const bool overflow_at_begin = overflow;
  std::int64_t valid_time = 0;
  std::int64_t stretch_start = begin_time;
  std::int64_t written = 0;

  for (const Tag &tag : tags) {
    std::int32_t code = -1;
    if (tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents) {
      code = codeOf(tag.channel);
      if (code < 0)
        continue;
    }
    if (tag.type == Tag::Type::MissedEvents) {
      // Outside overflow the word would read as a time tag.
      if (overflow) {
        words.push_back(makeWord(std::uint32_t(code), tag.missed_events));
        ++written;
      }
      continue;
    }
    const std::int64_t signed_delta = std::int64_t(std::uint64_t(tag.time) - std::uint64_t(running));
    if (signed_delta < 0)
      continue; // time never runs backwards within a file
    std::uint64_t delta = std::uint64_t(signed_delta);
    if (delta >= bit48) {
      const std::uint64_t high = delta >> 48;
      words.push_back(makeWord(CODE_DELTA_48, std::uint32_t(high)));
      running += std::int64_t(high << 48);
      delta -= high << 48;
    }
    if (delta >= bit24) {
      const std::uint64_t high = delta >> 24;
      words.push_back(makeWord(CODE_DELTA_24, std::uint32_t(high)));
      running += std::int64_t(high << 24);
      delta -= high << 24;
    }
    switch (tag.type) {
    case Tag::Type::TimeTag:
      if (overflow)
        continue;
      break;
    case Tag::Type::OverflowBegin:
      code = CODE_OVERFLOW_BEGIN;
      valid_time = std::int64_t(std::uint64_t(valid_time) + std::uint64_t(tag.time) - std::uint64_t(stretch_start));
      overflow = true;
      break;
    case Tag::Type::OverflowEnd:
      code = CODE_OVERFLOW_END;
      overflow = false;
      stretch_start = tag.time;
      break;
    default:
      code = CODE_ERROR;
      break;
    }
    words.push_back(makeWord(std::uint32_t(code), std::uint32_t(delta)));
    ++written;
    running = tag.time;
  }
  events += written;

  TimeTagBlockRecord &record = block->record;
  std::memset(&record, 0, sizeof(record));
  record.begin_time = begin_time;
  record.end_time = end_time;
  record.valid_time =
      overflow ? valid_time
               : std::int64_t(std::uint64_t(valid_time) + std::uint64_t(end_time) - std::uint64_t(stretch_start));
  record.word_count = static_cast<std::uint32_t>(words.size());
  record.time_unit = 1;
  record.overflow_at_begin = overflow_at_begin ? 1 : 0;
  block->use_compressed = false;
  return block;
}

void TagFileWriter::seal(TagBlock *block) {
  TimeTagBlockRecord &record = block->record;
  const std::size_t n = std::size_t(record.word_count) * 4;
  const char *raw = reinterpret_cast<const char *>(block->words.data());
  block->use_compressed = false;
  if (n >= COMPRESSION_FLOOR && n <= std::size_t(LZ4_MAX_INPUT_SIZE)) {
    const std::size_t bound = std::size_t(LZ4_compressBound(int(n)));
    if (block->compressed.size() < bound)
      block->compressed.resize(bound); // grows only: the pool keeps the largest size seen
    const int result = LZ4_compress_default(raw, block->compressed.data(), int(n), int(bound));
    if (result > 0 && std::size_t(result) < n) {
      block->use_compressed = true;
      record.stored_size = std::uint32_t(result);
      record.compression = COMPRESSION_LZ4;
    }
  }
  if (!block->use_compressed) {
    record.stored_size = std::uint32_t(n);
    record.compression = COMPRESSION_NONE;
  }
  if (!sha1Field(raw, n, record.hash))
    CT_ERROR("Hashing with SHA1 was not successful");
  record.integrity_scheme = 1;
  if (!signHash(record.hash, record.signature))
    CT_ERROR("Signing with ECC was not successful");
}

void TagFileWriter::write(TagBlock *block) {
  checkFileName();
  checkStream();
  const TimeTagBlockRecord &record = block->record;
  BlockPrefix prefix{MAGIC, std::uint32_t(sizeof(record) + record.stored_size), BLOCK_TIME_TAGS, 0};
  writeBytes(&prefix, sizeof(prefix));
  writeBytes(&record, sizeof(record));
  if (block->use_compressed)
    writeBytes(block->compressed.data(), record.stored_size);
  else
    writeBytes(block->words.data(), record.stored_size);
  writePadding(record.stored_size);
  checkStream();
  bytes += sizeof(prefix) + sizeof(record) + record.stored_size + paddingOf(record.stored_size, ALIGNMENT);
}

void TagFileWriter::recycle(TagBlock *block) {
  block->words.clear();
  free_blocks.push_back(block);
}

} // namespace chronotick
