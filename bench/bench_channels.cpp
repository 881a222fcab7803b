// Throughput of every virtual channel in the engine (combiner, gate,
// coincidences, delays, discriminator, frequency multiplier, event generator):
// blocks of 131072 tags over 8 channels. BM_EngineAlone is the chain without
// any channel, the baseline of all the others.
// items_per_second is the rate of input tags through the chain in wall-clock
// time; tags_per_cpu_second divides by the CPU time of the whole process
// (workers included) over the same stretches, which stays meaningful on a
// machine that other jobs share.

#include <chronotick/Coincidence.h>
#include <chronotick/Coincidences.h>
#include <chronotick/Combiner.h>
#include <chronotick/ConstantFractionDiscriminator.h>
#include <chronotick/DelayedChannel.h>
#include <chronotick/EventGenerator.h>
#include <chronotick/FrequencyMultiplier.h>
#include <chronotick/GatedChannel.h>

#include "PoissonBlock.h"
#include "support/TestTagger.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <memory>

#include <sys/resource.h>
#include <vector>

using chronotick::IteratorBase;
using chronotick::Tag;
using chronotick::testing::TestTagger;

namespace {

constexpr std::size_t block_size = 131072;
constexpr int blocks_per_round = 8;

double processCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

const std::vector<std::int32_t> rising = {1, 2, 3, 4, 5, 6, 7, 8};
const std::vector<std::int32_t> both_edges = {1, -1, 2, -2, 3, -3, 4, -4};

// The chain of one channel (or none: the engine alone) on blocks over `channels`.
void runChain(benchmark::State &state, const std::function<std::unique_ptr<IteratorBase>(TestTagger &)> &build,
              const std::vector<std::int32_t> &channels = rising) {
  TestTagger tagger;
  std::unique_ptr<IteratorBase> channel = build ? build(tagger) : nullptr;
  std::int64_t span = 0;
  const std::vector<Tag> pattern = poissonBlock(channels, 100, block_size, span);
  std::int64_t offset = 1000000;
  std::vector<std::vector<Tag>> round(blocks_per_round);
  double cpu_seconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::int64_t t = offset;
    for (auto &block : round) {
      block = pattern;
      for (Tag &tag : block)
        tag.time += t;
      t += span;
    }
    state.ResumeTiming();
    // pushCopy fills vectors that the engine handed back, as a running
    // tagger reuses its block vectors; the copy is part of the measured time.
    const double cpu_before = processCpuSeconds();
    for (auto &block : round) {
      tagger.pushCopy(block, offset, offset + span);
      offset += span;
    }
    tagger.waitUntilDone();
    cpu_seconds += processCpuSeconds() - cpu_before;
  }
  const auto tags = static_cast<double>(state.iterations()) * blocks_per_round * static_cast<double>(block_size);
  state.SetItemsProcessed(static_cast<std::int64_t>(tags));
  state.counters["tags_per_cpu_second"] = tags / cpu_seconds;
  channel.reset();
}

void BM_EngineAlone(benchmark::State &state) {
  runChain(state, nullptr);
}

void BM_Combiner(benchmark::State &state) {
  runChain(state, [](TestTagger &tagger) {
    return std::make_unique<chronotick::Combiner>(&tagger, std::vector<std::int32_t>{1, 2});
  });
}

void BM_GatedChannel(benchmark::State &state) {
  runChain(state, [](TestTagger &tagger) { return std::make_unique<chronotick::GatedChannel>(&tagger, 1, 2, 3); });
}

// Argument: delay in ps.
void BM_DelayedChannel_One(benchmark::State &state) {
  runChain(state, [&](TestTagger &tagger) {
    return std::make_unique<chronotick::DelayedChannel>(&tagger, 1, static_cast<std::int64_t>(state.range(0)));
  });
}

void BM_DelayedChannel_Four(benchmark::State &state) {
  runChain(state, [&](TestTagger &tagger) {
    return std::make_unique<chronotick::DelayedChannel>(&tagger, std::vector<std::int32_t>{1, 3, 5, 7},
                                                        static_cast<std::int64_t>(state.range(0)));
  });
}

// Argument: timestamp type.
void BM_Coincidence_TwoFold(benchmark::State &state) {
  runChain(state, [&](TestTagger &tagger) {
    return std::make_unique<chronotick::Coincidence>(&tagger, std::vector<std::int32_t>{1, 2}, 1000,
                                                     static_cast<chronotick::CoincidenceTimestamp>(state.range(0)));
  });
}

void BM_Coincidences_EightGroups(benchmark::State &state) {
  runChain(state, [&](TestTagger &tagger) {
    std::vector<std::vector<std::int32_t>> groups;
    for (std::int32_t c = 1; c <= 8; ++c)
      groups.push_back({c, c % 8 + 1});
    return std::make_unique<chronotick::Coincidences>(&tagger, groups, 1000,
                                                      static_cast<chronotick::CoincidenceTimestamp>(state.range(0)));
  });
}

void BM_ConstantFractionDiscriminator(benchmark::State &state) {
  runChain(
      state,
      [](TestTagger &tagger) {
        return std::make_unique<chronotick::ConstantFractionDiscriminator>(&tagger,
                                                                           std::vector<std::int32_t>{1, 2, 3, 4}, 1000);
      },
      both_edges);
}

void BM_FrequencyMultiplier(benchmark::State &state) {
  runChain(state, [](TestTagger &tagger) { return std::make_unique<chronotick::FrequencyMultiplier>(&tagger, 1, 4); });
}

void BM_EventGenerator(benchmark::State &state) {
  runChain(state, [](TestTagger &tagger) {
    return std::make_unique<chronotick::EventGenerator>(&tagger, 1, std::vector<std::int64_t>{0, 1000, 5000, 20000}, 1,
                                                        0, 2);
  });
}

// Negative pattern values: the whole stream goes through the delay queue.
void BM_EventGeneratorDelayed(benchmark::State &state) {
  runChain(state, [](TestTagger &tagger) {
    return std::make_unique<chronotick::EventGenerator>(&tagger, 1, std::vector<std::int64_t>{-500, 0, 1000, 5000}, 1,
                                                        0, chronotick::CHANNEL_UNUSED);
  });
}

} // namespace

BENCHMARK(BM_EngineAlone)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Combiner)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GatedChannel)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DelayedChannel_One)->Arg(10000)->Arg(-10000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DelayedChannel_Four)->Arg(10000)->Arg(-10000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Coincidence_TwoFold)->Arg(0)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Coincidences_EightGroups)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConstantFractionDiscriminator)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FrequencyMultiplier)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EventGenerator)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EventGeneratorDelayed)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
