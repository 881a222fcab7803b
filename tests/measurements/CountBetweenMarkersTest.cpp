#include <chronotick/CountBetweenMarkers.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <stdexcept>
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

struct Results {
  std::vector<std::int32_t> data;
  std::vector<std::int64_t> widths, index;
};

Results resultsOf(CountBetweenMarkers &m) {
  Results r;
  m.getData([&](std::size_t n) {
    r.data.resize(n);
    return r.data.data();
  });
  m.getBinWidths([&](std::size_t n) {
    r.widths.resize(n);
    return r.widths.data();
  });
  m.getIndex([&](std::size_t n) {
    r.index.resize(n);
    return r.index.data();
  });
  return r;
}

} // namespace

TEST(CountBetweenMarkersTest, BinsWidthsAndReadiness) {
  TestTagger tagger;
  // Clicks on 1, bins opened by 2 and closed early by 3.
  CountBetweenMarkers m(&tagger, 1, 2, 3, 3);
  settle(tagger);
  // Clicks before the first begin tag are not counted; an end tag in a gap
  // changes nothing; a click in a gap is lost.
  tagger.pushAndWait({makeTag(1, 10), makeTag(3, 15), makeTag(1, 20), makeTag(2, 100), makeTag(1, 110),
                      makeTag(0, 115, Tag::Type::OverflowBegin), makeTag(1, 120), makeTag(3, 200), makeTag(1, 210),
                      makeTag(3, 220), makeTag(2, 300), makeTag(1, 310)},
                     0, 400);
  Results r = resultsOf(m);
  EXPECT_EQ(r.data, (std::vector<std::int32_t>{2, 1, 0}));     // the overflow goes unnoticed
  EXPECT_EQ(r.widths, (std::vector<std::int64_t>{100, 0, 0})); // bin 1 is open: width 0, count running
  EXPECT_EQ(r.index, (std::vector<std::int64_t>{0, 200, 0}));
  EXPECT_FALSE(m.ready());

  // The last bin opens; it is complete only when an end tag closes it.
  tagger.pushAndWait({makeTag(2, 500), makeTag(1, 550)}, 400, 600);
  EXPECT_FALSE(m.ready());
  tagger.pushAndWait({makeTag(3, 600), makeTag(2, 700), makeTag(1, 710), makeTag(2, 800)}, 600, 900);
  EXPECT_TRUE(m.ready());
  r = resultsOf(m);
  EXPECT_EQ(r.data, (std::vector<std::int32_t>{2, 1, 1})); // full: the later bins write nothing
  EXPECT_EQ(r.widths, (std::vector<std::int64_t>{100, 200, 100}));
  EXPECT_EQ(r.index, (std::vector<std::int64_t>{0, 200, 400}));

  m.clear();
  settle(tagger);
  EXPECT_FALSE(m.ready());
  r = resultsOf(m);
  EXPECT_EQ(r.data, std::vector<std::int32_t>(3, 0));
  EXPECT_EQ(r.widths, std::vector<std::int64_t>(3, 0));
  // After a clear the first begin tag is the new origin of the index.
  tagger.pushAndWait({makeTag(2, 1000), makeTag(2, 1250)}, 900, 1300);
  EXPECT_EQ(resultsOf(m).index, (std::vector<std::int64_t>{0, 250, 0}));
  m.stop();

  // One bin, no end channel: complete when the next begin tag arrives. A
  // click on the begin channel counts in the bin it opens.
  CountBetweenMarkers one(&tagger, 2, 2, CHANNEL_UNUSED, 1);
  settle(tagger);
  tagger.pushAndWait({makeTag(2, 2000)}, 1300, 2050);
  EXPECT_FALSE(one.ready());
  tagger.pushAndWait({makeTag(2, 2300)}, 2050, 2400);
  EXPECT_TRUE(one.ready()); // and the closing tag is not counted: its bin is beyond the data
  r = resultsOf(one);
  EXPECT_EQ(r.data, (std::vector<std::int32_t>{1}));
  EXPECT_EQ(r.widths, (std::vector<std::int64_t>{300}));
  one.stop();

  // A click on the end channel is not counted; a begin channel that is also
  // the end channel only begins.
  CountBetweenMarkers end_click(&tagger, 3, 2, 3, 2);
  CountBetweenMarkers same(&tagger, 1, 2, 2, 2);
  settle(tagger);
  tagger.pushAndWait({makeTag(2, 3000), makeTag(1, 3010), makeTag(3, 3020), makeTag(2, 3100), makeTag(3, 3150)}, 2400,
                     3200);
  EXPECT_EQ(resultsOf(end_click).data, (std::vector<std::int32_t>{0, 0}));
  EXPECT_TRUE(end_click.ready());
  r = resultsOf(same);
  EXPECT_EQ(r.data, (std::vector<std::int32_t>{1, 0}));
  EXPECT_EQ(r.widths, (std::vector<std::int64_t>{100, 0}));
  EXPECT_FALSE(same.ready());
  end_click.stop();
  same.stop();

  EXPECT_THROW(CountBetweenMarkers(&tagger, 1, 2, 3, -1), std::length_error);
}
