#include <chronotick/FastBinning.h>

#include "measurements/FastBinningModes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

using chronotick::FastBinning;
using Mode = FastBinning::Mode;

namespace {

__extension__ typedef unsigned __int128 U128;
constexpr std::uint64_t TWO_32 = std::uint64_t(1) << 32;
constexpr std::uint64_t ALL_ONES = ~std::uint64_t(0);

std::uint64_t applyMode(const FastBinning &b, std::uint64_t v) {
  const chronotick::binning::Constants c(b);
  return chronotick::binning::withBinningMode(
      b, [&](auto mode) { return chronotick::binning::binOf<decltype(mode)::value>(c, v); });
}

// Checks floor(v / d) for every v in [0, m] if the range is small, else for
// both ends, the values around many bin edges and dense random samples.
void expectExact(std::uint64_t d, std::uint64_t m, std::uint64_t seed) {
  const FastBinning b(d, m);
  SCOPED_TRACE(::testing::Message() << "divisor " << d << " max_duration " << m << " mode "
                                    << static_cast<int>(b.getMode()));
  auto check = [&](std::uint64_t v) {
    if (v > m)
      return;
    if (applyMode(b, v) != v / d)
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
  for (int i = 0; i < 20000; ++i) {
    std::uint64_t k = (i < 2000) ? top_bin - std::min<std::uint64_t>(top_bin, i) : any(rng) / d;
    const std::uint64_t edge = k * d;
    for (std::uint64_t off : {std::uint64_t(0), std::uint64_t(1), std::uint64_t(2)}) {
      if (edge >= off)
        check(edge - off);
      if (edge + off >= edge)
        check(edge + off);
    }
    if (edge + d - 1 >= edge)
      check(edge + d - 1);
  }
}

} // namespace

TEST(FastBinning, ModeForBoundaryInputs) {
  EXPECT_EQ(FastBinning(1, 0).getMode(), Mode::AlwaysZero);
  EXPECT_EQ(FastBinning(1, 1).getMode(), Mode::Identity);
  EXPECT_EQ(FastBinning(1, ALL_ONES).getMode(), Mode::Identity);
  EXPECT_EQ(FastBinning(1024, 1023).getMode(), Mode::AlwaysZero);
  const FastBinning p10(1024, 1024);
  EXPECT_EQ(p10.getMode(), Mode::PowerOfTwo);
  EXPECT_EQ(p10.getShift(), 10u);
  const FastBinning p63(std::uint64_t(1) << 63, std::uint64_t(1) << 63);
  EXPECT_EQ(p63.getMode(), Mode::PowerOfTwo);
  EXPECT_EQ(p63.getShift(), 63u);
  EXPECT_EQ(FastBinning(2, 1).getMode(), Mode::AlwaysZero);
  EXPECT_EQ(FastBinning(2, 2).getShift(), 1u);

  const FastBinning three(3, 1000);
  EXPECT_EQ(three.getMode(), Mode::MulShift32);
  EXPECT_EQ(three.getFactor(), 1431655766u);
  EXPECT_EQ(three.getDivisor(), 3u);
  EXPECT_EQ(three.getMaxDuration(), 1000u);

  // For 3 the ceiling reciprocal has error 2 at scale 2^32, so it holds for
  // values below 2^31 and the bound is strict.
  EXPECT_EQ(FastBinning(3, (std::uint64_t(1) << 31) - 1).getMode(), Mode::MulShift32);
  EXPECT_EQ(FastBinning(3, std::uint64_t(1) << 31).getMode(), Mode::MulHigh64);
  EXPECT_NE(((std::uint64_t(1) << 31) * 1431655766u) >> 32, (std::uint64_t(1) << 31) / 3)
      << "the 32-bit bound for 3 is not tight";

  // Above 2^32 the 32-bit factor is 1, exact only below 2^32 / (d - 2^32),
  // which is never a range that reaches d.
  EXPECT_EQ(FastBinning(TWO_32 + 1, TWO_32).getMode(), Mode::AlwaysZero);
  EXPECT_EQ(FastBinning(TWO_32 + 1, TWO_32 + 1).getMode(), Mode::Div64); // 2^64 mod d = 1: error d - 1
  EXPECT_EQ(FastBinning(TWO_32 + 3, TWO_32 + 3).getMode(), Mode::MulHigh64);

  // For 3 the 64-bit error term is 2: exact below (2^64 - 1) / 2, strictly.
  const std::uint64_t two_63 = std::uint64_t(1) << 63;
  const FastBinning m3(3, two_63 - 2);
  EXPECT_EQ(m3.getMode(), Mode::MulHigh64);
  EXPECT_EQ(m3.getFactor(), ALL_ONES / 3 + 1);
  EXPECT_EQ(FastBinning(3, two_63 - 1).getMode(), Mode::Div64);
  EXPECT_EQ(FastBinning(3, ALL_ONES).getMode(), Mode::Div64);
  EXPECT_NE(static_cast<std::uint64_t>((static_cast<U128>(two_63) * m3.getFactor()) >> 64), two_63 / 3)
      << "the 64-bit bound for 3 is not tight";
  // 2^63 + 1 has error term 2 as well, so no range from d up qualifies.
  EXPECT_EQ(FastBinning(two_63 + 1, two_63 + 1).getMode(), Mode::Div64);
  // 2^32 - 1: the 32-bit form holds only below 1, the 64-bit one takes over.
  EXPECT_EQ(FastBinning(TWO_32 - 1, TWO_32 - 1).getMode(), Mode::MulHigh64);
  // The full positive range, as a start-stop histogram uses it: a typical
  // width needs division, a divisor of 2^64 + 1 has error term 1.
  EXPECT_EQ(FastBinning(1000, 1000 * 1000).getMode(), Mode::MulShift32);
  EXPECT_EQ(FastBinning(100, 9223372036854775807ull).getMode(), Mode::Div64);
  EXPECT_EQ(FastBinning(274177, 9223372036854775807ull).getMode(), Mode::MulHigh64);
  EXPECT_EQ(FastBinning(274177, ALL_ONES).getMode(), Mode::Div64);

  // Copies carry every field.
  FastBinning copy;
  copy = three;
  EXPECT_EQ(copy.getMode(), Mode::MulShift32);
  EXPECT_EQ(copy.getFactor(), three.getFactor());
  const FastBinning moved(std::move(copy));
  EXPECT_EQ(moved.getDivisor(), 3u);
}

TEST(FastBinning, DivisionIsChosenWhereNoMultiplierIsExact) {
  // Random divisors against wide ranges; whatever falls to division must
  // still bin exactly. Within 32 bits a multiplier always exists.
  int div64 = 0;
  std::mt19937_64 rng(5);
  for (int i = 0; i < 4000 && div64 < 6; ++i) {
    const std::uint64_t d = (rng() >> (1 + rng() % 62)) | 3;
    for (std::uint64_t m : {std::uint64_t(0xFFFFFFFF), ALL_ONES, ALL_ONES / 3}) {
      if (m < d)
        continue;
      const FastBinning b(d, m);
      if (m <= 0xFFFFFFFFu) {
        EXPECT_NE(b.getMode(), Mode::Div32);
      }
      if (b.getMode() == Mode::Div64) {
        ++div64;
        EXPECT_GT(m, 0xFFFFFFFFu);
        expectExact(d, m, i);
      }
    }
  }
  EXPECT_GE(div64, 5);
}

TEST(FastBinning, ModeArithmeticIsFloorDivision) {
  std::vector<std::uint64_t> divisors = {1024,
                                         TWO_32,
                                         std::uint64_t(1) << 40,
                                         2,
                                         3,
                                         5,
                                         7,
                                         10,
                                         12,
                                         100,
                                         127,
                                         1000,
                                         1023,
                                         1025,
                                         4096,
                                         65535,
                                         65537,
                                         1000000,
                                         999999937,
                                         TWO_32 - 1,
                                         TWO_32 + 1,
                                         TWO_32 + 3,
                                         TWO_32 * 3,
                                         1000000000000ull,
                                         (std::uint64_t(1) << 40) + 1,
                                         (std::uint64_t(1) << 63) + 1,
                                         std::uint64_t(1) << 63,
                                         ALL_ONES};
  std::mt19937_64 rng(1);
  for (int i = 0; i < 12; ++i)
    divisors.push_back(1 + (rng() >> (rng() % 64)));

  std::vector<Mode> seen;
  std::uint64_t seed = 0;
  for (std::uint64_t d : divisors) {
    // Small exhaustive ranges, typical histogram ranges, the 32-bit bound and
    // the whole positive range.
    std::vector<std::uint64_t> ranges = {0, 1, d - 1, d, 3 * d + 1, 1u << 20, 9223372036854775807ull, ALL_ONES};
    if (d < (std::uint64_t(1) << 40))
      ranges.push_back(d * 1000);
    const std::uint64_t q = TWO_32 / d, r = TWO_32 % d;
    if (r != 0 && d - r != 0) {
      const std::uint64_t bound = TWO_32 / (d - r);
      for (std::uint64_t m : {bound - 1, bound, bound + 1})
        ranges.push_back(m);
      (void)q;
    }
    for (std::uint64_t m : ranges) {
      const FastBinning b(d, m);
      seen.push_back(b.getMode());
      if (b.getMode() == Mode::Div32 || b.getMode() == Mode::Div64)
        continue;
      if (m < d) {
        EXPECT_EQ(b.getMode(), Mode::AlwaysZero);
      }
      expectExact(d, m, ++seed);
    }
  }
  for (Mode m : {Mode::AlwaysZero, Mode::PowerOfTwo, Mode::MulShift32, Mode::MulHigh64, Mode::Div64})
    EXPECT_NE(std::find(seen.begin(), seen.end(), m), seen.end()) << static_cast<int>(m);
  expectExact(1, 1u << 20, 99);
  expectExact(1, ALL_ONES, 98);
}
