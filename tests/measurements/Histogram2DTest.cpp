#include <chronotick/Histogram2D.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using V = std::vector<std::int32_t>;

const auto dataOf = [](Histogram2D &h) { return fetch(h, &Histogram2D::getData); };

// The latest start and the latest stops since it; a break forgets all, a
// start forgets the stops, a full triple is binned and forgotten.
V reference2D(const std::vector<Tag> &stream, std::int32_t start, std::int32_t stop1, std::int32_t stop2,
              std::int64_t bw1, std::int64_t bw2, std::int32_t n1, std::int32_t n2) {
  V data(static_cast<std::size_t>(n1 * n2), 0);
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
  for (const Case &c : cases) {
    const auto expected = reference2D(stream, c.start, c.stop1, c.stop2, c.bw1, c.bw2, c.n1, c.n2);
    EXPECT_GT(total(expected), 100);
    for (std::uint64_t seed : {1u, 2u})
      EXPECT_EQ(runCut<Histogram2D>(stream, randomCuts(stream.size(), seed * 150, seed), dataOf, c.start, c.stop1,
                                    c.stop2, c.bw1, c.bw2, c.n1, c.n2),
                expected);
  }
}

TEST(Histogram2DTest, TripleRulesAndIndex) {
  TestTagger tagger;
  Histogram2D h(&tagger, 1, 2, 3, 10, 100, 5, 4);
  auto bin = [](int i, int j) { return static_cast<std::size_t>(i * 4 + j); };
  V expected(20, 0);

  // start, stop 1, stop 2 and start, stop 2, stop 1: the same bin. The
  // latest stop 1 counts; a second start drops a held stop 1. A triple out
  // of range is dropped and needs a new start; so does one cut by a
  // MissedEvents record; a lone stop after a triple only sets its flag.
  const Tag missed = makeTag(0, 12011, Tag::Type::MissedEvents);
  tagger.pushAndWait({tt(1, 1000),  tt(2, 1015),  tt(3, 1250),  tt(1, 3000),  tt(3, 3250),  tt(2, 3015),  tt(1, 5000),
                      tt(2, 5010),  tt(2, 5020),  tt(3, 5030),  tt(1, 7000),  tt(2, 7010),  tt(1, 7020),  tt(3, 7030),
                      tt(1, 10000), tt(2, 10050), tt(3, 10400), tt(2, 10060), tt(3, 10070), tt(1, 12000), tt(2, 12010),
                      missed,       tt(3, 12020), tt(1, 14000), tt(2, 14049), tt(3, 14399), tt(3, 14500), tt(2, 14501)},
                     0, 15000);
  expected[bin(1, 2)] = 2;
  expected[bin(2, 0)] = 1;
  expected[bin(4, 3)] = 1;
  std::vector<std::size_t> shape;
  EXPECT_EQ(fetch(h, &Histogram2D::getData, &shape), expected);
  EXPECT_EQ(shape, (std::vector<std::size_t>{5, 4}));
  // The stop 1 of the next block completes the triple of the start at
  // 15000 with i = 100: out of range, dropped.
  tagger.pushAndWait({tt(1, 15000), tt(3, 15010)}, 15000, 16000);
  tagger.pushAndWait({tt(2, 16000)}, 16000, 17000);
  EXPECT_EQ(dataOf(h), expected);

  h.clear();
  EXPECT_EQ(dataOf(h), V(20, 0));

  using I = std::vector<std::int64_t>;
  EXPECT_EQ(fetch(h, &Histogram2D::getIndex_1), (I{0, 10, 20, 30, 40}));
  EXPECT_EQ(fetch(h, &Histogram2D::getIndex_2), (I{0, 100, 200, 300}));
  const I index = fetch(h, &Histogram2D::getIndex, &shape);
  EXPECT_EQ(shape, (std::vector<std::size_t>{5, 4, 2}));
  EXPECT_EQ(index[2 * bin(3, 2)], 30);
  EXPECT_EQ(index[2 * bin(3, 2) + 1], 200);
}
