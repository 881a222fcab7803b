#include <chronotick/FrequencyMultiplier.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// Batch model: the stream with a copy of every input tag that has an input
// before it in the same stretch, merged with the grid of each period (after
// the tags of its time), which lasts until the next input, break or the end.
std::vector<Tag> referenceMultiplier(const std::vector<Tag> &stream, std::int32_t input, std::int32_t output,
                                     std::int32_t multiplier, std::int64_t end) {
  std::vector<Tag> out;
  std::vector<std::int64_t> grid; // of the last period, not yet cut off
  std::size_t g = 0;
  auto emitGridBefore = [&](std::int64_t limit, bool cut_off) {
    for (; g < grid.size() && grid[g] < limit; ++g)
      out.push_back(makeTag(output, grid[g]));
    if (cut_off)
      grid.resize(g);
  };
  std::int64_t previous = 0; // 0: none
  for (const Tag &tag : stream) {
    const bool input_or_break = tag.type != Tag::Type::TimeTag || tag.channel == input;
    emitGridBefore(tag.time, input_or_break);
    out.push_back(tag);
    if (tag.type != Tag::Type::TimeTag)
      previous = 0;
    if (tag.type != Tag::Type::TimeTag || tag.channel != input)
      continue;
    if (previous > 0) {
      out.push_back(makeTag(output, tag.time));
      for (std::int64_t k = 1; k < multiplier; ++k)
        grid.push_back(tag.time + (tag.time - previous) * k / multiplier);
    }
    previous = tag.time;
  }
  emitGridBefore(end, true);
  return out;
}

} // namespace

TEST(FrequencyMultiplier, MatchesReferenceWhateverTheCuts) {
  std::uint64_t seed = 101;
  for (std::int32_t multiplier : {1, 2, 5, 13}) {
    RandomStreamShape shape;
    shape.channels = {3, 3, 3, 1, 2, 4, -3};
    shape.lone_missed = 0.001;
    const auto stream = randomTagStream(5000, ++seed, shape);
    const std::int64_t end = stream.back().time + 300;
    const auto [outputs, channels] = runCut<FrequencyMultiplier>(stream, end, seed, 3, multiplier);
    const auto expected = referenceMultiplier(stream, 3, channels[0], multiplier, end);
    EXPECT_GT(expected.size(), stream.size() + 1000 * std::size_t(multiplier) / 2);
    for (const auto &out : outputs)
      EXPECT_EQ(firstDifference(out, expected), "") << "multiplier " << multiplier;
  }
}

TEST(FrequencyMultiplier, MultiplierAndFirstInputRules) {
  TestTagger tagger;
  EXPECT_EQ(FrequencyMultiplier(&tagger, 1, 0).getMultiplier(), 1);
  EXPECT_EQ(FrequencyMultiplier(&tagger, 1, -3).getMultiplier(), 1);
  FrequencyMultiplier fm(&tagger, 1, 2);
  EXPECT_EQ(tagger.registrations(1), 1);
  BlockRecorder recorder(&tagger);
  const std::int32_t out = fm.getChannel();
  // The first input only starts the period, and an input at time 0 counts as none.
  tagger.pushAndWait({makeTag(1, 0), makeTag(1, 1000), makeTag(1, 2000)}, 0, 3000);
  EXPECT_EQ(firstDifference(recorder.tags(), {makeTag(1, 0), makeTag(1, 1000), makeTag(1, 2000), makeTag(out, 2000),
                                              makeTag(out, 2500)}),
            "");
}
