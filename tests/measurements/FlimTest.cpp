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
      const TimeDifferencesResult e =
          referenceTimeDifferences(tags, {1, 2, 3, CHANNEL_UNUSED, binwidth, n_bins, pixels, 0});
      // The frame count is that of the underlying passes.
      const auto read = [](Flim &f) {
        return std::make_pair(dataOf(f), static_cast<TimeDifferences &>(f).getCounts());
      };
      for (const auto &cuts : cutSets(tags.size(), 25, seed))
        EXPECT_EQ(runCut<Flim>(tags, cuts, read, 1, 2, 3, binwidth, n_bins, pixels), std::make_pair(e.data, e.counts))
            << "binwidth " << binwidth << " pixels " << pixels << " cuts " << cuts.size();
    }
  }
}

TEST(Flim, IndexAndClear) {
  TestTagger tagger;
  Flim flim(&tagger, 1, 2, 3, 10, 10, 2);
  tagger.pushAndWait({tt(3, 1000), tt(2, 1010), tt(1, 1042)}, 0, 2000);
  EXPECT_EQ(total(dataOf(flim)), 1);
  EXPECT_EQ(fetch(flim, &Flim::getIndex), (std::vector<std::int64_t>{0, 10, 20, 30, 40, 50, 60, 70, 80, 90}));
  flim.clear();
  EXPECT_EQ(dataOf(flim), V(20, 0));
}
