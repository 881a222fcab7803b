#include <chronotick/Counter.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;
using V = std::vector<std::int32_t>;

static const auto dataOf = [](Counter &c) { return fetch(c, &Counter::getData); };

TEST(Counter, RingRowsAndBreaks) {
  TestTagger tagger;
  Counter c(&tagger, {1, 2, 1}, 10, 3);   // channel 1 listed twice: counted in both rows
  Counter unique(&tagger, {1, 2}, 10, 3); // looked up in a table rather than scanned
  auto sameAsUnique = [&] {
    const V all = dataOf(c);
    EXPECT_EQ(dataOf(unique), V(all.begin(), all.begin() + 6));
  };
  tagger.pushAndWait({tt(1, 1), tt(1, 5), tt(2, 12), tt(1, 25), tt(1, 29), tt(1, 30)}, 0, 35);
  // Bins [0,10) [10,20) [20,30); [30,40) is being filled and not reported.
  EXPECT_EQ(dataOf(c), (V{2, 0, 2, /**/ 0, 1, 0, /**/ 2, 0, 2}));
  sameAsUnique();
  tagger.pushAndWait({}, 35, 45);
  EXPECT_EQ(dataOf(c), (V{0, 2, 1, /**/ 1, 0, 0, /**/ 0, 2, 1}));

  // A break throws away the bin being filled; the next tag anchors the bin.
  tagger.pushAndWait({tt(1, 41), makeTag(1, 43, Tag::Type::MissedEvents, 500), tt(1, 47), tt(2, 48)}, 45, 50);
  // The bin being filled holds the tags after the break and was re-anchored
  // at 47, so it is complete at 57, not at 50.
  tagger.pushAndWait({}, 50, 56);
  EXPECT_EQ(dataOf(c), (V{0, 2, 1, /**/ 1, 0, 0, /**/ 0, 2, 1}));
  tagger.pushAndWait({}, 56, 57);
  EXPECT_EQ(dataOf(c), (V{2, 1, 1, /**/ 0, 0, 1, /**/ 2, 1, 1}));
  sameAsUnique();

  // stop and start keep the history but lose the bin being filled (the tag
  // at 60); the next block anchors the bin.
  tagger.pushAndWait({tt(2, 60)}, 57, 62);
  c.stop();
  c.start();
  EXPECT_EQ(dataOf(c), (V{2, 1, 1, /**/ 0, 0, 1, /**/ 2, 1, 1}));
  tagger.pushAndWait({}, 62, 72);
  EXPECT_EQ(dataOf(c), (V{1, 1, 0, /**/ 0, 1, 0, /**/ 1, 1, 0}));

  EXPECT_EQ(fetch(c, &Counter::getIndex), (std::vector<std::int64_t>{0, 10, 20}));
  c.clear();
  EXPECT_EQ(dataOf(c), V(9, 0));
}

TEST(Counter, SetBinPositionEdges) {
  // After a tag at 5, a gap of exactly (n_values + 1) * binwidth to the tag
  // at 50 takes the clear path: the ring is emptied and the grid moves to
  // multiples of binwidth minus 1 ps, so the new bin ends at 59. One
  // picosecond shorter walks the ring to [40,50), which takes 49, and keeps
  // the old grid.
  struct Case {
    std::int64_t tag, edge;
    V before, after;
  };
  for (const Case &c : {Case{50, 59, {0, 0, 0}, {0, 0, 1}}, Case{49, 60, {0, 0, 1}, {0, 1, 0}}}) {
    TestTagger tagger;
    Counter counter(&tagger, {1}, 10, 3);
    tagger.pushAndWait({tt(1, 5)}, 0, 10); // bin [0,10) complete, [10,20) filling
    EXPECT_EQ(dataOf(counter), (V{0, 0, 1}));
    tagger.pushAndWait({tt(1, c.tag)}, 10, 52);
    EXPECT_EQ(dataOf(counter), c.before);
    tagger.pushAndWait({}, 52, c.edge - 1);
    EXPECT_EQ(dataOf(counter), c.before) << c.tag;
    tagger.pushAndWait({}, c.edge - 1, c.edge);
    EXPECT_EQ(dataOf(counter), c.after) << c.tag;
  }
  // n_values 1: a ring of two slots, one reported; an empty channel list still
  // walks the ring and reports no rows.
  {
    TestTagger tagger;
    Counter one(&tagger, {1}, 100, 1);
    Counter none(&tagger, {}, 100, 4);
    tagger.pushAndWait({tt(1, 10), tt(1, 20), tt(1, 150)}, 0, 199);
    EXPECT_EQ(dataOf(one), (V{2}));
    tagger.pushAndWait({}, 199, 200);
    EXPECT_EQ(dataOf(one), (V{1}));
    std::vector<std::size_t> shape;
    EXPECT_TRUE(fetch(none, &Counter::getData, &shape).empty());
    EXPECT_EQ(shape[0], 0u);
  }
}
