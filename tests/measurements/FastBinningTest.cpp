#include <chronotick/FastBinning.h>

#include "measurements/FastBinningModes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

using chronotick::FastBinning;
using Mode = FastBinning::Mode;

namespace {

constexpr std::uint64_t TWO_31 = std::uint64_t(1) << 31;
constexpr std::uint64_t TWO_32 = std::uint64_t(1) << 32;
constexpr std::uint64_t TWO_40 = std::uint64_t(1) << 40;
constexpr std::uint64_t TWO_63 = std::uint64_t(1) << 63;
constexpr std::uint64_t ALL_ONES = ~std::uint64_t(0);
constexpr std::uint64_t INT64_TOP = TWO_63 - 1;

std::uint64_t applyMode(const FastBinning &b, std::uint64_t v) {
  const chronotick::binning::Constants c(b);
  return chronotick::binning::withBinningMode(
      b, [&](auto mode) { return chronotick::binning::binOf<decltype(mode)::value>(c, v); });
}

// Checks floor(v / d) for every v in [0, m] if the range is small, else for
// both ends, the values around many bin edges and dense random samples.
void expectExact(std::uint64_t d, std::uint64_t m, std::uint64_t seed) {
  const FastBinning b(d, m);
  SCOPED_TRACE(::testing::Message() << "divisor " << d << " max_duration " << m << " mode " << int(b.getMode()));
  auto check = [&](std::uint64_t v) {
    if (v <= m && applyMode(b, v) != v / d)
      ADD_FAILURE() << "value " << v << " gives " << applyMode(b, v) << " instead of " << v / d;
  };
  if (m <= (1u << 20)) {
    for (std::uint64_t v = 0; v <= m; ++v)
      check(v);
    return;
  }
  std::mt19937_64 rng(seed);
  std::uniform_int_distribution<std::uint64_t> any(0, m);
  for (std::uint64_t k = 0; k < 64; ++k) {
    check(k);
    check(m - k);
  }
  for (int i = 0; i < 100000; ++i)
    check(any(rng));
  // Rounding errors of a reciprocal show up just below a bin edge, worst at the top.
  const std::uint64_t top_bin = m / d;
  // Values that wrap around below 0 or above 2^64 - 1 are still fair samples.
  for (std::uint64_t i = 0; i < 20000; ++i) {
    const std::uint64_t edge = (i < 2000 ? top_bin - std::min(top_bin, i) : any(rng) / d) * d;
    for (std::uint64_t v : {edge - 2, edge - 1, edge, edge + 1, edge + 2, edge + d - 1})
      check(v);
  }
}

} // namespace

TEST(FastBinning, ModeForBoundaryInputs) {
  struct Case {
    std::uint64_t divisor, max_duration;
    Mode mode;
  };
  // For 3 the ceiling reciprocal has error 2 at scale 2^32, so MulShift32
  // holds below 2^31, strictly; the 64-bit error term is 2 as well: exact
  // below (2^64 - 1) / 2, strictly. Above 2^32 the 32-bit factor is 1, exact
  // only below 2^32 / (d - 2^32), never a range that reaches d; 2^32 + 1 has
  // 64-bit error d - 1, and 2^63 + 1 error 2, so no range from d up
  // qualifies. 2^32 - 1: the 32-bit form holds only below 1. Over the full
  // positive range (start-stop) a typical width needs division, while
  // 274177, a divisor of 2^64 + 1, has error term 1.
  // clang-format off
  const Case cases[] = {
      {1, 0, Mode::AlwaysZero}, {1, 1, Mode::Identity}, {1, ALL_ONES, Mode::Identity},
      {1024, 1023, Mode::AlwaysZero}, {1024, 1024, Mode::PowerOfTwo}, {TWO_63, TWO_63, Mode::PowerOfTwo},
      {2, 1, Mode::AlwaysZero}, {3, 1000, Mode::MulShift32}, {3, TWO_31 - 1, Mode::MulShift32},
      {3, TWO_31, Mode::MulHigh64}, {3, TWO_63 - 2, Mode::MulHigh64}, {3, TWO_63 - 1, Mode::Div64},
      {3, ALL_ONES, Mode::Div64}, {TWO_32 + 1, TWO_32, Mode::AlwaysZero}, {TWO_32 + 1, TWO_32 + 1, Mode::Div64},
      {TWO_32 + 3, TWO_32 + 3, Mode::MulHigh64}, {TWO_63 + 1, TWO_63 + 1, Mode::Div64},
      {TWO_32 - 1, TWO_32 - 1, Mode::MulHigh64}, {1000, 1000 * 1000, Mode::MulShift32},
      {100, INT64_TOP, Mode::Div64}, {274177, INT64_TOP, Mode::MulHigh64}, {274177, ALL_ONES, Mode::Div64}};
  // clang-format on
  for (const Case &c : cases)
    EXPECT_EQ(FastBinning(c.divisor, c.max_duration).getMode(), c.mode) << c.divisor << " " << c.max_duration;
}

TEST(FastBinning, ModeArithmeticIsFloorDivision) {
  // Powers of two, small odd and even numbers, primes, the neighbours of
  // 2^32 and 2^63, divisors above 2^32 and random ones of every size.
  // clang-format off
  std::vector<std::uint64_t> divisors = {1024, TWO_32, TWO_40, TWO_63, 2, 3, 5, 7, 10, 12, 100, 127, 1000, 1023, 1025,
      4096, 65535, 65537, 1000000, 999999937, TWO_32 - 1, TWO_32 + 1, TWO_32 + 3, TWO_32 * 3, 1000000000000ull,
      TWO_40 + 1, TWO_63 + 1, ALL_ONES};
  // clang-format on
  std::mt19937_64 rng(1);
  for (int i = 0; i < 12; ++i)
    divisors.push_back(1 + (rng() >> (rng() % 64)));

  std::set<Mode> seen;
  std::uint64_t seed = 0;
  for (std::uint64_t d : divisors) {
    // Small exhaustive ranges, typical histogram ranges, the 32-bit bound of
    // MulShift32 (2^32 / (d - 2^32 mod d)) and the whole positive range.
    std::vector<std::uint64_t> ranges = {0, 1, d - 1, d, 3 * d + 1, 1u << 20, INT64_TOP, ALL_ONES};
    if (d < TWO_40)
      ranges.push_back(d * 1000);
    if (TWO_32 % d != 0) {
      const std::uint64_t bound = TWO_32 / (d - TWO_32 % d);
      ranges.insert(ranges.end(), {bound - 1, bound, bound + 1});
    }
    for (std::uint64_t m : ranges) {
      const Mode mode = FastBinning(d, m).getMode();
      seen.insert(mode);
      if (m < d) {
        EXPECT_EQ(mode, Mode::AlwaysZero);
      }
      // Within 32 bits a multiplier always exists.
      if (m <= 0xFFFFFFFFu) {
        EXPECT_NE(mode, Mode::Div64);
        EXPECT_NE(mode, Mode::Div32);
      }
      expectExact(d, m, ++seed);
    }
  }
  for (Mode m : {Mode::AlwaysZero, Mode::PowerOfTwo, Mode::MulShift32, Mode::MulHigh64, Mode::Div64})
    EXPECT_TRUE(seen.count(m)) << int(m);
  expectExact(1, 1u << 20, 99);
  expectExact(1, ALL_ONES, 98);
}
