#include <chronotick/Combiner.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// Each tag of an input, MissedEvents records too, is followed by one copy per
// time its channel is listed.
std::vector<Tag> referenceCombiner(const std::vector<Tag> &stream, const std::vector<std::int32_t> &inputs,
                                   std::int32_t output) {
  std::vector<Tag> out;
  for (const Tag &tag : stream) {
    out.push_back(tag);
    for (std::int32_t input : inputs)
      if (input == tag.channel)
        out.push_back(makeTag(output, tag.time, tag.type, tag.missed_events));
  }
  return out;
}

} // namespace

TEST(Combiner, MatchesReferenceWhateverTheCuts) {
  const std::vector<std::int32_t> inputs{2, 5, 2, 7, -3};
  RandomStreamShape shape;
  shape.channels = {1, 2, 3, -3, 4, 5, 6, 7};
  shape.lone_missed = 0.002;
  for (std::uint64_t seed = 1; seed <= 3; ++seed) {
    const auto stream = randomTagStream(6000, seed, shape);
    const auto [outputs, channels] = runCut<Combiner>(stream, stream.back().time + 10, seed, inputs);
    for (const auto &out : outputs)
      EXPECT_EQ(firstDifference(out, referenceCombiner(stream, inputs, channels[0])), "") << "seed " << seed;
  }
}

TEST(Combiner, CountsRegistrationAndClear) {
  TestTagger tagger;
  Combiner combiner(&tagger, {1, 2, 1});
  const std::int32_t out = combiner.getChannel();
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_EQ(tagger.registrations(2), 1);
  std::vector<std::int64_t> counts;
  auto read = [&] {
    combiner.getData([&](std::size_t n) {
      counts.assign(n, -1);
      return counts.data();
    });
    return counts;
  };
  // Each listing counts, and MissedEvents records count like any tag.
  tagger.pushAndWait({makeTag(1, 10), makeTag(2, 30), makeTag(2, 40, Tag::Type::MissedEvents, 4)}, 0, 100);
  EXPECT_EQ(read(), (std::vector<std::int64_t>{1, 2, 1}));
  combiner.clear();
  EXPECT_EQ(read(), (std::vector<std::int64_t>{0, 0, 0}));
  EXPECT_EQ(combiner.getChannel(), out);
}
