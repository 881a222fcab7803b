// Replay of a recorded 8-channel stream (blocks of 131072 tags) as fast as
// possible into a Countrate, with hash and signature of every block checked
// as replay always does. items_per_second is the rate of replayed tags.
// BM_ReplayIntoTally puts the least possible consumer in place of Countrate,
// to show what the replay source alone delivers.

#include <chronotick/Countrate.h>
#include <chronotick/FileWriter.h>

#include "replay/ChronotickVirtualImpl.h"
#include "support/TestTagger.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

using namespace chronotick;

namespace {

constexpr std::size_t block_size = 131072;
constexpr int n_blocks = 120;
const std::vector<std::int32_t> channels{1, 2, 3, 4, 5, 6, 7, 8};

// Records once per process: tags on channels 1..8 with exponential gaps (mean 100 ps).
const std::string &recording() {
  static const std::string path = [] {
    const std::string base = (std::filesystem::temp_directory_path() / "chronotick_bench_replay").string();
    testing::TestTagger source(8, CT_CHANNEL_NUMBER_SCHEME_ONE);
    FileWriter writer(&source, base, channels);
    std::mt19937_64 rng(1);
    std::exponential_distribution<double> gap(1.0 / 100.0);
    std::uniform_int_distribution<std::int32_t> channel(1, 8);
    std::int64_t t = 0;
    for (int b = 0; b < n_blocks; ++b) {
      const std::int64_t begin = t;
      std::vector<Tag> tags(block_size);
      for (Tag &tag : tags) {
        t += 1 + static_cast<std::int64_t>(gap(rng));
        tag = Tag{Tag::Type::TimeTag, 0, 0, channel(rng), t};
      }
      ++t;
      source.push(std::move(tags), begin, t);
    }
    source.waitUntilDone();
    return base;
  }();
  return path;
}

// Counts tags per channel through a direct table: close to no work per tag.
class Tally : public IteratorBase {
public:
  explicit Tally(ChronotickBase *tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~Tally() override { stop(); }
  std::int64_t total() {
    auto lock = getLock();
    std::int64_t sum = 0;
    for (std::int64_t n : counts)
      sum += n;
    return sum;
  }

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) override {
    for (const Tag &tag : tags)
      counts[static_cast<std::uint32_t>(tag.channel) & 15] += tag.type == Tag::Type::TimeTag;
    return false;
  }

private:
  std::int64_t counts[16] = {};
};

void BM_ReplayIntoTally(benchmark::State &state) {
  const std::string &path = recording();
  ChronotickVirtualImpl tagger;
  Tally tally(&tagger);
  for (auto _ : state) {
    tagger.replay(path);
    tagger.waitForCompletion();
  }
  const std::int64_t replayed = tally.total();
  if (replayed != static_cast<std::int64_t>(state.iterations()) * n_blocks * static_cast<std::int64_t>(block_size))
    state.SkipWithError("tags lost in replay");
  state.SetItemsProcessed(replayed);
}
BENCHMARK(BM_ReplayIntoTally)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReplayIntoCountrate(benchmark::State &state) {
  const std::string &path = recording();
  ChronotickVirtualImpl tagger;
  Countrate rate(&tagger, channels);
  std::int64_t replayed = 0;
  for (auto _ : state) {
    tagger.replay(path);
    tagger.waitForCompletion();
  }
  std::vector<std::int64_t> totals;
  rate.getCountsTotal([&](std::size_t n) { return totals.resize(n), totals.data(); });
  for (std::int64_t total : totals)
    replayed += total;
  if (replayed != static_cast<std::int64_t>(state.iterations()) * n_blocks * static_cast<std::int64_t>(block_size))
    state.SkipWithError("tags lost in replay");
  state.SetItemsProcessed(replayed);
}
BENCHMARK(BM_ReplayIntoCountrate)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
