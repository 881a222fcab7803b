#include <chronotick/Logging.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

namespace chronotick {

namespace {

void defaultSink(LogLevel, std::string message) {
  std::cerr << message << std::endl;
}

// Never destroyed: a worker may log while static destruction runs at exit.
std::mutex &logMutex() {
  static std::mutex *mutex = new std::mutex;
  return *mutex;
}

logger_callback currentSink = &defaultSink;

const char *lastPathComponent(const char *file) {
  const char *cut = file;
  for (const char *p = file; *p; ++p) {
    if (*p == '/' || *p == '\\') {
      cut = p + 1;
    }
  }
  return cut;
}

} // namespace

logger_callback setLogger(logger_callback callback) {
  std::lock_guard<std::mutex> guard(logMutex());
  logger_callback previous = currentSink;
  currentSink = callback ? callback : &defaultSink;
  return previous;
}

void _Log(LogLevel level, const char *file, int line, const char *format, ...) {
  char buffer[1024];
  int used = std::snprintf(buffer, sizeof(buffer), "%s:%d: ", lastPathComponent(file ? file : ""), line);
  if (used < 0) {
    used = 0;
  }
  va_list args;
  va_start(args, format);
  if (static_cast<std::size_t>(used) < sizeof(buffer)) {
    // The analyzer loses track of va_start through std::vsnprintf.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    std::vsnprintf(buffer + used, sizeof(buffer) - static_cast<std::size_t>(used), format, args);
  }
  va_end(args);
  std::lock_guard<std::mutex> guard(logMutex());
  currentSink(level, std::string(buffer));
}

CustomLogger *CustomLogger::instance = nullptr;
std::mutex CustomLogger::instance_mutex;

CustomLogger::CustomLogger() = default;

CustomLogger::~CustomLogger() {
  disable();
}

void CustomLogger::enable() {
  // The order in which logging takes them: the log mutex, then the instance's.
  std::lock_guard<std::mutex> log_guard(logMutex());
  std::lock_guard<std::mutex> instance_guard(instance_mutex);
  instance = this;
  currentSink = &CustomLogger::LogCallback;
}

void CustomLogger::disable() {
  // The order in which logging takes them: the log mutex, then the instance's.
  std::lock_guard<std::mutex> log_guard(logMutex());
  std::lock_guard<std::mutex> instance_guard(instance_mutex);
  instance = nullptr;
  currentSink = &defaultSink;
}

void CustomLogger::LogCallback(LogLevel level, std::string message) {
  std::lock_guard<std::mutex> guard(instance_mutex);
  if (!instance) {
    std::cerr << message << std::endl;
    return;
  }
  try {
    instance->Log(level, message);
  } catch (const std::exception &e) {
    char text[1024];
    std::snprintf(text, sizeof(text), "There was an exception within the CustomLogger handler: %s", e.what());
    std::cerr << text << std::endl << message << std::endl;
  } catch (...) {
    std::cerr << "There was an exception within the CustomLogger handler: unknown exception" << std::endl
              << message << std::endl;
  }
}

} // namespace chronotick
