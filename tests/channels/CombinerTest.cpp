#include <chronotick/Combiner.h>

#include "support/BlockRecorder.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <memory>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<Tag> referenceCombiner(const std::vector<Tag> &stream, const std::vector<std::int32_t> &inputs,
                                   std::int32_t output, std::vector<std::int64_t> &counts) {
  std::vector<Tag> out;
  counts.assign(inputs.size(), 0);
  for (const Tag &tag : stream) {
    out.push_back(tag);
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      if (inputs[i] == tag.channel) {
        ++counts[i];
        out.push_back(makeTag(output, tag.time, tag.type, tag.missed_events));
      }
    }
  }
  return out;
}

} // namespace

TEST(Combiner, MatchesReferenceOnRandomStreamsWhateverTheCuts) {
  const std::vector<std::int32_t> inputs{2, 5, 2, 7, -3};
  for (std::uint64_t seed = 1; seed <= 4; ++seed) {
    const auto stream = randomTagStream(6000, seed);
    const std::int64_t end = stream.back().time + 10;
    for (std::size_t n_cuts : {0, 3, 40}) {
      TestTagger tagger;
      Combiner combiner(&tagger, inputs);
      BlockRecorder recorder(&tagger);
      tagger.pushCut(stream, randomCuts(stream.size(), n_cuts, seed * 7 + n_cuts), 0, end);
      tagger.waitUntilDone();
      std::vector<std::int64_t> expected_counts;
      const auto expected = referenceCombiner(stream, inputs, combiner.getChannel(), expected_counts);
      EXPECT_EQ(recorder.outOfOrder(), 0u);
      // The copy stands right behind its source: compare in exact order.
      EXPECT_EQ(firstDifference(recorder.tags(), expected), "") << "seed " << seed << " cuts " << n_cuts;
      std::vector<std::int64_t> counts(inputs.size());
      combiner.getData([&](std::size_t) { return counts.data(); });
      EXPECT_EQ(counts, expected_counts);
    }
  }
}

TEST(Combiner, CountsCopiesAndClear) {
  TestTagger tagger;
  Combiner combiner(&tagger, {1, 2});
  BlockRecorder recorder(&tagger);
  const std::int32_t out = combiner.getChannel();
  EXPECT_GE(out, 257);
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_EQ(tagger.registrations(2), 1);

  tagger.pushAndWait({makeTag(1, 10), makeTag(3, 20), makeTag(2, 30)}, 0, 100);
  const std::vector<Tag> expected{makeTag(1, 10), makeTag(out, 10), makeTag(3, 20), makeTag(2, 30), makeTag(out, 30)};
  EXPECT_EQ(firstDifference(recorder.tags(), expected), "");

  std::size_t asked = 99;
  std::vector<std::int64_t> counts(2, -1);
  auto read = [&] {
    combiner.getData([&](std::size_t n) {
      asked = n;
      return counts.data();
    });
  };
  read();
  EXPECT_EQ(asked, 2u);
  EXPECT_EQ(counts, (std::vector<std::int64_t>{1, 1}));

  // MissedEvents records are copied and counted like any tag of the channel.
  tagger.pushAndWait({makeTag(2, 150, Tag::Type::MissedEvents, 4)}, 200);
  read();
  EXPECT_EQ(counts, (std::vector<std::int64_t>{1, 2}));
  const auto after = recorder.tags();
  ASSERT_EQ(after.size(), 7u);
  EXPECT_EQ(after[6].channel, out);
  EXPECT_EQ(after[6].type, Tag::Type::MissedEvents);
  EXPECT_EQ(after[6].missed_events, 4);

  combiner.clear();
  read();
  EXPECT_EQ(counts, (std::vector<std::int64_t>{0, 0}));
  EXPECT_EQ(combiner.getChannel(), out);

  // An empty block still passes.
  tagger.pushAndWait({}, 300);
  EXPECT_EQ(recorder.tags().size(), 7u);
}
