#pragma once

// .ctbin bytes built by hand, so that readers meet files that no writer of
// ours would produce: crafted fields, damaged sizes, wrong hashes.

#include "storage/ChronotickFileIO.h"

#include <lz4.h>
#include <openssl/evp.h>

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

namespace chronotick::testing {

using Words = std::vector<std::uint32_t>;
inline std::uint32_t word(std::uint32_t code, std::uint32_t field) {
  return code | field << 8;
}

// Deviations of a crafted time tag block from a correct one.
struct Tweaks {
  std::uint32_t compression = 0;
  std::int64_t word_count = -1; // declared count, if not the real one
  bool bad_hash = false;
  bool bad_signature = false;
  std::string excess; // bytes after the data, counted in size
};

// Builds .ctbin bytes by hand, so that the reader meets files that no writer
// of ours would produce.
struct Builder {
  std::string bytes;

  Builder &raw(const void *data, std::size_t n) {
    bytes.append(static_cast<const char *>(data), n);
    return *this;
  }
  Builder &raw(const std::string &text) { return raw(text.data(), text.size()); }
  Builder &u32s(std::initializer_list<std::uint32_t> values) { return raw(std::data(values), 4 * values.size()); }
  Builder &block(std::uint32_t type, const std::string &payload, std::int64_t declared = -1,
                 std::uint32_t magic = 0x5443494E) {
    u32s({magic, std::uint32_t(declared < 0 ? payload.size() : declared), type, 0u}).raw(payload);
    return raw(std::string((16 - bytes.size() % 16) % 16, '\0'));
  }
  Builder &header(std::uint32_t min_reader = 1) {
    return block(2, Builder().u32s({16u, 1u, min_reader, 0u, 7u, 8u, 9u, 10u}).bytes);
  }
  Builder &channelMap(const std::vector<std::tuple<std::uint32_t, std::int32_t, std::int32_t>> &entries) {
    Builder p;
    p.u32s({std::uint32_t(entries.size()), 0, 0, 0});
    for (auto [code, channel, inverted] : entries)
      p.u32s({code, std::uint32_t(channel), std::uint32_t(inverted), 0u});
    return block(3, p.bytes);
  }
  Builder &timeTags(std::int64_t begin, std::int64_t end, const Words &words, const Tweaks &t = {}) {
    std::string data(reinterpret_cast<const char *>(words.data()), words.size() * 4);
    if (t.compression == 1) {
      std::string out(std::size_t(LZ4_compressBound(int(data.size()))), '\0');
      out.resize(std::size_t(LZ4_compress_default(data.data(), out.data(), int(data.size()), int(out.size()))));
      data = out;
    }
    std::uint8_t hash[32] = {}, signature[64] = {};
    unsigned int length = 0;
    EVP_Digest(words.data(), words.size() * 4, hash, &length, EVP_sha1(), nullptr);
    ctbin::signHash(hash, signature);
    hash[3] ^= t.bad_hash;
    signature[10] ^= t.bad_signature;
    const std::int64_t times[] = {begin, end, end - begin};
    Builder r;
    r.raw(times, sizeof times);
    r.u32s({std::uint32_t(t.word_count < 0 ? words.size() : t.word_count), std::uint32_t(data.size()), 1u,
            t.compression, 1u, 0u});
    r.raw(hash, 32).raw(signature, 64);
    return block(4, r.bytes + data + t.excess);
  }
  Builder &end() { return block(1, ""); }
  // A prefix that declares `size` payload bytes, followed by only `payload`:
  // sizes that agree with each other but not with the file.
  Builder &claim(std::uint32_t type, const std::string &payload, std::uint32_t size) {
    return u32s({0x5443494E, size, type, 0u}).raw(payload);
  }
  // The 144-byte record of a time tag block with the given counts.
  static std::string timeTagRecord(std::uint32_t word_count, std::uint32_t stored_size, std::uint32_t compression) {
    Builder r;
    const std::int64_t times[] = {0, 10, 10};
    r.raw(times, sizeof times).u32s({word_count, stored_size, 1u, compression, 1u, 0u});
    return r.raw(std::string(96 + 64, '\x5A')).bytes;
  }
};

} // namespace chronotick::testing
