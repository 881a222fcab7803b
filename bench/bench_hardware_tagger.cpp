// The whole hardware path on one machine: a free-running simulated board
// (its firmware model makes the words), the pipe read, the raw word decoder
// and the engine carry every tag into Countrate. Tags per second of wall time;
// the board and the host share the two cores.

#include <chronotick/Chronotick.h>
#include <chronotick/Simulation.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace chronotick;
namespace sim = chronotick::simulation;

void BM_SimulatedBoardIntoCountrate(benchmark::State &state) {
  const int inputs = int(state.range(0));
  const double rate = double(state.range(1)) * 1e6; // per input
  sim::BoardSpec spec;
  spec.serial = "2447088888";
  const std::string serial = sim::addBoard(spec);
  sim::setRealTime(serial, false);
  sim::setBandwidth(serial, 1e9); // the host, not the link, is measured
  std::vector<std::int32_t> channels;
  for (int i = 0; i < inputs; ++i) {
    sim::setSignal(serial, i, sim::Signal::poisson(rate));
    channels.push_back(i + 1);
  }
  Chronotick *tagger = createChronotick(serial);
  Countrate counts(tagger, channels);
  std::vector<std::int64_t> totals;
  auto total = [&] {
    counts.getCountsTotal([&](std::size_t n) { return totals.resize(n), totals.data(); });
    return std::accumulate(totals.begin(), totals.end(), std::int64_t(0));
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(200)); // block sizes settle
  std::int64_t tags = 0;
  double seconds = 0;
  for (auto _ : state) {
    const std::int64_t before = total();
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    tags += total() - before;
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  state.counters["tags_per_s"] = double(tags) / seconds;
  state.counters["overflows"] = double(tagger->getOverflows());
  freeChronotick(tagger);
  sim::removeBoard(serial);
}
// Arguments: Poisson inputs, rate per input in MHz.
BENCHMARK(BM_SimulatedBoardIntoCountrate)->Args({8, 10})->Args({8, 25})->Iterations(6)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
