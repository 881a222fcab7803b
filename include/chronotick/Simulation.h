#pragma once

// Simulated boards: a model of the instrument's firmware, so that the whole
// hardware path runs without an instrument. A simulated board appears in
// scanChronotick() beside real ones and opens through createChronotick(serial)
// like one. Everything here may be called from any thread; a change to a
// board that a tagger has open takes effect at its next pipe read.
//
// Times are picoseconds of the board's true time, which starts at 0 when the
// board is brought up; rates are per second.
//
// The models:
//   "CT-20":    8 inputs, clock period 6000 ps, 160 fine bins (37.5 ps on
//               average), thresholds 0 to 2.5 V; the test signal's period is
//               the test signal divider x 18 ns (74: 1.332 us, 751 kHz).
//   "CT-Ultra": 18 inputs, clock period 2000 ps, 200 fine bins (10 ps on
//               average), thresholds -2.5 to 2.5 V; the test signal's period
//               is the value on the wire (twice the divider) x 10 ns
//               (2 x 63: 1.26 us, 794 kHz); a sensor bus from hardware
//               version 3 on.
//   Any other model string makes an unknown board (model number 0x99) with the
//   "CT-20" numbers, which bring-up refuses.
// Fine bins are unequal (+-30 %), fixed per input by the seed. The test signal
// enters behind the comparators: it needs no trigger level. Its oscillator
// runs 1/65536 slower than the multiple of the clock above, so that its edges
// sweep through every fine bin, which is what calibration learns from. Input multiplexer
// 1 takes the lower neighbour's connector, 2 the upper one's (wrapping round).
// The conditional filter is left wholly to the host: the board sends every
// event of an enabled slot.
// A board loads only firmware files made for its model. Loading one starts
// the board afresh: settings cleared, the stream stopped until bring-up
// starts it, the signals' random draws from a new start.

#include <chronotick/Export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace chronotick::simulation {

struct BoardSpec {
  std::string model = "CT-Ultra"; // "CT-20" (8 inputs) or "CT-Ultra" (18 inputs); anything else is unknown
  std::string serial;             // made up when empty
  int hardware_version = 5;       // "CT-Ultra" 0 to 5; a "CT-20" reports at most 2, its newest board
  bool usb3 = true;
  std::uint64_t seed = 1; // signals, jitter and the delay line follow from it
};

// Adds a board and returns its serial. Throws std::invalid_argument for a
// serial that is already in use. Made-up serials are "24470" and five hex
// digits. The control functions below throw std::invalid_argument for a serial
// that isn't listed, and setSignal also for an input the board lacks or a
// signal that can't be (negative times, a follower of itself).
CHRONOTICK_API std::string addBoard(const BoardSpec &spec);
// Unplugs a board: an open link to it fails from then on. Unknown serials
// are ignored.
CHRONOTICK_API void removeBoard(const std::string &serial);
CHRONOTICK_API void removeAllBoards();
CHRONOTICK_API std::vector<std::string> listBoards();

// What one physical input (0-based) sees. Each pulse has a rising edge at its
// time and a falling edge `width` later; an edge is detected only while the
// input's trigger level lies between 0 V and `amplitude`.
struct CHRONOTICK_API Signal {
  enum class Kind {
    Off,
    Poisson,      // pulses at random, `rate` per second
    Periodic,     // one pulse every `period`, with Gaussian `jitter` (rms), e.g. a laser sync
    Fluorescence, // after each pulse of input `source`: with `probability` a pulse after
                  // `delay` plus an exponential delay of mean `lifetime`
    Copy,         // every pulse of input `source`, `delay` later, with its own `jitter`
  };
  Kind kind = Kind::Off;
  double rate = 0;
  std::int64_t period = 0;
  std::int64_t jitter = 0;
  int source = -1;
  double probability = 1.0;
  std::int64_t lifetime = 0;
  std::int64_t delay = 0;
  std::int64_t width = 1000;
  double amplitude = 1.0; // volts

  static Signal off() { return {}; }
  static Signal poisson(double rate_per_second);
  static Signal periodic(std::int64_t period_ps, std::int64_t jitter_ps = 0);
  static Signal fluorescence(int source_input, double probability, std::int64_t lifetime_ps, std::int64_t delay_ps = 0);
  static Signal copy(int source_input, std::int64_t delay_ps, std::int64_t jitter_ps = 0);
};

CHRONOTICK_API void setSignal(const std::string &serial, int input, const Signal &signal);

// Real time (default): a pipe read waits until its words would exist; after
// 50 ms it fills the rest with idle words, as the firmware pads a read that
// asks for more than there is. Free running: reads return at once with as
// much as they ask for, made of up to 1 s of board time, padded with idle
// words past that (for tests and benchmarks).
CHRONOTICK_API void setRealTime(const std::string &serial, bool real_time);

// The link's bandwidth in words per second (default: USB 3 100 M, USB 2 8 M).
// Events beyond it fill the hardware buffer (wire-in 0x12 events); a full
// buffer gives an overflow stretch with missed-event counts, which ends once
// the buffer has drained to the level of wire-in 0x13 (half of it). Throws
// std::invalid_argument unless positive.
CHRONOTICK_API void setBandwidth(const std::string &serial, double words_per_second);

enum class Fault {
  LinkLoss,              // the next pipe reads fail and the board can't be opened, for `count` attempts
  ShortRead,             // the next pipe read returns fewer bytes than asked
  ClockLoss,             // the board loses its clock: an error word in the stream
  VoltageOutOfRange,     // the supply on monitor channel `count` reads out of its limits
  SensorFailure,         // the voltage monitor answers with its failure value (42.0)
  WrongInterfaceVersion, // the firmware reports interface version 3
  NoFirmware,            // loading any firmware file fails
};
// Injects a fault; `count` as said above (ignored where not mentioned).
// LinkLoss: each failed pipe read or open counts one attempt; the failed read
// closes the link. ClockLoss: the error word stands in for the next roll-over.
CHRONOTICK_API void injectFault(const std::string &serial, Fault fault, int count = 1);
CHRONOTICK_API void clearFaults(const std::string &serial);

// The board's truth, for comparing what the library measured.
struct BoardTruth {
  std::string model;
  int inputs = 0;
  std::int64_t clock_period = 0; // ps
  int bin_count = 0;             // fine bins per clock cycle
  // Per input: the true width of each fine bin in ps, and the rms of the
  // quantization error that these widths imply.
  std::vector<std::vector<double>> bin_widths;
  std::vector<double> quantization_rms;
};
CHRONOTICK_API BoardTruth getTruth(const std::string &serial);

} // namespace chronotick::simulation
