#include <chronotick/TimeDifferences.h>

#include "TimeDifferencesReference.h"
#include "support/MeasurementHelpers.h"

#include <set>

using namespace chronotick;
using namespace chronotick::testing;
using V = std::vector<std::int32_t>;

static const auto dataOf = [](TimeDifferences &td) { return fetch(td, &TimeDifferences::getData); };

TEST(TimeDifferences, MatchesDirectPairsInEveryModeAndAnyBlockCuts) {
  using Mode = FastBinning::Mode;
  auto over = [](std::int32_t n) { return [n](std::int64_t bw) { return std::uint64_t(bw) * n; }; };
  const std::int64_t mul_high = binwidthFor(Mode::MulHigh64, over(3000), 1000);
  const std::int64_t div64 = binwidthFor(Mode::Div64, over(50), (1 << 26) + 1, (1 << 20) + 1);
  // (n_bins, binwidth): Identity, PowerOfTwo, MulShift32, MulHigh64, Div64.
  const std::pair<std::int32_t, std::int64_t> cases[] = {
      {3000, 1}, {400, 16}, {700, 10}, {3000, mul_high}, {50, div64}};
  std::set<Mode> seen;
  const std::int32_t U = CHANNEL_UNUSED;
  std::uint64_t seed = 11;
  for (const auto &[n_bins, binwidth] : cases) {
    const Mode mode = FastBinning(binwidth, over(n_bins)(binwidth)).getMode();
    seen.insert(mode);
    RandomStreamShape shape;
    shape.n_channels = 4;
    shape.max_gap = std::max<std::int64_t>(2, binwidth * n_bins / 25); // about a dozen starts per window
    shape.lone_missed = 0.002;                                         // a break outside overflows too
    // click, start, next, sync, rows, max_counts; the last gets full halfway.
    const TimeDifferencesSetup setups[] = {{1, 2, U, U, binwidth, n_bins, 1, 0},
                                           {1, U, U, U, binwidth, n_bins, 1, 0},
                                           {1, 2, 3, U, binwidth, n_bins, 3, 0},
                                           {1, 2, 3, 4, binwidth, n_bins, 4, 0},
                                           {2, 2, 3, 4, binwidth, n_bins, 2, 60}};
    for (const TimeDifferencesSetup &s : setups) {
      const std::vector<Tag> tags = randomTagStream(2500, ++seed, shape);
      SCOPED_TRACE(::testing::Message() << "mode " << int(mode) << " click " << s.click << " start " << s.start
                                        << " next " << s.next << " sync " << s.sync << " max " << s.max_counts);
      const TimeDifferencesResult expected = referenceTimeDifferences(tags, s);
      EXPECT_GT(total(expected.data), s.max_counts ? 20 : 100) << "too few pairs to check anything";
      EXPECT_TRUE(!s.max_counts || expected.counts == s.max_counts) << "the limit is never reached";
      for (const auto &cuts : cutSets(tags.size(), 40, seed * 7)) {
        TestTagger tagger;
        TimeDifferences td(&tagger, s.click, s.start, s.next, s.sync, s.binwidth, s.n_bins, s.n_histograms);
        td.setMaxCounts(s.max_counts);
        tagger.pushCut(tags, cuts, 0, tags.back().time + 1);
        tagger.waitUntilDone();
        EXPECT_EQ(dataOf(td), expected.data) << cuts.size() << " cuts";
        EXPECT_EQ(td.getCounts(), expected.counts) << cuts.size() << " cuts";
      }
    }
  }
  EXPECT_EQ(seen.size(), 5u) << "a mode of the binner is not covered";
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
  EXPECT_EQ(dataOf(td), (V{0, 0, 0, 1, 0, 0, 0, 0, 0, 0}));
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
  EXPECT_EQ(dataOf(td), V(10, 0));
}

TEST(TimeDifferences, SameStartAndClickChannelAndIndex) {
  TestTagger tagger;
  TimeDifferences td(&tagger, 1, 1, CHANNEL_UNUSED, CHANNEL_UNUSED, 25, 4, 2);
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_EQ(fetch(td, &TimeDifferences::getIndex), (std::vector<std::int64_t>{0, 25, 50, 75}));
}
