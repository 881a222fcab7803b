#include <chronotick/CountBetweenMarkers.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using I = std::vector<std::int64_t>;

struct Results {
  std::vector<std::int32_t> data;
  I widths, index;
  bool operator==(const Results &) const = default;
};

Results resultsOf(CountBetweenMarkers &m) {
  return {fetch(m, &CountBetweenMarkers::getData), fetch(m, &CountBetweenMarkers::getBinWidths),
          fetch(m, &CountBetweenMarkers::getIndex)};
}

} // namespace

TEST(CountBetweenMarkersTest, BinsWidthsAndReadiness) {
  TestTagger tagger;
  // Clicks on 1, bins opened by 2 and closed early by 3.
  CountBetweenMarkers m(&tagger, 1, 2, 3, 3);
  // Clicks before the first begin tag are not counted; an end tag in a gap
  // changes nothing; a click in a gap is lost.
  tagger.pushAndWait({makeTag(1, 10), makeTag(3, 15), makeTag(1, 20), makeTag(2, 100), makeTag(1, 110),
                      makeTag(0, 115, Tag::Type::OverflowBegin), makeTag(1, 120), makeTag(3, 200), makeTag(1, 210),
                      makeTag(3, 220), makeTag(2, 300), makeTag(1, 310)},
                     0, 400);
  // The overflow goes unnoticed; bin 1 is open: width 0, count running.
  EXPECT_EQ(resultsOf(m), (Results{{2, 1, 0}, {100, 0, 0}, {0, 200, 0}}));
  EXPECT_FALSE(m.ready());

  // The last bin opens; it is complete only when an end tag closes it.
  tagger.pushAndWait({makeTag(2, 500), makeTag(1, 550)}, 400, 600);
  EXPECT_FALSE(m.ready());
  tagger.pushAndWait({makeTag(3, 600), makeTag(2, 700), makeTag(1, 710), makeTag(2, 800)}, 600, 900);
  EXPECT_TRUE(m.ready());
  // Full: the later bins write nothing.
  EXPECT_EQ(resultsOf(m), (Results{{2, 1, 1}, {100, 200, 100}, {0, 200, 400}}));

  m.clear();
  EXPECT_FALSE(m.ready());
  EXPECT_EQ(resultsOf(m), (Results{{0, 0, 0}, {0, 0, 0}, {0, 0, 0}}));
  // After a clear the first begin tag is the new origin of the index.
  tagger.pushAndWait({makeTag(2, 1000), makeTag(2, 1250)}, 900, 1300);
  EXPECT_EQ(resultsOf(m).index, (I{0, 250, 0}));

  // One bin, no end channel: complete when the next begin tag arrives. A
  // click on the begin channel counts in the bin it opens.
  CountBetweenMarkers one(&tagger, 2, 2, CHANNEL_UNUSED, 1);
  tagger.pushAndWait({makeTag(2, 2000)}, 1300, 2050);
  EXPECT_FALSE(one.ready());
  tagger.pushAndWait({makeTag(2, 2300)}, 2050, 2400);
  EXPECT_TRUE(one.ready()); // and the closing tag is not counted: its bin is beyond the data
  EXPECT_EQ(resultsOf(one), (Results{{1}, {300}, {0}}));

  // A click on the end channel is not counted; a begin channel that is also
  // the end channel only begins.
  CountBetweenMarkers end_click(&tagger, 3, 2, 3, 2);
  CountBetweenMarkers same(&tagger, 1, 2, 2, 2);
  tagger.pushAndWait({makeTag(2, 3000), makeTag(1, 3010), makeTag(3, 3020), makeTag(2, 3100), makeTag(3, 3150)}, 2400,
                     3200);
  EXPECT_EQ(resultsOf(end_click).data, (std::vector<std::int32_t>{0, 0}));
  EXPECT_TRUE(end_click.ready());
  EXPECT_EQ(resultsOf(same), (Results{{1, 0}, {100, 0}, {0, 100}}));
  EXPECT_FALSE(same.ready());

  EXPECT_THROW(CountBetweenMarkers(&tagger, 1, 2, 3, -1), std::length_error);
}
