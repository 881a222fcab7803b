#include "storage/ChronotickFileIO.h"

#include "engine/Log.h"

#include <fcntl.h>
#include <lz4.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace chronotick {

namespace ctbin {

namespace {

constexpr std::size_t paddingOf(std::size_t size, std::uint32_t alignment) {
  return alignment == 0 ? 0 : (alignment - size % alignment) % alignment;
}

const char zeros[ALIGNMENT] = {};

// The block signature marks files written by this library; the key pair is
// fixed and public, derived from a text so that every build agrees on it.
struct SignatureKeys {
  EVP_PKEY *private_key = nullptr;
  EVP_PKEY *public_key = nullptr;
  EVP_MD *sha1 = nullptr;

  SignatureKeys() {
    static const char seed_text[] = "chronotick ctbin block signature v1";
    unsigned char seed[32];
    unsigned int seed_size = 0;
    if (EVP_Digest(seed_text, sizeof(seed_text) - 1, seed, &seed_size, EVP_sha256(), nullptr) != 1 ||
        seed_size != sizeof(seed))
      return;
    private_key = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof(seed));
    unsigned char raw_public[32];
    std::size_t public_size = sizeof(raw_public);
    if (private_key && EVP_PKEY_get_raw_public_key(private_key, raw_public, &public_size) == 1)
      public_key = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw_public, public_size);
    sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  }
  ~SignatureKeys() {
    EVP_PKEY_free(private_key);
    EVP_PKEY_free(public_key);
    EVP_MD_free(sha1);
  }
};

// Never destroyed: workers of a tagger still alive at exit may seal or check
// a block after static destruction has begun.
const SignatureKeys &keys() {
  static const SignatureKeys *instance = new SignatureKeys;
  return *instance;
}

// One digest context per thread, reused for every block.
struct DigestContext {
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  ~DigestContext() { EVP_MD_CTX_free(context); }
};

EVP_MD_CTX *threadContext() {
  thread_local DigestContext holder;
  EVP_MD_CTX_reset(holder.context);
  return holder.context;
}

} // namespace

void prepareIntegrity() {
  (void)keys();
}

std::string partName(const std::string &base_name, std::uint32_t part_index) {
  const std::string_view extension = FILE_EXTENSION;
  std::string name = base_name;
  if (name.size() > extension.size() && name.compare(name.size() - extension.size(), extension.size(), extension) == 0)
    name.resize(name.size() - extension.size());
  if (part_index > 0) {
    name += '.';
    name += std::to_string(part_index);
  }
  name += extension;
  return name;
}

bool sha1Field(const void *data, std::size_t size, std::uint8_t (&field)[32]) {
  std::memset(field, 0, sizeof(field));
  EVP_MD_CTX *context = threadContext();
  const EVP_MD *md = keys().sha1;
  unsigned int length = 0;
  return context && md && EVP_DigestInit_ex(context, md, nullptr) == 1 && EVP_DigestUpdate(context, data, size) == 1 &&
         EVP_DigestFinal_ex(context, field, &length) == 1 && length == 20;
}

bool signHash(const std::uint8_t (&hash)[32], std::uint8_t (&signature)[64]) {
  EVP_MD_CTX *context = threadContext();
  EVP_PKEY *key = keys().private_key;
  std::size_t length = sizeof(signature);
  return context && key && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key) == 1 &&
         EVP_DigestSign(context, signature, &length, hash, sizeof(hash)) == 1 && length == sizeof(signature);
}

bool verifyHash(const std::uint8_t (&hash)[32], const std::uint8_t (&signature)[64]) {
  EVP_MD_CTX *context = threadContext();
  EVP_PKEY *key = keys().public_key;
  return context && key && EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key) == 1 &&
         EVP_DigestVerify(context, signature, sizeof(signature), hash, sizeof(hash)) == 1;
}

} // namespace ctbin

using namespace ctbin;

// ---------------------------------------------------------------- writer

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

// ---------------------------------------------------------------- reader

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
  // Unsigned, so that a damaged file wraps instead of overflowing.
  std::uint64_t time = std::uint64_t(start_time);
  bool in_overflow = record.overflow_at_begin != 0;
  std::int64_t counted = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t word = words[i];
    const std::uint32_t code = word & 0xFF;
    const std::uint64_t field = word >> 8;
    if (code <= MAX_CHANNEL_CODE) {
      if (in_overflow) {
        *out++ = Tag{Tag::Type::MissedEvents, 0, std::uint16_t(field), code_channels[code], std::int64_t(time)};
      } else {
        time += field * unit;
        *out++ = Tag{Tag::Type::TimeTag, 0, 0, code_channels[code], std::int64_t(time)};
      }
      continue;
    }
    switch (code) {
    case CODE_DELTA_24:
      time += (field * unit) << 24;
      break;
    case CODE_DELTA_48:
      time += (field * unit) << 48;
      break;
    case CODE_OVERFLOW_BEGIN:
      time += field * unit;
      in_overflow = true;
      ++counted;
      *out++ = Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, std::int64_t(time)};
      break;
    case CODE_OVERFLOW_END:
      time += field * unit;
      in_overflow = false;
      *out++ = Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, std::int64_t(time)};
      break;
    default:
      time += field * unit;
      ++counted;
      *out++ = Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, std::int64_t(time)};
      break;
    }
  }
  tags.resize(std::size_t(out - tags.data()));
  overflow_count += counted;
  readOn();
  return true;
}

} // namespace chronotick
