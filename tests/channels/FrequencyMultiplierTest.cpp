#include <chronotick/FrequencyMultiplier.h>

#include "support/TestTagger.h"
#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace chronotick::testing {
namespace {

using vcheck::specialTag;
using vcheck::timeTag;

// Batch model: the stream with a copy of every input tag that has an input
// before it in the same stretch, merged with the grid of each period, which
// lasts until the next input, the next break or the end of the stream.
std::vector<Tag> referenceMultiplier(const std::vector<Tag> &stream, std::int32_t input, std::int32_t output,
                                     std::int32_t multiplier, std::int64_t end) {
  std::vector<Tag> with_copies;
  std::vector<std::int64_t> grid;
  std::int64_t previous = 0;
  std::vector<std::int64_t> open_period; // grid of the last period, not yet cut off
  auto close_period = [&](std::int64_t limit) {
    for (std::int64_t g : open_period)
      if (g < limit)
        grid.push_back(g);
    open_period.clear();
  };
  for (const Tag &tag : stream) {
    with_copies.push_back(tag);
    if (tag.type != Tag::Type::TimeTag) {
      close_period(tag.time);
      previous = 0;
      continue;
    }
    if (tag.channel != input)
      continue;
    close_period(tag.time);
    if (previous > 0) {
      with_copies.push_back(timeTag(output, tag.time));
      for (std::int64_t k = 1; k < multiplier; ++k)
        open_period.push_back(tag.time + (tag.time - previous) * k / multiplier);
    }
    previous = tag.time;
  }
  close_period(end);

  std::vector<Tag> out;
  std::size_t g = 0;
  for (const Tag &tag : with_copies) {
    for (; g < grid.size() && grid[g] < tag.time; ++g)
      out.push_back(timeTag(output, grid[g]));
    out.push_back(tag);
  }
  for (; g < grid.size(); ++g)
    out.push_back(timeTag(output, grid[g]));
  return out;
}

TEST(FrequencyMultiplier, MatchesReferenceOnRandomStreamsWhereverBlocksAreCut) {
  std::uint64_t seed = 101;
  for (std::int32_t multiplier : {1, 2, 5, 13}) {
    vcheck::RandomStreamOptions options;
    options.channels = {3, 3, 3, 1, 2, 4, -3};
    options.n_tags = 5000;
    options.mean_gap = 200;
    options.start = 1; // so that a period taken from time 0 would show
    options.equal_time_probability = 0.05;
    std::vector<Tag> stream = vcheck::randomStream(options, ++seed);
    std::int64_t end = stream.back().time + 300;
    for (const auto &cuts : vcheck::cutSets(stream.size(), seed)) {
      std::int32_t output = 0;
      auto blocks = vcheck::runThrough(stream, cuts, end, [&](TestTagger &tagger) {
        auto fm = std::make_shared<FrequencyMultiplier>(&tagger, 3, multiplier);
        output = fm->getChannel();
        return fm;
      });
      SCOPED_TRACE("multiplier " + std::to_string(multiplier) + ", " + std::to_string(cuts.size()) + " cuts");
      EXPECT_TRUE(vcheck::blocksInOrder(blocks));
      std::vector<Tag> expected = referenceMultiplier(stream, 3, output, multiplier, end);
      EXPECT_GT(expected.size(), stream.size() + 1000 * std::size_t(multiplier) / 2);
      EXPECT_TRUE(vcheck::sameTags(expected, vcheck::joined(blocks)));
    }
  }
}

TEST(FrequencyMultiplier, GridFollowsTheLastPeriod) {
  TestTagger tagger;
  FrequencyMultiplier times_one(&tagger, 1, 0);
  FrequencyMultiplier negative(&tagger, 1, -3);
  EXPECT_EQ(times_one.getMultiplier(), 1);
  EXPECT_EQ(negative.getMultiplier(), 1);
  negative.stop();
  FrequencyMultiplier fm(&tagger, 1, 4);
  EXPECT_EQ(fm.getMultiplier(), 4);
  EXPECT_EQ(tagger.registrations(1), 3);
  vcheck::OutputRecorder recorder(&tagger);
  const std::int32_t one = times_one.getChannel();
  const std::int32_t out = fm.getChannel();
  EXPECT_NE(one, out);

  // The first input only starts the period; the second gives the first
  // output, and its grid spreads over the blocks in which it falls.
  tagger.pushAndWait({timeTag(1, 1000)}, 0, 1500);
  tagger.pushAndWait({timeTag(1, 2000), timeTag(2, 2100)}, 1500, 2250);
  tagger.pushAndWait({}, 2250, 2600);
  auto blocks = recorder.blocks();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_TRUE(vcheck::sameTags({timeTag(1, 1000)}, blocks[0].tags));
  // 2250 lies at the block's end and waits for the next block.
  EXPECT_TRUE(
      vcheck::sameTags({timeTag(1, 2000), timeTag(out, 2000), timeTag(one, 2000), timeTag(2, 2100)}, blocks[1].tags));
  EXPECT_TRUE(vcheck::sameTags({timeTag(out, 2250), timeTag(out, 2500)}, blocks[2].tags));

  // A grid tag at the time of a stream tag follows it.
  tagger.pushAndWait({timeTag(2, 2750), timeTag(1, 2900)}, 2600, 3200);
  EXPECT_TRUE(vcheck::sameTags({timeTag(2, 2750), timeTag(out, 2750), timeTag(1, 2900), timeTag(out, 2900),
                                timeTag(one, 2900), timeTag(out, 3125)},
                               recorder.blocks().back().tags));
  // An early input drops the rest of the grid (3575) and starts a period of
  // 500; a late one finds the grid stopped after multiplier - 1 tags.
  tagger.pushAndWait({timeTag(1, 3400)}, 3200, 3500);
  EXPECT_TRUE(vcheck::sameTags({timeTag(out, 3350), timeTag(1, 3400), timeTag(out, 3400), timeTag(one, 3400)},
                               recorder.blocks().back().tags));
  tagger.pushAndWait({timeTag(1, 5000)}, 3500, 5001);
  EXPECT_TRUE(vcheck::sameTags({timeTag(out, 3525), timeTag(out, 3650), timeTag(out, 3775), timeTag(1, 5000),
                                timeTag(out, 5000), timeTag(one, 5000)},
                               recorder.blocks().back().tags));

  // A break stops the grid until two more inputs have come; a grid tag due
  // before the break still comes out.
  tagger.pushAndWait({timeTag(2, 5100), specialTag(Tag::Type::OverflowBegin, 5600), timeTag(1, 6000),
                      specialTag(Tag::Type::OverflowEnd, 6100), timeTag(1, 7000), timeTag(1, 7400)},
                     5001, 7500);
  EXPECT_TRUE(vcheck::sameTags({timeTag(2, 5100), timeTag(out, 5400), specialTag(Tag::Type::OverflowBegin, 5600),
                                timeTag(1, 6000), specialTag(Tag::Type::OverflowEnd, 6100), timeTag(1, 7000),
                                timeTag(1, 7400), timeTag(out, 7400), timeTag(one, 7400)},
                               recorder.blocks().back().tags));
  tagger.pushAndWait({}, 7500, 8000);
  EXPECT_TRUE(
      vcheck::sameTags({timeTag(out, 7500), timeTag(out, 7600), timeTag(out, 7700)}, recorder.blocks().back().tags));
}

TEST(FrequencyMultiplier, InputAtTimeZeroCountsAsNone) {
  TestTagger tagger;
  FrequencyMultiplier fm(&tagger, 1, 2);
  vcheck::OutputRecorder recorder(&tagger);
  const std::int32_t out = fm.getChannel();
  tagger.pushAndWait({timeTag(1, 0), timeTag(1, 1000), timeTag(1, 2000)}, 0, 3000);
  EXPECT_TRUE(
      vcheck::sameTags({timeTag(1, 0), timeTag(1, 1000), timeTag(1, 2000), timeTag(out, 2000), timeTag(out, 2500)},
                       vcheck::joined(recorder.blocks())));
}

} // namespace
} // namespace chronotick::testing
