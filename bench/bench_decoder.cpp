// The raw word decoder on synthetic board output: 8 busy slots with Poisson
// events, a roll-over every 65536 cycles, blocks of 131072 words.

#include "device/BoardProtocol.h"
#include "device/RawDecoder.h"
#include "engine/Worker.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

using namespace chronotick;

constexpr std::int64_t PERIOD_PS = 6000;
constexpr std::int32_t BINS = 128;
constexpr std::int32_t SLOTS = 16;
constexpr int ACTIVE_SLOTS = 8;
constexpr std::size_t BLOCK_WORDS = 131072;

// Whole roll-over periods, ending on a roll-over, so that the block can be
// decoded again and again as one continuous stream. The fine bins are
// unevenly used, as on a real delay line.
std::vector<std::uint32_t> boardBlock(double events_per_cycle) {
  std::mt19937_64 rng(7);
  std::exponential_distribution<double> gap(events_per_cycle);
  std::uniform_int_distribution<std::uint32_t> slot(0, ACTIVE_SLOTS - 1);
  std::binomial_distribution<std::uint32_t> bin(BINS - 1, 0.4);
  std::vector<std::uint32_t> words;
  words.reserve(BLOCK_WORDS);
  double cycle = 0;
  while (true) {
    cycle += gap(rng);
    if (cycle >= board::ROLLOVER_CYCLES) {
      words.push_back(board::rawWord(1, board::CODE_ROLLOVER, 0, 0));
      cycle -= board::ROLLOVER_CYCLES;
    }
    if (words.size() + 2 >= BLOCK_WORDS)
      break;
    words.push_back(board::rawWord(1, slot(rng), bin(rng), std::uint32_t(cycle)));
  }
  words.resize(BLOCK_WORDS - 1, 0); // idle
  words.push_back(board::rawWord(1, board::CODE_ROLLOVER, 0, 0));
  return words;
}

DeviceChannelState boardState() {
  DeviceChannelState state;
  state.setup(PERIOD_PS, BINS, SLOTS);
  for (int slot = 0; slot < SLOTS; ++slot)
    state.slot_channels[std::size_t(slot)] = slot % 2 == 0 ? slot / 2 + 1 : -(slot / 2 + 1);
  return state;
}

void decodeBlocks(benchmark::State &bench, DeviceChannelState &state, const DecodeSettings &settings) {
  const std::vector<std::uint32_t> words = boardBlock(1.0);
  Worker worker;
  // Past the uniform start of the fine bin table, and vectors at their size.
  for (int i = 0; i < 4; ++i)
    RawDecoder::decode(words.data(), words.size(), state, settings, 0, worker);
  std::size_t tags = 0;
  for (auto _ : bench) {
    RawDecoder::decode(words.data(), words.size(), state, settings, 0, worker);
    tags += worker.tags.size();
    benchmark::DoNotOptimize(worker.tags.data());
  }
  bench.SetItemsProcessed(std::int64_t(bench.iterations()) * std::int64_t(words.size()));
  bench.counters["tags_per_block"] = double(tags) / double(bench.iterations());
}

void BM_Decode(benchmark::State &bench) {
  DeviceChannelState state = boardState();
  DecodeSettings settings;
  settings.normalization = bench.range(0) != 0;
  decodeBlocks(bench, state, settings);
}
BENCHMARK(BM_Decode)->ArgName("normalization")->Arg(1)->Arg(0);

// Input delays of up to 20 ns keep a few thousand tags on the sort heap.
void BM_DecodeDelayed(benchmark::State &bench) {
  DeviceChannelState state = boardState();
  for (int slot = 0; slot < ACTIVE_SLOTS; ++slot)
    state.pending_delays[std::size_t(slot)] = slot * 2500;
  decodeBlocks(bench, state, DecodeSettings{});
}
BENCHMARK(BM_DecodeDelayed);

// Slot 0 triggers, the falling edges are filtered: every event goes through
// the pending heap.
void BM_DecodeFiltered(benchmark::State &bench) {
  DeviceChannelState state = boardState();
  DecodeSettings settings;
  settings.trigger_mask = 1;
  settings.filtered_mask = 0xAA;
  decodeBlocks(bench, state, settings);
}
BENCHMARK(BM_DecodeFiltered);

} // namespace

BENCHMARK_MAIN();
