// Throughput of the analysis measurements. Synthetic streams in blocks of
// 131072 tags go through the engine (TestTagger); items_per_second is the
// rate of input tags in wall-clock time, the engine's copy of each block
// into its worker included.
// "alone" variants call next_impl directly on the same blocks, without the
// engine. Each benchmark also times a naive implementation (division per
// pair, direct enumeration, ordered maps) on the same data once and reports
// naive_tags_per_second and the ratio; where the workload says so, the result
// is checked against it and a difference fails the benchmark.

#include <chronotick/Correlation.h>
#include <chronotick/Counter.h>
#include <chronotick/Countrate.h>
#include <chronotick/Histogram.h>
#include <chronotick/StartStop.h>
#include <chronotick/TimeDifferences.h>

#include "Alone.h"
#include "support/TestTagger.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

using namespace chronotick;
using chronotick::testing::TestTagger;

namespace {

constexpr std::size_t block_size = 131072;

struct Workload {
  std::vector<std::vector<Tag>> blocks;
  std::vector<std::int64_t> edges; // block b spans [edges[b], edges[b + 1]]
  std::vector<Tag> all;
};

Tag timeTag(std::int32_t channel, std::int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}

Workload cut(std::vector<Tag> all) {
  Workload w;
  w.edges.push_back(all.empty() ? 0 : all.front().time);
  for (std::size_t from = 0; from < all.size(); from += block_size) {
    const std::size_t to = std::min(all.size(), from + block_size);
    w.blocks.emplace_back(all.begin() + static_cast<std::ptrdiff_t>(from),
                          all.begin() + static_cast<std::ptrdiff_t>(to));
    w.edges.push_back(to < all.size() ? all[to].time : all.back().time + 1);
  }
  w.all = std::move(all);
  return w;
}

// n_channels merged Poisson channels 1..n, mean gap of the merged stream in ps.
Workload poisson(int n_channels, double mean_gap, std::size_t n_tags, std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::exponential_distribution<double> gap(1.0 / mean_gap);
  std::uniform_int_distribution<std::int32_t> channel(1, n_channels);
  std::vector<Tag> tags(n_tags);
  double t = 1e6;
  for (Tag &tag : tags) {
    t += gap(rng);
    tag = timeTag(channel(rng), static_cast<std::int64_t>(t));
  }
  return cut(std::move(tags));
}

// Two independent Poisson channels at 1 M tags/s each, 2M tags each.
const Workload &crossCorrelationStream() {
  static const Workload w = [] {
    std::mt19937_64 rng(7);
    std::exponential_distribution<double> gap(1e-6); // per ps: mean 1 us
    std::vector<Tag> tags;
    tags.reserve(4000000);
    for (std::int32_t channel : {1, 2}) {
      double t = 1e6;
      for (int i = 0; i < 2000000; ++i) {
        t += gap(rng);
        tags.push_back(timeTag(channel, static_cast<std::int64_t>(t)));
      }
    }
    std::stable_sort(tags.begin(), tags.end(), [](const Tag &a, const Tag &b) { return a.time < b.time; });
    return cut(std::move(tags));
  }();
  return w;
}

// 80 MHz sync on channel 2; detector on channel 1 at 2 M tags/s, each click
// an exponential delay (mean 3 ns) after a sync.
const Workload &lifetimeStream() {
  static const Workload w = [] {
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    std::exponential_distribution<double> delay(1.0 / 3000.0);
    const std::int64_t period = 12500;
    std::vector<Tag> tags;
    tags.reserve(4200000);
    std::vector<Tag> clicks;
    for (std::int64_t k = 0; k < 4000000; ++k) {
      const std::int64_t t = 1000000 + k * period;
      tags.push_back(timeTag(2, t));
      if (chance(rng) < 2e6 / 80e6)
        clicks.push_back(timeTag(1, t + static_cast<std::int64_t>(delay(rng))));
    }
    std::stable_sort(clicks.begin(), clicks.end(), [](const Tag &a, const Tag &b) { return a.time < b.time; });
    std::vector<Tag> merged(tags.size() + clicks.size());
    std::merge(tags.begin(), tags.end(), clicks.begin(), clicks.end(), merged.begin(),
               [](const Tag &a, const Tag &b) { return a.time < b.time; });
    return cut(std::move(merged));
  }();
  return w;
}

const Workload &eightChannels() {
  static const Workload w = poisson(8, 100.0, 16 * block_size, 1);
  return w;
}
const Workload &twoChannels() {
  static const Workload w = poisson(2, 1000.0, 16 * block_size, 2);
  return w;
}

// ---- naive implementations -------------------------------------------------

std::vector<std::int64_t> naiveCounter(const Workload &w, const std::vector<std::int32_t> &channels,
                                       std::int64_t binwidth, std::int32_t n_values) {
  std::vector<std::int64_t> ring(channels.size() * static_cast<std::size_t>(n_values + 1), 0);
  const std::int64_t origin = w.edges.front();
  for (const Tag &t : w.all)
    for (std::size_t c = 0; c < channels.size(); ++c)
      if (t.type == Tag::Type::TimeTag && t.channel == channels[c])
        ++ring[c * static_cast<std::size_t>(n_values + 1) +
               static_cast<std::size_t>((t.time - origin) / binwidth % (n_values + 1))];
  return ring;
}

std::map<std::int32_t, std::int64_t> naiveCountrate(const Workload &w) {
  std::map<std::int32_t, std::int64_t> counts;
  for (const Tag &t : w.all)
    ++counts[t.channel];
  return counts;
}

// Each click with every earlier start within range, one division per pair.
std::vector<std::int32_t> naiveHistogram(const Workload &w, std::int32_t click, std::int32_t start,
                                         std::int64_t binwidth, std::int32_t n_bins) {
  std::vector<std::int32_t> data(static_cast<std::size_t>(n_bins), 0);
  const std::int64_t range = binwidth * n_bins;
  for (std::size_t j = 0; j < w.all.size(); ++j) {
    if (w.all[j].channel != click)
      continue;
    for (std::size_t i = j + 1; i-- > 0;) {
      const std::int64_t d = w.all[j].time - w.all[i].time;
      if (d >= range)
        break;
      if (w.all[i].channel == start)
        ++data[static_cast<std::size_t>(d / binwidth)];
    }
  }
  return data;
}

std::map<std::int64_t, std::int64_t> naiveStartStop(const Workload &w, std::int32_t click, std::int32_t start,
                                                    std::int64_t binwidth) {
  std::map<std::int64_t, std::int64_t> bins;
  std::int64_t last = 0;
  for (const Tag &t : w.all) {
    if (t.channel == click && last != 0) {
      ++bins[(t.time - last) / binwidth];
      last = 0;
    }
    if (t.channel == start)
      last = t.time;
  }
  return bins;
}

std::vector<std::int32_t> naiveCorrelation(const Workload &w, std::int32_t ch1, std::int32_t ch2, std::int64_t binwidth,
                                           std::int32_t n_bins) {
  std::vector<std::int32_t> data(static_cast<std::size_t>(n_bins), 0);
  const std::int64_t half = binwidth * n_bins / 2;
  for (std::size_t j = 0; j < w.all.size(); ++j) {
    const Tag &b = w.all[j];
    for (std::size_t i = j + 1; i-- > 0;) {
      const Tag &a = w.all[i];
      if (b.time - a.time > half)
        break;
      std::int64_t d;
      if (i < j && a.channel == ch2 && b.channel == ch1)
        d = b.time - a.time;
      else if (a.channel == ch1 && b.channel == ch2)
        d = a.time - b.time;
      else
        continue;
      const std::int64_t bin = (d + half) / binwidth;
      if (bin >= 0 && bin < n_bins)
        ++data[static_cast<std::size_t>(bin)];
    }
  }
  return data;
}

template <class F> double naiveRate(const Workload &w, F &&f) {
  const auto t0 = std::chrono::steady_clock::now();
  auto result = f();
  benchmark::DoNotOptimize(result);
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return static_cast<double>(w.all.size()) / s;
}

// ---- runners -----------------------------------------------------------------

template <class M> struct Spec {
  std::function<std::unique_ptr<Alone<M>>(TestTagger &)> build;
  // Empty string if the result is right.
  std::function<std::string(Alone<M> &)> check;
};

template <class M>
void run(benchmark::State &state, const Workload &w, const Spec<M> &spec, double naive_tags_per_second,
         bool through_engine) {
  TestTagger tagger;
  std::unique_ptr<Alone<M>> m = spec.build(tagger);
  std::vector<std::vector<Tag>> scratch = w.blocks;
  for (auto _ : state) {
    state.PauseTiming();
    m->clear();
    // The blocks are handed over, not copied, in the timed part: a device
    // fills the worker's block directly, and the engine's own copy into the
    // worker is what stands for that fill.
    if (through_engine)
      scratch = w.blocks;
    state.ResumeTiming();
    if (through_engine) {
      for (std::size_t b = 0; b < w.blocks.size(); ++b)
        tagger.push(std::move(scratch[b]), w.edges[b], w.edges[b + 1]);
      tagger.waitUntilDone();
    } else {
      for (std::size_t b = 0; b < scratch.size(); ++b)
        m->next_impl(scratch[b], w.edges[b], w.edges[b + 1]);
    }
  }
  const double tags = static_cast<double>(state.iterations()) * static_cast<double>(w.all.size());
  state.SetItemsProcessed(static_cast<std::int64_t>(tags));
  state.counters["tags_per_second"] = benchmark::Counter(tags, benchmark::Counter::kIsRate);
  state.counters["naive_tags_per_second"] = naive_tags_per_second;
  if (spec.check) {
    const std::string error = spec.check(*m);
    if (!error.empty())
      state.SkipWithError(error.c_str());
  }
  m.reset();
}

template <class M>
void registerPair(const char *name, const Workload &(*workload)(), Spec<M> spec,
                  std::function<double(const Workload &)> naive) {
  auto shared = std::make_shared<Spec<M>>(std::move(spec));
  auto naive_rate = std::make_shared<double>(-1.0);
  for (bool engine : {true, false}) {
    const std::string full = std::string(name) + (engine ? "/engine" : "/alone");
    benchmark::RegisterBenchmark(full.c_str(),
                                 [=](benchmark::State &state) {
                                   const Workload &w = workload();
                                   if (*naive_rate < 0)
                                     *naive_rate = naive(w);
                                   run<M>(state, w, *shared, *naive_rate, engine);
                                   state.counters["ratio_to_naive"] =
                                       benchmark::Counter(static_cast<double>(state.iterations()) *
                                                              static_cast<double>(w.all.size()) / *naive_rate,
                                                          benchmark::Counter::kIsRate);
                                 })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->MinTime(1.0);
  }
}

template <class T> std::vector<T> fetch1(const std::function<void(std::function<T *(std::size_t)>)> &get) {
  std::vector<T> out;
  get([&](std::size_t n) {
    out.resize(n);
    return out.data();
  });
  return out;
}

// The engine alone: an iterator that does nothing, on the same blocks.
class NoOp : public IteratorBase {
public:
  explicit NoOp(ChronotickBase *t) : IteratorBase(t) { finishInitialization(); }
  ~NoOp() override { stop(); }
  void clear() { IteratorBase::clear(); }

protected:
  bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override { return false; }
};

void registerAll() {
  for (auto workload : {eightChannels, crossCorrelationStream}) {
    const std::string name = std::string("EngineOnly_NoOp/") + (workload == eightChannels ? "8ch" : "cross");
    benchmark::RegisterBenchmark(name.c_str(),
                                 [workload](benchmark::State &state) {
                                   run<NoOp>(state, workload(),
                                             {[](TestTagger &t) { return std::make_unique<Alone<NoOp>>(&t); }, nullptr},
                                             0.0, true);
                                 })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->MinTime(1.0);
  }

  const std::vector<std::int32_t> eight = {1, 2, 3, 4, 5, 6, 7, 8};

  registerPair<Counter>(
      "Counter_8ch", eightChannels,
      {[eight](TestTagger &t) { return std::make_unique<Alone<Counter>>(&t, eight, 1000000, 1000); }, nullptr},
      [eight](const Workload &w) { return naiveRate(w, [&] { return naiveCounter(w, eight, 1000000, 1000); }); });

  registerPair<Countrate>("Countrate_8ch", eightChannels,
                          {[eight](TestTagger &t) { return std::make_unique<Alone<Countrate>>(&t, eight); },
                           [](Alone<Countrate> &m) -> std::string {
                             std::vector<std::int64_t> totals =
                                 fetch1<std::int64_t>([&](auto a) { m.getCountsTotal(a); });
                             std::map<std::int32_t, std::int64_t> expected = naiveCountrate(eightChannels());
                             for (std::size_t i = 0; i < totals.size(); ++i)
                               if (totals[i] != expected[static_cast<std::int32_t>(i + 1)])
                                 return "counts differ from the naive count";
                             return "";
                           }},
                          [](const Workload &w) { return naiveRate(w, [&] { return naiveCountrate(w); }); });

  // ~10 starts per window: per-channel gap 2 ns, window 1000 x 20 ps.
  registerPair<Histogram>(
      "Histogram_1000bins_10partners", twoChannels,
      {[](TestTagger &t) { return std::make_unique<Alone<Histogram>>(&t, 1, 2, 20, 1000); },
       [](Alone<Histogram> &m) -> std::string {
         return fetch1<std::int32_t>([&](auto a) { m.getData(a); }) == naiveHistogram(twoChannels(), 1, 2, 20, 1000)
                    ? ""
                    : "histogram differs from the naive one";
       }},
      [](const Workload &w) { return naiveRate(w, [&] { return naiveHistogram(w, 1, 2, 20, 1000); }); });

  // Per-channel gap 800 ps, window 1000 x 10 ps: ~12 starts; 4 rows moved on
  // by channel 3.
  registerPair<TimeDifferences>(
      "TimeDifferences_1000bins_4rows", eightChannels,
      {[](TestTagger &t) { return std::make_unique<Alone<TimeDifferences>>(&t, 1, 2, 3, CHANNEL_UNUSED, 10, 1000, 4); },
       nullptr},
      [](const Workload &w) { return naiveRate(w, [&] { return naiveHistogram(w, 1, 2, 10, 1000); }); });

  for (std::int64_t bw : {1, 10}) {
    registerPair<StartStop>(
        bw == 1 ? "StartStop_binwidth1" : "StartStop_binwidth10", twoChannels,
        {[bw](TestTagger &t) { return std::make_unique<Alone<StartStop>>(&t, 1, 2, bw); },
         [bw](Alone<StartStop> &m) -> std::string {
           std::vector<std::int64_t> rows;
           m.getData([&](std::size_t n, std::size_t c) {
             rows.resize(n * c);
             return rows.data();
           });
           std::vector<std::int64_t> expected;
           for (const auto &[bin, count] : naiveStartStop(twoChannels(), 1, 2, bw)) {
             expected.push_back(bin * bw);
             expected.push_back(count);
           }
           return rows == expected ? "" : "start-stop histogram differs from the naive one";
         }},
        [bw](const Workload &w) { return naiveRate(w, [&] { return naiveStartStop(w, 1, 2, bw); }); });
  }

  // ~10 partners per window: per-channel gap 2 ns, window +-10 ns.
  registerPair<Correlation>(
      "Correlation_1000bins_10partners", twoChannels,
      {[](TestTagger &t) { return std::make_unique<Alone<Correlation>>(&t, 1, 2, 20, 1000); },
       [](Alone<Correlation> &m) -> std::string {
         return fetch1<std::int32_t>([&](auto a) { m.getData(a); }) == naiveCorrelation(twoChannels(), 1, 2, 20, 1000)
                    ? ""
                    : "correlation differs from the naive one";
       }},
      [](const Workload &w) { return naiveRate(w, [&] { return naiveCorrelation(w, 1, 2, 20, 1000); }); });

  registerPair<Correlation>(
      "CrossCorrelation_2x1MHz_100ps_2000bins", crossCorrelationStream,
      {[](TestTagger &t) { return std::make_unique<Alone<Correlation>>(&t, 1, 2, 100, 2000); },
       [](Alone<Correlation> &m) -> std::string {
         return fetch1<std::int32_t>([&](auto a) { m.getData(a); }) ==
                        naiveCorrelation(crossCorrelationStream(), 1, 2, 100, 2000)
                    ? ""
                    : "correlation differs from the naive one";
       }},
      [](const Workload &w) { return naiveRate(w, [&] { return naiveCorrelation(w, 1, 2, 100, 2000); }); });

  registerPair<Histogram>(
      "Lifetime_80MHz_sync_4ps_3125bins", lifetimeStream,
      {[](TestTagger &t) { return std::make_unique<Alone<Histogram>>(&t, 1, 2, 4, 3125); },
       [](Alone<Histogram> &m) -> std::string {
         return fetch1<std::int32_t>([&](auto a) { m.getData(a); }) == naiveHistogram(lifetimeStream(), 1, 2, 4, 3125)
                    ? ""
                    : "histogram differs from the naive one";
       }},
      [](const Workload &w) { return naiveRate(w, [&] { return naiveHistogram(w, 1, 2, 4, 3125); }); });
}

} // namespace

int main(int argc, char **argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
