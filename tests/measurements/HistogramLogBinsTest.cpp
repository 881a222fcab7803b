#include <chronotick/HistogramLogBins.h>

#include "support/MeasurementHelpers.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using U = std::vector<std::uint64_t>;

const auto edgesOf = [](HistogramLogBins &h) { return fetch(h, &HistogramLogBins::getBinEdges); };
const auto g2Of = [](HistogramLogBins &h) { return fetch(h, &HistogramLogBins::getDataNormalizedG2); };
const auto dataOf = [](HistogramLogBins &h) { return fetch(h, &HistogramLogBins::getData); };

struct LogReference {
  U data;
  std::uint64_t clicks = 0;
  std::uint64_t starts = 0;
  std::int64_t duration = 0;
};

// Plain model: a segment begins at the stream's start and at every break; a
// click counts once a tag has come more than the last edge after the segment
// began, and pairs with every earlier start of its segment, binned by a
// search over the edges. Only valid for streams without Error tags, whose
// effect on the duration depends on the block cuts.
LogReference referenceLog(const std::vector<Tag> &stream, const std::vector<std::int64_t> &edges, std::int32_t click,
                          std::int32_t start, std::int64_t begin_time, std::int64_t end_time) {
  LogReference ref;
  ref.data.assign(edges.size() - 1, 0);
  const std::int64_t last = edges.back();
  std::vector<std::int64_t> segment_starts;
  std::int64_t segment = begin_time, measuring_since = 0;
  bool warming = true, overflow = false;
  for (const Tag &tag : stream) {
    if (warming && tag.time - segment > last) {
      warming = false;
      measuring_since = segment + last;
    }
    if (tag.type == Tag::Type::TimeTag) {
      if (tag.channel == start) {
        segment_starts.push_back(tag.time);
        if (!warming)
          ++ref.starts;
      }
      if (tag.channel == click && !warming) {
        ++ref.clicks;
        for (std::int64_t s : segment_starts) {
          const std::int64_t d = tag.time - s;
          auto it = std::upper_bound(edges.begin(), edges.end(), d);
          if (it != edges.begin() && it != edges.end())
            ++ref.data[static_cast<std::size_t>(it - edges.begin() - 1)];
        }
      }
    } else if (tag.type != Tag::Type::MissedEvents) { // a break
      if (tag.type == Tag::Type::OverflowBegin && !warming && !overflow)
        ref.duration += tag.time - measuring_since;
      // The duration an Error loses depends on the block cuts: not modelled.
      if (tag.type != Tag::Type::Error)
        overflow = tag.type == Tag::Type::OverflowBegin;
      segment_starts.clear();
      segment = tag.time;
      warming = true;
    }
  }
  if (!warming && !overflow)
    ref.duration += end_time - measuring_since;
  return ref;
}

} // namespace

// Random streams with overflows and missed events, cut into random blocks,
// against the plain model. The windows hold from a few up to hundreds of
// open starts, so the ring grows and both ways of counting pairs are used.
TEST(HistogramLogBinsTest, MatchesPairEnumerationWhateverTheBlockCuts) {
  struct Case {
    double exp_start, exp_stop;
    std::int32_t n_bins;
    std::int32_t click, start;
    double overflow;
  };
  const Case cases[] = {{-12, -8.5, 60, 2, 1, 0.002},    {-11, -7, 200, 2, 1, 0.002},   {-12.5, -9, 40, 3, 3, 0.002},
                        {-10, -6.7, 1000, 1, 4, 0.0005}, {-11, -6, 100, 2, 1, 0.00005}, {-9, -8, 1000, 2, 1, 0.002},
                        {-11, -6, 10, 2, 1, 0.00005}};
  RandomStreamShape shape;
  shape.n_channels = 4;
  for (const Case &c : cases) {
    shape.overflow = c.overflow;
    // Error tags lose a stretch of duration that depends on the block cuts,
    // so the normalisation is checked on streams without them.
    for (const bool errors : {false, true}) {
      shape.error = errors ? 0.0005 : 0;
      const std::vector<Tag> stream = randomTagStream(20000, 17 + c.n_bins, shape);
      const std::int64_t begin = 500, end = stream.back().time + 1000;
      for (std::uint64_t seed : errors ? std::vector<std::uint64_t>{2} : std::vector<std::uint64_t>{1, 2, 3}) {
        TestTagger tagger;
        HistogramLogBins h(&tagger, c.click, c.start, c.exp_start, c.exp_stop, c.n_bins);
        // Few large blocks, then many small ones, so the split between the
        // two ways of counting moves around.
        tagger.pushCut(stream, randomCuts(stream.size(), seed == 1 ? 3 : seed * 200, seed), begin, end);
        tagger.waitUntilDone();
        const auto edges = edgesOf(h);
        const LogReference ref = referenceLog(stream, edges, c.click, c.start, begin, end);
        const auto data = dataOf(h);
        ASSERT_EQ(data, ref.data) << "bins " << c.n_bins << " cut seed " << seed << " errors " << errors;
        EXPECT_GT(total(data), 1000);
        if (!errors) {
          const double f = double(ref.duration) / (double(ref.clicks) * double(ref.starts));
          std::vector<double> g2(ref.data.size());
          for (std::size_t b = 0; b < g2.size(); ++b)
            g2[b] = double(ref.data[b]) * f / double(edges[b + 1] - edges[b]);
          EXPECT_THAT(g2Of(h), ::testing::Pointwise(::testing::NanSensitiveDoubleEq(), g2));
        }
      }
    }
  }
}

TEST(HistogramLogBinsTest, EdgesWarmUpDurationAndRing) {
  TestTagger tagger;
  // Edges from 1 ns to 1 us.
  HistogramLogBins h(&tagger, 2, 1, -9, -6, 30);
  const auto edges = edgesOf(h);
  ASSERT_EQ(edges.size(), 31u);
  EXPECT_EQ(edges.front(), 1000);
  EXPECT_EQ(edges.back(), 1000000);
  EXPECT_EQ(edges[10], 10000);
  for (double v : g2Of(h))
    EXPECT_FALSE(std::isfinite(v)); // no click yet

  // Warm-up: the window of 1 us after the segment start (1 us) must pass.
  tagger.pushAndWait({makeTag(1, 1500000), makeTag(2, 1600000)}, 1000000, 1900000);
  EXPECT_EQ(dataOf(h), U(30, 0)); // the click in the warm-up is dropped
  // The tag at 2.5 us ends the warm-up at 2 us; it is a counted start.
  // Clicks: exactly at edge 5 after 1.5 us, exactly at the last edge after
  // 2.5 us (no bin), and 0 after 2.5 us (below the first edge).
  tagger.pushAndWait({makeTag(1, 2500000), makeTag(2, 2500000), makeTag(2, 2500000 + edges[5]), makeTag(2, 3500000)},
                     1900000, 5000000);
  // The click at 2.5 us pairs with its start at 0 (below the first edge) and
  // with 1.5 us at exactly the last edge (no bin). The next one lands exactly
  // on edge 5. The last pairs at 2 us (too old) and at the last edge again.
  U expected(30, 0);
  expected[5] = 1;
  EXPECT_EQ(dataOf(h), expected);
  // Duration so far 5 - 2 = 3 us; 3 clicks, 1 counted start.
  EXPECT_DOUBLE_EQ(g2Of(h)[5], 1.0 * 3e6 / 3.0 / static_cast<double>(edges[6] - edges[5]));

  // An overflow adds the time up to its begin, nothing while it lasts, and
  // a full warm-up after its end.
  tagger.pushAndWait({makeTag(0, 6000000, Tag::Type::OverflowBegin)}, 5000000, 8000000);
  tagger.pushAndWait({makeTag(0, 9000000, Tag::Type::OverflowEnd), makeTag(1, 9100000), makeTag(2, 9500000)}, 8000000,
                     9900000);
  EXPECT_EQ(dataOf(h), expected); // click in the new warm-up
  tagger.pushAndWait({makeTag(1, 10500000), makeTag(2, 10500000 + edges[10])}, 9900000, 12000000);
  expected[10] = 1; // 9.1 us start is older than the window: only the 10.5 us start pairs
  EXPECT_EQ(dataOf(h), expected);
  // Duration: 3 + 1 (to the overflow) + 2 (10 to 12) = 6 us; 4 clicks; 2 starts.
  EXPECT_DOUBLE_EQ(g2Of(h)[10], 1.0 * 6e6 / (4.0 * 2.0) / static_cast<double>(edges[11] - edges[10]));

  // An Error loses the time since the block began; an OverflowBegin at the
  // same place would add it.
  tagger.pushAndWait({makeTag(0, 13000000, Tag::Type::Error)}, 12000000, 14000000);
  EXPECT_DOUBLE_EQ(g2Of(h)[10], 1.0 * 6e6 / (4.0 * 2.0) / static_cast<double>(edges[11] - edges[10]));
}
