#include <chronotick/FastBinning.h>

namespace chronotick {

namespace {
constexpr std::uint64_t ALL_ONES = ~std::uint64_t(0);
constexpr std::uint64_t TWO_32 = std::uint64_t(1) << 32;
} // namespace

FastBinning::FastBinning(std::uint64_t divisor_, std::uint64_t max_duration_)
    : divisor(divisor_), max_duration(max_duration_), factor(0), shift(0), mode(Mode::AlwaysZero) {
  const std::uint64_t d = divisor;
  const std::uint64_t m = max_duration;

  // The whole range in one bin wins over every cheaper-looking form.
  if (m < d) {
    mode = Mode::AlwaysZero;
    return;
  }
  if (d == 1) {
    mode = Mode::Identity;
    return;
  }
  for (std::uint32_t s = 0; s < 64; ++s) {
    if (d == (std::uint64_t(1) << s)) {
      shift = s;
      mode = Mode::PowerOfTwo;
      return;
    }
  }

  // Ceiling reciprocal scaled by 2^32: exact while the product stays in 64
  // bits and the accumulated rounding error stays below one bin.
  const std::uint64_t q = TWO_32 / d;
  const std::uint64_t r = TWO_32 % d;
  std::uint64_t factor32;
  std::uint64_t limit;
  if (r == 0) {
    factor32 = q;
    limit = ALL_ONES / factor32;
  } else {
    factor32 = q + 1;
    limit = ALL_ONES / factor32;
    const std::uint64_t error = d - r;
    if (error != 0 && TWO_32 / error < limit)
      limit = TWO_32 / error;
  }
  if (m < limit) {
    factor = factor32;
    mode = Mode::MulShift32;
    return;
  }

  // The same at scale 2^64, where the error term is d - (2^64 mod d).
  const std::uint64_t e = d - (ALL_ONES % d) - 1;
  if (e == 0 || m < ALL_ONES / e) {
    factor = ALL_ONES / d + 1;
    mode = Mode::MulHigh64;
    return;
  }

  mode = m <= 0xFFFFFFFFull ? Mode::Div32 : Mode::Div64;
}

} // namespace chronotick
