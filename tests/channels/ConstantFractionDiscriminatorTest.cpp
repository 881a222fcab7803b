#include <chronotick/ConstantFractionDiscriminator.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// Batch model of the discriminator on a ONE-scheme tagger: everything a
// stretch between breaks would produce, kept if due before the break (or the
// end), in time order; at equal times inputs keep stream order and go before
// centres, and centres go by channel.
std::vector<Tag> referenceCfd(const std::vector<Tag> &stream, const std::vector<std::int32_t> &named,
                              const std::vector<std::int32_t> &outputs, std::int64_t window, std::int64_t end) {
  std::map<std::int32_t, std::int32_t> output_of; // leading channel -> its output
  for (std::size_t i = 0; i < named.size(); ++i)
    output_of.emplace(named[i], outputs[i]);
  struct Pending {
    std::int64_t time;
    int kind; // 0 input, 1 centre
    std::int32_t channel;
    std::size_t seq;
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
        out.push_back(makeTag(p.kind ? p.channel : stream[p.seq].channel, p.time));
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
    auto &leading = last_leading[-tag.channel];
    if (output_of.count(-tag.channel) && leading) {
      const std::int64_t width = tag.time - *leading;
      leading.reset();
      if (width < window)
        pending.push_back({tag.time + window / 2 - width / 2, 1, output_of[-tag.channel], seq});
    }
    pending.push_back({tag.time + window / 2, 0, 0, seq});
  }
  flush(end);
  return out;
}

} // namespace

TEST(ConstantFractionDiscriminator, MatchesReferenceWhateverTheCuts) {
  struct Case {
    std::vector<std::int32_t> channels;
    std::int64_t window;
    std::int64_t max_gap;
    long min_centres; // so that the case can't pass by producing none
  };
  const Case cases[] = {{{1, 2, -2, 3, 3}, 1000, 300, 300}, {{4, -5}, 301, 120, 100}, {{1, 2}, 1, 6, 5}};
  std::uint64_t seed = 11;
  for (const Case &c : cases) {
    RandomStreamShape shape;
    shape.channels = {1, -1, 2, -2, 3, -3, 4, -4, 5, -5, 6};
    shape.max_gap = c.max_gap;
    shape.lone_missed = 0.001;
    const auto stream = randomTagStream(6000, ++seed, shape);
    const std::int64_t end = stream.back().time + c.window / 3;
    const auto [outputs, channels] = runCut<ConstantFractionDiscriminator>(stream, end, seed, c.channels, c.window);
    const auto expected = referenceCfd(stream, c.channels, channels, c.window, end);
    EXPECT_GT(std::count_if(expected.begin(), expected.end(), [](const Tag &t) { return t.channel > 256; }),
              c.min_centres);
    for (const auto &out : outputs)
      EXPECT_EQ(firstDifference(out, expected), "") << "window " << c.window;
  }
}

TEST(ConstantFractionDiscriminator, ConstructionAndPulseWidthRules) {
  TestTagger tagger;
  ConstantFractionDiscriminator cfd(&tagger, {2, 3, -3, 2}, 1000);
  EXPECT_EQ(tagger.registrations(2), 1);
  EXPECT_EQ(tagger.registrations(-2), 1);

  struct Case {
    std::int64_t window;
    std::vector<Tag> pulses; // on channel 1
    Times centres;
  };
  const Case cases[] = {
      {1000, {makeTag(1, 1000), makeTag(-1, 1400)}, {1700}},                   // 1400 + 500 - 200
      {1000, {makeTag(1, 3000), makeTag(1, 3100), makeTag(-1, 3300)}, {3700}}, // the later leading edge counts
      {1000, {makeTag(1, 1000), makeTag(-1, 1999)}, {2000}},                   // just inside the window
      {1000, {makeTag(1, 1000), makeTag(-1, 2000)}, {}},                       // exactly the window: none
      {1, {makeTag(1, 100), makeTag(-1, 100), makeTag(1, 200), makeTag(-1, 201)}, {100}}, // width 0 only
  };
  for (const Case &c : cases) {
    TestTagger own;
    ConstantFractionDiscriminator one(&own, {1}, c.window);
    BlockRecorder recorder(&own);
    own.pushAndWait(c.pulses, 0, 10000);
    EXPECT_EQ(recorder.times(one.getChannels()[0]), c.centres)
        << "window " << c.window << ", first edge at " << c.pulses.front().time;
  }
}
