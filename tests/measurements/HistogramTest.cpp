#include <chronotick/Histogram.h>

#include "TimeDifferencesReference.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<std::int32_t> dataOf(Histogram &h) {
  std::vector<std::int32_t> out;
  h.getData([&](std::size_t n) {
    out.assign(n, -7);
    return out.data();
  });
  return out;
}

Tag tt(std::int32_t channel, std::int64_t time) {
  return makeTag(channel, time);
}

std::vector<std::vector<Tag>> splitAt(const std::vector<Tag> &tags, const std::vector<std::size_t> &cuts) {
  std::vector<std::vector<Tag>> blocks;
  std::size_t from = 0;
  for (std::size_t cut : cuts) {
    blocks.emplace_back(tags.begin() + static_cast<std::ptrdiff_t>(from),
                        tags.begin() + static_cast<std::ptrdiff_t>(cut));
    from = cut;
  }
  blocks.emplace_back(tags.begin() + static_cast<std::ptrdiff_t>(from), tags.end());
  return blocks;
}

// True if `data` is the histogram of the tags from some block on.
bool isHistogramOfSomeSuffix(const std::vector<std::int32_t> &data, const std::vector<std::vector<Tag>> &blocks,
                             const TimeDifferencesSetup &s) {
  for (std::size_t first = 0; first <= blocks.size(); ++first) {
    std::vector<Tag> suffix;
    for (std::size_t b = first; b < blocks.size(); ++b)
      suffix.insert(suffix.end(), blocks[b].begin(), blocks[b].end());
    if (referenceTimeDifferences(suffix, s).data == data)
      return true;
  }
  return false;
}

} // namespace

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
  EXPECT_EQ(dataOf(self), (std::vector<std::int32_t>{7, 1, 0, 2, 1}));
  EXPECT_EQ(dataOf(cross), (std::vector<std::int32_t>{1, 0, 0, 0, 0}));

  std::vector<std::int64_t> index;
  cross.getIndex([&](std::size_t n) {
    index.resize(n);
    return index.data();
  });
  EXPECT_EQ(index, (std::vector<std::int64_t>{0, 10, 20, 30, 40}));
  EXPECT_TRUE(cross.isRunning());
  EXPECT_EQ(cross.getCaptureDuration(), 500);
  cross.stop();
  EXPECT_FALSE(cross.isRunning());
  cross.clear();
  EXPECT_EQ(dataOf(cross), std::vector<std::int32_t>(5, 0));

  try {
    Histogram bad(&tagger, 1, 2, 10, 0);
    ADD_FAILURE() << "n_bins 0 accepted";
  } catch (const std::invalid_argument &e) {
    EXPECT_STREQ(e.what(), "n_bins must be at least 1");
  }
}

TEST(Histogram, LifecycleThroughTheEngine) {
  RandomStreamShape shape;
  shape.n_channels = 3;
  const std::vector<Tag> tags = randomTagStream(4000, 77, shape);
  const TimeDifferencesSetup s{1, 2, CHANNEL_UNUSED, CHANNEL_UNUSED, 7, 300, 1, 0};
  const std::vector<std::size_t> cuts = randomCuts(tags.size(), 30, 5);
  const std::int64_t end = tags.back().time + 1;

  // startFor ending inside a block sees exactly the tags before the cut.
  {
    TestTagger tagger;
    Histogram h(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    const std::int64_t duration = tags[2345].time + 3 - 0;
    h.startFor(duration);
    tagger.pushCut(tags, cuts, 0, end);
    tagger.waitUntilDone();
    std::vector<Tag> before;
    for (const Tag &t : tags)
      if (t.time < duration)
        before.push_back(t);
    EXPECT_EQ(dataOf(h), referenceTimeDifferences(before, s).data);
    EXPECT_EQ(h.getCaptureDuration(), duration);
    EXPECT_FALSE(h.isRunning());
  }

  // clear between blocks: only what follows counts, with no start carried over.
  {
    TestTagger tagger;
    Histogram h(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    const std::vector<Tag> first(tags.begin(), tags.begin() + 2000);
    const std::vector<Tag> second(tags.begin() + 2000, tags.end());
    tagger.pushAndWait(first, 0, second.front().time);
    h.clear();
    tagger.pushAndWait(second, end);
    EXPECT_EQ(dataOf(h), referenceTimeDifferences(second, s).data);
  }

  // clear while blocks flow, and a histogram built while they flow: each sees
  // the histogram of the blocks from some block on, never a torn block.
  for (int round = 0; round < 3; ++round) {
    TestTagger tagger;
    Histogram early(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    const std::vector<std::vector<Tag>> blocks = splitAt(tags, cuts);
    std::unique_ptr<Histogram> late;
    std::int64_t begin = 0;
    for (std::size_t b = 0; b < blocks.size(); ++b) {
      // A block ends where the next cut is, as pushCut makes them.
      const std::int64_t block_end = b < cuts.size() && cuts[b] < tags.size() ? tags[cuts[b]].time : end;
      tagger.push(blocks[b], begin, block_end);
      begin = block_end;
      if (b == 10 + static_cast<std::size_t>(round))
        early.clear();
      if (b == 12)
        late = std::make_unique<Histogram>(&tagger, s.click, s.start, s.binwidth, s.n_bins);
    }
    tagger.waitUntilDone();
    EXPECT_TRUE(isHistogramOfSomeSuffix(dataOf(early), blocks, s));
    EXPECT_TRUE(isHistogramOfSomeSuffix(dataOf(*late), blocks, s));
  }
}
