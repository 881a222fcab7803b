// Words per second from a free-running simulated board, the source of the
// host decoder's benchmark: it has to stay well ahead of the decoder (above
// 50 M words per second on one core).

#include "device/BoardProtocol.h"
#include "simulation/SimulatedBoard.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

using namespace chronotick;
using namespace chronotick::simulation;

// A "CT-Ultra" streaming both edges of `inputs` Poisson inputs.
void prepare(SimulatedBoard &b, int inputs, double rate, bool periodic) {
  const std::string firmware = (std::filesystem::temp_directory_path() / "bench_ultra.bit").string();
  std::ofstream(firmware) << board::FIRMWARE_MAGIC << "\nmodel=CT-Ultra\ninterface=4\nbuild=0\n";
  b.openBySerial("");
  b.configureFpga(firmware);
  b.setRealTime(false);
  std::vector<std::uint8_t> records(18 * 2 * board::CONFIG_RECORD_BYTES, 0);
  for (int i = 0; i < inputs; ++i) {
    b.setSignal(i, periodic ? Signal::periodic(std::int64_t(1e12 / rate)) : Signal::poisson(rate));
    records[std::size_t(2 * i) * board::CONFIG_RECORD_BYTES] = board::CONFIG_ENABLED;
    records[std::size_t(2 * i + 1) * board::CONFIG_RECORD_BYTES] = board::CONFIG_ENABLED;
    b.setWireInValue(board::WI_DAC_ADDRESS, 1);
    b.setWireInValue(board::WI_DAC_DATA, board::ULTRA_DAC_WRITE + (std::uint32_t(i) << 16) + 40000);
    b.updateWireIns();
    b.activateTriggerIn(board::TI_DAC_LOAD, 0);
  }
  b.activateTriggerIn(board::TI_CONFIG_REWIND, 0);
  b.writeToPipeIn(board::PIPE_CONFIG, records.data(), long(records.size()));
  b.setWireInValue(board::WI_RUN, 1);
  b.updateWireIns();
}

void BM_SimulatedBoardWords(benchmark::State &state) {
  BoardSpec spec;
  spec.serial = "2447099999";
  SimulatedBoard b(spec);
  const int inputs = int(state.range(0));
  prepare(b, inputs, 100e6 / inputs, state.range(1) != 0);
  std::vector<std::uint8_t> buffer(131072 * 4);
  for (auto _ : state) {
    const long got = b.readFromBlockPipeOut(board::PIPE_STREAM, 1024, buffer.data(), long(buffer.size()));
    benchmark::DoNotOptimize(got);
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetItemsProcessed(state.iterations() * 131072);
}
// Arguments: active inputs (both edges each), periodic (1) or Poisson (0) pulses.
BENCHMARK(BM_SimulatedBoardWords)->Args({1, 0})->Args({4, 0})->Args({16, 0})->Args({4, 1});

} // namespace

BENCHMARK_MAIN();
