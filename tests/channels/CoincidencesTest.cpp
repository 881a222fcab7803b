#include <chronotick/Coincidence.h>
#include <chronotick/Coincidences.h>
#include <chronotick/Combiner.h>
#include <chronotick/DelayedChannel.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

#include <random>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using Groups = std::vector<std::vector<std::int32_t>>;
using Kind = CoincidenceTimestamp;

// The latest time tag of `channel` at or before index i that no break in the
// data separates from i, or nullptr.
const Tag *latestBefore(const std::vector<Tag> &stream, std::size_t i, std::int32_t channel) {
  for (std::size_t j = i + 1; j-- > 0;) {
    if (stream[j].type != Tag::Type::TimeTag)
      return nullptr;
    if (stream[j].channel == channel)
      return &stream[j];
  }
  return nullptr;
}

// Every tag of a group channel fires the group if each channel of the group
// has its latest tag less than a window before it. Held-back kinds of output
// that aren't due by the end of the stream are left out.
std::vector<Tag> referenceCoincidences(const std::vector<Tag> &stream, const Groups &groups,
                                       const std::vector<std::int32_t> &outputs, std::int64_t window, Kind kind,
                                       std::int64_t end_time) {
  std::vector<Tag> out = stream;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    const Tag &tag = stream[i];
    for (std::size_t g = 0; g < groups.size() && tag.type == Tag::Type::TimeTag; ++g) {
      std::vector<std::int64_t> times; // latest time of each group channel, in group order
      for (std::int32_t channel : groups[g]) {
        const Tag *latest = latestBefore(stream, i, channel);
        if (!latest || tag.time - latest->time >= window)
          break;
        times.push_back(latest->time);
      }
      const auto &group = groups[g];
      if (times.size() != group.size() || std::find(group.begin(), group.end(), tag.channel) == group.end())
        continue;
      std::int64_t time = tag.time;
      if (kind == Kind::First)
        time = *std::min_element(times.begin(), times.end()) + window;
      if (kind == Kind::ListedFirst)
        time = times.front() + window;
      if (kind == Kind::Average) {
        std::int64_t offsets = 0;
        for (std::int64_t t : times)
          offsets += t - tag.time;
        time = tag.time + offsets / static_cast<std::int64_t>(times.size()) + window;
      }
      if (kind == Kind::Last || time < end_time)
        out.push_back(makeTag(outputs[g], time));
    }
  }
  return canonicalOrder(out);
}

} // namespace

TEST(Coincidences, MatchesReferenceWhateverTheCuts) {
  const Groups groups{{1, 2}, {2, 3, 4}, {1, 5}, {6, 7, 6}, {8}, {3, 4}};
  RandomStreamShape shape;
  shape.max_gap = 120;
  shape.lone_missed = 0.002;
  for (Kind kind : {Kind::Last, Kind::Average, Kind::First, Kind::ListedFirst}) {
    for (std::uint64_t seed = 1; seed <= 2; ++seed) {
      const auto stream = randomTagStream(5000, seed * 31, shape);
      const std::int64_t end = stream.back().time + 100;
      const auto [outputs, channels] = runCut<Coincidences>(stream, end, seed, groups, 300, kind);
      const auto expected = referenceCoincidences(stream, groups, channels, 300, kind, end);
      EXPECT_GT(expected.size(), stream.size() + 100); // the stream does have coincidences
      for (const auto &out : outputs)
        EXPECT_EQ(firstDifference(canonicalOrder(out), expected), "") << "kind " << int(kind) << " seed " << seed;
    }
  }
}

TEST(Coincidences, WindowBoundariesAndTimestamps) {
  struct Case {
    Kind kind;
    std::vector<Tag> block;
    Times fired;
  };
  const Case cases[] = {
      // Strictly inside the window fires; exactly the window apart doesn't.
      {Kind::Last, {makeTag(1, 0), makeTag(2, 99)}, {99}},
      {Kind::Last, {makeTag(1, 0), makeTag(2, 100)}, {}},
      // Each further tag of the group within the window fires again.
      {Kind::Last, {makeTag(1, 0), makeTag(2, 10), makeTag(2, 20)}, {10, 20}},
      {Kind::First, {makeTag(1, 0), makeTag(2, 10), makeTag(2, 20)}, {100, 100}},
      {Kind::Average, {makeTag(1, 0), makeTag(2, 10)}, {105}},
      // Whole-number division toward zero: offsets -7 and 0 average to -3.
      {Kind::Average, {makeTag(2, 3), makeTag(1, 10)}, {107}},
      {Kind::ListedFirst, {makeTag(2, 0), makeTag(1, 30)}, {130}},
  };
  for (const Case &c : cases) {
    TestTagger tagger;
    Coincidence coincidence(&tagger, {1, 2}, 100, c.kind);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait(c.block, 0, 1000);
    EXPECT_EQ(recorder.times(coincidence.getChannel()), c.fired) << "kind " << int(c.kind) << ", " << c.block.size();
  }

  // A held-back tag leaves only once the stream has passed its time: a tag at
  // the same time goes first, the block's end lets it out, and it may wait
  // for a later block.
  TestTagger tagger;
  Coincidence coincidence(&tagger, {1, 2}, 100, Kind::First);
  BlockRecorder recorder(&tagger);
  const std::int32_t out = coincidence.getChannel();
  tagger.pushAndWait({makeTag(1, 0), makeTag(2, 10), makeTag(3, 100), makeTag(4, 101)}, 0, 200);
  EXPECT_EQ(firstDifference(recorder.tags(),
                            {makeTag(1, 0), makeTag(2, 10), makeTag(3, 100), makeTag(out, 100), makeTag(4, 101)}),
            "");
  tagger.pushAndWait({makeTag(1, 250), makeTag(2, 260)}, 300);
  tagger.pushAndWait({}, 350);
  EXPECT_EQ(recorder.times(out), Times{100}); // 350 is not due at 350
  tagger.pushAndWait({}, 351);
  EXPECT_EQ(recorder.times(out), (Times{100, 350}));

  // A new window applies to the next tags; latest times stay.
  coincidence.setCoincidenceWindow(20);
  tagger.pushAndWait({makeTag(1, 400), makeTag(2, 425), makeTag(1, 430)}, 1000);
  EXPECT_EQ(recorder.times(out), (Times{100, 350, 445}));
}

TEST(Coincidences, ConstructionRules) {
  TestTagger tagger;
  // 64 distinct channels are fine even when they appear in several groups; 65 are not.
  Groups groups(8);
  for (std::int32_t c = 0; c < 64; ++c)
    groups[std::size_t(c / 8)].push_back(100 + c);
  groups.push_back({100, 163});
  EXPECT_EQ(messageOf([&] { Coincidences c(&tagger, groups, 100); }), "no error");
  groups.push_back({100, 164});
  EXPECT_EQ(messageOf([&] { Coincidences c(&tagger, groups, 100); }),
            "no more than 64 different channels can be used at once on a single Coincidences measurement. Split "
            "the groups into multiple measurements");

  Coincidences coincidences(&tagger, {{3, 4}, {4, 5}, {3}}, 100);
  for (std::int32_t channel : {3, 4, 5})
    EXPECT_EQ(tagger.registrations(channel), 1);
}

TEST(Coincidences, ChainOfVirtualChannelsMatchesDirectComputation) {
  // Channel c at times of class c mod 4, so that no two channels of a group
  // meet at the same time.
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<int> pick(1, 4);
  std::uniform_int_distribution<std::int64_t> gap(1, 60);
  std::vector<Tag> stream;
  for (std::int64_t t = 1000; stream.size() < 20000; t += 4 * gap(rng)) {
    const int channel = pick(rng);
    stream.push_back(makeTag(channel, t + channel % 4));
  }

  TestTagger tagger;
  DelayedChannel late(&tagger, 1, 300);
  Combiner both(&tagger, {1, late.getChannel()});
  Coincidence pair(&tagger, {both.getChannel(), 2}, 200);
  DelayedChannel early(&tagger, 3, -500); // holds everything above back by 500
  Coincidences ahead(&tagger, {{early.getChannel(), 4}}, 150, Kind::First);
  BlockRecorder recorder(&tagger);
  tagger.pushCut(stream, randomCuts(stream.size(), 60, 5), 0, stream.back().time + 5000);
  tagger.waitUntilDone();
  EXPECT_EQ(recorder.orderFault(), "");

  // What each coincidence sees: 1 and its copy 300 later with 2; the copies
  // of 3 where 3 was with 4 held back by 500. Fires of a two-channel group:
  // a tag less than a window after the other channel's latest tag.
  std::vector<std::pair<std::int64_t, bool>> seen_by_pair, seen_by_ahead; // (time, first channel)
  for (const Tag &tag : stream) {
    if (tag.channel == 1)
      seen_by_pair.insert(seen_by_pair.end(), {{tag.time, true}, {tag.time + 300, true}});
    if (tag.channel == 2)
      seen_by_pair.emplace_back(tag.time, false);
    if (tag.channel >= 3)
      seen_by_ahead.emplace_back(tag.time + (tag.channel == 4 ? 500 : 0), tag.channel == 3);
  }
  auto fires = [](std::vector<std::pair<std::int64_t, bool>> seen, std::int64_t window, std::int64_t shift,
                  bool first) {
    std::sort(seen.begin(), seen.end());
    Times out;
    std::int64_t latest[2] = {INT64_MIN / 2, INT64_MIN / 2};
    for (const auto &[time, is_first] : seen) {
      latest[is_first] = time;
      if (time - latest[!is_first] < window)
        out.push_back((first ? latest[!is_first] + window : time) + shift);
    }
    std::sort(out.begin(), out.end());
    return out;
  };
  const Times expected_pair = fires(seen_by_pair, 200, 500, false), expected_ahead = fires(seen_by_ahead, 150, 0, true);
  EXPECT_GT(expected_pair.size(), 1000u);
  EXPECT_GT(expected_ahead.size(), 1000u);
  EXPECT_EQ(recorder.times(pair.getChannel()), expected_pair);
  EXPECT_EQ(recorder.times(ahead.getChannels()[0]), expected_ahead);
}
