#include <chronotick/DelayedChannel.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// With a change of delay at tag `change`, sources from there on have `later`.
struct DelayPlan {
  std::int64_t delay;
  std::size_t change = SIZE_MAX;
  std::int64_t later = 0;
  std::int64_t of(std::size_t source) const { return source < change ? delay : later; }
};

// The stream and the copies of the inputs' time tags, with the copies (for a
// positive delay) or the stream (for a negative one) moved by the delay, in
// time order; at equal times the stream goes first with a positive delay,
// the copies with a negative one. Positive delay: a copy is lost to an Error
// that comes between its source and its release, when it falls due during
// an overflow, or to a smaller delay set while it waits. Negative delay: a
// copy made while the held-back stream is inside an overflow is a MissedEvents.
std::vector<Tag> referenceDelayed(const std::vector<Tag> &stream, const std::vector<std::int32_t> &inputs,
                                  const std::vector<std::int32_t> &outputs, const DelayPlan &plan,
                                  std::int64_t end_time) {
  struct Item {
    Tag tag;
    bool copy;
    std::size_t source; // index of the stream tag it stems from
  };
  std::vector<Item> items;
  const bool positive = plan.delay >= 0;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    items.push_back({stream[i], false, i});
    items.back().tag.time -= positive ? 0 : plan.of(i);
    const auto it = std::find(inputs.begin(), inputs.end(), stream[i].channel);
    if (stream[i].type == Tag::Type::TimeTag && it != inputs.end())
      items.push_back(
          {makeTag(outputs[std::size_t(it - inputs.begin())], stream[i].time + (positive ? plan.of(i) : 0)), true, i});
  }
  std::stable_sort(items.begin(), items.end(), [&](const Item &a, const Item &b) {
    return a.tag.time != b.tag.time ? a.tag.time < b.tag.time : (positive ? !a.copy && b.copy : a.copy && !b.copy);
  });
  const bool shrinks = positive && plan.change < stream.size() && plan.later < plan.delay;
  const std::int64_t change_time = shrinks ? stream[plan.change].time : 0;
  std::vector<Tag> out;
  bool overflow = false;
  std::size_t last_error = 0; // 0: none yet (the streams start with a time tag)
  for (const Item &item : items) {
    const Tag &tag = item.tag;
    if (tag.time >= end_time)
      break;
    if (!item.copy) {
      out.push_back(tag);
      if (tag.type == Tag::Type::OverflowBegin || tag.type == Tag::Type::OverflowEnd)
        overflow = tag.type == Tag::Type::OverflowBegin;
      if (tag.type == Tag::Type::Error)
        last_error = item.source;
    } else if (!positive) {
      out.push_back(overflow ? makeTag(tag.channel, tag.time, Tag::Type::MissedEvents, 1) : tag);
    } else if (!overflow && item.source >= last_error &&
               !(shrinks && item.source < plan.change && tag.time >= change_time)) {
      out.push_back(tag);
    }
  }
  return out;
}

} // namespace

TEST(DelayedChannel, MatchesReferenceWhateverTheCuts) {
  struct Config {
    std::vector<std::int32_t> inputs; // one to three: linear lookup; four: hashed
    std::int64_t delay;
  };
  const std::vector<Config> configs{{{3}, 250},        {{3}, -250},          {{1, 4, 7}, 1000},       {{1, 4, 7}, -40},
                                    {{2, 3, 5, 8}, 0}, {{2, 3, 5, 8}, 5000}, {{8, 6, 1, 2, 3}, -3000}};
  RandomStreamShape shape;
  shape.error = 0.003;
  shape.lone_missed = 0.002;
  for (const Config &config : configs) {
    for (std::uint64_t seed = 1; seed <= 2; ++seed) {
      const auto stream = randomTagStream(4000, seed * 101, shape);
      const std::int64_t end = stream.back().time + 1 + (seed == 1 ? 100000 : 0);
      const auto [outputs, channels] = config.inputs.size() == 1
                                           ? runCut<DelayedChannel>(stream, end, seed, config.inputs[0], config.delay)
                                           : runCut<DelayedChannel>(stream, end, seed, config.inputs, config.delay);
      const auto expected = referenceDelayed(stream, config.inputs, channels, {config.delay}, end);
      for (const auto &out : outputs)
        EXPECT_EQ(firstDifference(out, expected), "") << config.inputs.size() << " inputs, delay " << config.delay;
    }
  }
}

TEST(DelayedChannel, ChangesOfDelayMatchReference) {
  // Negative to negative either way, a larger positive delay keeping the
  // queued copies, a smaller one dropping them.
  const std::vector<std::pair<std::int64_t, std::int64_t>> changes{
      {-3000, -500}, {-500, -3000}, {200, 5000}, {5000, 200}, {700, 0}};
  const std::vector<std::int32_t> inputs{1, 2, 6, 7};
  for (const auto &[before, after] : changes) {
    const auto stream = randomTagStream(4000, 17);
    const std::size_t change = 1800;
    const std::int64_t change_time = stream[change].time, end = stream.back().time + 10000;
    TestTagger tagger;
    DelayedChannel delayed(&tagger, inputs, before);
    BlockRecorder recorder(&tagger);
    const std::vector<Tag> first(stream.begin(), stream.begin() + std::ptrdiff_t(change));
    const std::vector<Tag> second(stream.begin() + std::ptrdiff_t(change), stream.end());
    tagger.pushCut(first, randomCuts(first.size(), 10, 1), 0, change_time);
    tagger.waitUntilDone();
    delayed.setDelay(after);
    tagger.pushCut(second, randomCuts(second.size(), 10, 2), change_time, end);
    tagger.waitUntilDone();
    EXPECT_EQ(recorder.orderFault(), "");
    const auto expected = referenceDelayed(stream, inputs, delayed.getChannels(), {before, change, after}, end);
    EXPECT_EQ(firstDifference(recorder.tags(), expected), "") << before << " to " << after;
  }
}

TEST(DelayedChannel, ZeroAndNegativeDelays) {
  {
    // Delay 0: a copy at the block's end waits for the next block.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, 0);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait({makeTag(1, 10), makeTag(1, 20)}, 0, 20);
    EXPECT_EQ(recorder.times(delayed.getChannel()), Times{10});
    tagger.pushAndWait({}, 21);
    EXPECT_EQ(recorder.times(delayed.getChannel()), (Times{10, 20}));
  }
  // Negative delay: the Error is held back like any tag, and copies made while
  // the held-back stream is in an overflow arrive as MissedEvents.
  TestTagger tagger;
  DelayedChannel delayed(&tagger, 1, -100);
  BlockRecorder recorder(&tagger);
  const std::int32_t out = delayed.getChannel();
  tagger.pushAndWait({makeTag(1, 0), makeTag(0, 10, Tag::Type::OverflowBegin), makeTag(0, 20, Tag::Type::Error),
                      makeTag(0, 30, Tag::Type::OverflowEnd), makeTag(1, 115), makeTag(1, 125)},
                     0, 1000);
  EXPECT_EQ(firstDifference(recorder.tags(),
                            {makeTag(out, 0), makeTag(1, 100), makeTag(0, 110, Tag::Type::OverflowBegin),
                             makeTag(out, 115, Tag::Type::MissedEvents, 1), makeTag(0, 120, Tag::Type::Error),
                             makeTag(out, 125, Tag::Type::MissedEvents, 1), makeTag(0, 130, Tag::Type::OverflowEnd),
                             makeTag(1, 215), makeTag(1, 225)}),
            "");
}

TEST(DelayedChannel, SetDelay) {
  // Negative to positive is allowed; held-back stream tags still come out,
  // in order, even past an overflow and an Error. A smaller positive delay
  // then drops the waiting copies, not the held-back stream.
  TestTagger tagger;
  DelayedChannel delayed(&tagger, std::vector<std::int32_t>{1, 2}, -1000);
  BlockRecorder recorder(&tagger);
  const std::int32_t out = delayed.getChannel();
  tagger.pushAndWait({makeTag(1, 100), makeTag(2, 200), makeTag(3, 300)}, 0, 400);
  delayed.setDelay(10);
  tagger.pushAndWait({makeTag(1, 500), makeTag(0, 600, Tag::Type::OverflowBegin), makeTag(1, 700),
                      makeTag(0, 1150, Tag::Type::Error), makeTag(0, 1250, Tag::Type::OverflowEnd)},
                     1500);
  delayed.setDelay(500);
  tagger.pushAndWait({makeTag(1, 1600)}, 1700);
  delayed.setDelay(50);
  tagger.pushAndWait({makeTag(1, 1800)}, 5000);
  EXPECT_EQ(recorder.orderFault(), "");
  Times stream_times;
  for (const Tag &tag : recorder.tags())
    if (tag.channel >= 0 && tag.channel <= 3)
      stream_times.push_back(tag.time);
  EXPECT_EQ(stream_times, (Times{500, 600, 700, 1100, 1150, 1200, 1250, 1300, 1600, 1800}));
  // The copy of 1600, due at 2100, is gone.
  EXPECT_EQ(recorder.times(out), (Times{100, 510, 1850}));
  // Positive to negative is refused, even while stopped.
  delayed.stop();
  EXPECT_EQ(messageOf<std::invalid_argument>([&] { delayed.setDelay(-10); }),
            "changing from a positive delay to a negative delay while running is not supported");
}
