#include <chronotick/Flim.h>

#include "TimeDifferencesReference.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<std::int32_t> dataOf(Flim &flim) {
  std::vector<std::int32_t> out;
  flim.getData([&](std::size_t rows, std::size_t bins) {
    out.assign(rows * bins, -7);
    return out.data();
  });
  return out;
}

Tag tt(std::int32_t channel, std::int64_t time) {
  return makeTag(channel, time);
}

} // namespace

TEST(Flim, MatchesDirectPairsPerPixelWhateverTheBlockCuts) {
  // Photons on 1, laser on 2, pixel clock on 3; the bin widths take the
  // binner through its multiplier, shift and identity forms.
  RandomStreamShape shape;
  shape.n_channels = 3;
  std::uint64_t seed = 40;
  for (std::int64_t binwidth : {1, 8, 3, 13}) {
    for (std::int32_t pixels : {1, 4, 9}) {
      const std::vector<Tag> tags = randomTagStream(3000, ++seed, shape);
      const TimeDifferencesSetup s{1,      2, 3, CHANNEL_UNUSED, binwidth, 2000 / static_cast<std::int32_t>(binwidth),
                                   pixels, 0};
      const std::vector<std::int32_t> expected = referenceTimeDifferences(tags, s).data;
      for (int variant = 0; variant < 2; ++variant) {
        TestTagger tagger;
        Flim flim(&tagger, s.click, s.start, s.next, s.binwidth, s.n_bins, s.n_histograms);
        const std::vector<std::size_t> cuts =
            variant == 0 ? std::vector<std::size_t>{} : randomCuts(tags.size(), 25, seed);
        tagger.pushCut(tags, cuts, 0, tags.back().time + 1);
        tagger.waitUntilDone();
        EXPECT_EQ(dataOf(flim), expected) << "binwidth " << binwidth << " pixels " << pixels << " cuts " << cuts.size();
      }
    }
  }
}

TEST(Flim, FramesPixelsAndBreaks) {
  TestTagger tagger;
  Flim flim(&tagger, 1, 2, 3, 10, 10, 2);
  // Before the first pixel clock nothing is recorded.
  tagger.pushAndWait({tt(2, 100), tt(1, 120)}, 0, 200);
  EXPECT_EQ(dataOf(flim), std::vector<std::int32_t>(20, 0));

  // Pixel 0, then a photon just after the next pixel clock still belongs to
  // the pulse of pixel 0; frames wrap into the same rows.
  tagger.pushAndWait({tt(3, 1000), tt(2, 1010), tt(3, 1040), tt(1, 1042), // pixel 0, bin 3
                      tt(2, 1050), tt(1, 1061),                           // pixel 1, bin 1; and pixel 0, bin 5
                      tt(3, 2000), tt(2, 2010), tt(1, 2015),              // wraps: pixel 0, bin 0
                      makeTag(0, 2100, Tag::Type::OverflowBegin), makeTag(0, 2200, Tag::Type::OverflowEnd), tt(3, 3000),
                      tt(2, 3010), tt(1, 3029)}, // after a break: pixel 0 again, bin 1
                     200, 4000);
  std::vector<std::int32_t> expected(20, 0);
  expected[3] = 1;
  expected[5] = 1;
  expected[0] = 1;
  expected[1] = 1;
  expected[10 + 1] = 1;
  EXPECT_EQ(dataOf(flim), expected);
  // The frame count of the underlying passes went up at the wrap only.
  EXPECT_EQ(static_cast<TimeDifferences &>(flim).getCounts(), 1u);

  std::vector<std::int64_t> index;
  flim.getIndex([&](std::size_t n) {
    index.resize(n);
    return index.data();
  });
  EXPECT_EQ(index.size(), 10u);
  EXPECT_EQ(index[9], 90);

  flim.clear();
  EXPECT_EQ(dataOf(flim), std::vector<std::int32_t>(20, 0));
  try {
    Flim bad(&tagger, 1, 2, 3, 10, 10, 0);
    ADD_FAILURE() << "n_histograms 0 accepted";
  } catch (const std::invalid_argument &e) {
    EXPECT_STREQ(e.what(), "n_histograms must be at least 1");
  }
}
