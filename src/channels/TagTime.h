#pragma once

#include <cstdint>

namespace chronotick {

// Times on the tag path compare by signed difference and add with wrap-around,
// so that streams near the end of the 64-bit range stay ordered.
inline bool tagTimeBefore(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b)) < 0;
}

inline std::int64_t tagTimeAdd(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

} // namespace chronotick
