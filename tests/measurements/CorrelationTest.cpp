#include <chronotick/Correlation.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<std::int32_t> dataOf(Correlation &c) {
  std::vector<std::int32_t> out;
  c.getData([&](std::size_t n) {
    out.assign(n, -7);
    return out.data();
  });
  return out;
}

std::vector<double> normalizedOf(Correlation &c) {
  std::vector<double> out;
  c.getDataNormalized([&](std::size_t n) {
    out.assign(n, -7.0);
    return out.data();
  });
  return out;
}

struct Expected {
  std::vector<std::int32_t> data;
  std::uint64_t counts[2] = {0, 0};
  std::int64_t duration = 0;
};

// Direct pairs: each tag of the first channel with each tag of the second
// at most half a window away and not separated from it by an Error. The
// difference is first-channel time minus second-channel time; a tag on both
// channels pairs with itself once.
Expected reference(const std::vector<Tag> &tags, std::int32_t ch1, std::int32_t ch2, std::int64_t binwidth,
                   std::int32_t n_bins, std::int64_t begin, std::int64_t end) {
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
    // Pairs (earlier tag i, this tag j), i == j included for a tag on both.
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
  std::int64_t segment = begin;
  bool overflow = false;
  for (const Tag &t : tags) {
    if (t.type == Tag::Type::OverflowBegin) {
      e.duration += t.time - segment;
      overflow = true;
    } else if (t.type == Tag::Type::OverflowEnd) {
      if (overflow) {
        overflow = false;
        segment = t.time;
      } else {
        e.duration = 0;
      }
    }
  }
  if (!overflow)
    e.duration += end - segment;
  return e;
}

Tag tt(std::int32_t channel, std::int64_t time) {
  return makeTag(channel, time);
}

} // namespace

TEST(Correlation, MatchesDirectPairsInEveryModeAndAnyBlockCuts) {
  using Mode = FastBinning::Mode;
  struct Case {
    std::int64_t binwidth;
    std::int32_t n_bins;
  };
  // One width per mode of the binner over 2 * half window.
  std::vector<Case> cases = {{5, 1}, {1, 1001}, {16, 125}, {3, 667}, {10, 200}};
  for (std::int64_t bw = 1000;; ++bw)
    if (FastBinning(bw, 2 * (2000 * bw / 2)).getMode() == Mode::MulHigh64) {
      cases.push_back({bw, 2000});
      break;
    }
  for (std::int64_t bw = (1 << 26) + 1;; bw += (1 << 20) + 1)
    if (FastBinning(bw, 2 * (50 * bw / 2)).getMode() == Mode::Div64) {
      cases.push_back({bw, 50});
      break;
    }
  std::vector<bool> seen(7, false);
  std::uint64_t seed = 500;
  for (const Case &c : cases) {
    const std::int64_t half = static_cast<std::int64_t>(c.n_bins) * c.binwidth / 2;
    seen[static_cast<int>(FastBinning(c.binwidth, 2 * half).getMode())] = true;
    RandomStreamShape shape;
    shape.n_channels = 3;
    shape.max_gap = std::max<std::int64_t>(3, half / 8);
    for (std::int32_t second : {2, static_cast<std::int32_t>(CHANNEL_UNUSED)}) {
      const std::vector<Tag> tags = randomTagStream(3000, ++seed, shape);
      const std::int64_t end = tags.back().time + 1;
      const Expected expected = reference(tags, 1, second == CHANNEL_UNUSED ? 1 : 2, c.binwidth, c.n_bins, 0, end);
      for (int variant = 0; variant < 2; ++variant) {
        TestTagger tagger;
        Correlation corr(&tagger, 1, second, c.binwidth, c.n_bins);
        tagger.pushCut(tags, variant ? randomCuts(tags.size(), 30, seed) : std::vector<std::size_t>{}, 0, end);
        tagger.waitUntilDone();
        SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " n_bins " << c.n_bins << " second " << second
                                          << " variant " << variant);
        EXPECT_EQ(dataOf(corr), expected.data);
        // The normalisation carries the counts and the measured duration.
        const double f = static_cast<double>(expected.duration) /
                         (static_cast<double>(c.binwidth) * static_cast<double>(expected.counts[0]) *
                          static_cast<double>(expected.counts[1]));
        const std::vector<double> normalized = normalizedOf(corr);
        for (std::size_t i = 0; i < normalized.size(); ++i)
          ASSERT_DOUBLE_EQ(normalized[i], expected.data[i] * f) << "bin " << i;
      }
    }
  }
  for (Mode m : {Mode::AlwaysZero, Mode::Identity, Mode::PowerOfTwo, Mode::MulShift32, Mode::MulHigh64, Mode::Div64})
    EXPECT_TRUE(seen[static_cast<int>(m)]) << "mode " << static_cast<int>(m) << " not covered";
}

TEST(Correlation, WindowEdgesIndexAndNormalisation) {
  TestTagger tagger;
  // n_bins 3, binwidth 5: half window 7, bins from -7, -2, 3.
  Correlation odd(&tagger, 1, 2, 5, 3);
  // n_bins 4, binwidth 5: half window 10: +10 is dropped, -10 counted in bin 0.
  Correlation even(&tagger, 1, 2, 5, 4);
  std::vector<std::int64_t> index;
  odd.getIndex([&](std::size_t n) {
    index.resize(n);
    return index.data();
  });
  EXPECT_EQ(index, (std::vector<std::int64_t>{-7, -2, 3}));
  // Nothing yet: not a number everywhere.
  for (double v : normalizedOf(even))
    EXPECT_TRUE(std::isnan(v));

  tagger.pushAndWait({tt(2, 1000), tt(1, 1010), // +10: the open upper edge of `even`, outside `odd`
                      tt(1, 2000), tt(2, 2010), // -10: bin 0 of `even`, outside `odd`
                      tt(2, 3000), tt(1, 3000), tt(1, 4000), tt(2, 4000)}, // 0 whatever the order
                     0, 10000);
  EXPECT_EQ(dataOf(even), (std::vector<std::int32_t>{1, 0, 2, 0}));
  EXPECT_EQ(dataOf(odd), (std::vector<std::int32_t>{0, 2, 0}));
  // 4 tags on each channel, 10000 ps: f = 10000 / (5 * 4 * 4).
  const std::vector<double> n = normalizedOf(even);
  EXPECT_DOUBLE_EQ(n[0], 10000.0 / 80.0);
  EXPECT_DOUBLE_EQ(n[2], 2 * 10000.0 / 80.0);
}

TEST(Correlation, OverflowDurationAndErrors) {
  TestTagger tagger;
  Correlation c(&tagger, 1, 2, 10, 100); // half window 500
  // An overflow that spans blocks: only the time outside it counts.
  tagger.pushAndWait({tt(1, 100), makeTag(0, 300, Tag::Type::OverflowBegin)}, 0, 1000);
  tagger.pushAndWait({tt(2, 1200)}, 1000, 2000); // 1200 - 100 > 500: no pair
  tagger.pushAndWait({makeTag(0, 2500, Tag::Type::OverflowEnd), tt(2, 2600)}, 2000, 3000);
  // Channel 2's queue keeps 2600 over the block end; no pair yet.
  EXPECT_EQ(dataOf(c), std::vector<std::int32_t>(100, 0));
  EXPECT_EQ(normalizedOf(c)[0], 0.0);
  // 3050 pairs with 2600 across the block; an Error then empties the queues
  // but keeps the counts, so 3200 finds nothing and 3300 pairs with 3200.
  tagger.pushAndWait({tt(1, 3050), makeTag(0, 3150, Tag::Type::Error), tt(2, 3200), tt(1, 3300)}, 3000, 4000);
  std::vector<std::int32_t> expected(100, 0);
  expected[(3050 - 2600 + 500) / 10] = 1;
  expected[(3300 - 3200 + 500) / 10] = 1;
  EXPECT_EQ(dataOf(c), expected);
  // Measured 300 + 500 + 1000 ps; 3 tags on each channel.
  EXPECT_DOUBLE_EQ(normalizedOf(c)[60], 1800.0 / (10.0 * 3 * 3));
  // An OverflowEnd without its begin throws the duration away; the block's
  // time after it still counts from the block's begin.
  tagger.pushAndWait({makeTag(0, 4100, Tag::Type::OverflowEnd)}, 4000, 5000);
  EXPECT_DOUBLE_EQ(normalizedOf(c)[60], 1000.0 / 90.0);
  c.clear();
  EXPECT_EQ(dataOf(c), std::vector<std::int32_t>(100, 0));
}
