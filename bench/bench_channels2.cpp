// Throughput of the discriminator, the frequency multiplier and the event
// generator in the engine: blocks of 131072 tags over 8 channels.

#include <chronotick/ConstantFractionDiscriminator.h>
#include <chronotick/EventGenerator.h>
#include <chronotick/FrequencyMultiplier.h>

#include "PoissonBlock.h"
#include "support/TestTagger.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

using chronotick::IteratorBase;
using chronotick::Tag;
using chronotick::testing::TestTagger;

namespace {

constexpr std::size_t block_size = 131072;
constexpr int blocks_per_round = 8;

void runChannel(benchmark::State &state, const std::vector<std::int32_t> &channels,
                const std::function<std::unique_ptr<IteratorBase>(TestTagger &)> &build) {
  TestTagger tagger;
  std::unique_ptr<IteratorBase> channel = build ? build(tagger) : nullptr;
  std::int64_t span = 0;
  const std::vector<Tag> pattern = poissonBlock(channels, 100, block_size, span);
  std::int64_t offset = 1000000;
  std::vector<Tag> block;
  for (auto _ : state) {
    for (int b = 0; b < blocks_per_round; ++b) {
      block = pattern;
      for (Tag &tag : block)
        tag.time += offset;
      tagger.push(std::move(block), offset, offset + span);
      offset += span;
    }
    tagger.waitUntilDone();
  }
  state.SetItemsProcessed(std::int64_t(state.iterations()) * blocks_per_round * std::int64_t(block_size));
  channel.reset();
}

const std::vector<std::int32_t> rising = {1, 2, 3, 4, 5, 6, 7, 8};
const std::vector<std::int32_t> both_edges = {1, -1, 2, -2, 3, -3, 4, -4};

void BM_EngineAlone(benchmark::State &state) {
  runChannel(state, rising, nullptr);
}

void BM_ConstantFractionDiscriminator(benchmark::State &state) {
  runChannel(state, both_edges, [](TestTagger &tagger) {
    return std::make_unique<chronotick::ConstantFractionDiscriminator>(&tagger, std::vector<std::int32_t>{1, 2, 3, 4},
                                                                       1000);
  });
}

void BM_FrequencyMultiplier(benchmark::State &state) {
  runChannel(state, rising,
             [](TestTagger &tagger) { return std::make_unique<chronotick::FrequencyMultiplier>(&tagger, 1, 4); });
}

void BM_EventGenerator(benchmark::State &state) {
  runChannel(state, rising, [](TestTagger &tagger) {
    return std::make_unique<chronotick::EventGenerator>(&tagger, 1, std::vector<std::int64_t>{0, 1000, 5000, 20000}, 1,
                                                        0, 2);
  });
}

// Negative pattern values: the whole stream goes through the delay queue.
void BM_EventGeneratorDelayed(benchmark::State &state) {
  runChannel(state, rising, [](TestTagger &tagger) {
    return std::make_unique<chronotick::EventGenerator>(&tagger, 1, std::vector<std::int64_t>{-500, 0, 1000, 5000}, 1,
                                                        0, chronotick::CHANNEL_UNUSED);
  });
}

} // namespace

BENCHMARK(BM_EngineAlone)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ConstantFractionDiscriminator)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FrequencyMultiplier)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_EventGenerator)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_EventGeneratorDelayed)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
