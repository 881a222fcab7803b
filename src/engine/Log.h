#pragma once

#include <chronotick/Logging.h>

#include <exception>
#include <string>

// The library's own way to log: fills in the source file and line.
#define CT_LOG(level, ...) ::chronotick::_Log(level, __FILE__, __LINE__, __VA_ARGS__)
#define CT_INFO(...) CT_LOG(::chronotick::LOGGER_INFO, __VA_ARGS__)
#define CT_WARNING(...) CT_LOG(::chronotick::LOGGER_WARNING, __VA_ARGS__)
#define CT_ERROR(...) CT_LOG(::chronotick::LOGGER_ERROR, __VA_ARGS__)

namespace chronotick {

// What the exception being handled says, for a log entry. Call only inside a
// catch block.
inline std::string currentExceptionText() {
  try {
    throw;
  } catch (const std::exception &e) {
    return e.what();
  } catch (...) {
    return "unknown exception";
  }
}

} // namespace chronotick
