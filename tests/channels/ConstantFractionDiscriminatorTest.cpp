#include <chronotick/ConstantFractionDiscriminator.h>

#include "support/TestTagger.h"
#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>

namespace chronotick::testing {
namespace {

using vcheck::specialTag;
using vcheck::timeTag;

// Batch model of the discriminator on a ONE-scheme tagger: everything a
// stretch between breaks would produce, kept if due before the break (or the
// end), in time order; at equal times inputs keep stream order and go before
// centres, and centres go by channel.
std::vector<Tag> referenceCfd(const std::vector<Tag> &stream, const std::vector<std::int32_t> &named,
                              const std::vector<std::int32_t> &outputs, std::int64_t window, std::int64_t end) {
  std::int64_t delay = window / 2;
  std::map<std::int32_t, std::int32_t> output_of;  // leading channel -> its output
  std::map<std::int32_t, std::int32_t> leading_of; // trailing channel -> leading channel
  for (std::size_t i = 0; i < named.size(); ++i) {
    output_of.emplace(named[i], outputs[i]);
    leading_of.emplace(-named[i], named[i]);
  }
  struct Pending {
    std::int64_t time;
    int kind; // 0 input, 1 centre
    std::int32_t channel;
    std::size_t seq;
    Tag tag;
  };
  std::vector<Tag> out;
  std::vector<Pending> pending;
  std::map<std::int32_t, std::optional<std::int64_t>> last_leading;
  auto flush = [&](std::int64_t before) {
    std::sort(pending.begin(), pending.end(), [](const Pending &a, const Pending &b) {
      return std::tie(a.time, a.kind, a.channel, a.seq) < std::tie(b.time, b.kind, b.channel, b.seq);
    });
    for (const Pending &p : pending)
      if (p.time < before)
        out.push_back(p.tag);
    pending.clear();
  };
  for (std::size_t seq = 0; seq < stream.size(); ++seq) {
    const Tag &tag = stream[seq];
    if (tag.type != Tag::Type::TimeTag) {
      flush(tag.time);
      last_leading.clear();
      out.push_back(tag);
      continue;
    }
    if (output_of.count(tag.channel))
      last_leading[tag.channel] = tag.time;
    auto trailing = leading_of.find(tag.channel);
    if (trailing != leading_of.end() && last_leading[trailing->second]) {
      std::int64_t width = tag.time - *last_leading[trailing->second];
      last_leading[trailing->second].reset();
      if (width < window) {
        std::int32_t channel = output_of[trailing->second];
        std::int64_t centre = tag.time + delay - width / 2;
        pending.push_back({centre, 1, channel, seq, timeTag(channel, centre)});
      }
    }
    pending.push_back({tag.time + delay, 0, 0, seq, timeTag(tag.channel, tag.time + delay)});
  }
  flush(end);
  return out;
}

TEST(ConstantFractionDiscriminator, MatchesReferenceOnRandomStreamsWhereverBlocksAreCut) {
  struct Case {
    std::vector<std::int32_t> channels;
    std::int64_t window;
    std::int64_t mean_gap;
    long min_centres; // so that the case can't pass by producing none
  };
  const Case cases[] = {{{1, 2, -2, 3, 3}, 1000, 150, 300}, {{4, -5}, 301, 60, 100}, {{1, 2}, 1, 3, 5}};
  std::uint64_t seed = 11;
  for (const Case &c : cases) {
    vcheck::RandomStreamOptions options;
    options.channels = {1, -1, 2, -2, 3, -3, 4, -4, 5, -5, 6};
    options.n_tags = 6000;
    options.mean_gap = c.mean_gap;
    options.equal_time_probability = 0.05;
    std::vector<Tag> stream = vcheck::randomStream(options, ++seed);
    std::int64_t end = stream.back().time + c.window / 3;
    for (const auto &cuts : vcheck::cutSets(stream.size(), seed)) {
      std::vector<std::int32_t> outputs;
      auto blocks = vcheck::runThrough(stream, cuts, end, [&](TestTagger &tagger) {
        auto cfd = std::make_shared<ConstantFractionDiscriminator>(&tagger, c.channels, c.window);
        outputs = cfd->getChannels();
        return cfd;
      });
      SCOPED_TRACE("window " + std::to_string(c.window) + ", " + std::to_string(cuts.size()) + " cuts");
      EXPECT_TRUE(vcheck::blocksInOrder(blocks));
      std::vector<Tag> expected = referenceCfd(stream, c.channels, outputs, c.window, end);
      EXPECT_TRUE(vcheck::sameTags(expected, vcheck::joined(blocks)));
      EXPECT_GT(std::count_if(expected.begin(), expected.end(), [](const Tag &t) { return t.channel > 256; }),
                c.min_centres);
    }
  }
}

TEST(ConstantFractionDiscriminator, ConstructionAndPulseWidthRules) {
  TestTagger tagger;
  for (std::int64_t window : {0, -7}) {
    try {
      ConstantFractionDiscriminator cfd(&tagger, {1}, window);
      ADD_FAILURE() << "window " << window << " accepted";
    } catch (const std::invalid_argument &e) {
      EXPECT_STREQ(e.what(), "search_window must be at least 1 ps");
    }
  }
  try {
    ConstantFractionDiscriminator cfd(&tagger, {1, 9}, 100);
    ADD_FAILURE() << "channel 9 of 8 accepted";
  } catch (const std::invalid_argument &e) {
    EXPECT_STREQ(e.what(), "Channel number 9 has no inverted edge required for the CFD");
  }
  EXPECT_EQ(tagger.registrations(1), 0);
  EXPECT_EQ(tagger.registrations(-1), 0);

  // One output per named channel; a channel named twice shares its output,
  // and naming both edges of an input makes two pairs.
  ConstantFractionDiscriminator cfd(&tagger, {2, 3, -3, 2}, 1000);
  std::vector<std::int32_t> outputs = cfd.getChannels();
  ASSERT_EQ(outputs.size(), 4u);
  EXPECT_EQ(outputs[0], outputs[3]);
  EXPECT_LT(outputs[0], outputs[1]);
  EXPECT_LT(outputs[1], outputs[2]);
  EXPECT_EQ(tagger.registrations(2), 1);
  EXPECT_EQ(tagger.registrations(-2), 1);
  vcheck::OutputRecorder recorder(&tagger);
  const std::int32_t out2 = outputs[0];
  const std::int32_t out3 = outputs[1];
  const std::int32_t out_neg3 = outputs[2];

  std::vector<Tag> block = {
      timeTag(2, 1000),  timeTag(-2, 1400),                    // centre 1400 + 500 - 200 = 1700
      timeTag(2, 3000),  timeTag(2, 3100),  timeTag(-2, 3300), // the later leading edge counts: 3300+500-100
      timeTag(2, 5000),  timeTag(-2, 6000),                    // exactly the window: no centre
      timeTag(-2, 6500),                                       // trailing without leading: ignored
      timeTag(3, 8000),  timeTag(-3, 8600), timeTag(3, 8700),  // both edges named: two pairs
  };
  tagger.pushAndWait(block, 0, 10000);
  std::vector<Tag> expected = {
      timeTag(2, 1500),  timeTag(-2, 1900),   timeTag(out2, 1700), timeTag(2, 3500),        timeTag(2, 3600),
      timeTag(-2, 3800), timeTag(out2, 3700), timeTag(2, 5500),    timeTag(-2, 6500),       timeTag(-2, 7000),
      timeTag(3, 8500),  timeTag(out3, 8800), timeTag(-3, 9100),   timeTag(out_neg3, 9150), timeTag(3, 9200),
  };
  std::sort(expected.begin(), expected.end(), [](const Tag &a, const Tag &b) { return a.time < b.time; });
  EXPECT_TRUE(vcheck::sameTags(expected, vcheck::joined(recorder.blocks())));

  // A break drops what waits beyond it and passes undelayed; a leading edge
  // before the break pairs with nothing after it.
  tagger.pushAndWait(
      {timeTag(2, 10000), timeTag(2, 10200), specialTag(Tag::Type::OverflowBegin, 10600), timeTag(-2, 10700)}, 10000,
      20000);
  std::vector<Tag> after = recorder.blocks().back().tags;
  expected = {timeTag(2, 10500), specialTag(Tag::Type::OverflowBegin, 10600), timeTag(-2, 11200)};
  EXPECT_TRUE(vcheck::sameTags(expected, after));
}

TEST(ConstantFractionDiscriminator, WindowOfOnePsCountsOnlyPulsesOfWidthZero) {
  TestTagger tagger;
  ConstantFractionDiscriminator cfd(&tagger, {1}, 1);
  vcheck::OutputRecorder recorder(&tagger);
  const std::int32_t out = cfd.getChannels()[0];
  tagger.pushAndWait({timeTag(1, 100), timeTag(-1, 100), timeTag(1, 200), timeTag(-1, 201)}, 0, 1000);
  std::vector<Tag> expected = {timeTag(1, 100), timeTag(-1, 100), timeTag(out, 100), timeTag(1, 200), timeTag(-1, 201)};
  EXPECT_TRUE(vcheck::sameTags(expected, vcheck::joined(recorder.blocks())));
}

} // namespace
} // namespace chronotick::testing
