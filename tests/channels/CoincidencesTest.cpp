#include <chronotick/Coincidence.h>
#include <chronotick/Coincidences.h>
#include <chronotick/Combiner.h>
#include <chronotick/DelayedChannel.h>

#include "support/BlockRecorder.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <string>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using Groups = std::vector<std::vector<std::int32_t>>;

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
                                       const std::vector<std::int32_t> &outputs, std::int64_t window,
                                       CoincidenceTimestamp kind, std::int64_t end_time) {
  std::vector<Tag> out = stream;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    const Tag &tag = stream[i];
    if (tag.type != Tag::Type::TimeTag)
      continue;
    for (std::size_t g = 0; g < groups.size(); ++g) {
      const auto &group = groups[g];
      if (std::find(group.begin(), group.end(), tag.channel) == group.end())
        continue;
      std::vector<std::int64_t> times;
      for (std::int32_t channel : group) {
        const Tag *latest = latestBefore(stream, i, channel);
        if (!latest || tag.time - latest->time >= window)
          break;
        times.push_back(latest->time);
      }
      if (times.size() != group.size())
        continue;
      std::int64_t time = tag.time;
      switch (kind) {
      case CoincidenceTimestamp::Last:
        break;
      case CoincidenceTimestamp::First:
        time = *std::min_element(times.begin(), times.end()) + window;
        break;
      case CoincidenceTimestamp::Average: {
        std::int64_t offsets = 0;
        for (std::int64_t t : times)
          offsets += t - tag.time;
        time = tag.time + offsets / static_cast<std::int64_t>(times.size()) + window;
        break;
      }
      case CoincidenceTimestamp::ListedFirst:
        time = times.front() + window;
        break;
      }
      if (kind == CoincidenceTimestamp::Last || time < end_time)
        out.push_back(makeTag(outputs[g], time, Tag::Type::TimeTag, tag.missed_events));
    }
  }
  return canonicalOrder(out);
}

std::string message(const std::function<void()> &build) {
  try {
    build();
  } catch (const std::runtime_error &e) {
    return e.what();
  }
  return "no error";
}

} // namespace

TEST(Coincidences, MatchesReferenceOnRandomStreamsWhateverTheCuts) {
  const Groups groups{{1, 2}, {2, 3, 4}, {1, 5}, {6, 7, 6}, {8}, {3, 4}};
  const std::int64_t window = 300;
  RandomStreamShape shape;
  shape.max_gap = 120;
  for (auto kind : {CoincidenceTimestamp::Last, CoincidenceTimestamp::Average, CoincidenceTimestamp::First,
                    CoincidenceTimestamp::ListedFirst}) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
      const auto stream = randomTagStream(5000, seed * 31, shape);
      const std::int64_t end = stream.back().time + 100;
      for (std::size_t n_cuts : {0, 25}) {
        std::vector<std::int32_t> outputs;
        auto run = recordThrough(
            [&](TestTagger &tagger) {
              auto coincidences = std::make_unique<Coincidences>(&tagger, groups, window, kind);
              outputs = coincidences->getChannels();
              return coincidences;
            },
            stream, randomCuts(stream.size(), n_cuts, seed + n_cuts), end);
        EXPECT_EQ(run.out_of_order, 0u);
        EXPECT_EQ(run.past_block_end, 0u);
        const auto expected = referenceCoincidences(stream, groups, outputs, window, kind, end);
        EXPECT_GT(expected.size(), stream.size() + 100); // the stream does have coincidences
        EXPECT_EQ(firstDifference(canonicalOrder(run.tags), expected), "")
            << "kind " << static_cast<int>(kind) << " seed " << seed << " cuts " << n_cuts;
      }
    }
  }
}

TEST(Coincidences, WindowBoundariesAndTimestamps) {
  struct Case {
    CoincidenceTimestamp kind;
    std::vector<Tag> block;
    std::vector<std::int64_t> fired;
  };
  const std::vector<Case> cases{
      // Strictly inside the window fires; exactly the window apart doesn't.
      {CoincidenceTimestamp::Last, {makeTag(1, 0), makeTag(2, 99)}, {99}},
      {CoincidenceTimestamp::Last, {makeTag(1, 0), makeTag(2, 100)}, {}},
      // Each further tag of the group within the window fires again.
      {CoincidenceTimestamp::Last, {makeTag(1, 0), makeTag(2, 10), makeTag(2, 20)}, {10, 20}},
      {CoincidenceTimestamp::First, {makeTag(1, 0), makeTag(2, 10), makeTag(2, 20)}, {100, 100}},
      {CoincidenceTimestamp::Average, {makeTag(1, 0), makeTag(2, 10)}, {105}},
      // Whole-number division toward zero: offsets -7 and 0 average to -3.
      {CoincidenceTimestamp::Average, {makeTag(2, 3), makeTag(1, 10)}, {107}},
      {CoincidenceTimestamp::ListedFirst, {makeTag(2, 0), makeTag(1, 30)}, {130}},
      // A break in the data between the two tags prevents the coincidence.
      {CoincidenceTimestamp::Last, {makeTag(1, 0), makeTag(0, 5, Tag::Type::OverflowBegin), makeTag(2, 10)}, {}},
      {CoincidenceTimestamp::Last, {makeTag(1, 0), makeTag(0, 5, Tag::Type::Error), makeTag(2, 10)}, {}},
      {CoincidenceTimestamp::Last, {makeTag(1, 0), makeTag(2, 5, Tag::Type::MissedEvents, 1), makeTag(2, 10)}, {}},
  };
  for (const Case &c : cases) {
    TestTagger tagger;
    Coincidence coincidence(&tagger, {1, 2}, 100, c.kind);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait(c.block, 0, 1000);
    std::vector<std::int64_t> fired;
    for (const Tag &tag : recorder.tags())
      if (tag.channel == coincidence.getChannel())
        fired.push_back(tag.time);
    EXPECT_EQ(fired, c.fired) << "kind " << static_cast<int>(c.kind) << " first tag at " << c.block.front().time;
    EXPECT_EQ(recorder.outOfOrder(), 0u);
  }

  // A held-back tag leaves only once the stream has passed its time: a tag at
  // the same time goes first, the block's end lets it out, and it may wait
  // for a later block.
  TestTagger tagger;
  Coincidence coincidence(&tagger, {1, 2}, 100, CoincidenceTimestamp::First);
  BlockRecorder recorder(&tagger);
  const std::int32_t out = coincidence.getChannel();
  tagger.pushAndWait({makeTag(1, 0), makeTag(2, 10), makeTag(3, 100), makeTag(4, 101)}, 0, 200);
  EXPECT_EQ(firstDifference(recorder.tags(),
                            {makeTag(1, 0), makeTag(2, 10), makeTag(3, 100), makeTag(out, 100), makeTag(4, 101)}),
            "");
  tagger.pushAndWait({makeTag(1, 250), makeTag(2, 260)}, 300);
  EXPECT_EQ(recorder.tags().size(), 7u); // 350 is not due at 300
  tagger.pushAndWait({}, 350);
  EXPECT_EQ(recorder.tags().size(), 7u); // nor at 350
  tagger.pushAndWait({}, 351);
  const auto tags = recorder.tags();
  ASSERT_EQ(tags.size(), 8u);
  EXPECT_EQ(tags.back().channel, out);
  EXPECT_EQ(tags.back().time, 350);

  // A new window applies to the next tags; latest times stay.
  coincidence.setCoincidenceWindow(20);
  tagger.pushAndWait({makeTag(1, 400), makeTag(2, 425), makeTag(1, 430)}, 1000);
  const auto later = recorder.tags();
  ASSERT_EQ(later.size(), 12u);
  EXPECT_EQ(later.back().channel, out);
  EXPECT_EQ(later.back().time, 445); // First: 425 + 20
}

TEST(Coincidences, ConstructionRules) {
  TestTagger tagger;
  EXPECT_EQ(message([&] {
              Coincidences c(&tagger, {{1, 2}}, 100, static_cast<CoincidenceTimestamp>(4));
            }),
            "invalid coincidence timestamp type");
  EXPECT_EQ(message([&] { Coincidences c(&tagger, {}, 100); }), "coincidences groups are empty");
  EXPECT_EQ(message([&] { Coincidences c(&tagger, {{1, 2}, {}}, 100); }), "one of the groups is empty");
  EXPECT_EQ(message([&] { Coincidence c(&tagger, {}, 100); }), "one of the groups is empty");

  // 64 distinct channels are fine even when they appear in several groups; 65 are not.
  Groups groups;
  for (std::int32_t g = 0; g < 8; ++g) {
    groups.emplace_back();
    for (std::int32_t c = 0; c < 8; ++c)
      groups.back().push_back(100 + 8 * g + c);
  }
  groups.push_back({100, 163});
  EXPECT_EQ(message([&] { Coincidences c(&tagger, groups, 100); }), "no error");
  groups.push_back({100, 164});
  EXPECT_EQ(message([&] { Coincidences c(&tagger, groups, 100); }),
            "no more than 64 different channels can be used at once on a single Coincidences measurement. Split "
            "the groups into multiple measurements");

  // Registration of each distinct channel once, then output numbers in group order.
  Coincidences coincidences(&tagger, {{3, 4}, {4, 5}, {3}}, 100);
  const auto outputs = coincidences.getChannels();
  ASSERT_EQ(outputs.size(), 3u);
  EXPECT_LT(outputs[0], outputs[1]);
  EXPECT_LT(outputs[1], outputs[2]);
  for (std::int32_t channel : {3, 4, 5})
    EXPECT_EQ(tagger.registrations(channel), 1);

  // An empty block passes, and releases what is due by its end.
  Coincidence first(&tagger, {1, 2}, 100, CoincidenceTimestamp::First);
  BlockRecorder recorder(&tagger);
  tagger.pushAndWait({makeTag(1, 0), makeTag(2, 50)}, 0, 60);
  EXPECT_EQ(recorder.tags().size(), 2u);
  tagger.pushAndWait({}, 60, 101);
  const auto tags = recorder.tags();
  ASSERT_EQ(tags.size(), 3u);
  EXPECT_EQ(tags[2].channel, first.getChannel());
  EXPECT_EQ(tags[2].time, 100);
}

namespace {

// Fires of a two-channel group on a merged, time-sorted list of (time, is_a):
// each tag fires if the other channel's latest tag is less than a window
// earlier. Returns the fire times with `first` timing, else the tag times.
std::vector<std::int64_t> pairFires(std::vector<std::pair<std::int64_t, bool>> events, std::int64_t window,
                                    bool first) {
  std::sort(events.begin(), events.end());
  std::vector<std::int64_t> fires;
  std::int64_t latest[2] = {0, 0};
  bool seen[2] = {false, false};
  for (const auto &[time, is_a] : events) {
    const int own = is_a ? 0 : 1;
    latest[own] = time;
    seen[own] = true;
    if (seen[1 - own] && time - latest[1 - own] < window)
      fires.push_back(first ? std::min(time, latest[1 - own]) + window : time);
  }
  std::sort(fires.begin(), fires.end());
  return fires;
}

} // namespace

TEST(Coincidences, ChainOfVirtualChannelsMatchesDirectComputation) {
  // Times apart by channel class (mod 4), so that no two channels of one
  // group meet at the same time.
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<int> pick(0, 3);
  std::uniform_int_distribution<std::int64_t> gap(1, 60);
  std::vector<Tag> stream;
  std::int64_t t = 1000;
  const std::int32_t channel_of_class[4] = {4, 1, 2, 3};
  for (int i = 0; i < 20000; ++i) {
    t += 4 * gap(rng);
    const int cls = pick(rng);
    stream.push_back(makeTag(channel_of_class[cls], t + cls));
  }
  const std::int64_t end = t + 5000;

  TestTagger tagger;
  DelayedChannel late(&tagger, 1, 300);
  Combiner both(&tagger, {1, late.getChannel()});
  Coincidence pair(&tagger, {both.getChannel(), 2}, 200);
  DelayedChannel early(&tagger, 3, -500); // holds everything above back by 500
  Coincidences ahead(&tagger, {{early.getChannel(), 4}}, 150, CoincidenceTimestamp::First);
  BlockRecorder recorder(&tagger);
  tagger.pushCut(stream, randomCuts(stream.size(), 60, 5), 0, end);
  tagger.waitUntilDone();

  std::vector<std::pair<std::int64_t, bool>> combined_and_2, copies_and_4;
  for (const Tag &tag : stream) {
    if (tag.channel == 1) {
      combined_and_2.emplace_back(tag.time, true);
      combined_and_2.emplace_back(tag.time + 300, true);
    } else if (tag.channel == 2) {
      combined_and_2.emplace_back(tag.time, false);
    } else if (tag.channel == 3) {
      copies_and_4.emplace_back(tag.time, true);
    } else {
      copies_and_4.emplace_back(tag.time + 500, false);
    }
  }
  auto expected_pair = pairFires(combined_and_2, 200, false);
  for (auto &time : expected_pair)
    time += 500;
  const auto expected_ahead = pairFires(copies_and_4, 150, true);

  const auto tags = recorder.tags();
  EXPECT_EQ(recorder.outOfOrder(), 0u);
  std::vector<std::int64_t> got_pair, got_ahead;
  std::size_t n_stream = 0;
  for (const Tag &tag : tags) {
    if (tag.channel == pair.getChannel())
      got_pair.push_back(tag.time);
    else if (tag.channel == ahead.getChannels()[0])
      got_ahead.push_back(tag.time);
    else if (tag.channel >= 1 && tag.channel <= 4)
      ++n_stream;
  }
  EXPECT_EQ(n_stream, stream.size());
  EXPECT_GT(expected_pair.size(), 1000u);
  EXPECT_GT(expected_ahead.size(), 1000u);
  EXPECT_EQ(got_pair, expected_pair);
  EXPECT_EQ(got_ahead, expected_ahead);
}
