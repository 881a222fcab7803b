#include <chronotick/Flim.h>

#include "TimeDifferencesReference.h"
#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;
using V = std::vector<std::int32_t>;

static const auto dataOf = [](Flim &f) { return fetch(f, &Flim::getData); };

TEST(Flim, MatchesDirectPairsPerPixelWhateverTheBlockCuts) {
  // Photons on 1, laser on 2, pixel clock on 3; the bin widths take the
  // binner through its multiplier, shift and identity forms.
  RandomStreamShape shape;
  shape.n_channels = 3;
  std::uint64_t seed = 40;
  for (std::int64_t binwidth : {1, 8, 3, 13}) {
    for (std::int32_t pixels : {1, 4, 9}) {
      const std::vector<Tag> tags = randomTagStream(3000, ++seed, shape);
      const std::int32_t n_bins = 2000 / std::int32_t(binwidth);
      const V expected = referenceTimeDifferences(tags, {1, 2, 3, CHANNEL_UNUSED, binwidth, n_bins, pixels, 0}).data;
      for (const auto &cuts : cutSets(tags.size(), 25, seed))
        EXPECT_EQ(runCut<Flim>(tags, cuts, dataOf, 1, 2, 3, binwidth, n_bins, pixels), expected)
            << "binwidth " << binwidth << " pixels " << pixels << " cuts " << cuts.size();
    }
  }
}

TEST(Flim, FramesPixelsAndBreaks) {
  TestTagger tagger;
  Flim flim(&tagger, 1, 2, 3, 10, 10, 2);
  // Before the first pixel clock nothing is recorded.
  tagger.pushAndWait({tt(2, 100), tt(1, 120)}, 0, 200);
  EXPECT_EQ(dataOf(flim), V(20, 0));

  // Pixel 0, then a photon just after the next pixel clock still belongs to
  // the pulse of pixel 0; frames wrap into the same rows.
  tagger.pushAndWait({tt(3, 1000), tt(2, 1010), tt(3, 1040), tt(1, 1042), // pixel 0, bin 3
                      tt(2, 1050), tt(1, 1061),                           // pixel 1, bin 1; and pixel 0, bin 5
                      tt(3, 2000), tt(2, 2010), tt(1, 2015),              // wraps: pixel 0, bin 0
                      makeTag(0, 2100, Tag::Type::OverflowBegin), makeTag(0, 2200, Tag::Type::OverflowEnd), tt(3, 3000),
                      tt(2, 3010), tt(1, 3029)}, // after a break: pixel 0 again, bin 1
                     200, 4000);
  EXPECT_EQ(dataOf(flim), (V{1, 1, 0, 1, 0, 1, 0, 0, 0, 0, /**/ 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
  // The frame count of the underlying passes went up at the wrap only.
  EXPECT_EQ(static_cast<TimeDifferences &>(flim).getCounts(), 1u);
  EXPECT_EQ(fetch(flim, &Flim::getIndex), (std::vector<std::int64_t>{0, 10, 20, 30, 40, 50, 60, 70, 80, 90}));
  flim.clear();
  EXPECT_EQ(dataOf(flim), V(20, 0));
  EXPECT_EQ(messageOf([&] { Flim(&tagger, 1, 2, 3, 10, 10, 0); }), "n_histograms must be at least 1");
}
