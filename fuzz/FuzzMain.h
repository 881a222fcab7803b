#pragma once

// The libFuzzer entry points of one harness: the library's log is silenced
// (damaged inputs log at error level all the time), and a run whose views of
// the tags disagree counts as a crash.

#include "FuzzTargets.h"

#include <chronotick/Logging.h>

#define CT_FUZZ_HARNESS(run)                                                                                           \
  extern "C" int LLVMFuzzerInitialize(int *, char ***) {                                                               \
    ::chronotick::setLogger([](::chronotick::LogLevel, std::string) {});                                               \
    return 0;                                                                                                          \
  }                                                                                                                    \
  extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {                                  \
    if (!(run)(data, size).consistent)                                                                                 \
      __builtin_trap();                                                                                                \
    return 0;                                                                                                          \
  }
