#pragma once

// Helpers of the storage tests: a scratch directory, a log recorder, and
// file inspection that does not go through the codec under test.

#include <chronotick/Logging.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace chronotick::storage_test {

class TempDir {
public:
  TempDir() {
    std::random_device device;
    path_ = std::filesystem::temp_directory_path() /
            ("ct_storage_" + std::to_string(device()) + "_" + std::to_string(device()));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string &name) const { return (path_ / name).string(); }
  const std::filesystem::path &path() const { return path_; }

private:
  std::filesystem::path path_;
};

// Records every log entry while it lives.
class LogRecorder {
public:
  LogRecorder() {
    clear();
    previous = setLogger(&LogRecorder::sink);
  }
  ~LogRecorder() { setLogger(previous); }

  std::vector<std::string> messages() {
    std::lock_guard<std::mutex> guard(mutex());
    return store();
  }
  void clear() {
    std::lock_guard<std::mutex> guard(mutex());
    store().clear();
  }
  // Number of entries that end with `text` (the file and line come first).
  int count(const std::string &text) {
    int n = 0;
    for (const std::string &m : messages())
      if (m.size() >= text.size() && m.compare(m.size() - text.size(), text.size(), text) == 0)
        ++n;
    return n;
  }

private:
  static std::mutex &mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<std::string> &store() {
    static std::vector<std::string> s;
    return s;
  }
  static void sink(LogLevel, std::string message) {
    std::lock_guard<std::mutex> guard(mutex());
    store().push_back(std::move(message));
  }
  logger_callback previous;
};

inline std::string readFile(const std::string &name) {
  std::ifstream in(name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string &name, const std::string &bytes) {
  std::ofstream out(name, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
}

template <typename T> T load(const std::string &bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

// One block of a file as the bytes say: where it starts, its type and
// payload size, and where the next block starts (alignment 16 throughout).
struct BlockInfo {
  std::size_t offset;
  std::uint32_t type;
  std::uint32_t size;
  std::size_t end;
};

inline std::vector<BlockInfo> walkBlocks(const std::string &bytes) {
  std::vector<BlockInfo> blocks;
  std::size_t offset = 0;
  while (offset + 16 <= bytes.size()) {
    const auto size = load<std::uint32_t>(bytes, offset + 4);
    const auto type = load<std::uint32_t>(bytes, offset + 8);
    const std::size_t end = offset + 16 + (std::size_t(size) + 15) / 16 * 16;
    blocks.push_back(BlockInfo{offset, type, size, end});
    offset = end;
  }
  return blocks;
}

inline bool sameTag(const Tag &a, const Tag &b) {
  return a.type == b.type && a.missed_events == b.missed_events && a.channel == b.channel && a.time == b.time;
}

} // namespace chronotick::storage_test
