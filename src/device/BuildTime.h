#pragma once

// The firmware's build time stamp on wire-out 0x20, UTC, packed from the top
// bit down: year - 2000 (6 bits), month (4), day (5), hour (5), minute (6),
// second (6). The simulated board packs it from the firmware file's build=
// line; the host unpacks it for the version text. Internal to the library.

#include <cstdint>

namespace chronotick::board {

struct BuildTime {
  int year = 2000; // 2000 to 2063
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

constexpr std::uint32_t packBuildTime(const BuildTime &t) {
  const auto field = [](int value, int lowest, int bits) {
    const int top = (1 << bits) - 1;
    const int v = value - lowest;
    return static_cast<std::uint32_t>(v < 0 ? 0 : v > top ? top : v);
  };
  return field(t.year, 2000, 6) << 26 | field(t.month, 0, 4) << 22 | field(t.day, 0, 5) << 17 |
         field(t.hour, 0, 5) << 12 | field(t.minute, 0, 6) << 6 | field(t.second, 0, 6);
}

constexpr BuildTime unpackBuildTime(std::uint32_t word) {
  BuildTime t;
  t.year = 2000 + static_cast<int>(word >> 26);
  t.month = static_cast<int>((word >> 22) & 15);
  t.day = static_cast<int>((word >> 17) & 31);
  t.hour = static_cast<int>((word >> 12) & 31);
  t.minute = static_cast<int>((word >> 6) & 63);
  t.second = static_cast<int>(word & 63);
  return t;
}

// The UTC calendar time of a count of seconds since 1970.
constexpr BuildTime buildTimeFromUnix(std::int64_t seconds) {
  std::int64_t days = seconds / 86400;
  std::int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  // Days to civil date in the proleptic Gregorian calendar, eras of 400 years.
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const std::int64_t month = mp < 10 ? mp + 3 : mp - 9;
  BuildTime t;
  t.year = static_cast<int>(yoe + era * 400 + (month <= 2 ? 1 : 0));
  t.month = static_cast<int>(month);
  t.day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  t.hour = static_cast<int>(rest / 3600);
  t.minute = static_cast<int>(rest / 60 % 60);
  t.second = static_cast<int>(rest % 60);
  return t;
}

} // namespace chronotick::board
