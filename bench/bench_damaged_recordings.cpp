// Memory that reading a damaged recording takes: each file claims a size
// that the file can't hold (4 GiB of words, of compressed bytes, of channel
// map entries, of marker text, or an LZ4 block that would expand beyond any
// real one), or is cut inside a block. Counters: the largest single request
// and the peak of heap in use above the start, in KiB, for FileReader and for
// the replay tagger, which also checks hashes and signatures.

#include "support/AllocationProbe.h"
#include "support/CraftedFiles.h"
#include "support/TagFiles.h"

#include <chronotick/Chronotick.h>

#include <benchmark/benchmark.h>

#include <filesystem>

// Crafted blocks name only the fields they change.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using namespace chronotick;
using namespace chronotick::testing;
namespace allocation = chronotick::testing::allocation;

namespace {

const std::uint32_t huge = 0xFFFFFFF0, huge_data = huge - 144;

struct Damage {
  const char *name;
  std::string bytes;
};

std::vector<Damage> damagedFiles() {
  const Words words(4096, word(1, 3));
  auto good = [&] {
    return Builder().header().channelMap({{0, 1, -1}, {1, 2, -2}}).timeTags(0, 5000, words).timeTags(5000, 9000, words);
  };
  std::string cut = good().timeTags(9000, 12000, words, {.compression = 1}).bytes;
  cut.resize(cut.size() - 100);
  return {
      {"raw_words_4GiB", good().claim(4, Builder::timeTagRecord(huge_data / 4, huge_data, 0), huge).bytes},
      {"compressed_bytes_4GiB", good().claim(4, Builder::timeTagRecord(16, huge_data, 1), huge).bytes},
      {"lz4_expanding_to_4GiB",
       good().timeTags(9000, 9100, {word(0, 1)}, {.compression = 1, .word_count = 0x3FFFFFFF}).bytes},
      {"channel_map_4GiB", good().claim(3, Builder().u32s({0x0FFFFFFE, 0, 0, 0}).bytes, huge).bytes},
      {"marker_4GiB", good().claim(6, "mark", huge).bytes},
      {"cut_inside_a_block", cut},
  };
}

void report(benchmark::State &state, const allocation::Usage &usage) {
  state.counters["largest_KiB"] = double(usage.largest) / 1024;
  state.counters["peak_heap_KiB"] = double(usage.peak_growth) / 1024;
}

void BM_FileReaderOnDamage(benchmark::State &state) {
  const Damage damage = damagedFiles()[std::size_t(state.range(0))];
  state.SetLabel(damage.name);
  TempDir dir;
  writeFile(dir / "damaged.ctbin", damage.bytes);
  setLogger([](LogLevel, std::string) {});
  allocation::Usage worst;
  for (auto _ : state) {
    allocation::startMeasuring();
    benchmark::DoNotOptimize(readRecording({dir / "damaged"}).size());
    const allocation::Usage usage = allocation::usage();
    allocation::stopMeasuring();
    worst.largest = std::max(worst.largest, usage.largest);
    worst.peak_growth = std::max(worst.peak_growth, usage.peak_growth);
  }
  setLogger(nullptr);
  report(state, worst);
}
BENCHMARK(BM_FileReaderOnDamage)->DenseRange(0, 5)->Unit(benchmark::kMicrosecond);

void BM_ReplayOnDamage(benchmark::State &state) {
  const Damage damage = damagedFiles()[std::size_t(state.range(0))];
  state.SetLabel(damage.name);
  TempDir dir;
  // Replay starts at part 1, after a prelude-only part 0 of the same file id.
  writeFile(dir / "damaged.ctbin", Builder().header().end().bytes);
  writeFile(dir / "damaged.1.ctbin", damage.bytes);
  setLogger([](LogLevel, std::string) {});
  ChronotickVirtual *tagger = createChronotickVirtual();
  Countrate rate(tagger, {1, 2});
  allocation::Usage worst;
  for (auto _ : state) {
    allocation::startMeasuring();
    tagger->waitForCompletion(tagger->replay(dir / "damaged"));
    const allocation::Usage usage = allocation::usage();
    allocation::stopMeasuring();
    worst.largest = std::max(worst.largest, usage.largest);
    worst.peak_growth = std::max(worst.peak_growth, usage.peak_growth);
  }
  freeChronotick(tagger);
  setLogger(nullptr);
  report(state, worst);
}
BENCHMARK(BM_ReplayOnDamage)->DenseRange(0, 5)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
