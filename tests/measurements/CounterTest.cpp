#include <chronotick/Counter.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<std::int32_t> dataOf(Counter &c, std::size_t *rows = nullptr) {
  std::vector<std::int32_t> out;
  c.getData([&](std::size_t n_rows, std::size_t n) {
    if (rows)
      *rows = n_rows;
    out.assign(n_rows * n, -7);
    return out.data();
  });
  return out;
}

Tag tt(std::int32_t channel, std::int64_t time) {
  return makeTag(channel, time);
}

using V = std::vector<std::int32_t>;

} // namespace

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

  std::vector<std::int64_t> index;
  c.getIndex([&](std::size_t n) {
    index.resize(n);
    return index.data();
  });
  EXPECT_EQ(index, (std::vector<std::int64_t>{0, 10, 20}));
  c.clear();
  EXPECT_EQ(dataOf(c), V(9, 0));
}

TEST(Counter, SetBinPositionEdges) {
  // A gap of exactly (n_values + 1) * binwidth takes the clear path: the ring
  // is emptied and the grid moves to multiples of binwidth minus 1 ps.
  {
    TestTagger tagger;
    Counter c(&tagger, {1}, 10, 3);
    tagger.pushAndWait({tt(1, 5)}, 0, 10); // bin [0,10) complete, [10,20) filling
    EXPECT_EQ(dataOf(c), (V{0, 0, 1}));
    tagger.pushAndWait({tt(1, 50)}, 10, 52); // 50 = 10 + 4 * 10
    EXPECT_EQ(dataOf(c), (V{0, 0, 0}));
    tagger.pushAndWait({}, 52, 58); // the new bin began at 49 and ends at 59
    EXPECT_EQ(dataOf(c), (V{0, 0, 0}));
    tagger.pushAndWait({}, 58, 59);
    EXPECT_EQ(dataOf(c), (V{0, 0, 1}));
  }
  // One picosecond shorter walks the ring and keeps the old grid.
  {
    TestTagger tagger;
    Counter c(&tagger, {1}, 10, 3);
    tagger.pushAndWait({tt(1, 5)}, 0, 10);
    tagger.pushAndWait({tt(1, 49)}, 10, 52); // the ring walks to [40,50), which takes 49
    EXPECT_EQ(dataOf(c), (V{0, 0, 1}));
    tagger.pushAndWait({}, 52, 59);
    EXPECT_EQ(dataOf(c), (V{0, 0, 1}));
    tagger.pushAndWait({}, 59, 60);
    EXPECT_EQ(dataOf(c), (V{0, 1, 0}));
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
    std::size_t rows = 99;
    EXPECT_TRUE(dataOf(none, &rows).empty());
    EXPECT_EQ(rows, 0u);
  }
  // Checks, binwidth first, before any channel is registered.
  TestTagger tagger;
  auto message = [&](std::int64_t bw, std::int32_t n) -> std::string {
    try {
      Counter c(&tagger, {3}, bw, n);
    } catch (const std::invalid_argument &e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(message(0, 0), "binwidth must be at least 1 ps");
  EXPECT_EQ(message(1, 0), "n_values must be at least 1");
  EXPECT_EQ(tagger.registrations(3), 0);
}
