#include <chronotick/EventGenerator.h>

#include "support/TestTagger.h"
#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

namespace chronotick::testing {
namespace {

using vcheck::specialTag;
using vcheck::timeTag;

struct GeneratorSetup {
  std::int32_t trigger;
  std::vector<std::int64_t> pattern;
  std::uint64_t divider;
  std::uint64_t offset;
  std::int32_t stop;
};

// Batch model: every pattern tag that a chosen trigger starts and no later
// stop or error cancels, merged into the (possibly delayed) stream, where a
// stream tag goes first on equal times; inside an overflow stretch of the
// outgoing stream a generated tag becomes a lost event.
std::vector<Tag> referenceGenerator(const std::vector<Tag> &stream, const GeneratorSetup &s, std::int32_t output,
                                    std::int64_t end) {
  std::int64_t lowest = *std::min_element(s.pattern.begin(), s.pattern.end());
  const bool delayed = lowest < 0;
  const std::int64_t shift = delayed ? -lowest : 0;
  std::vector<std::int64_t> generated;
  std::uint64_t n_triggers = 0;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    const Tag &trigger = stream[i];
    if (trigger.type != Tag::Type::TimeTag || trigger.channel != s.trigger)
      continue;
    if (n_triggers++ % s.divider != s.offset)
      continue;
    for (std::int64_t value : s.pattern) {
      std::int64_t g = trigger.time + value + shift;
      bool cancelled = false;
      for (std::size_t j = 0; j < stream.size() && !cancelled; ++j) {
        const Tag &other = stream[j];
        if (j > i && s.stop != CHANNEL_UNUSED && other.channel == s.stop && other.time <= g)
          cancelled = true;
        if (other.type == Tag::Type::Error) {
          // The error acts where it leaves the delay, on what was generated
          // by then.
          std::int64_t acts_at = other.time + shift;
          bool generated_before = j < i ? delayed && trigger.time <= acts_at : j > i;
          if (generated_before && g >= acts_at)
            cancelled = true;
        }
      }
      if (!cancelled && g < end)
        generated.push_back(g);
    }
  }
  std::sort(generated.begin(), generated.end());

  std::vector<Tag> out;
  bool overflow = false;
  std::size_t k = 0;
  auto emit_generated_before = [&](std::int64_t time) {
    for (; k < generated.size() && generated[k] < time; ++k) {
      Tag tag = timeTag(output, generated[k]);
      if (overflow) {
        tag.type = Tag::Type::MissedEvents;
        tag.missed_events = 1;
      }
      out.push_back(tag);
    }
  };
  for (Tag tag : stream) {
    tag.time += shift;
    if (tag.time >= end)
      break;
    emit_generated_before(tag.time);
    out.push_back(tag);
    if (tag.type == Tag::Type::OverflowBegin)
      overflow = true;
    if (tag.type == Tag::Type::OverflowEnd)
      overflow = false;
  }
  emit_generated_before(end);
  return out;
}

TEST(EventGenerator, MatchesReferenceOnRandomStreamsWhereverBlocksAreCut) {
  const GeneratorSetup setups[] = {
      {1, {0, 170, 400, 1000, 400}, 1, 0, CHANNEL_UNUSED},
      {2, {50, 300}, 3, 1, 4},
      {1, {700, -300, 0, 45}, 2, 1, 3},
      {5, {-50, 120, 2000}, 1, 0, 5},
      {6, {0, 7, 3000, 25000, -100, 12000}, 1, 0, CHANNEL_UNUSED}, // dozens of patterns at once
  };
  std::uint64_t seed = 300;
  for (const GeneratorSetup &setup : setups) {
    vcheck::RandomStreamOptions options;
    options.channels = {1, 2, 3, 4, 5, 6};
    options.n_tags = 5000;
    options.mean_gap = 100;
    options.equal_time_probability = 0.05;
    options.overflow_probability = 0.003;
    options.error_probability = 0.002;
    options.missed_probability = 0.002;
    std::vector<Tag> stream = vcheck::randomStream(options, ++seed);
    std::int64_t end = stream.back().time + 150;
    for (const auto &cuts : vcheck::cutSets(stream.size(), seed)) {
      std::int32_t output = 0;
      auto blocks = vcheck::runThrough(stream, cuts, end, [&](TestTagger &tagger) {
        auto generator = std::make_shared<EventGenerator>(&tagger, setup.trigger, setup.pattern, setup.divider,
                                                          setup.offset, setup.stop);
        output = generator->getChannel();
        return generator;
      });
      SCOPED_TRACE("trigger " + std::to_string(setup.trigger) + ", " + std::to_string(cuts.size()) + " cuts");
      EXPECT_TRUE(vcheck::blocksInOrder(blocks));
      std::vector<Tag> expected = referenceGenerator(stream, setup, output, end);
      auto missed = std::count_if(expected.begin(), expected.end(), [&](const Tag &t) {
        return t.channel == output && t.type == Tag::Type::MissedEvents;
      });
      EXPECT_GT(missed, 0);
      EXPECT_GT(expected.size() - std::size_t(missed), stream.size() + 200);
      EXPECT_TRUE(vcheck::sameTags(expected, vcheck::joined(blocks)));
    }
  }
}

TEST(EventGenerator, DividerOffsetStopAndOverflowRules) {
  TestTagger tagger;
  try {
    EventGenerator bad(&tagger, 1, {0}, 0, 0, CHANNEL_UNUSED);
    ADD_FAILURE() << "divider 0 accepted";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "negative or zero trigger dividers are not supported");
  }
  try {
    EventGenerator bad(&tagger, 1, {0}, (std::uint64_t(1) << 63) + 1, 0, CHANNEL_UNUSED);
    ADD_FAILURE() << "divider above 2^63 accepted";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "negative or zero trigger dividers are not supported");
  }
  try {
    EventGenerator bad(&tagger, 1, {0}, 3, 3, CHANNEL_UNUSED);
    ADD_FAILURE() << "offset equal to the divider accepted";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "divider_offset must be smaller than trigger_divider");
  }
  EXPECT_EQ(tagger.registrations(1), 0);

  // Divider 3, offset 1: triggers 1, 4 and 7 (from 0) start the pattern.
  EventGenerator every_third(&tagger, 1, {10}, 3, 1, CHANNEL_UNUSED);
  EventGenerator stopped(&tagger, 2, {0, 100, 200}, 1, 0, 3);
  EXPECT_EQ(tagger.registrations(2), 1);
  EXPECT_EQ(tagger.registrations(3), 0); // the stop channel stays unregistered
  vcheck::OutputRecorder recorder(&tagger);
  const std::int32_t third = every_third.getChannel();
  const std::int32_t out = stopped.getChannel();
  std::vector<Tag> triggers;
  for (int n = 0; n < 9; ++n)
    triggers.push_back(timeTag(1, 1000 * (n + 1)));
  tagger.pushAndWait(triggers, 0, 9500);
  std::vector<Tag> seen;
  for (const Tag &tag : vcheck::joined(recorder.blocks()))
    if (tag.channel == third)
      seen.push_back(tag);
  EXPECT_TRUE(vcheck::sameTags({timeTag(third, 2010), timeTag(third, 5010), timeTag(third, 8010)}, seen));

  // A stop cancels what is due at its own time and later; the input goes
  // before a generated tag of the same time; a tag due at the block's end
  // waits for the next block.
  tagger.pushAndWait({timeTag(2, 10000), timeTag(4, 10100), timeTag(3, 10100), timeTag(2, 10300)}, 9500, 10400);
  EXPECT_TRUE(vcheck::sameTags({timeTag(2, 10000), timeTag(out, 10000), timeTag(4, 10100), timeTag(3, 10100),
                                timeTag(2, 10300), timeTag(out, 10300)},
                               recorder.blocks().back().tags));
  tagger.pushAndWait({}, 10400, 10500);
  EXPECT_TRUE(vcheck::sameTags({timeTag(out, 10400)}, recorder.blocks().back().tags));

  // Due inside an overflow stretch: a lost event on the output channel. The
  // OverflowBegin of the same time goes first.
  tagger.pushAndWait({specialTag(Tag::Type::OverflowBegin, 10500), specialTag(Tag::Type::OverflowEnd, 10620)}, 10500,
                     11000);
  EXPECT_TRUE(
      vcheck::sameTags({specialTag(Tag::Type::OverflowBegin, 10500), specialTag(Tag::Type::MissedEvents, 10500, out, 1),
                        specialTag(Tag::Type::OverflowEnd, 10620)},
                       recorder.blocks().back().tags));

  // clear drops the pattern that is running.
  tagger.pushAndWait({timeTag(2, 11000)}, 11000, 11050);
  stopped.clear();
  tagger.pushAndWait({}, 11050, 12000);
  EXPECT_TRUE(
      vcheck::sameTags({timeTag(2, 11000), timeTag(out, 11000)}, recorder.blocks()[recorder.blocks().size() - 2].tags));
  EXPECT_TRUE(recorder.blocks().back().tags.empty());
}

TEST(EventGenerator, NegativeValuesDelayTheStream) {
  TestTagger tagger;
  EventGenerator generator(&tagger, 1, {10, -5}, 1, 0, CHANNEL_UNUSED);
  vcheck::OutputRecorder recorder(&tagger);
  const std::int32_t out = generator.getChannel();
  tagger.pushAndWait({timeTag(2, 995), timeTag(1, 1000), specialTag(Tag::Type::Error, 1003), timeTag(1, 1100)}, 0,
                     2000);
  // Values 0 and 15 after the shift of 5; the delayed stream goes first on
  // equal times; the error acts where it leaves the delay, at 1008, and
  // cancels 1015.
  EXPECT_TRUE(
      vcheck::sameTags({timeTag(2, 1000), timeTag(out, 1000), timeTag(1, 1005), specialTag(Tag::Type::Error, 1008),
                        timeTag(out, 1100), timeTag(1, 1105), timeTag(out, 1115)},
                       vcheck::joined(recorder.blocks())));
}

} // namespace
} // namespace chronotick::testing
