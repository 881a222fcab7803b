// Engine figures: chain walk overhead, pipelining over workers, and raw tag
// access through TimeTagStream.

#include "support/TestTagger.h"

#include <chronotick/IteratorBase.h>
#include <chronotick/TimeTagStream.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <random>

using chronotick::Tag;
using chronotick::testing::TestTagger;

namespace {

class NoOp : public chronotick::IteratorBase {
public:
  explicit NoOp(chronotick::ChronotickBase *t) : IteratorBase(t) { finishInitialization(); }
  ~NoOp() override { stop(); }

protected:
  bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override { return false; }
};

// Spins for a fixed time per block: a stand-in for a heavy measurement.
class Busy : public chronotick::IteratorBase {
public:
  Busy(chronotick::ChronotickBase *t, std::chrono::microseconds work_) : IteratorBase(t), work(work_) {
    finishInitialization();
  }
  ~Busy() override { stop(); }

protected:
  bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override {
    const auto until = std::chrono::steady_clock::now() + work;
    while (std::chrono::steady_clock::now() < until) {
    }
    return false;
  }

private:
  std::chrono::microseconds work;
};

double secondsFor(TestTagger &tagger, int n_blocks) {
  const auto start = std::chrono::steady_clock::now();
  for (int k = 0; k < n_blocks; ++k) {
    tagger.push({}, k, k + 1);
  }
  tagger.waitUntilDone();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Per-iterator, per-block cost of the chain walk: a chain of 10 iterators
// that do nothing, minus the same source with an empty chain.
void BM_ChainWalkPerIterator(benchmark::State &state) {
  const int n_blocks = 20000;
  TestTagger empty_chain;
  TestTagger tagger;
  std::vector<std::unique_ptr<NoOp>> chain;
  for (int i = 0; i < 10; ++i) {
    chain.push_back(std::make_unique<NoOp>(&tagger));
  }
  double with_chain = 0;
  double without = 0;
  for (auto _ : state) {
    without += secondsFor(empty_chain, n_blocks);
    with_chain += secondsFor(tagger, n_blocks);
  }
  const double blocks = static_cast<double>(state.iterations()) * n_blocks;
  state.counters["ns_per_iterator_block"] = (with_chain - without) / blocks / 10 * 1e9;
  state.counters["ns_per_block_10_iterators"] = with_chain / blocks * 1e9;
  state.counters["ns_per_block_source_only"] = without / blocks * 1e9;
}
BENCHMARK(BM_ChainWalkPerIterator)->Unit(benchmark::kMillisecond)->Iterations(5);

// Two equally heavy iterators: with two workers, iterator 1 works on block
// k + 1 while iterator 2 works on block k.
void BM_Pipelining(benchmark::State &state) {
  const int n_blocks = 400;
  double seconds[2] = {0, 0};
  for (auto _ : state) {
    for (unsigned workers = 1; workers <= 2; ++workers) {
      TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE, workers);
      Busy a(&tagger, std::chrono::microseconds(200));
      Busy b(&tagger, std::chrono::microseconds(200));
      seconds[workers - 1] += secondsFor(tagger, n_blocks);
    }
  }
  const double blocks = static_cast<double>(state.iterations()) * n_blocks;
  state.counters["blocks_per_s_1_worker"] = blocks / seconds[0];
  state.counters["blocks_per_s_2_workers"] = blocks / seconds[1];
  state.counters["speedup"] = seconds[0] / seconds[1];
}
BENCHMARK(BM_Pipelining)->Unit(benchmark::kMillisecond)->Iterations(3);

// TimeTagStream keeping 2 of 8 channels, blocks of 131072 tags.
void BM_TimeTagStreamFilter(benchmark::State &state) {
  const std::size_t block_size = 131072;
  const int blocks_per_read = 16;
  std::mt19937_64 rng(1);
  std::vector<std::vector<Tag>> blocks(4);
  std::int64_t t = 0;
  for (auto &block : blocks) {
    block.resize(block_size);
    for (auto &tag : block) {
      t += 1 + static_cast<std::int64_t>(rng() % 1000);
      tag = Tag{Tag::Type::TimeTag, 0, 0, static_cast<std::int32_t>(1 + rng() % 8), t};
    }
  }
  TestTagger tagger;
  chronotick::TimeTagStream stream(&tagger, block_size * blocks_per_read, {1, 2});
  std::uint64_t kept = 0;
  std::int64_t end = 0;
  for (auto _ : state) {
    for (int k = 0; k < blocks_per_read; ++k) {
      tagger.pushCopy(blocks[static_cast<std::size_t>(k) % blocks.size()], end, end + 1);
      ++end;
    }
    tagger.waitUntilDone();
    kept += stream.getData().size;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * blocks_per_read *
                          static_cast<std::int64_t>(block_size));
  state.counters["kept_fraction"] =
      static_cast<double>(kept) / static_cast<double>(state.iterations() * blocks_per_read * block_size);
}
BENCHMARK(BM_TimeTagStreamFilter)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
