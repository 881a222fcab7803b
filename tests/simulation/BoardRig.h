#pragma once

// A simulated board brought up the way the host does it, and a small decoder
// of its words written from the word format alone, so that the board is
// checked against its own truth and not against the host's decoder.

#include "device/BoardProtocol.h"
#include "simulation/SimulatedBoard.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace chronotick::simulation::testing {

inline std::string writeFirmware(const std::string &model, int interface = 4, long long build = 1767225600,
                                 const std::string &name = "") {
  const std::string path = ::testing::TempDir() + "/" + (name.empty() ? model + ".bit" : name);
  std::ofstream(path) << board::FIRMWARE_MAGIC << "\nmodel=" << model
                      << "\ninterface=" << interface << "\nbuild=" << build << "\n";
  return path;
}

struct Rig {
  explicit Rig(const std::string &model = "CT-Ultra", std::uint64_t seed = 1) : board(spec(model, seed)) {
    EXPECT_EQ(board.openBySerial(""), link::NO_ERROR);
    EXPECT_EQ(board.configureFpga(writeFirmware(model)), link::NO_ERROR);
    board.setRealTime(false);
    truth = board.truth();
    records.assign(std::size_t(2 * truth.inputs * board::CONFIG_RECORD_BYTES), 0);
  }
  static BoardSpec spec(const std::string &model, std::uint64_t seed) {
    BoardSpec s;
    s.model = model;
    s.serial = "2447012345";
    s.seed = seed;
    return s;
  }

  void wire(int address, std::uint32_t value) {
    board.setWireInValue(address, value);
    board.updateWireIns();
  }
  // A slot's configuration record; uploaded by `start`.
  void slot(int s, int mux = 0, std::uint16_t deadtime = 0, std::uint16_t divider = 0) {
    std::uint8_t *r = &records[std::size_t(s * board::CONFIG_RECORD_BYTES)];
    r[0] = std::uint8_t(board::CONFIG_ENABLED | mux << 3);
    r[2] = std::uint8_t(deadtime), r[3] = std::uint8_t(deadtime >> 8);
    r[4] = std::uint8_t(divider), r[5] = std::uint8_t(divider >> 8);
  }
  // The threshold through the board's DAC path of its model.
  void threshold(int input, double volts) {
    const double low = truth.model == "CT-Ultra" ? -2.5 : 0.0;
    const auto code = std::uint32_t((volts - low) / (2.5 - low) * 65535 + 0.5);
    if (truth.model == "CT-Ultra") {
      static constexpr int dac[18] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0x10, 0x19};
      board.setWireInValue(board::WI_DAC_ADDRESS, 1u << (dac[input] / 16));
      board.setWireInValue(board::WI_DAC_DATA, board::ULTRA_DAC_WRITE + (std::uint32_t(dac[input] & 15) << 16) + code);
    } else {
      static constexpr std::uint32_t dac[8] = {7, 5, 3, 1, 6, 4, 2, 0};
      board.setWireInValue(board::WI_DAC_DATA, code << 4);
      board.setWireInValue(board::WI_DAC_ADDRESS, (code >> 12) | (dac[input] << 4) | 0x300);
    }
    board.updateWireIns();
    board.activateTriggerIn(board::TI_DAC_LOAD, 0);
  }
  void start() {
    board.activateTriggerIn(board::TI_CONFIG_REWIND, 0);
    board.writeToPipeIn(board::PIPE_CONFIG, records.data(), long(records.size()));
    wire(board::WI_RUN, 1);
  }
  std::vector<std::uint32_t> read(std::size_t words) {
    std::vector<std::uint8_t> bytes(words * 4);
    const long got = board.readFromBlockPipeOut(board::PIPE_STREAM, 1024, bytes.data(), long(bytes.size()));
    EXPECT_EQ(got, long(bytes.size()));
    std::vector<std::uint32_t> out(words);
    std::memcpy(out.data(), bytes.data(), bytes.size()); // little-endian host
    return out;
  }

  SimulatedBoard board;
  BoardTruth truth;
  std::vector<std::uint8_t> records;
};

struct Decoded {
  struct Event {
    int slot;
    std::int64_t time; // centre of the event's true fine bin
  };
  std::vector<Event> events;
  std::vector<std::uint32_t> fences;
  std::map<int, std::uint64_t> missed; // per slot
  int errors = 0, overflow_begins = 0, overflow_ends = 0, bad_words = 0, out_of_order = 0;
  std::int64_t base = 0; // time of coarse 0
  std::int64_t last = 0; // latest word time seen
  std::vector<std::int64_t> slotTimes(int slot) const {
    std::vector<std::int64_t> t;
    for (const Event &e : events)
      if (e.slot == slot)
        t.push_back(e.time);
    return t;
  }
};

// Coarse + roll-overs x 65536 x period + the centre of the true bin.
inline void decode(const std::vector<std::uint32_t> &words, const BoardTruth &truth, Decoded &d) {
  const std::int64_t period = truth.clock_period, span = period * 65536;
  for (std::uint32_t w : words) {
    const std::uint32_t kind = w >> 30, code = w >> 24 & 63, payload = w >> 16 & 255, coarse = w & 0xFFFF;
    if (kind == 0)
      continue;
    const std::int64_t t = d.base + std::int64_t(coarse) * period;
    if (code == board::CODE_ROLLOVER) {
      d.base += span * (kind == 1 ? 1 : kind == 2 ? payload : payload * 256);
      if (kind == 1)
        d.fences.push_back(payload);
      continue;
    }
    if (code == board::CODE_CONTROL) {
      if (kind == 1)
        ++d.errors, d.base += span;
      kind == 2 ? ++d.overflow_begins : kind == 3 ? ++d.overflow_ends : 0;
      continue;
    }
    if (code >= std::uint32_t(2 * truth.inputs)) {
      ++d.bad_words;
      continue;
    }
    if (kind != 1) {
      d.missed[int(code)] += kind == 2 ? payload : payload * 256;
      continue;
    }
    const auto &widths = truth.bin_widths[code / 2];
    if (payload >= widths.size()) {
      ++d.bad_words;
      continue;
    }
    double start = 0;
    for (std::uint32_t b = 0; b < payload; ++b)
      start += widths[b];
    if (t < d.last)
      ++d.out_of_order;
    d.last = t;
    d.events.push_back({int(code), t + std::int64_t(start + widths[payload] / 2)});
  }
}

} // namespace chronotick::simulation::testing
