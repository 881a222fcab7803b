// Throughput of HistogramLogBins, Histogram2D, TimeDifferencesND, Scope and
// CountBetweenMarkers through the engine (TestTagger), blocks of 131072 tags.
// items_per_second is the rate of input tags in wall-clock time, pushes
// included. Where a naive implementation exists (a search over the edges or
// a division per pair, by direct enumeration of pairs), it runs once on the
// same stream and is reported as naive_tags_per_second with the ratio; its
// result is compared with the measurement's on one pass, and a difference
// fails the benchmark.

#include <chronotick/CountBetweenMarkers.h>
#include <chronotick/Histogram2D.h>
#include <chronotick/HistogramLogBins.h>
#include <chronotick/Scope.h>
#include <chronotick/TimeDifferencesND.h>

#include "Alone.h"
#include "support/TestTagger.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <vector>

using namespace chronotick;
using chronotick::testing::TestTagger;

namespace {

constexpr std::size_t block_size = 131072;
constexpr std::size_t blocks_per_round = 16;

struct Stream {
  std::vector<std::vector<Tag>> blocks; // times relative to the round's start
  std::vector<Tag> all;
  std::int64_t span = 0; // of one round
};

// Independent Poisson channels, `rates` in tags per second each, merged.
Stream poissonChannels(const std::vector<std::pair<std::int32_t, double>> &rates, std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  double total = 0;
  for (const auto &r : rates)
    total += r.second;
  std::exponential_distribution<double> gap(total * 1e-12); // per ps
  std::uniform_real_distribution<double> pick(0.0, total);
  Stream s;
  s.all.resize(block_size * blocks_per_round);
  double t = 0;
  for (Tag &tag : s.all) {
    t += gap(rng);
    double x = pick(rng);
    std::size_t c = 0;
    while (c + 1 < rates.size() && x >= rates[c].second) {
      x -= rates[c].second;
      ++c;
    }
    tag = Tag{Tag::Type::TimeTag, 0, 0, rates[c].first, static_cast<std::int64_t>(t)};
  }
  s.span = s.all.back().time + 1;
  for (std::size_t b = 0; b < blocks_per_round; ++b)
    s.blocks.emplace_back(s.all.begin() + static_cast<std::ptrdiff_t>(b * block_size),
                          s.all.begin() + static_cast<std::ptrdiff_t>((b + 1) * block_size));
  return s;
}

// Hands the stream on round after round, each shifted to follow the last:
// to the engine through the tagger, or straight to a measurement's next_impl.
class Feeder {
public:
  Feeder(const Stream &stream_, std::function<void(std::vector<Tag> &, std::int64_t, std::int64_t)> sink_)
      : stream(stream_), sink(std::move(sink_)) {}

  void round() {
    for (std::size_t b = 0; b < stream.blocks.size(); ++b) {
      shifted = stream.blocks[b];
      for (Tag &tag : shifted)
        tag.time += offset;
      const std::int64_t begin = b == 0 ? offset : offset + stream.blocks[b].front().time;
      const std::int64_t end =
          b + 1 < stream.blocks.size() ? offset + stream.blocks[b + 1].front().time : offset + stream.span;
      sink(shifted, begin, end);
    }
    offset += stream.span;
  }

private:
  const Stream &stream;
  std::function<void(std::vector<Tag> &, std::int64_t, std::int64_t)> sink;
  std::vector<Tag> shifted;
  std::int64_t offset = 1000000;
};

Feeder engineFeeder(TestTagger &tagger, const Stream &stream) {
  return Feeder(stream, [&tagger](std::vector<Tag> &tags, std::int64_t begin, std::int64_t end) {
    tagger.pushCopy(tags, begin, end);
  });
}

template <class M> std::function<void(std::vector<Tag> &, std::int64_t, std::int64_t)> direct(Alone<M> &m, bool alone) {
  if (!alone)
    return nullptr;
  return [&m](std::vector<Tag> &tags, std::int64_t begin, std::int64_t end) { m.next_impl(tags, begin, end); };
}

// Runs timed rounds through the engine, or straight into `direct` if given,
// and returns the rate of input tags.
using Sink = std::function<void(std::vector<Tag> &, std::int64_t, std::int64_t)>;

double runRounds(benchmark::State &state, TestTagger &tagger, const Stream &stream, const Sink &direct = nullptr) {
  Feeder feeder = direct ? Feeder(stream, direct) : engineFeeder(tagger, stream);
  feeder.round(); // warm-up: rings and queues reach their size
  tagger.waitUntilDone();
  double seconds = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    feeder.round();
    tagger.waitUntilDone();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * stream.all.size()));
  return static_cast<double>(state.iterations() * stream.all.size()) / seconds;
}

template <class F> double secondsOf(F &&f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void reportNaive(benchmark::State &state, double naive_seconds, std::size_t n_tags, double rate) {
  const double naive_rate = static_cast<double>(n_tags) / naive_seconds;
  state.counters["naive_tags_per_second"] = naive_rate;
  state.counters["speedup_over_naive"] = rate / naive_rate;
}

// ---- HistogramLogBins --------------------------------------------------------

const Stream &g2Stream() {
  // Two independent detectors at 10 M tags/s each.
  static const Stream s = poissonChannels({{1, 10e6}, {2, 10e6}}, 3);
  return s;
}

// Every click after the first full window with every start less than the
// last edge before it, binned by a search over the edges.
std::vector<std::uint64_t> naiveLogBins(const std::vector<Tag> &all, std::int32_t click, std::int32_t start,
                                        const std::vector<std::int64_t> &edges, std::int64_t begin_time) {
  std::vector<std::uint64_t> data(edges.size() - 1, 0);
  const std::int64_t last = edges.back();
  std::deque<std::int64_t> starts;
  bool warm = false;
  for (const Tag &t : all) {
    warm = warm || t.time - begin_time > last;
    if (t.channel == start)
      starts.push_back(t.time);
    if (t.channel == click && warm) {
      while (!starts.empty() && t.time - starts.front() >= last)
        starts.pop_front();
      for (std::int64_t s : starts) {
        auto it = std::upper_bound(edges.begin(), edges.end(), t.time - s);
        if (it != edges.begin())
          ++data[static_cast<std::size_t>(it - edges.begin() - 1)];
      }
    }
  }
  return data;
}

void BM_HistogramLogBins(benchmark::State &state) {
  const Stream &stream = g2Stream();
  const double exp_start = -10, exp_stop = static_cast<double>(state.range(0)) / 10.0;
  double naive_seconds = 0;
  {
    // One pass against the naive version.
    TestTagger tagger;
    HistogramLogBins h(&tagger, 2, 1, exp_start, exp_stop, 1000);
    tagger.pushAndWait({}, 0, 0);
    engineFeeder(tagger, stream).round();
    tagger.waitUntilDone();
    std::vector<std::int64_t> edges;
    h.getBinEdges([&](std::size_t n) {
      edges.resize(n);
      return edges.data();
    });
    std::vector<std::uint64_t> data;
    h.getData([&](std::size_t n) {
      data.resize(n);
      return data.data();
    });
    std::vector<Tag> shifted = stream.all;
    for (Tag &t : shifted)
      t.time += 1000000;
    std::vector<std::uint64_t> naive;
    naive_seconds = secondsOf([&] { naive = naiveLogBins(shifted, 2, 1, edges, 1000000); });
    if (naive != data) {
      state.SkipWithError("HistogramLogBins differs from the naive result");
      return;
    }
    h.stop();
  }
  TestTagger tagger;
  Alone<HistogramLogBins> h(&tagger, 2, 1, exp_start, exp_stop, 1000);
  reportNaive(state, naive_seconds, stream.all.size(),
              runRounds(state, tagger, stream, direct(h, state.range(1) == 0)));
  h.stop();
}
// Last edge 1 us (10 starts a window) and 10 us (100 starts); through the
// engine (1) and alone (0).
BENCHMARK(BM_HistogramLogBins)
    ->ArgsProduct({{-60, -50}, {1, 0}})
    ->ArgNames({"exp_stop_x10", "engine"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- TimeDifferencesND -------------------------------------------------------

const Stream &ndStream() {
  // Clicks and starts at 5 M tags/s, two next channels at 1 MHz and 100 kHz.
  static const Stream s = poissonChannels({{1, 5e6}, {2, 5e6}, {3, 1e6}, {4, 1e5}}, 5);
  return s;
}

std::vector<std::int32_t> naiveND(const std::vector<Tag> &all, std::int64_t binwidth, std::uint64_t n_bins) {
  // next 3 cycles over 4 positions, next 4 over 3; no sync.
  std::vector<std::int32_t> data(12 * n_bins, 0);
  int p0 = -1, p1 = -1;
  std::deque<std::pair<std::int64_t, std::size_t>> starts;
  const std::int64_t range = binwidth * static_cast<std::int64_t>(n_bins);
  for (const Tag &t : all) {
    if (t.channel == 3)
      p0 = (p0 + 1) % 4;
    if (t.channel == 4)
      p1 = (p1 + 1) % 3;
    while (!starts.empty() && t.time - starts.front().first >= range)
      starts.pop_front();
    if (t.channel == 2 && p0 >= 0 && p1 >= 0)
      starts.emplace_back(t.time, static_cast<std::size_t>(p0 + 4 * p1) * n_bins);
    if (t.channel == 1)
      for (const auto &s : starts)
        ++data[s.second + static_cast<std::size_t>((t.time - s.first) / binwidth)];
  }
  return data;
}

void BM_TimeDifferencesND(benchmark::State &state) {
  const Stream &stream = ndStream();
  const std::int64_t binwidth = state.range(0);
  const std::uint64_t n_bins = 1000; // 12 histograms of 1000 bins: the data stay in cache
  double naive_seconds = 0;
  {
    TestTagger tagger;
    TimeDifferencesND t(&tagger, 1, 2, {3, 4}, {}, {4, 3}, binwidth, n_bins);
    tagger.pushAndWait({}, 0, 0);
    engineFeeder(tagger, stream).round();
    tagger.waitUntilDone();
    std::vector<std::int32_t> data;
    t.getData([&](std::size_t rows, std::size_t n) {
      data.resize(rows * n);
      return data.data();
    });
    std::vector<std::int32_t> naive;
    naive_seconds = secondsOf([&] { naive = naiveND(stream.all, binwidth, n_bins); });
    if (naive != data) {
      state.SkipWithError("TimeDifferencesND differs from the naive result");
      return;
    }
    t.stop();
  }
  TestTagger tagger;
  Alone<TimeDifferencesND> t(&tagger, 1, 2, std::vector<std::int32_t>{3, 4}, std::vector<std::int32_t>{},
                             std::vector<std::int32_t>{4, 3}, binwidth, n_bins);
  reportNaive(state, naive_seconds, stream.all.size(),
              runRounds(state, tagger, stream, direct(t, state.range(1) == 0)));
  t.stop();
}
// Bin widths in modes PowerOfTwo (2.048 us range), MulShift32 (2 us) and
// MulHigh64 (7 us); 5 M starts/s, so 10 to 35 open starts at each click.
BENCHMARK(BM_TimeDifferencesND)
    ->ArgsProduct({{2048, 2000, 7000}, {1, 0}})
    ->ArgNames({"binwidth", "engine"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- the others --------------------------------------------------------------

const Stream &fourChannels() {
  static const Stream s = poissonChannels({{1, 5e6}, {2, 5e6}, {3, 5e6}, {4, 5e6}}, 9);
  return s;
}

void BM_Histogram2D(benchmark::State &state) {
  TestTagger tagger;
  Histogram2D h(&tagger, 1, 2, 3, 100, 100, 1000, 1000);
  runRounds(state, tagger, fourChannels());
  h.stop();
}
BENCHMARK(BM_Histogram2D)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CountBetweenMarkers(benchmark::State &state) {
  TestTagger tagger;
  // Markers at 5 MHz: the bins never run out during the benchmark.
  CountBetweenMarkers m(&tagger, 1, 2, 3, 100000000);
  runRounds(state, tagger, fourChannels());
  m.stop();
}
BENCHMARK(BM_CountBetweenMarkers)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScopeContinuous(benchmark::State &state) {
  TestTagger tagger;
  // Trigger on 4, two watched inputs, 1 us windows: a window is open most of
  // the time.
  Scope scope(&tagger, {1, 2}, 4, 1000000, 0, 1000);
  runRounds(state, tagger, fourChannels());
  scope.stop();
}
BENCHMARK(BM_ScopeContinuous)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
