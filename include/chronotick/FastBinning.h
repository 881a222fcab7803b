#pragma once

#include <chronotick/Export.h>

#include <cstdint>

namespace chronotick {

// Maps a non-negative time difference to its bin, floor(v / divisor), with the
// cheapest arithmetic that is exact for every v up to max_duration. The choice
// is made once; users read getMode() once per block and run a copy of their
// loop that has that mode's arithmetic compiled in.
//
// It doesn't see the stream itself: the histograms use it to bin time
// differences in ps. divisor must be at least 1; it is not checked, and 0
// divides by zero. An object is never changed after construction, so any
// number of threads may read it at once.
class CHRONOTICK_API FastBinning {
public:
  enum class Mode : std::int32_t {
    AlwaysZero = 0, // max_duration < divisor: every value is in bin 0
    Identity = 1,   // divisor 1
    PowerOfTwo = 2, // v >> shift
    MulShift32 = 3, // (v * factor) >> 32, low 64 bits of the product
    MulHigh64 = 4,  // high 64 bits of the 128-bit product v * factor
    Div32 = 5,      // 32-bit hardware division on the low 32 bits
    Div64 = 6,      // 64-bit hardware division
  };

  // Leaves every field uninitialised; for members assigned later.
  FastBinning() {}
  FastBinning(std::uint64_t divisor, std::uint64_t max_duration);

  FastBinning(const FastBinning &) = default;
  FastBinning(FastBinning &&) = default;
  FastBinning &operator=(const FastBinning &) = default;
  FastBinning &operator=(FastBinning &&) = default;

  Mode getMode() const { return mode; }
  std::uint64_t getDivisor() const { return divisor; }
  std::uint64_t getMaxDuration() const { return max_duration; }
  // Meaningful in MulShift32 and MulHigh64 only.
  std::uint64_t getFactor() const { return factor; }
  // Meaningful in PowerOfTwo only.
  std::uint32_t getShift() const { return shift; }

private:
  std::uint64_t divisor;
  std::uint64_t max_duration;
  std::uint64_t factor;
  std::uint32_t shift;
  Mode mode;
};

} // namespace chronotick
