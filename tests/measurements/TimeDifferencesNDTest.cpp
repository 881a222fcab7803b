#include <chronotick/FastBinning.h>
#include <chronotick/TimeDifferencesND.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// A worker samples the fence before it takes a block, so a block pushed
// right after a start or clear may carry the fence from before it. One empty
// block through the chain flushes such a read.
void settle(TestTagger &tagger) {
  const std::int64_t t = tagger.lastEndTime();
  tagger.pushAndWait({}, t, t);
}

std::vector<std::int32_t> dataOf(TimeDifferencesND &t, std::size_t *rows = nullptr) {
  std::vector<std::int32_t> out;
  t.getData([&](std::size_t r, std::size_t n) {
    if (rows)
      *rows = r;
    out.resize(r * n);
    return out.data();
  });
  return out;
}

struct NDSetup {
  std::int32_t click, start;
  std::vector<std::int32_t> next, sync, n_hist;
  std::int64_t binwidth;
  std::uint64_t n_bins;
};

// Positions as plain counters per dimension; every start remembers its row,
// and every click pairs with all earlier starts less than the range ago,
// binned by division.
std::vector<std::int32_t> referenceND(const std::vector<Tag> &stream, const NDSetup &s) {
  const std::size_t dims = s.next.size();
  std::size_t rows = 1;
  for (auto n : s.n_hist)
    rows *= static_cast<std::size_t>(n);
  std::vector<std::int32_t> data(rows * s.n_bins, 0);
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
  const std::int64_t end = stream.back().time + 1;
  const std::pair<std::int64_t, std::uint64_t> widths[] = {{1, 3000}, {64, 50}, {100, 30}, {1000, 7000}};
  std::set<FastBinning::Mode> modes;
  for (const auto &[binwidth, n_bins] : widths) {
    modes.insert(
        FastBinning(static_cast<std::uint64_t>(binwidth), n_bins * static_cast<std::uint64_t>(binwidth)).getMode());
    const NDSetup setups[] = {
        {1, 2, {3, 4}, {5, CHANNEL_UNUSED}, {3, 2}, binwidth, n_bins}, // sync on the first dimension only
        {1, 1, {3}, {}, {4}, binwidth, n_bins},                        // start and click on one channel
        {6, 2, {3, 3, 4}, {}, {2, 3, 2}, binwidth, n_bins},            // one next channel in two dimensions
    };
    for (const NDSetup &s : setups) {
      const auto expected = referenceND(stream, s);
      std::int64_t total = 0;
      for (auto v : expected)
        total += v;
      EXPECT_GT(total, 50);
      for (std::uint64_t seed : {1u, 2u}) {
        TestTagger tagger;
        TimeDifferencesND t(&tagger, s.click, s.start, s.next, s.sync, s.n_hist, s.binwidth, s.n_bins);
        settle(tagger);
        tagger.pushCut(stream, randomCuts(stream.size(), seed * 100, seed + binwidth), 0, end);
        tagger.waitUntilDone();
        ASSERT_EQ(dataOf(t), expected) << "binwidth " << binwidth << " dimensions " << s.next.size();
        t.stop();
      }
    }
  }
  EXPECT_GE(modes.size(), 4u);
}

TEST(TimeDifferencesNDTest, ArgumentsAndPositions) {
  TestTagger tagger;
  auto message = [&](std::vector<std::int32_t> next, std::vector<std::int32_t> sync, std::vector<std::int32_t> n_hist,
                     std::int64_t binwidth, std::uint64_t n_bins) -> std::string {
    try {
      TimeDifferencesND t(&tagger, 1, 2, next, sync, n_hist, binwidth, n_bins);
      t.stop();
    } catch (const std::invalid_argument &e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(message({3, 4}, {5}, {2, 2}, 10, 10), "dimension mismatch of input arguments");
  EXPECT_EQ(message({3, 4}, {}, {2}, 10, 10), "dimension mismatch of input arguments");
  EXPECT_EQ(message({3}, {}, {2}, 0, 10), "binwidth must be at least 1 ps");
  EXPECT_EQ(message({3}, {}, {2}, 10, 0), "n_bins must be at least 1");
  EXPECT_EQ(message({3, 4}, {}, {2, 0}, 10, 10), "all elements of n_histograms must be at least 1");
  EXPECT_EQ(tagger.registrations(1), 0); // nothing registered by a failed construction

  {
    // No dimension at all: one histogram that is never selected.
    TimeDifferencesND t(&tagger, 1, 2, {}, {}, {}, 10, 10);
    settle(tagger);
    tagger.pushAndWait({makeTag(2, 100), makeTag(1, 105)}, 0, 1000);
    std::size_t rows = 0;
    EXPECT_EQ(dataOf(t, &rows), std::vector<std::int32_t>(10, 0));
    EXPECT_EQ(rows, 1u);
    t.stop();
  }

  // Two dimensions of 3 and 2 positions on channels 3 and 4; sync 5 on the
  // second. Bins of 10 ps, 10 bins.
  TimeDifferencesND t(&tagger, 1, 2, {3, 4}, {CHANNEL_UNUSED, 5}, {3, 2}, 10, 10);
  settle(tagger);
  std::vector<std::int32_t> expected(60, 0);
  auto at = [](int p0, int p1, int bin) { return static_cast<std::size_t>((p0 + 3 * p1) * 10 + bin); };
  // No start is taken before the sync of dimension 2 and a next tag in each
  // dimension; the start after them is.
  tagger.pushAndWait({makeTag(3, 1000), makeTag(2, 1001), makeTag(1, 1002), makeTag(5, 1010), makeTag(4, 1011),
                      makeTag(2, 1012), makeTag(1, 1013)},
                     0, 2000);
  expected[at(0, 0, 0)] += 1;
  EXPECT_EQ(dataOf(t), expected);
  // Positions (2, 1) select row 5; a start there pairs with a later click.
  tagger.pushAndWait({makeTag(3, 2000), makeTag(3, 2001), makeTag(4, 2002), makeTag(2, 2010), makeTag(1, 2035)}, 2000,
                     3000);
  expected[at(2, 1, 2)] += 1;
  EXPECT_EQ(dataOf(t), expected);
  // Dimension 1 wraps to 0 without sync (row 3); dimension 2 then runs out
  // and waits for its sync: the start at 3011 isn't taken, while the one of
  // row 3 still pairs with the click at 3012.
  tagger.pushAndWait(
      {makeTag(3, 3000), makeTag(2, 3001), makeTag(1, 3002), makeTag(4, 3010), makeTag(2, 3011), makeTag(1, 3012)},
      3000, 4000);
  expected[at(0, 1, 0)] += 1;
  expected[at(0, 1, 1)] += 1;
  EXPECT_EQ(dataOf(t), expected);
  // The sync alone doesn't select; the next next tag of any dimension does.
  tagger.pushAndWait({makeTag(5, 4000), makeTag(2, 4001), makeTag(1, 4002), makeTag(4, 4010), makeTag(2, 4011)}, 4000,
                     4015);
  // An overflow forgets the positions but keeps the start of 4011, which the
  // click after it still pairs with.
  tagger.pushAndWait({makeTag(0, 4020, Tag::Type::OverflowBegin), makeTag(0, 4030, Tag::Type::OverflowEnd),
                      makeTag(2, 4040), makeTag(1, 4050)},
                     4015, 5000);
  expected[at(0, 0, 3)] += 1;
  EXPECT_EQ(dataOf(t), expected);

  // A clear keeps the positions: a start right after it is taken.
  tagger.pushAndWait({makeTag(5, 5000), makeTag(4, 5001), makeTag(3, 5002)}, 5000, 5500);
  t.clear();
  settle(tagger);
  tagger.pushAndWait({makeTag(2, 6000), makeTag(1, 6005)}, 5500, 7000);
  expected.assign(60, 0);
  expected[at(0, 0, 0)] = 1;
  EXPECT_EQ(dataOf(t), expected);

  // An unused start channel takes no starts.
  TimeDifferencesND unused(&tagger, 1, CHANNEL_UNUSED, {3}, {}, {1}, 10, 10);
  settle(tagger);
  tagger.pushAndWait({makeTag(3, 8000), makeTag(1, 8001), makeTag(1, 8002)}, 7000, 9000);
  EXPECT_EQ(dataOf(unused), std::vector<std::int32_t>(10, 0));
  std::vector<std::int64_t> index;
  unused.getIndex([&](std::size_t n) {
    index.resize(n);
    return index.data();
  });
  EXPECT_EQ(index, (std::vector<std::int64_t>{0, 10, 20, 30, 40, 50, 60, 70, 80, 90}));
  unused.stop();
  t.stop();
}
