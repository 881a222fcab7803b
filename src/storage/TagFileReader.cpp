#include "storage/TagFileReader.h"

#include "engine/Log.h"

#include <lz4.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <limits>

namespace chronotick {

using namespace ctbin;

namespace {
// A small part needs no more buffer than it has bytes: many parts, or many
// readers at once, then cost little.
std::size_t readBufferSize(const std::string &file_name) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(file_name, error);
  if (error)
    return MIN_READ_BUFFER_SIZE;
  return std::size_t(std::clamp<std::uintmax_t>(size, MIN_READ_BUFFER_SIZE, STREAM_BUFFER_SIZE));
}
} // namespace

TagFileReader::TagFileReader(const std::string &file_name, bool check_signature) : check_signature(check_signature) {
  const std::size_t buffer_size = readBufferSize(file_name);
  stream_buffer.reset(new char[buffer_size]);
  code_channels.fill(CHANNEL_UNUSED);
  stream.rdbuf()->pubsetbuf(stream_buffer.get(), std::streamsize(buffer_size));
  stream.open(file_name, std::ios::binary | std::ios::in);
  if (stream.is_open()) {
    stream.seekg(0, std::ios::end);
    file_left = static_cast<std::uint64_t>(std::max<std::streamoff>(0, stream.tellg()));
    stream.seekg(0, std::ios::beg);
  }
  readOn();
}

TagFileReader::~TagFileReader() = default;

bool TagFileReader::isOpen() const {
  return stream.is_open();
}

bool TagFileReader::getBlockSpan(std::int64_t &begin_time, std::int64_t &end_time) const {
  if (!block_loaded)
    return false;
  begin_time = record.begin_time;
  end_time = record.end_time;
  return true;
}

std::int32_t TagFileReader::getInvertedChannel(std::int32_t channel) const {
  auto it = inverted_channels.find(channel);
  return it == inverted_channels.end() ? CHANNEL_UNUSED : it->second;
}

bool TagFileReader::readRaw(void *data, std::size_t size) {
  // Checking against what the file still holds first spares a damaged size
  // field from making a huge allocation.
  if (size > file_left || !stream.read(static_cast<char *>(data), static_cast<std::streamsize>(size))) {
    CT_ERROR("File access failed");
    file_left = 0;
    return false;
  }
  file_left -= size;
  return true;
}

bool TagFileReader::skipRaw(std::size_t size) {
  if (size == 0)
    return true;
  if (size > file_left) {
    CT_ERROR("File access failed");
    file_left = 0;
    return false;
  }
  stream.ignore(static_cast<std::streamsize>(size));
  if (std::size_t(stream.gcount()) != size) {
    CT_ERROR("File access failed");
    file_left = 0;
    return false;
  }
  file_left -= size;
  return true;
}

bool TagFileReader::takeField(std::size_t size, std::uint32_t &remaining) {
  if (size > remaining) {
    CT_ERROR("Block is too small");
    return false;
  }
  remaining -= std::uint32_t(size);
  return true;
}

bool TagFileReader::readField(void *data, std::size_t size, std::uint32_t &remaining, const char *message) {
  if (!takeField(size, remaining))
    return false;
  if (!readRaw(data, size)) {
    CT_ERROR("%s", message);
    return false;
  }
  return skipRaw(paddingOf(size, alignment));
}

bool TagFileReader::fileHolds(std::uint64_t size, const char *message) {
  if (size <= file_left)
    return true;
  CT_ERROR("File access failed");
  CT_ERROR("%s", message);
  file_left = 0;
  return false;
}

bool TagFileReader::readText(std::string &text, std::uint32_t &remaining, const char *message) {
  const std::size_t size = remaining;
  if (!fileHolds(size, message))
    return false;
  text.resize(size);
  return readField(text.data(), size, remaining, message);
}

bool TagFileReader::readBlock() {
  if (end_seen)
    return false;
  BlockPrefix prefix;
  if (!readRaw(&prefix, sizeof(prefix)) || prefix.magic != MAGIC) {
    CT_ERROR("Incorrect Header");
    return false;
  }
  std::uint32_t remaining = prefix.size;
  switch (prefix.block_type) {
  case BLOCK_END:
    end_seen = true;
    break;
  case BLOCK_FILE_HEADER: {
    FileHeaderRecord header;
    if (!readField(&header, sizeof(header), remaining, "File header could not be loaded"))
      return false;
    alignment = header.alignment;
    file_id = header.file_id;
    min_reader_version = header.min_reader_version;
    if (header.min_reader_version > READER_VERSION) {
      CT_ERROR("This file is too new. Please update your Chronotick installation.");
      return false;
    }
    version = header.version;
    break;
  }
  case BLOCK_CHANNEL_MAP: {
    ChannelMapPreamble preamble;
    if (!readField(&preamble, sizeof(preamble), remaining, "Channel map could not be loaded"))
      return false;
    const std::uint64_t entry_bytes = std::uint64_t(preamble.count) * sizeof(ChannelMapEntry);
    if (entry_bytes > remaining) {
      CT_ERROR("Block is too small");
      return false;
    }
    if (!fileHolds(entry_bytes, "Channel map data could not be loaded"))
      return false;
    std::vector<ChannelMapEntry> entries(preamble.count);
    if (!readField(entries.data(), entry_bytes, remaining, "Channel map data could not be loaded"))
      return false;
    for (const ChannelMapEntry &entry : entries) {
      code_channels[entry.code & 0xFF] = entry.channel;
      inverted_channels[entry.channel] = entry.inverted_channel;
      inverted_channels[entry.inverted_channel] = entry.channel;
    }
    break;
  }
  case BLOCK_TIME_TAGS: {
    if (!readField(&record, sizeof(record), remaining, "Time tag block header could not be loaded"))
      return false;
    if (record.begin_time < -MAX_BLOCK_TIME || record.end_time > MAX_BLOCK_TIME ||
        record.end_time < record.begin_time) {
      CT_ERROR("Time tag block runs from %lld ps to %lld ps", static_cast<long long>(record.begin_time),
               static_cast<long long>(record.end_time));
      CT_ERROR("Time tag block header could not be loaded");
      return false;
    }
    const std::uint64_t n = std::uint64_t(record.word_count) * 4;
    if (record.compression == COMPRESSION_NONE) {
      if (n > remaining) {
        CT_ERROR("Block is too small");
        return false;
      }
      if (!fileHolds(n, "Time tag block data could not be loaded"))
        return false;
      words.resize(record.word_count);
      if (!readField(words.data(), n, remaining, "Time tag block data could not be loaded"))
        return false;
    } else if (record.compression == COMPRESSION_LZ4) {
      if (record.stored_size > remaining) {
        CT_ERROR("Block is too small");
        return false;
      }
      if (!fileHolds(record.stored_size, "Compressed time tag block data could not be loaded"))
        return false;
      if (compressed.size() < record.stored_size)
        compressed.resize(record.stored_size);
      if (!readField(compressed.data(), record.stored_size, remaining,
                     "Compressed time tag block data could not be loaded"))
        return false;
      // LZ4 expands at most about 255-fold: a larger word count can't be genuine.
      if (n > std::uint64_t(record.stored_size) * 255 + 16 || n > std::uint64_t(LZ4_MAX_INPUT_SIZE)) {
        CT_ERROR("Time tag block data could not be decompressed");
        return false;
      }
      words.resize(record.word_count);
      const int result = LZ4_decompress_safe(compressed.data(), reinterpret_cast<char *>(words.data()),
                                             int(record.stored_size), int(n));
      if (result < 0 || std::uint64_t(result) != n) {
        CT_ERROR("Time tag block data could not be decompressed");
        return false;
      }
    } else {
      CT_ERROR("Time tag block data with unknown compression");
      return false;
    }
    if (check_signature && !verifyBlock())
      return false;
    block_loaded = true;
    break;
  }
  case BLOCK_CONFIGURATION:
    if (!readText(configuration, remaining, "JSON config could not be loaded"))
      return false;
    break;
  case BLOCK_LAST_MARKER:
    if (!readText(last_marker, remaining, "last_marker could not be loaded"))
      return false;
    break;
  default:
    break; // a newer writer's block: passed over below
  }
  // Whatever a newer writer appended to a block is skipped.
  if (remaining > 0 && !skipRaw(std::size_t(remaining) + paddingOf(remaining, alignment)))
    return false;
  return true;
}

bool TagFileReader::verifyBlock() {
  std::uint8_t hash[32];
  if (!sha1Field(words.data(), words.size() * 4, hash))
    CT_ERROR("Hashing with SHA1 was not successful");
  if (std::memcmp(hash, record.hash, sizeof(hash)) != 0) {
    CT_ERROR("Hash missmatch");
  } else if (!verifyHash(record.hash, record.signature)) {
    CT_ERROR("ECC signature is wrong");
  } else {
    return true;
  }
  CT_ERROR("Time tag block data with invalid hash or signature");
  return false;
}

void TagFileReader::readOn() {
  block_loaded = false;
  words.clear();
  while (!block_loaded) {
    if (!readBlock()) {
      stopReading();
      return;
    }
  }
}

void TagFileReader::stopReading() {
  // What the file made us hold goes back, which matters most after a damaged
  // block that claimed a large size.
  block_loaded = false;
  end_seen = true;
  std::vector<std::uint32_t>().swap(words);
  std::vector<char>().swap(compressed);
  if (stream.is_open())
    stream.close();
}

void TagFileReader::skipBlock() {
  if (block_loaded)
    readOn();
}

bool TagFileReader::decodeBlock(std::vector<Tag> &tags, std::int64_t start_time, std::int64_t &overflow_count) {
  if (!block_loaded) {
    tags.clear();
    return false;
  }
  const std::size_t count = words.size();
  // Every word but the two delta codes makes one tag: size for all, cut down
  // afterwards. Growing only where needed spares zeroing the whole vector.
  if (tags.size() < count)
    tags.resize(count);
  Tag *out = tags.data();
  const std::uint64_t unit = record.time_unit;
  // The running time is kept relative to start_time. Every step adds a
  // non-negative delta, so a tag that came out of order or after the block's
  // end shows as `rel` passing the span; the check goes with each step, so
  // that `rel` can't wrap unseen (span <= 2^63, a plain step < 2^56).
  const std::uint64_t span = std::uint64_t(record.end_time) - std::uint64_t(record.begin_time);
  const std::uint64_t start = std::uint64_t(start_time);
  std::uint64_t rel = 0;
  bool outside = false;
  bool in_overflow = record.overflow_at_begin != 0;
  std::int64_t counted = 0;
  // Delta codes shift the product up, up to nearly 2^64: a step beyond the
  // span is outside by itself, and is never added, so that `rel` can't wrap.
  auto addShifted = [&](std::uint64_t field, int shift) {
    const std::uint64_t product = field * unit;
    if (product >> (64 - shift) != 0 || (product << shift) > span) {
      outside = true;
      return;
    }
    rel += product << shift;
    outside |= rel > span;
  };
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t word = words[i];
    const std::uint32_t code = word & 0xFF;
    const std::uint64_t field = word >> 8;
    if (code <= MAX_CHANNEL_CODE) {
      if (in_overflow) {
        *out++ = Tag{Tag::Type::MissedEvents, 0, std::uint16_t(field), code_channels[code], std::int64_t(start + rel)};
      } else {
        rel += field * unit;
        outside |= rel > span;
        *out++ = Tag{Tag::Type::TimeTag, 0, 0, code_channels[code], std::int64_t(start + rel)};
      }
      continue;
    }
    switch (code) {
    case CODE_DELTA_24:
      addShifted(field, 24);
      break;
    case CODE_DELTA_48:
      addShifted(field, 48);
      break;
    case CODE_OVERFLOW_BEGIN:
      rel += field * unit;
      outside |= rel > span;
      in_overflow = true;
      ++counted;
      *out++ = Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, std::int64_t(start + rel)};
      break;
    case CODE_OVERFLOW_END:
      rel += field * unit;
      outside |= rel > span;
      in_overflow = false;
      *out++ = Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, std::int64_t(start + rel)};
      break;
    default:
      rel += field * unit;
      outside |= rel > span;
      ++counted;
      *out++ = Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, std::int64_t(start + rel)};
      break;
    }
  }
  if (outside) {
    // Tags out of order would break every measurement's view of the stream.
    CT_ERROR("Time tag block data runs past the end of its block");
    CT_ERROR("Time tag block data could not be loaded");
    tags.clear();
    stopReading();
    return false;
  }
  tags.resize(std::size_t(out - tags.data()));
  overflow_count += counted;
  readOn();
  return true;
}

} // namespace chronotick
