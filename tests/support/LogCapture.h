#pragma once

// Captures what the library logs while it lives, for tests that check the
// system's messages.

#include <chronotick/Logging.h>

#include <mutex>
#include <string>
#include <vector>

namespace chronotick::testing {

class LogCapture {
public:
  struct Entry {
    LogLevel level;
    std::string text; // "File.cpp:line: message"
  };

  LogCapture() {
    clear();
    previous = setLogger(&LogCapture::sink);
  }
  ~LogCapture() { setLogger(previous); }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  std::vector<Entry> entries() {
    std::lock_guard<std::mutex> guard(mutex());
    return store();
  }
  std::vector<std::string> messages() {
    std::vector<std::string> texts;
    for (auto &e : entries())
      texts.push_back(e.text);
    return texts;
  }
  void clear() {
    std::lock_guard<std::mutex> guard(mutex());
    store().clear();
  }
  // Number of entries whose message ends with `text` (file and line come first),
  // at `level` unless it is 0.
  int count(const std::string &text, int level = 0) {
    int n = 0;
    for (const Entry &e : entries())
      n += (level == 0 || e.level == level) && e.text.ends_with(text);
    return n;
  }

  int errors() {
    int n = 0;
    for (const Entry &e : entries())
      n += e.level == LOGGER_ERROR;
    return n;
  }

private:
  static void sink(LogLevel level, std::string message) {
    std::lock_guard<std::mutex> guard(mutex());
    store().push_back({level, std::move(message)});
  }
  static std::mutex &mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<Entry> &store() {
    static std::vector<Entry> s;
    return s;
  }
  logger_callback previous;
};

} // namespace chronotick::testing
