#include <chronotick/FastBinning.h>
#include <chronotick/TimeDifferencesND.h>

#include "support/MeasurementHelpers.h"

#include <set>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using V = std::vector<std::int32_t>;

const auto dataOf = [](TimeDifferencesND &t) { return fetch(t, &TimeDifferencesND::getData); };

struct NDSetup {
  std::int32_t click, start;
  std::vector<std::int32_t> next, sync, n_hist;
  std::int64_t binwidth;
  std::uint64_t n_bins;
};

// Positions as plain counters per dimension; every start remembers its row,
// and every click pairs with all earlier starts less than the range ago,
// binned by division.
V referenceND(const std::vector<Tag> &stream, const NDSetup &s) {
  const std::size_t dims = s.next.size();
  V data(std::accumulate(s.n_hist.begin(), s.n_hist.end(), std::size_t(1), std::multiplies<>()) * s.n_bins, 0);
  auto has_sync = [&](std::size_t i) { return !s.sync.empty() && s.sync[i] != CHANNEL_UNUSED; };
  std::vector<int> pos(dims, -1);
  std::vector<bool> waiting(dims);
  auto forget = [&] {
    for (std::size_t i = 0; i < dims; ++i) {
      pos[i] = -1;
      waiting[i] = has_sync(i);
    }
  };
  forget();
  bool valid = false;
  std::size_t row = 0;
  std::vector<std::pair<std::int64_t, std::size_t>> starts;
  const std::int64_t range = static_cast<std::int64_t>(s.n_bins) * s.binwidth;
  for (const Tag &tag : stream) {
    if (tag.type != Tag::Type::TimeTag) {
      forget();
      valid = false;
      continue;
    }
    for (std::size_t i = 0; i < dims; ++i)
      if (has_sync(i) && tag.channel == s.sync[i]) {
        pos[i] = -1;
        waiting[i] = false;
        valid = false;
      }
    bool moved = false;
    for (std::size_t i = 0; i < dims; ++i)
      if (tag.channel == s.next[i] && !waiting[i]) {
        moved = true;
        if (++pos[i] == s.n_hist[i]) {
          if (has_sync(i))
            waiting[i] = true;
          else
            pos[i] = 0;
        }
      }
    if (moved) {
      valid = true;
      row = 0;
      for (std::size_t i = dims; i-- > 0;) {
        if (pos[i] < 0 || pos[i] >= s.n_hist[i] || waiting[i])
          valid = false;
        row = row * static_cast<std::size_t>(s.n_hist[i]) + static_cast<std::size_t>(pos[i] < 0 ? 0 : pos[i]);
      }
    }
    if (tag.channel == s.start && valid)
      starts.emplace_back(tag.time, row);
    if (tag.channel == s.click)
      for (const auto &[time, r] : starts)
        if (tag.time - time < range)
          ++data[r * s.n_bins + static_cast<std::size_t>((tag.time - time) / s.binwidth)];
  }
  return data;
}

} // namespace

TEST(TimeDifferencesNDTest, MatchesPairEnumerationInSeveralBinningModes) {
  RandomStreamShape shape;
  shape.n_channels = 6;
  const std::vector<Tag> stream = randomTagStream(12000, 11, shape);
  const std::pair<std::int64_t, std::uint64_t> widths[] = {{1, 3000}, {64, 50}, {100, 30}, {1000, 7000}};
  std::set<FastBinning::Mode> modes;
  for (const auto &[binwidth, n_bins] : widths) {
    modes.insert(FastBinning(std::uint64_t(binwidth), n_bins * std::uint64_t(binwidth)).getMode());
    const NDSetup setups[] = {
        {1, 2, {3, 4}, {5, CHANNEL_UNUSED}, {3, 2}, binwidth, n_bins}, // sync on the first dimension only
        {1, 1, {3}, {}, {4}, binwidth, n_bins},                        // start and click on one channel
        {6, 2, {3, 3, 4}, {}, {2, 3, 2}, binwidth, n_bins},            // one next channel in two dimensions
    };
    for (const NDSetup &s : setups) {
      const auto expected = referenceND(stream, s);
      EXPECT_GT(total(expected), 50);
      for (std::uint64_t seed : {1u, 2u})
        ASSERT_EQ(runCut<TimeDifferencesND>(stream, randomCuts(stream.size(), seed * 100, seed + binwidth), dataOf,
                                            s.click, s.start, s.next, s.sync, s.n_hist, s.binwidth, s.n_bins),
                  expected)
            << "binwidth " << binwidth << " dimensions " << s.next.size();
    }
  }
  EXPECT_GE(modes.size(), 4u);
}

TEST(TimeDifferencesNDTest, Positions) {
  TestTagger tagger;

  // No dimension at all: one histogram that is never selected; an unused
  // start channel takes no starts.
  TimeDifferencesND none(&tagger, 1, 2, {}, {}, {}, 10, 10);
  TimeDifferencesND unused(&tagger, 1, CHANNEL_UNUSED, {3}, {}, {1}, 10, 10);
  // Two dimensions of 3 and 2 positions on channels 3 and 4; sync 5 on the
  // second. Bins of 10 ps, 10 bins.
  TimeDifferencesND t(&tagger, 1, 2, {3, 4}, {CHANNEL_UNUSED, 5}, {3, 2}, 10, 10);
  auto at = [](int p0, int p1, int bin) { return static_cast<std::size_t>((p0 + 3 * p1) * 10 + bin); };
  // No start is taken before the sync of dimension 2 and a next tag in each
  // dimension; the start after them is. Positions (2, 1) then select row 5.
  tagger.pushAndWait({tt(3, 1000), tt(2, 1001), tt(1, 1002), tt(5, 1010), tt(4, 1011), tt(2, 1012), tt(1, 1013),
                      tt(3, 2000), tt(3, 2001), tt(4, 2002), tt(2, 2010), tt(1, 2035)},
                     0, 3000);
  V expected(60, 0);
  expected[at(0, 0, 0)] = expected[at(2, 1, 2)] = 1;
  EXPECT_EQ(dataOf(t), expected);
  std::vector<std::size_t> shape;
  EXPECT_EQ(fetch(none, &TimeDifferencesND::getData, &shape), V(10, 0));
  EXPECT_EQ(shape, (std::vector<std::size_t>{1, 10}));
  EXPECT_EQ(dataOf(unused), V(10, 0));
  EXPECT_EQ(fetch(unused, &TimeDifferencesND::getIndex),
            (std::vector<std::int64_t>{0, 10, 20, 30, 40, 50, 60, 70, 80, 90}));

  // A clear keeps the positions: a start right after it is taken.
  tagger.pushAndWait({tt(5, 5000), tt(4, 5001), tt(3, 5002)}, 3000, 5500);
  t.clear();
  tagger.pushAndWait({tt(2, 6000), tt(1, 6005)}, 5500, 7000);
  expected.assign(60, 0);
  expected[at(0, 0, 0)] = 1;
  EXPECT_EQ(dataOf(t), expected);
}
