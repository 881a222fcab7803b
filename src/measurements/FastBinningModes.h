#pragma once

// Per-mode arithmetic of FastBinning for the loops of the measurements. A
// measurement writes its inner loop once as a template on the mode, and
// withBinningMode instantiates and picks the copy once per block, so that the
// loop over tags holds neither a branch on the mode nor (modes 0 to 4) a
// division.

#include <chronotick/FastBinning.h>

#include <cstdint>
#include <type_traits>

namespace chronotick::binning {

__extension__ typedef unsigned __int128 U128;

using Mode = FastBinning::Mode;

template <Mode M> using ModeConstant = std::integral_constant<Mode, M>;

// The constants a loop needs, copied out of the binner once per block.
struct Constants {
  std::uint64_t divisor;
  std::uint64_t factor;
  std::uint32_t shift;

  explicit Constants(const FastBinning &b) : divisor(b.getDivisor()), factor(b.getFactor()), shift(b.getShift()) {}
};

// floor(v / divisor) in mode M, exact for v up to the binner's max_duration.
// Div32 looks only at the low 32 bits of v and zero-extends the result.
template <Mode M> inline std::uint64_t binOf(const Constants &c, std::uint64_t v) {
  if constexpr (M == Mode::AlwaysZero) {
    (void)c;
    (void)v;
    return 0;
  } else if constexpr (M == Mode::Identity) {
    (void)c;
    return v;
  } else if constexpr (M == Mode::PowerOfTwo) {
    return v >> c.shift;
  } else if constexpr (M == Mode::MulShift32) {
    return (v * c.factor) >> 32;
  } else if constexpr (M == Mode::MulHigh64) {
    return static_cast<std::uint64_t>((static_cast<U128>(v) * c.factor) >> 64);
  } else if constexpr (M == Mode::Div32) {
    return static_cast<std::uint32_t>(v) / static_cast<std::uint32_t>(c.divisor);
  } else {
    return v / c.divisor;
  }
}

// Calls f(ModeConstant<mode>{}) with the binner's mode as a compile-time value.
template <class F> inline decltype(auto) withBinningMode(const FastBinning &b, F &&f) {
  switch (b.getMode()) {
  case Mode::AlwaysZero:
    return f(ModeConstant<Mode::AlwaysZero>{});
  case Mode::Identity:
    return f(ModeConstant<Mode::Identity>{});
  case Mode::PowerOfTwo:
    return f(ModeConstant<Mode::PowerOfTwo>{});
  case Mode::MulShift32:
    return f(ModeConstant<Mode::MulShift32>{});
  case Mode::MulHigh64:
    return f(ModeConstant<Mode::MulHigh64>{});
  case Mode::Div32:
    return f(ModeConstant<Mode::Div32>{});
  case Mode::Div64:
  default:
    return f(ModeConstant<Mode::Div64>{});
  }
}

} // namespace chronotick::binning
