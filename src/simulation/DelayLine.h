#pragma once

// The fine-time delay line of one input: bins of unequal width, fixed when the
// board is made, as a real carry chain's are. An edge's fine bin is the one
// its time within the clock cycle falls into.

#include "simulation/Random.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace chronotick::simulation {

class DelayLine {
public:
  DelayLine(std::int64_t period_ps, int bins, std::uint64_t seed) {
    Random random(seed);
    std::vector<double> raw(static_cast<std::size_t>(bins));
    double total = 0;
    for (double &w : raw) {
      w = 1.0 + 0.3 * (2.0 * random.uniform() - 1.0);
      total += w;
    }
    // Whole-picosecond bin edges, so that the widths reported are exactly the ones applied.
    table.resize(static_cast<std::size_t>(period_ps));
    double cumulative = 0;
    std::int64_t begin = 0;
    for (int bin = 0; bin < bins; ++bin) {
      cumulative += raw[static_cast<std::size_t>(bin)];
      const std::int64_t end = bin + 1 == bins ? period_ps : std::llround(cumulative / total * double(period_ps));
      for (std::int64_t ps = begin; ps < end; ++ps)
        table[static_cast<std::size_t>(ps)] = static_cast<std::uint8_t>(bin);
      bin_widths.push_back(static_cast<double>(end - begin));
      begin = end;
    }
    double cubes = 0;
    for (double w : bin_widths)
      cubes += w * w * w;
    rms = std::sqrt(cubes / 12.0 / double(period_ps));
  }

  int binOf(std::uint32_t ps_in_cycle) const { return table[ps_in_cycle]; }
  const std::vector<double> &widths() const { return bin_widths; }
  // Rms of the time error when an edge is placed at its bin's centre.
  double quantizationRms() const { return rms; }

private:
  std::vector<std::uint8_t> table; // bin of each picosecond of the cycle
  std::vector<double> bin_widths;
  double rms = 0;
};

} // namespace chronotick::simulation
