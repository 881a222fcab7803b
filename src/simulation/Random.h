#pragma once

// The simulated board's random numbers: fast, and the same on every platform
// for a given seed (the standard distributions are not).

#include <cmath>
#include <cstdint>

namespace chronotick::simulation {

constexpr std::uint64_t splitMix(std::uint64_t &state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// xoshiro256**, seeded through splitmix64.
class Random {
public:
  explicit Random(std::uint64_t seed = 0) {
    for (auto &word : s)
      word = splitMix(seed);
  }

  std::uint64_t next() {
    const std::uint64_t result = rotl(s[1] * 5, 7) * 9;
    const std::uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = rotl(s[3], 45);
    return result;
  }
  // In [0, 1).
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  // Mean 1.
  double exponential() { return -std::log(1.0 - uniform()); }
  // Mean 0, rms 1 (Box-Muller, the second value kept for the next call).
  double gaussian() {
    if (has_spare) {
      has_spare = false;
      return spare;
    }
    const double r = std::sqrt(-2.0 * std::log(1.0 - uniform()));
    const double phi = 6.283185307179586 * uniform();
    spare = r * std::sin(phi);
    has_spare = true;
    return r * std::cos(phi);
  }

private:
  static constexpr std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  std::uint64_t s[4] = {};
  double spare = 0;
  bool has_spare = false;
};

} // namespace chronotick::simulation
