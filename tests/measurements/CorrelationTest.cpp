#include <chronotick/Correlation.h>

#include "support/MeasurementHelpers.h"

#include <cmath>
#include <set>

using namespace chronotick;
using namespace chronotick::testing;
using V = std::vector<std::int32_t>;

namespace {

struct Expected {
  V data;
  std::uint64_t counts[2] = {0, 0};
  std::int64_t duration = 0;
};

// Direct pairs: each tag of the first channel with each tag of the second
// at most half a window away and not separated from it by an Error. The
// difference is first-channel time minus second-channel time; a tag on both
// channels pairs with itself once.
Expected reference(const std::vector<Tag> &tags, std::int32_t ch1, std::int32_t ch2, std::int64_t binwidth,
                   std::int32_t n_bins, std::int64_t end) {
  const std::int64_t half = static_cast<std::int64_t>(n_bins) * binwidth / 2;
  Expected e;
  e.data.assign(static_cast<std::size_t>(n_bins), 0);
  auto add = [&](std::int64_t diff) {
    const std::int64_t bin = (diff + half) / binwidth;
    if (bin >= 0 && bin < n_bins)
      ++e.data[static_cast<std::size_t>(bin)];
  };
  for (std::size_t j = 0; j < tags.size(); ++j) {
    const Tag &b = tags[j];
    if (b.type != Tag::Type::TimeTag)
      continue;
    e.counts[0] += b.channel == ch1;
    e.counts[1] += b.channel == ch2;
    for (std::size_t i = j + 1; i-- > 0;) {
      const Tag &a = tags[i];
      if (b.time - a.time > half || a.type == Tag::Type::Error)
        break;
      if (a.type != Tag::Type::TimeTag)
        continue;
      if (i < j && a.channel == ch2 && b.channel == ch1)
        add(b.time - a.time);
      if (a.channel == ch1 && b.channel == ch2)
        add(a.time - b.time);
    }
  }
  // Time outside overflows; an OverflowEnd without its begin drops it all.
  std::int64_t segment = 0;
  bool overflow = false;
  for (const Tag &t : tags) {
    if (t.type == Tag::Type::OverflowBegin) {
      e.duration += t.time - segment;
      overflow = true;
    } else if (t.type == Tag::Type::OverflowEnd) {
      if (overflow)
        segment = t.time;
      else
        e.duration = 0;
      overflow = false;
    }
  }
  if (!overflow)
    e.duration += end - segment;
  return e;
}

} // namespace

TEST(Correlation, MatchesDirectPairsInEveryModeAndAnyBlockCuts) {
  using Mode = FastBinning::Mode;
  // One width per mode of the binner over 2 * half window.
  auto over = [](std::int32_t n) { return [n](std::int64_t bw) { return std::uint64_t(2 * (n * bw / 2)); }; };
  const std::int64_t mul_high = binwidthFor(Mode::MulHigh64, over(2000), 1000);
  const std::int64_t div64 = binwidthFor(Mode::Div64, over(50), (1 << 26) + 1, (1 << 20) + 1);
  const std::pair<std::int64_t, std::int32_t> cases[] = {{5, 1},    {1, 1001},        {16, 125},  {3, 667},
                                                         {10, 200}, {mul_high, 2000}, {div64, 50}};
  std::set<Mode> seen;
  std::uint64_t seed = 500;
  for (const auto &[binwidth, n_bins] : cases) {
    const std::int64_t half = n_bins * binwidth / 2;
    seen.insert(FastBinning(binwidth, 2 * half).getMode());
    RandomStreamShape shape;
    shape.n_channels = 3;
    shape.max_gap = std::max<std::int64_t>(3, half / 8);
    for (std::int32_t second : {2, static_cast<std::int32_t>(CHANNEL_UNUSED)}) {
      const std::vector<Tag> tags = randomTagStream(3000, ++seed, shape);
      const Expected e = reference(tags, 1, second == CHANNEL_UNUSED ? 1 : 2, binwidth, n_bins, tags.back().time + 1);
      // The normalisation carries the counts and the measured duration.
      const double f = double(e.duration) / (double(binwidth) * double(e.counts[0]) * double(e.counts[1]));
      for (const auto &cuts : cutSets(tags.size(), 30, seed)) {
        SCOPED_TRACE(::testing::Message() << "binwidth " << binwidth << " n_bins " << n_bins << " second " << second
                                          << " cuts " << cuts.size());
        const auto [data, normalized] = runCut<Correlation>(
            tags, cuts,
            [](Correlation &c) {
              return std::make_pair(fetch(c, &Correlation::getData), fetch(c, &Correlation::getDataNormalized));
            },
            1, second, binwidth, n_bins);
        EXPECT_EQ(data, e.data);
        for (std::size_t i = 0; i < normalized.size(); ++i)
          ASSERT_DOUBLE_EQ(normalized[i], e.data[i] * f) << "bin " << i;
      }
    }
  }
  EXPECT_EQ(seen.size(), 6u) << "a mode of the binner is not covered";
}

TEST(Correlation, WindowEdgesIndexAndNormalisation) {
  TestTagger tagger;
  Correlation odd(&tagger, 1, 2, 5, 3);  // half window 7, bins from -7, -2, 3
  Correlation even(&tagger, 1, 2, 5, 4); // half window 10: +10 is dropped, -10 counted in bin 0
  EXPECT_EQ(fetch(odd, &Correlation::getIndex), (std::vector<std::int64_t>{-7, -2, 3}));
  for (double v : fetch(even, &Correlation::getDataNormalized))
    EXPECT_TRUE(std::isnan(v)); // nothing yet

  tagger.pushAndWait({tt(2, 1000), tt(1, 1010), // +10: the open upper edge of `even`, outside `odd`
                      tt(1, 2000), tt(2, 2010), // -10: bin 0 of `even`, outside `odd`
                      tt(2, 3000), tt(1, 3000), tt(1, 4000), tt(2, 4000)}, // 0 whatever the order
                     0, 10000);
  EXPECT_EQ(fetch(even, &Correlation::getData), (V{1, 0, 2, 0}));
  EXPECT_EQ(fetch(odd, &Correlation::getData), (V{0, 2, 0}));
  // 4 tags on each channel, 10000 ps: f = 10000 / (5 * 4 * 4).
  EXPECT_EQ(fetch(even, &Correlation::getDataNormalized), (std::vector<double>{125, 0, 250, 0}));
}

TEST(Correlation, AnOverflowEndWithoutItsBeginDropsTheDuration) {
  // Random streams always open an overflow before they close it.
  TestTagger tagger;
  Correlation c(&tagger, 1, 2, 10, 100);
  tagger.pushAndWait({tt(1, 100), tt(2, 150), tt(1, 200), tt(2, 300)}, 0, 1000);
  // Measured 1000 ps; 2 tags on each channel.
  EXPECT_DOUBLE_EQ(fetch(c, &Correlation::getDataNormalized)[55], 1000.0 / (10.0 * 2 * 2));
  // The block's time after the stray end still counts from the block's begin.
  tagger.pushAndWait({makeTag(0, 1100, Tag::Type::OverflowEnd)}, 1000, 4000);
  EXPECT_DOUBLE_EQ(fetch(c, &Correlation::getDataNormalized)[55], 3000.0 / (10.0 * 2 * 2));
  c.clear();
  EXPECT_EQ(fetch(c, &Correlation::getData), V(100, 0));
}
