#include <chronotick/GatedChannel.h>

#include "support/BlockRecorder.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// Whether the gate is open for the tag at index i: the latest gate event at or
// before i (start, stop or a break in the data) decides, where a stop or a
// break at i itself closes it.
bool gateOpenAt(const std::vector<Tag> &stream, std::size_t i, std::int32_t start, std::int32_t stop) {
  for (std::size_t j = i + 1; j-- > 0;) {
    const Tag &tag = stream[j];
    if (tag.type != Tag::Type::TimeTag || tag.channel == stop)
      return false;
    if (tag.channel == start)
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

TEST(GatedChannel, MatchesReferenceOnRandomStreamsWhateverTheCuts) {
  struct Gate {
    std::int32_t input, start, stop;
  };
  for (const Gate gate : {Gate{1, 2, 3}, Gate{1, 1, 3}, Gate{1, 2, 1}, Gate{4, 6, 5}}) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
      const auto stream = randomTagStream(5000, seed * 13);
      const std::int64_t end = stream.back().time + 1;
      const auto cuts = randomCuts(stream.size(), seed * 10, seed);
      std::int32_t output = 0;
      auto run = recordThrough(
          [&](TestTagger &tagger) {
            auto gated = std::make_unique<GatedChannel>(&tagger, gate.input, gate.start, gate.stop);
            output = gated->getChannel();
            return gated;
          },
          stream, cuts, end);
      EXPECT_EQ(run.out_of_order, 0u);
      EXPECT_EQ(firstDifference(run.tags, referenceGate(stream, gate.input, gate.start, gate.stop, output)), "")
          << "gate " << gate.input << "/" << gate.start << "/" << gate.stop << " seed " << seed;
    }
  }
}

TEST(GatedChannel, GateRules) {
  try {
    TestTagger tagger;
    GatedChannel bad(&tagger, 1, 2, 2);
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Gate start and stop channel must not be the same.");
  }

  auto outputs = [](std::int32_t input, std::int32_t start, std::int32_t stop, std::vector<Tag> block) {
    TestTagger tagger;
    GatedChannel gated(&tagger, input, start, stop);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait(std::move(block), 0, 1000);
    std::vector<std::int64_t> times;
    for (const Tag &tag : recorder.tags())
      if (tag.channel == gated.getChannel())
        times.push_back(tag.time);
    return times;
  };
  using Times = std::vector<std::int64_t>;
  // Input 1, start 2, stop 3: only the 1 between 2 and 3 passes.
  EXPECT_EQ(outputs(1, 2, 3, {makeTag(1, 1), makeTag(2, 2), makeTag(1, 3), makeTag(3, 4), makeTag(1, 5)}), Times{3});
  // A break in the data closes the gate until the next start.
  EXPECT_EQ(outputs(1, 2, 3,
                    {makeTag(2, 1), makeTag(1, 2), makeTag(0, 3, Tag::Type::OverflowBegin), makeTag(1, 4),
                     makeTag(0, 5, Tag::Type::OverflowEnd), makeTag(1, 6), makeTag(2, 7), makeTag(1, 8)}),
            (Times{2, 8}));
  EXPECT_EQ(outputs(1, 2, 3, {makeTag(2, 1), makeTag(1, 2, Tag::Type::MissedEvents, 3), makeTag(1, 4)}), Times{});
  // Input equal to start: the opening tag passes; input equal to stop: nothing.
  EXPECT_EQ(outputs(1, 1, 3, {makeTag(1, 1), makeTag(3, 2), makeTag(1, 3)}), (Times{1, 3}));
  EXPECT_EQ(outputs(1, 2, 1, {makeTag(2, 1), makeTag(1, 2), makeTag(2, 3), makeTag(1, 4)}), Times{});

  // The gate outlives clear, stop and start, and block boundaries.
  TestTagger tagger;
  GatedChannel gated(&tagger, 1, 2, 3);
  BlockRecorder recorder(&tagger);
  tagger.pushAndWait({makeTag(2, 10)}, 0, 100);
  gated.clear();
  gated.stop();
  gated.start();
  tagger.pushAndWait({makeTag(1, 150)}, 200);
  const auto tags = recorder.tags();
  ASSERT_EQ(tags.size(), 3u);
  EXPECT_EQ(tags[2].channel, gated.getChannel());
  EXPECT_EQ(tags[2].time, 150);
}
