#include <chronotick/Histogram2D.h>

#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

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

std::vector<std::int32_t> dataOf(Histogram2D &h, std::size_t expect_rows, std::size_t expect_cols) {
  std::vector<std::int32_t> out;
  h.getData([&](std::size_t rows, std::size_t cols) {
    EXPECT_EQ(rows, expect_rows);
    EXPECT_EQ(cols, expect_cols);
    out.resize(rows * cols);
    return out.data();
  });
  return out;
}

// The latest start and the latest stops since it; a break forgets all, a
// start forgets the stops, a full triple is binned and forgotten.
std::vector<std::int32_t> reference2D(const std::vector<Tag> &stream, std::int32_t start, std::int32_t stop1,
                                      std::int32_t stop2, std::int64_t bw1, std::int64_t bw2, std::int32_t n1,
                                      std::int32_t n2) {
  std::vector<std::int32_t> data(static_cast<std::size_t>(n1 * n2), 0);
  bool have_s = false, have_a = false, have_b = false;
  std::int64_t s = 0, a = 0, b = 0;
  for (const Tag &tag : stream) {
    if (tag.type != Tag::Type::TimeTag) {
      have_s = have_a = have_b = false;
      continue;
    }
    if (tag.channel == start) {
      have_s = true, s = tag.time;
      have_a = have_b = false;
    }
    if (tag.channel == stop1)
      have_a = true, a = tag.time;
    if (tag.channel == stop2)
      have_b = true, b = tag.time;
    if (have_s && have_a && have_b) {
      const std::int64_t i = (a - s) / bw1, j = (b - s) / bw2;
      if (i < n1 && j < n2)
        ++data[static_cast<std::size_t>(i * n2 + j)];
      have_s = have_a = have_b = false;
    }
  }
  return data;
}

} // namespace

TEST(Histogram2DTest, MatchesTripleModelWhateverTheBlockCuts) {
  struct Case {
    std::int32_t start, stop1, stop2;
    std::int64_t bw1, bw2;
    std::int32_t n1, n2;
  };
  // Distinct channels; start doubling as the first stop; few bins, so that
  // triples out of range are dropped too.
  const Case cases[] = {{1, 2, 3, 37, 50, 40, 30}, {1, 1, 2, 64, 10, 20, 100}, {3, 2, 4, 200, 200, 3, 4}};
  RandomStreamShape shape;
  shape.n_channels = 4;
  const std::vector<Tag> stream = randomTagStream(30000, 5, shape);
  const std::int64_t end = stream.back().time + 1;
  for (const Case &c : cases) {
    const auto expected = reference2D(stream, c.start, c.stop1, c.stop2, c.bw1, c.bw2, c.n1, c.n2);
    std::int64_t total = 0;
    for (auto v : expected)
      total += v;
    EXPECT_GT(total, 100);
    for (std::uint64_t seed : {1u, 2u}) {
      TestTagger tagger;
      Histogram2D h(&tagger, c.start, c.stop1, c.stop2, c.bw1, c.bw2, c.n1, c.n2);
      settle(tagger);
      tagger.pushCut(stream, randomCuts(stream.size(), seed * 150, seed), 0, end);
      tagger.waitUntilDone();
      EXPECT_EQ(dataOf(h, static_cast<std::size_t>(c.n1), static_cast<std::size_t>(c.n2)), expected);
      h.stop();
    }
  }
}

TEST(Histogram2DTest, TripleRulesAndIndex) {
  TestTagger tagger;
  Histogram2D h(&tagger, 1, 2, 3, 10, 100, 5, 4);
  settle(tagger);
  auto bin = [](int i, int j) { return static_cast<std::size_t>(i * 4 + j); };
  std::vector<std::int32_t> expected(20, 0);

  // start, stop 1, stop 2 and start, stop 2, stop 1: the same bin.
  tagger.pushAndWait({makeTag(1, 1000), makeTag(2, 1015), makeTag(3, 1250)}, 0, 2000);
  tagger.pushAndWait({makeTag(1, 3000), makeTag(3, 3250), makeTag(2, 3015)}, 2000, 4000);
  expected[bin(1, 2)] = 2;
  EXPECT_EQ(dataOf(h, 5, 4), expected);

  // The latest stop 1 counts; a second start drops a held stop 1.
  tagger.pushAndWait({makeTag(1, 5000), makeTag(2, 5010), makeTag(2, 5020), makeTag(3, 5030)}, 4000, 6000);
  expected[bin(2, 0)] += 1;
  tagger.pushAndWait({makeTag(1, 7000), makeTag(2, 7010), makeTag(1, 7020), makeTag(3, 7030)}, 6000, 8000);
  EXPECT_EQ(dataOf(h, 5, 4), expected);
  // The stop 1 of the next block completes the triple of the start at 7020,
  // with i = 100: out of range, dropped.
  tagger.pushAndWait({makeTag(2, 8020)}, 8000, 9000);
  EXPECT_EQ(dataOf(h, 5, 4), expected);

  // A triple out of range is dropped and needs a new start; so does one cut
  // by a MissedEvents record; a lone stop after a triple only sets its flag.
  tagger.pushAndWait({makeTag(1, 10000), makeTag(2, 10050), makeTag(3, 10400), makeTag(2, 10060), makeTag(3, 10070)},
                     9000, 11000);
  tagger.pushAndWait(
      {makeTag(1, 12000), makeTag(2, 12010), makeTag(0, 12011, Tag::Type::MissedEvents), makeTag(3, 12020)}, 11000,
      13000);
  EXPECT_EQ(dataOf(h, 5, 4), expected);
  tagger.pushAndWait({makeTag(1, 14000), makeTag(2, 14049), makeTag(3, 14399), makeTag(3, 14500), makeTag(2, 14501)},
                     13000, 15000);
  expected[bin(4, 3)] += 1;
  EXPECT_EQ(dataOf(h, 5, 4), expected);

  h.clear();
  settle(tagger);
  EXPECT_EQ(dataOf(h, 5, 4), std::vector<std::int32_t>(20, 0));

  std::vector<std::int64_t> index, index1, index2;
  h.getIndex([&](std::size_t a, std::size_t b, std::size_t c) {
    EXPECT_EQ(c, 2u);
    index.resize(a * b * c);
    return index.data();
  });
  h.getIndex_1([&](std::size_t n) {
    index1.resize(n);
    return index1.data();
  });
  h.getIndex_2([&](std::size_t n) {
    index2.resize(n);
    return index2.data();
  });
  EXPECT_EQ(index1, (std::vector<std::int64_t>{0, 10, 20, 30, 40}));
  EXPECT_EQ(index2, (std::vector<std::int64_t>{0, 100, 200, 300}));
  ASSERT_EQ(index.size(), 40u);
  EXPECT_EQ(index[2 * bin(3, 2)], 30);
  EXPECT_EQ(index[2 * bin(3, 2) + 1], 200);
  h.stop();
}
