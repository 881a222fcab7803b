#pragma once

// The raw word stream of one simulated board, made one roll-over period
// (65536 clock cycles) at a time: pulses of each input's signal, edges through
// the input settings, dead time and divider per slot, fine bins from the
// delay line, the hardware buffer drained at the link's bandwidth, roll-over
// words with the fence echo. Settings and signals are read at the start of
// each period, which is how a change reaches the stream.

#include "simulation/DelayLine.h"
#include "simulation/Random.h"

#include <chronotick/Simulation.h>

#include <cstdint>
#include <vector>

namespace chronotick::simulation {

// One slot's configuration record, as the firmware applied it.
struct SlotSettings {
  bool enabled = false;
  bool filtered = false;
  bool trigger = false;
  int mux = 0; // 0 own connector, 1 the lower neighbour's, 2 the upper neighbour's, 3 the test signal
  std::uint32_t deadtime_cycles = 0;
  std::uint32_t divider = 0; // keeps one event of divider + 1
};

// What the firmware's registers say.
struct StreamSettings {
  std::vector<SlotSettings> slots;
  std::vector<double> thresholds;  // volts, per input
  std::uint32_t fence = 0;         // low byte echoed in roll-over words
  std::int64_t test_period_ps = 0; // 0: no test signal
  std::int64_t test_high_ps = 0;
  double buffer_events = 0; // a full buffer starts an overflow
  double resume_events = 0; // an overflow ends once the buffer has drained to this
  double words_per_second = 0;
};

class StreamGenerator {
public:
  // `seed` fixes the delay lines; the signals' random streams also follow
  // `run`, the count of firmware loads.
  StreamGenerator(int inputs, std::int64_t period_ps, int bins, std::uint64_t seed, std::uint64_t run);

  // Takes effect at the next roll-over period; the input's pulses start anew.
  void setSignal(int input, const Signal &signal);
  // Appends the words of the next roll-over period.
  void generate(const StreamSettings &settings, std::vector<std::uint32_t> &out);
  // Appends the roll-overs of the idle periods held back so far, so that the
  // host's time catches up with the board's.
  void flushIdle(const StreamSettings &settings, std::vector<std::uint32_t> &out);
  // The next period ends with an error word instead of its roll-over.
  void loseClock() { clock_lost = true; }

  std::int64_t time() const { return period_begin; } // board time generated so far, ps
  std::int64_t span() const { return period_ps * 65536; }
  const DelayLine &delayLine(int input) const { return lines[static_cast<std::size_t>(input)]; }

private:
  struct Input {
    Signal signal;
    bool restart = true;
    Random random;
    std::int64_t next = 0;            // next pulse (Poisson) or next ideal pulse (Periodic)
    std::vector<std::int64_t> late;   // min-heap of pulses past the current period
    std::vector<std::int64_t> pulses; // this period's, in time order
  };
  struct Slot {
    std::vector<std::int64_t> late;   // edges past the current period, in time order
    std::vector<std::int64_t> events; // this period's detected edges
    std::int64_t last_detected = 0;
    bool detected_any = false;
    std::uint32_t divided = 0;
    std::uint64_t missed = 0;
  };

  void makePulses(int input, std::int64_t end);
  void makeEvents(const StreamSettings &settings, int input, std::int64_t end);
  void emitEvents(const StreamSettings &settings, std::vector<std::uint32_t> &out);
  void sortByCoarse();
  // The buffer's fill at time t; ends an overflow that has drained.
  void drain(const StreamSettings &settings, std::int64_t t, std::vector<std::uint32_t> &out);
  std::uint32_t coarseOf(std::int64_t t) const { return static_cast<std::uint32_t>((t - period_begin) / period_ps); }

  int inputs;
  std::int64_t period_ps;
  std::int64_t period_begin = 0;
  std::vector<DelayLine> lines;
  std::vector<Input> in;
  std::vector<Slot> slots;
  std::vector<std::int64_t> test_pulses;
  std::vector<std::int64_t> edges; // one slot's falling edges of this period
  std::vector<int> order;          // inputs, sources before the inputs that follow them
  std::vector<char> placed;
  std::vector<std::uint32_t> words, sorted; // this period's event words
  double fill = 0;                          // events in the hardware buffer
  std::int64_t fill_time = 0;               // when `fill` was last brought up to date
  bool overflow = false;
  std::uint32_t idle_periods = 0; // roll-overs held back
  bool clock_lost = false;
};

} // namespace chronotick::simulation
