#pragma once

#include <chronotick/Export.h>

#include <mutex>
#include <string>

namespace chronotick {

enum LogLevel { LOGGER_INFO = 10, LOGGER_WARNING = 30, LOGGER_ERROR = 40 };

// A log sink. It is called with the log mutex held: it must not log, nor
// call setLogger or enable/disable a CustomLogger.
typedef void (*logger_callback)(LogLevel level, std::string message);

// Makes `callback` the sink and returns the previous one; nullptr restores
// the default sink, which writes to the standard error stream.
CHRONOTICK_API logger_callback setLogger(logger_callback callback);

// Formats "<file>:<line>: <message>" into 1024 bytes at most (the rest is cut)
// and hands it to the sink. `file` is cut to its last path component.
CHRONOTICK_API void _Log(LogLevel level, const char *file, int line, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

// A client's log sink as an object: the logger enabled last receives every
// message, until it or any other CustomLogger is disabled or destroyed.
class CHRONOTICK_API CustomLogger {
public:
  CustomLogger();
  virtual ~CustomLogger();
  virtual void Log(int level, const std::string &message) = 0;

  void enable();
  void disable();

  CustomLogger(const CustomLogger &) = delete;
  CustomLogger &operator=(const CustomLogger &) = delete;

private:
  static void LogCallback(LogLevel level, std::string message);
  static CustomLogger *instance;
  static std::mutex instance_mutex;
};

} // namespace chronotick
