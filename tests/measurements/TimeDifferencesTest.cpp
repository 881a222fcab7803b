#include <chronotick/TimeDifferences.h>

#include "TimeDifferencesReference.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<std::int32_t> dataOf(TimeDifferences &td) {
  std::vector<std::int32_t> out;
  td.getData([&](std::size_t rows, std::size_t bins) {
    out.assign(rows * bins, -7);
    return out.data();
  });
  return out;
}

// Smallest binwidth from `from` (in steps of `step`) whose binner takes `mode`.
std::int64_t binwidthFor(FastBinning::Mode mode, std::int32_t n_bins, std::int64_t from, std::int64_t step) {
  for (std::int64_t bw = from; bw < from + 100000 * step; bw += step)
    if (FastBinning(bw, static_cast<std::uint64_t>(bw) * n_bins).getMode() == mode)
      return bw;
  ADD_FAILURE() << "no binwidth for mode " << static_cast<int>(mode);
  return from;
}

struct EngineRun {
  std::vector<std::int32_t> data;
  std::uint64_t counts;
};

EngineRun runThroughEngine(const std::vector<Tag> &tags, const std::vector<std::size_t> &cuts,
                           const TimeDifferencesSetup &s) {
  TestTagger tagger;
  TimeDifferences td(&tagger, s.click, s.start, s.next, s.sync, s.binwidth, s.n_bins, s.n_histograms);
  td.setMaxCounts(s.max_counts);
  tagger.pushCut(tags, cuts, 0, tags.back().time + 1);
  tagger.waitUntilDone();
  return {dataOf(td), td.getCounts()};
}

Tag tt(std::int32_t channel, std::int64_t time) {
  return makeTag(channel, time);
}

} // namespace

TEST(TimeDifferences, MatchesDirectPairsInEveryModeAndAnyBlockCuts) {
  using Mode = FastBinning::Mode;
  struct Case {
    Mode mode;
    std::int32_t n_bins;
    std::int64_t binwidth;
  };
  const std::vector<Case> cases = {
      {Mode::Identity, 3000, 1},
      {Mode::PowerOfTwo, 400, 16},
      {Mode::MulShift32, 700, 10},
      {Mode::MulHigh64, 3000, binwidthFor(Mode::MulHigh64, 3000, 1000, 1)},
      {Mode::Div64, 50, binwidthFor(Mode::Div64, 50, (1 << 26) + 1, (1 << 20) + 1)},
  };
  std::uint64_t seed = 11;
  for (const Case &c : cases) {
    ASSERT_EQ(FastBinning(c.binwidth, static_cast<std::uint64_t>(c.binwidth) * c.n_bins).getMode(), c.mode);
    RandomStreamShape shape;
    shape.n_channels = 4;
    // About a dozen starts per window.
    shape.max_gap = std::max<std::int64_t>(2, c.binwidth * c.n_bins / 25);
    std::vector<TimeDifferencesSetup> setups(5);
    setups[0] = {1, 2, CHANNEL_UNUSED, CHANNEL_UNUSED, c.binwidth, c.n_bins, 1, 0};
    setups[1] = {1, CHANNEL_UNUSED, CHANNEL_UNUSED, CHANNEL_UNUSED, c.binwidth, c.n_bins, 1, 0};
    setups[2] = {1, 2, 3, CHANNEL_UNUSED, c.binwidth, c.n_bins, 3, 0};
    setups[3] = {1, 2, 3, 4, c.binwidth, c.n_bins, 4, 0};
    setups[4] = {2, 2, 3, 4, c.binwidth, c.n_bins, 2, 60}; // gets full halfway
    for (const TimeDifferencesSetup &s : setups) {
      const std::vector<Tag> tags = randomTagStream(2500, ++seed, shape);
      SCOPED_TRACE(::testing::Message() << "mode " << static_cast<int>(c.mode) << " click " << s.click << " start "
                                        << s.start << " next " << s.next << " sync " << s.sync << " max_counts "
                                        << s.max_counts);
      const TimeDifferencesResult expected = referenceTimeDifferences(tags, s);
      std::int64_t pairs = 0;
      for (std::int32_t v : expected.data)
        pairs += v;
      EXPECT_GT(pairs, s.max_counts ? 20 : 100) << "the stream makes too few pairs to check anything";
      if (s.max_counts) {
        EXPECT_EQ(expected.counts, s.max_counts) << "the limit is never reached";
      }

      const EngineRun whole = runThroughEngine(tags, {}, s);
      EXPECT_EQ(whole.data, expected.data);
      EXPECT_EQ(whole.counts, expected.counts);
      const EngineRun cut = runThroughEngine(tags, randomCuts(tags.size(), 40, seed * 7), s);
      EXPECT_EQ(cut.data, expected.data);
      EXPECT_EQ(cut.counts, expected.counts);
    }
  }
}

TEST(TimeDifferences, RowsNextAndSync) {
  // Next without sync: rows -1, 0, 1, 2, 0, ... and a pass counted at each wrap.
  {
    TestTagger tagger;
    TimeDifferences td(&tagger, 1, 2, 3, CHANNEL_UNUSED, 10, 10, 3);
    std::vector<Tag> tags;
    std::int64_t t = 1000;
    // A start before the first next is dropped.
    tags.push_back(tt(2, t));
    tags.push_back(tt(1, t + 5));
    for (int pixel = 0; pixel < 7; ++pixel) {
      t += 1000;
      tags.push_back(tt(3, t));
      for (int k = 0; k <= pixel % 3; ++k)
        tags.push_back(tt(2, t + 10 + k));
      tags.push_back(tt(1, t + 50));
    }
    tagger.pushAndWait(tags, 0, t + 1000);
    const std::vector<std::int32_t> data = dataOf(td);
    // Rows 0, 1, 2, 0, 1, 2, 0: row r gets r + 1 starts per visit, 40, 39 and
    // 38 ps before the click.
    EXPECT_EQ(data[0 * 10 + 4], 3);
    EXPECT_EQ(data[1 * 10 + 4], 2);
    EXPECT_EQ(data[1 * 10 + 3], 2);
    EXPECT_EQ(data[2 * 10 + 4], 2);
    EXPECT_EQ(data[2 * 10 + 3], 4);
    std::int64_t total = 0;
    for (std::int32_t v : data)
      total += v;
    EXPECT_EQ(total, 3 + 2 * 2 + 2 * 3);
    EXPECT_EQ(td.getCounts(), 2u);
  }
  // Next and sync: the next tag past the last row waits for a sync; starts are
  // refused until then; a sync during a pass cuts it short and counts it.
  {
    TestTagger tagger;
    TimeDifferences td(&tagger, 1, 2, 3, 4, 10, 10, 2);
    std::vector<Tag> tags = {tt(2, 100),  tt(1, 105),               // before the first sync: nothing
                             tt(4, 1000), tt(2, 1010), tt(1, 1015), // waiting for the first next: dropped
                             tt(3, 2000), tt(2, 2010), tt(1, 2011), // row 0, bin 0
                             tt(3, 3000), tt(2, 3010), tt(1, 3022), // row 1, bin 1
                             tt(3, 4000), tt(2, 4010), tt(1, 4033), // past the last row: refused
                             tt(4, 5000),                           // ends the wait without a count
                             tt(3, 6000), tt(2, 6010), tt(1, 6014), // row 0, bin 0
                             tt(4, 7000)};                          // cuts the pass: counted
    tagger.pushAndWait(tags, 0, 8000);
    const std::vector<std::int32_t> data = dataOf(td);
    std::vector<std::int32_t> expected(20, 0);
    expected[0] = 2;
    expected[10 + 1] = 1;
    EXPECT_EQ(data, expected);
    EXPECT_EQ(td.getCounts(), 2u);
  }
  // A start keeps its row when the next tag moves on before the click, and a
  // MissedEvents tag drops the open starts and waits for sync again.
  {
    TestTagger tagger;
    TimeDifferences td(&tagger, 1, 2, 3, 4, 10, 100, 3);
    std::vector<Tag> tags = {
        tt(4, 10), tt(3, 20), tt(3, 30), tt(2, 40), tt(3, 50), tt(1, 60), makeTag(2, 70, Tag::Type::MissedEvents, 3),
        tt(1, 80), tt(3, 90), tt(2, 95), tt(1, 99)};
    tagger.pushAndWait(tags, 0, 200);
    const std::vector<std::int32_t> data = dataOf(td);
    std::vector<std::int32_t> expected(300, 0);
    expected[100 + 2] = 1; // start at 40 on row 1, click at 60
    EXPECT_EQ(data, expected);
  }
}

TEST(TimeDifferences, MaxCountsAndReady) {
  TestTagger tagger;
  TimeDifferences td(&tagger, 1, 2, 3, CHANNEL_UNUSED, 10, 10, 1); // range 100 ps
  EXPECT_TRUE(td.ready());                                         // no limit, no start open
  td.setMaxCounts(1);
  EXPECT_FALSE(td.ready());
  // Row 0 from the first next; the second next wraps and fills the pass.
  tagger.pushAndWait({tt(3, 1000), tt(2, 1010), tt(3, 1020), tt(2, 1030), tt(1, 1045)}, 0, 1050);
  EXPECT_EQ(td.getCounts(), 1u);
  // Full: the start at 1030 was refused, the one at 1010 is still open.
  EXPECT_FALSE(td.ready());
  std::vector<std::int32_t> data = dataOf(td);
  EXPECT_EQ(data[3], 1);
  EXPECT_EQ(data[1], 0);
  // Clicks still pair with the open start; more next tags don't count.
  tagger.pushAndWait({tt(3, 1060), tt(1, 1099)}, 1050, 1100);
  EXPECT_EQ(td.getCounts(), 1u);
  EXPECT_EQ(dataOf(td)[8], 1);
  EXPECT_FALSE(td.ready());
  // The block's end ages the start out (1110 - 1010 = 100).
  tagger.pushAndWait({}, 1100, 1110);
  EXPECT_TRUE(td.ready());

  // A higher limit takes starts again; a lower one stops them at once.
  td.setMaxCounts(3);
  tagger.pushAndWait({tt(2, 1200), tt(1, 1201), tt(3, 1300), tt(3, 1310), tt(2, 1320)}, 1110, 1330);
  EXPECT_EQ(td.getCounts(), 3u);
  EXPECT_EQ(dataOf(td)[0], 1);
  td.setMaxCounts(2);
  tagger.pushAndWait({tt(3, 1400), tt(2, 1500), tt(1, 1505)}, 1330, 1600);
  EXPECT_EQ(td.getCounts(), 3u);
  EXPECT_EQ(dataOf(td)[0], 1);
  // clear keeps the limit and zeroes the counts.
  td.clear();
  EXPECT_EQ(td.getCounts(), 0u);
  EXPECT_EQ(dataOf(td), std::vector<std::int32_t>(10, 0));
}

TEST(TimeDifferences, ChecksAndIndex) {
  TestTagger tagger;
  auto message = [&](std::int64_t bw, std::int32_t n_bins, std::int32_t n_hist) -> std::string {
    try {
      TimeDifferences td(&tagger, 1, 2, 3, 4, bw, n_bins, n_hist);
    } catch (const std::invalid_argument &e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(message(0, 0, 0), "binwidth must be at least 1 ps");
  EXPECT_EQ(message(1, 0, 0), "n_bins must be at least 1");
  EXPECT_EQ(message(1, 1, 0), "n_histograms must be at least 1");
  for (std::int32_t ch : {1, 2, 3, 4})
    EXPECT_EQ(tagger.registrations(ch), 0) << "a failed check left channel " << ch << " registered";

  TimeDifferences td(&tagger, 1, 1, CHANNEL_UNUSED, CHANNEL_UNUSED, 25, 4, 2);
  EXPECT_EQ(tagger.registrations(1), 1);
  std::vector<std::int64_t> index;
  td.getIndex([&](std::size_t n) {
    index.resize(n);
    return index.data();
  });
  EXPECT_EQ(index, (std::vector<std::int64_t>{0, 25, 50, 75}));
}
