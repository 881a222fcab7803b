#include <chronotick/DelayedChannel.h>

#include "support/BlockRecorder.h"
#include "support/RandomTagStreams.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

struct Item {
  Tag tag;
  bool copy;
  std::size_t source; // index of the stream tag it stems from
};

std::int32_t outputOf(const std::vector<std::int32_t> &inputs, const std::vector<std::int32_t> &outputs,
                      std::int32_t channel) {
  const auto it = std::find(inputs.begin(), inputs.end(), channel);
  return it == inputs.end() ? CHANNEL_UNUSED : outputs[static_cast<std::size_t>(it - inputs.begin())];
}

// Positive delay: the copies merge into the stream by time, behind stream
// tags of the same time. A copy is lost to an Error that comes between its
// source and its release, or when it falls due during an overflow.
// With a change of delay at tag `change`, sources from there on have
// `later_delay`; a smaller one drops the copies still waiting at the change.
struct DelayPlan {
  std::int64_t delay;
  std::size_t change = SIZE_MAX;
  std::int64_t later_delay = 0;
  std::int64_t delayOf(std::size_t source) const { return source < change ? delay : later_delay; }
};

std::vector<Tag> referencePositive(const std::vector<Tag> &stream, const std::vector<std::int32_t> &inputs,
                                   const std::vector<std::int32_t> &outputs, const DelayPlan &plan,
                                   std::int64_t end_time) {
  std::vector<Item> items;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    items.push_back({stream[i], false, i});
    const std::int32_t out = outputOf(inputs, outputs, stream[i].channel);
    if (stream[i].type == Tag::Type::TimeTag && out != CHANNEL_UNUSED)
      items.push_back({makeTag(out, stream[i].time + plan.delayOf(i)), true, i});
  }
  std::stable_sort(items.begin(), items.end(), [](const Item &a, const Item &b) {
    return a.tag.time != b.tag.time ? a.tag.time < b.tag.time : (!a.copy && b.copy);
  });
  const bool shrinks = plan.change < stream.size() && plan.later_delay < plan.delay;
  const std::int64_t change_time = shrinks ? stream[plan.change].time : 0;
  std::vector<Tag> out;
  bool overflow = false;
  std::size_t last_error = 0;
  bool any_error = false;
  for (const Item &item : items) {
    if (!item.copy) {
      out.push_back(item.tag);
      if (item.tag.type == Tag::Type::OverflowBegin)
        overflow = true;
      if (item.tag.type == Tag::Type::OverflowEnd)
        overflow = false;
      if (item.tag.type == Tag::Type::Error) {
        any_error = true;
        last_error = item.source;
      }
      continue;
    }
    const bool cleared = (any_error && item.source < last_error) ||
                         (shrinks && item.source < plan.change && item.tag.time >= change_time);
    if (!cleared && !overflow && item.tag.time < end_time)
      out.push_back(item.tag);
  }
  return out;
}

// Negative delay: the stream moves later by the delay and the copies stay
// where their sources were, ahead of held-back tags of the same time. A copy
// made while the held-back stream is inside an overflow is a MissedEvents.
std::vector<Tag> referenceNegative(const std::vector<Tag> &stream, const std::vector<std::int32_t> &inputs,
                                   const std::vector<std::int32_t> &outputs, const DelayPlan &plan,
                                   std::int64_t end_time) {
  std::vector<Item> items;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    Tag held = stream[i];
    held.time -= plan.delayOf(i);
    if (held.time < end_time)
      items.push_back({held, false, i});
    const std::int32_t out = outputOf(inputs, outputs, stream[i].channel);
    if (stream[i].type == Tag::Type::TimeTag && out != CHANNEL_UNUSED)
      items.push_back({makeTag(out, stream[i].time), true, i});
  }
  std::stable_sort(items.begin(), items.end(), [](const Item &a, const Item &b) {
    return a.tag.time != b.tag.time ? a.tag.time < b.tag.time : (a.copy && !b.copy);
  });
  std::vector<Tag> out;
  bool overflow = false;
  for (Item item : items) {
    if (!item.copy) {
      if (item.tag.type == Tag::Type::OverflowBegin)
        overflow = true;
      if (item.tag.type == Tag::Type::OverflowEnd)
        overflow = false;
    } else if (overflow) {
      item.tag.type = Tag::Type::MissedEvents;
      item.tag.missed_events = 1;
    }
    out.push_back(item.tag);
  }
  return out;
}

std::vector<Tag> ofChannel(const std::vector<Tag> &tags, std::int32_t channel) {
  std::vector<Tag> out;
  std::copy_if(tags.begin(), tags.end(), std::back_inserter(out), [&](const Tag &t) { return t.channel == channel; });
  return out;
}

} // namespace

TEST(DelayedChannel, MatchesReferenceOnRandomStreamsWhateverTheCuts) {
  struct Config {
    std::vector<std::int32_t> inputs; // one to three: linear lookup; four: hashed
    std::int64_t delay;
  };
  const std::vector<Config> configs{{{3}, 250},        {{3}, -250},          {{1, 4, 7}, 1000},       {{1, 4, 7}, -40},
                                    {{2, 3, 5, 8}, 0}, {{2, 3, 5, 8}, 5000}, {{8, 6, 1, 2, 3}, -3000}};
  for (const Config &config : configs) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
      RandomStreamShape shape;
      shape.error = 0.003;
      const auto stream = randomTagStream(4000, seed * 101, shape);
      const std::int64_t end = stream.back().time + 1 + (seed == 1 ? 100000 : 0);
      std::vector<std::int32_t> outputs;
      for (std::size_t n_cuts : {0, 30}) {
        auto run = recordThrough(
            [&](TestTagger &tagger) {
              auto delayed = config.inputs.size() == 1
                                 ? std::make_unique<DelayedChannel>(&tagger, config.inputs[0], config.delay)
                                 : std::make_unique<DelayedChannel>(&tagger, config.inputs, config.delay);
              outputs = delayed->getChannels();
              return delayed;
            },
            stream, randomCuts(stream.size(), n_cuts, seed * 3 + n_cuts), end);
        const auto expected = config.delay >= 0
                                  ? referencePositive(stream, config.inputs, outputs, {config.delay}, end)
                                  : referenceNegative(stream, config.inputs, outputs, {config.delay}, end);
        EXPECT_EQ(run.out_of_order, 0u);
        EXPECT_EQ(run.past_block_end, 0u);
        EXPECT_EQ(firstDifference(run.tags, expected), "")
            << "inputs " << config.inputs.size() << " delay " << config.delay << " seed " << seed << " cuts " << n_cuts;
      }
    }
  }
}

TEST(DelayedChannel, ChangesOfDelayKeepTheStreamInOrder) {
  // Negative to negative either way, a larger positive delay keeping the
  // queued copies, a smaller one dropping them.
  const std::vector<std::pair<std::int64_t, std::int64_t>> changes{
      {-3000, -500}, {-500, -3000}, {200, 5000}, {5000, 200}, {700, 0}};
  const std::vector<std::int32_t> inputs{1, 2, 6, 7};
  for (const auto &[before, after] : changes) {
    for (std::uint64_t seed = 1; seed <= 2; ++seed) {
      const auto stream = randomTagStream(4000, seed * 17);
      const std::size_t change = 1500 + 300 * seed;
      const std::int64_t end = stream.back().time + 10000;
      TestTagger tagger;
      DelayedChannel delayed(&tagger, inputs, before);
      BlockRecorder recorder(&tagger);
      const std::vector<Tag> first(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(change));
      const std::vector<Tag> second(stream.begin() + static_cast<std::ptrdiff_t>(change), stream.end());
      tagger.pushCut(first, randomCuts(first.size(), 10, seed), 0, second.front().time);
      tagger.waitUntilDone();
      delayed.setDelay(after);
      tagger.pushCut(second, randomCuts(second.size(), 10, seed + 1), second.front().time, end);
      tagger.waitUntilDone();
      const DelayPlan plan{before, change, after};
      const auto expected = before >= 0 ? referencePositive(stream, inputs, delayed.getChannels(), plan, end)
                                        : referenceNegative(stream, inputs, delayed.getChannels(), plan, end);
      EXPECT_EQ(recorder.outOfOrder(), 0u);
      EXPECT_EQ(recorder.pastBlockEnd(), 0u);
      EXPECT_EQ(firstDifference(recorder.tags(), expected), "") << before << " to " << after << " seed " << seed;
    }
  }
}

TEST(DelayedChannel, ReleaseTimingAndBreaks) {
  {
    // Delay 0: the copy follows its source, and the next later tag, never before.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, 0);
    BlockRecorder recorder(&tagger);
    const std::int32_t out = delayed.getChannel();
    tagger.pushAndWait({makeTag(1, 10), makeTag(2, 10), makeTag(2, 11), makeTag(1, 20)}, 0, 20);
    // The copy at 20 equals the block's end: it waits for the next block.
    EXPECT_EQ(firstDifference(recorder.tags(),
                              {makeTag(1, 10), makeTag(2, 10), makeTag(out, 10), makeTag(2, 11), makeTag(1, 20)}),
              "");
    tagger.pushAndWait({}, 20, 21);
    EXPECT_EQ(recorder.tags().back().channel, out);
    EXPECT_EQ(recorder.tags().back().time, 20);
  }
  {
    // Positive delay: an Error empties the queue; a copy due during an overflow is lost.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, 100);
    BlockRecorder recorder(&tagger);
    const std::int32_t out = delayed.getChannel();
    tagger.pushAndWait({makeTag(1, 0), makeTag(0, 50, Tag::Type::Error), makeTag(1, 60), makeTag(1, 70),
                        makeTag(0, 155, Tag::Type::OverflowBegin), makeTag(0, 165, Tag::Type::OverflowEnd)},
                       0, 1000);
    // The copy of 60, due at 160, fell into the overflow.
    EXPECT_EQ(firstDifference(ofChannel(recorder.tags(), out), {makeTag(out, 170)}), "");
  }
  {
    // Negative delay: the Error is held back like any tag, and copies made while
    // the held-back stream is in an overflow arrive as MissedEvents.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, -100);
    BlockRecorder recorder(&tagger);
    const std::int32_t out = delayed.getChannel();
    tagger.pushAndWait({makeTag(1, 0), makeTag(0, 10, Tag::Type::OverflowBegin), makeTag(0, 20, Tag::Type::Error),
                        makeTag(0, 30, Tag::Type::OverflowEnd), makeTag(1, 115), makeTag(1, 125)},
                       0, 1000);
    const std::vector<Tag> expected{makeTag(out, 0),
                                    makeTag(1, 100),
                                    makeTag(0, 110, Tag::Type::OverflowBegin),
                                    makeTag(out, 115, Tag::Type::MissedEvents, 1),
                                    makeTag(0, 120, Tag::Type::Error),
                                    makeTag(out, 125, Tag::Type::MissedEvents, 1),
                                    makeTag(0, 130, Tag::Type::OverflowEnd),
                                    makeTag(1, 215),
                                    makeTag(1, 225)};
    EXPECT_EQ(firstDifference(recorder.tags(), expected), "");
  }
}

TEST(DelayedChannel, SetDelayAndConstruction) {
  {
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, 500);
    BlockRecorder recorder(&tagger);
    const std::int32_t out = delayed.getChannel();
    // A larger delay keeps the queued copies at their times.
    tagger.pushAndWait({makeTag(1, 100)}, 0, 200);
    delayed.setDelay(800);
    tagger.pushAndWait({makeTag(1, 300)}, 1200);
    EXPECT_EQ(firstDifference(ofChannel(recorder.tags(), out), {makeTag(out, 600), makeTag(out, 1100)}), "");
    // A smaller one drops them.
    tagger.pushAndWait({makeTag(1, 1300)}, 1400);
    delayed.setDelay(50);
    tagger.pushAndWait({makeTag(1, 1500)}, 3000);
    EXPECT_EQ(ofChannel(recorder.tags(), out).back().time, 1550);
    EXPECT_EQ(ofChannel(recorder.tags(), out).size(), 3u);
    // Positive to negative is refused, even while stopped.
    delayed.stop();
    try {
      delayed.setDelay(-10);
      ADD_FAILURE() << "no error";
    } catch (const std::invalid_argument &e) {
      EXPECT_STREQ(e.what(), "changing from a positive delay to a negative delay while running is not supported");
    }
  }
  {
    // Negative to positive is allowed; held-back stream tags still come out,
    // in order, even past an overflow and an Error.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, std::vector<std::int32_t>{1, 2}, -1000);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait({makeTag(1, 100), makeTag(2, 200), makeTag(3, 300)}, 0, 400);
    delayed.setDelay(10);
    tagger.pushAndWait({makeTag(1, 500), makeTag(0, 600, Tag::Type::OverflowBegin), makeTag(3, 700),
                        makeTag(0, 1150, Tag::Type::Error), makeTag(0, 1250, Tag::Type::OverflowEnd)},
                       5000);
    const auto tags = recorder.tags();
    EXPECT_EQ(recorder.outOfOrder(), 0u);
    std::vector<std::int64_t> stream_times;
    for (const Tag &tag : tags)
      if (tag.channel >= 0 && tag.channel <= 3)
        stream_times.push_back(tag.time);
    EXPECT_EQ(stream_times, (std::vector<std::int64_t>{500, 600, 700, 1100, 1150, 1200, 1250, 1300}));
    const auto copies = ofChannel(tags, delayed.getChannels()[0]);
    ASSERT_EQ(copies.size(), 2u);
    EXPECT_EQ(copies[0].time, 100);
    EXPECT_EQ(copies[1].time, 510);
  }
  {
    // A smaller positive delay drops the waiting copies, not the held-back stream.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, -1000);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait({makeTag(2, 100)}, 0, 200);
    delayed.setDelay(500);
    tagger.pushAndWait({makeTag(1, 300)}, 400);
    delayed.setDelay(50);
    tagger.pushAndWait({makeTag(1, 600)}, 5000);
    const auto tags = recorder.tags();
    // The copy of 300, due at 800, is gone; 2 at 100, held back to 1100, is not.
    EXPECT_EQ(
        firstDifference(tags, {makeTag(1, 300), makeTag(1, 600), makeTag(delayed.getChannel(), 650), makeTag(2, 1100)}),
        "");
  }
  {
    // Switching between negative delays keeps the stream in order.
    TestTagger tagger;
    DelayedChannel delayed(&tagger, 1, -500);
    BlockRecorder recorder(&tagger);
    tagger.pushAndWait({makeTag(1, 100), makeTag(2, 200)}, 0, 300);
    delayed.setDelay(-50);
    tagger.pushAndWait({makeTag(1, 400), makeTag(2, 500)}, 2000);
    EXPECT_EQ(recorder.outOfOrder(), 0u);
    EXPECT_EQ(recorder.tags().size(), 6u);
  }
  TestTagger tagger;
  try {
    DelayedChannel bad(&tagger, std::vector<std::int32_t>{1, 2, 1}, 10);
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "redundant channels are not permitted");
  }
  EXPECT_EQ(tagger.registrations(1), 0);
  EXPECT_EQ(tagger.registrations(2), 0);
  DelayedChannel four(&tagger, std::vector<std::int32_t>{4, 3, 2, 1}, 10);
  const auto outputs = four.getChannels();
  ASSERT_EQ(outputs.size(), 4u);
  EXPECT_TRUE(std::is_sorted(outputs.begin(), outputs.end()));
  EXPECT_EQ(four.getChannel(), outputs[0]);
  EXPECT_EQ(tagger.registrations(3), 1);
  // Negative to positive works after construction; the way back is refused.
  DelayedChannel back(&tagger, 5, -10);
  EXPECT_NO_THROW(back.setDelay(10));
  EXPECT_THROW(back.setDelay(-10), std::invalid_argument);
}
