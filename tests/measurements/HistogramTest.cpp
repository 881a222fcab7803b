#include <chronotick/Histogram.h>

#include "TimeDifferencesReference.h"
#include "support/MeasurementHelpers.h"

#include <memory>

using namespace chronotick;
using namespace chronotick::testing;
using V = std::vector<std::int32_t>;

TEST(Histogram, SameChannelCoincidentTagsAndShape) {
  TestTagger tagger;
  // Start and click on one channel: every tag pairs with itself in bin 0 and
  // with the earlier tags in range.
  Histogram self(&tagger, 1, CHANNEL_UNUSED, 10, 5);
  // A click at the time of a start on another channel: bin 0 if the start
  // stands first in the block, nothing if the click does.
  Histogram cross(&tagger, 1, 2, 10, 5);
  tagger.pushAndWait({tt(1, 100), tt(1, 112), tt(1, 149), tt(1, 150), tt(2, 300), tt(1, 300), tt(1, 400), tt(2, 400)},
                     0, 500);
  EXPECT_EQ(fetch(self, &Histogram::getData), (V{7, 1, 0, 2, 1}));
  EXPECT_EQ(fetch(cross, &Histogram::getData), (V{1, 0, 0, 0, 0}));
  EXPECT_EQ(fetch(cross, &Histogram::getIndex), (std::vector<std::int64_t>{0, 10, 20, 30, 40}));
  cross.clear();
  EXPECT_EQ(fetch(cross, &Histogram::getData), V(5, 0));
}

TEST(Histogram, LifecycleThroughTheEngine) {
  RandomStreamShape shape;
  shape.n_channels = 3;
  const std::vector<Tag> tags = randomTagStream(4000, 77, shape);
  const TimeDifferencesSetup s{1, 2, CHANNEL_UNUSED, CHANNEL_UNUSED, 7, 300, 1, 0};
  auto expected = [&](auto from, auto to) { return referenceTimeDifferences(std::vector<Tag>(from, to), s).data; };
  const std::vector<std::size_t> cuts = randomCuts(tags.size(), 30, 5);
  const std::int64_t end = tags.back().time + 1;

  // startFor ending inside a block sees exactly the tags before the cut.
  {
    TestTagger tagger;
    Histogram h(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    const std::int64_t duration = tags[2345].time + 3;
    h.startFor(duration);
    tagger.pushCut(tags, cuts, 0, end);
    tagger.waitUntilDone();
    const auto cut = std::find_if(tags.begin(), tags.end(), [&](const Tag &t) { return t.time >= duration; });
    EXPECT_EQ(fetch(h, &Histogram::getData), expected(tags.begin(), cut));
    EXPECT_EQ(h.getCaptureDuration(), duration);
    EXPECT_FALSE(h.isRunning());
  }
  // clear between blocks: only what follows counts, with no start carried over.
  {
    TestTagger tagger;
    Histogram h(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    tagger.pushAndWait({tags.begin(), tags.begin() + 2000}, 0, tags[2000].time);
    h.clear();
    tagger.pushAndWait({tags.begin() + 2000, tags.end()}, end);
    EXPECT_EQ(fetch(h, &Histogram::getData), expected(tags.begin() + 2000, tags.end()));
  }
  // clear while blocks flow, and a histogram built while they flow: each sees
  // the histogram of the tags from some block on, never a torn block.
  std::vector<std::size_t> starts = {0};
  starts.insert(starts.end(), cuts.begin(), cuts.end());
  auto ofSomeSuffix = [&](const V &data) {
    for (std::size_t from : starts)
      if (expected(tags.begin() + std::ptrdiff_t(from), tags.end()) == data)
        return true;
    return false;
  };
  for (std::size_t round = 0; round < 3; ++round) {
    TestTagger tagger;
    Histogram early(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    std::unique_ptr<Histogram> late;
    for (std::size_t b = 0; b < starts.size(); ++b) {
      // A block ends where the next one starts, as pushCut makes them.
      const std::size_t to = b + 1 < starts.size() ? starts[b + 1] : tags.size();
      tagger.push({tags.begin() + std::ptrdiff_t(starts[b]), tags.begin() + std::ptrdiff_t(to)},
                  to < tags.size() ? tags[to].time : end);
      if (b == 10 + round)
        early.clear();
      if (b == 12)
        late = std::make_unique<Histogram>(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    }
    tagger.waitUntilDone();
    EXPECT_TRUE(ofSomeSuffix(fetch(early, &Histogram::getData)));
    EXPECT_TRUE(ofSomeSuffix(fetch(*late, &Histogram::getData)));
  }
}
