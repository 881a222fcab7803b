#include <chronotick/GatedChannel.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// The gate is open at index i if the latest start, stop or break at or before
// i is a start; a stop or break at i itself closes it.
bool gateOpenAt(const std::vector<Tag> &stream, std::size_t i, std::int32_t start, std::int32_t stop) {
  for (std::size_t j = i + 1; j-- > 0;) {
    if (stream[j].type != Tag::Type::TimeTag || stream[j].channel == stop)
      return false;
    if (stream[j].channel == start)
      return true;
  }
  return false;
}

std::vector<Tag> referenceGate(const std::vector<Tag> &stream, std::int32_t input, std::int32_t start,
                               std::int32_t stop, std::int32_t output) {
  std::vector<Tag> out;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    out.push_back(stream[i]);
    if (stream[i].type == Tag::Type::TimeTag && stream[i].channel == input && gateOpenAt(stream, i, start, stop))
      out.push_back(makeTag(output, stream[i].time));
  }
  return out;
}

} // namespace

TEST(GatedChannel, MatchesReferenceWhateverTheCuts) {
  struct Gate {
    std::int32_t input, start, stop;
  };
  RandomStreamShape shape;
  shape.lone_missed = 0.002;
  for (const Gate gate : {Gate{1, 2, 3}, Gate{1, 1, 3}, Gate{1, 2, 1}, Gate{4, 6, 5}}) {
    for (std::uint64_t seed = 1; seed <= 2; ++seed) {
      const auto stream = randomTagStream(5000, seed * 13, shape);
      const auto [outputs, channels] =
          runCut<GatedChannel>(stream, stream.back().time + 1, seed, gate.input, gate.start, gate.stop);
      const auto expected = referenceGate(stream, gate.input, gate.start, gate.stop, channels[0]);
      for (const auto &out : outputs)
        EXPECT_EQ(firstDifference(out, expected), "") << "gate " << gate.start << "/" << gate.stop << " seed " << seed;
    }
  }
}

TEST(GatedChannel, GateRules) {
  TestTagger tagger;
  GatedChannel gated(&tagger, 1, 2, 3);
  BlockRecorder recorder(&tagger);
  const std::int32_t out = gated.getChannel();
  // The gate outlives clear, stop and start, and block boundaries.
  tagger.pushAndWait({makeTag(2, 110)}, 0, 200);
  gated.clear();
  gated.stop();
  gated.start();
  tagger.pushAndWait({makeTag(1, 250)}, 300);
  EXPECT_EQ(recorder.times(out), Times{250});
}
