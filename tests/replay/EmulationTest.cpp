// Channel emulation against a plain computation of what each setting must do.

#include "replay/ChannelEmulator.h"
#include "replay/ReplayPacer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace chronotick {
namespace {

Tag timeTag(std::int32_t channel, std::int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}
Tag marker(Tag::Type type, std::int64_t time) {
  return Tag{type, 0, 0, CHANNEL_UNUSED, time};
}

constexpr std::int64_t FLUSH = 1000000000; // span of the last, empty block

// Feeds `tags` through the emulator in blocks cut at random places, up to
// `end`, then one empty block [end, end + FLUSH); returns all output.
std::vector<Tag> runBlocks(ChannelEmulator &emulator, const std::vector<Tag> &tags, std::int64_t end,
                           std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<Tag> out;
  std::vector<Tag> block;
  std::int64_t begin = 0;
  std::size_t i = 0;
  while (begin < end) {
    const std::int64_t block_end = std::min(end, begin + 1 + static_cast<std::int64_t>(rng() % 5000000));
    block.clear();
    while (i < tags.size() && tags[i].time < block_end)
      block.push_back(tags[i++]);
    emulator.applySettings();
    emulator.process(block, begin, block_end);
    out.insert(out.end(), block.begin(), block.end());
    begin = block_end;
  }
  block.clear();
  emulator.process(block, end, end + FLUSH);
  out.insert(out.end(), block.begin(), block.end());
  return out;
}

auto key(const Tag &t) {
  return std::make_tuple(t.time, t.channel, static_cast<int>(t.type), t.missed_events);
}

void expectSameTags(std::vector<Tag> actual, std::vector<Tag> expected) {
  for (std::size_t i = 1; i < actual.size(); ++i)
    ASSERT_LE(actual[i - 1].time, actual[i].time) << "output out of order at " << i;
  auto order = [](const Tag &a, const Tag &b) { return key(a) < key(b); };
  std::sort(actual.begin(), actual.end(), order);
  std::sort(expected.begin(), expected.end(), order);
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i)
    ASSERT_EQ(key(actual[i]), key(expected[i])) << "tag " << i;
}

TEST(Emulation, DelaysAndDeadTimeMatchDirectComputation) {
  std::mt19937 rng(7);
  std::vector<Tag> tags;
  std::int64_t t = 1000;
  for (int i = 0; i < 20000; ++i) {
    t += rng() % 3000;
    if (i % 2500 == 1234)
      tags.push_back(marker(Tag::Type::Error, t));
    else
      tags.push_back(timeTag(static_cast<std::int32_t>(rng() % 4) + 1, t));
  }
  const std::map<std::int32_t, std::int64_t> delay{{1, 5000}, {2, -700}, {3, 0}, {4, 123456}};
  const std::map<std::int32_t, std::int64_t> deadtime{{1, 4000}, {2, 0}, {3, 9000}, {4, 0}};

  ChannelEmulator emulator(1);
  for (auto [channel, d] : delay)
    emulator.setInputDelay(channel, d);
  for (auto [channel, d] : deadtime)
    EXPECT_EQ(emulator.setDeadtime(channel, d), d);
  EXPECT_EQ(emulator.getInputDelay(2), -700);
  EXPECT_EQ(emulator.getDeadtime(3), 9000);
  EXPECT_EQ(emulator.getDeadtime(5), 0);

  // Reference: every tag moves by its delay and by the largest negative delay;
  // dead time counts from the last accepted tag of the channel, reset by an error.
  const std::int64_t shift = 700;
  std::map<std::int32_t, std::int64_t> last;
  std::vector<Tag> expected;
  for (const Tag &tag : tags) {
    Tag out = tag;
    out.time += shift;
    if (tag.type == Tag::Type::Error) {
      last.clear();
    } else {
      out.time += delay.at(tag.channel);
      auto seen = last.find(tag.channel);
      if (seen != last.end() && out.time - seen->second < deadtime.at(tag.channel))
        continue;
      last[tag.channel] = out.time;
    }
    expected.push_back(out);
  }
  expectSameTags(runBlocks(emulator, tags, t + 1, 3), expected);

  EXPECT_THROW(emulator.setDeadtime(1, -1), std::invalid_argument);
  try {
    emulator.setDeadtime(1, -5);
  } catch (const std::invalid_argument &e) {
    EXPECT_STREQ(e.what(), "negative deadtimes are not supported");
  }
}

TEST(Emulation, OverflowTurnsHeldTagsIntoMissedEvents) {
  ChannelEmulator emulator(1);
  emulator.setInputDelay(1, 1000);
  std::vector<Tag> in{timeTag(1, 100), timeTag(2, 200), marker(Tag::Type::OverflowBegin, 500),
                      marker(Tag::Type::OverflowEnd, 2000), timeTag(2, 2500)};
  std::vector<Tag> out = runBlocks(emulator, in, 2600, 1);
  ASSERT_EQ(out.size(), 5u);
  EXPECT_EQ(key(out[0]), key(timeTag(2, 200)));
  EXPECT_EQ(key(out[1]), key(marker(Tag::Type::OverflowBegin, 500)));
  EXPECT_EQ(key(out[2]), key(Tag{Tag::Type::MissedEvents, 0, 1, 1, 1100}));
  // The end of the overflow comes after all that was held back, so the
  // stretch lasts until then.
  EXPECT_EQ(key(out[3]), key(Tag{Tag::Type::MissedEvents, 0, 1, 2, 2500}));
  EXPECT_EQ(key(out[4]), key(marker(Tag::Type::OverflowEnd, 3000)));
}

TEST(Emulation, TestSignalReplacesInputWithJitteredEdges) {
  const std::uint32_t seed = 42;
  ChannelEmulator emulator(seed);
  emulator.setTestSignal({2, -3}, true);
  emulator.setInputDelay(3, 250);
  EXPECT_TRUE(emulator.getTestSignal(2));
  EXPECT_TRUE(emulator.getTestSignal(-2));
  EXPECT_TRUE(emulator.getTestSignal(3));
  EXPECT_FALSE(emulator.getTestSignal(1));

  const std::int64_t end = 200000000; // 200 us
  std::vector<Tag> in;
  for (std::int64_t t = 5000; t < end; t += 77777)
    in.push_back(timeTag(t % 2 ? 1 : 2, t)); // channel 2 is replaced, channel 1 passes
  std::vector<Tag> out = runBlocks(emulator, in, end, 9);

  // Reference: from the first block's begin, edges alternate rising/falling
  // every |N(628006.5, 1000)| ps; each edge of a channel gets |N(100, 9)| ps of
  // its own jitter, drawn in channel order from the same engine.
  std::mt19937 rng(seed);
  std::normal_distribution<double> half(628006.5, 1000.0);
  std::map<std::int32_t, std::normal_distribution<double>> jitter;
  const std::map<std::int32_t, std::int64_t> delay{{-3, 0}, {-2, 0}, {2, 0}, {3, 250}};
  std::vector<Tag> expected;
  for (const Tag &tag : in)
    if (tag.channel == 1)
      expected.push_back(tag);
  bool rising = true;
  const std::int64_t limit = end + FLUSH;
  for (std::int64_t edge = 0; edge < limit;) {
    for (auto [channel, d] : delay) {
      if ((channel > 0) != rising)
        continue;
      auto &dist = jitter.try_emplace(channel, 100.0, 9.0).first->second;
      const std::int64_t time = edge + d + static_cast<std::int64_t>(std::abs(dist(rng)));
      if (time < limit)
        expected.push_back(timeTag(channel, time));
    }
    edge += static_cast<std::int64_t>(std::abs(half(rng)));
    rising = !rising;
  }
  expectSameTags(out, expected);

  // The signal as a client sees it: about 796 kHz per edge channel.
  const auto rising2 = std::count_if(out.begin(), out.end(), [](const Tag &t) { return t.channel == 2; });
  EXPECT_NEAR(static_cast<double>(rising2), limit / (2 * 628006.5), 2.0);

  emulator.setTestSignal(std::vector<std::int32_t>{2, 3}, false);
  EXPECT_FALSE(emulator.getTestSignal(-2));
  EXPECT_EQ(emulator.getInputDelay(3), 250);
}

TEST(Pacing, WaitsForTheWallClockAndReanchorsAfterAStall) {
  ReplayPacer pacer;
  const std::int64_t ms = 1000000;           // ns
  const std::int64_t stream_ms = 1000000000; // ps
  EXPECT_EQ(ReplayPacer::step(1.0), 20 * stream_ms);
  EXPECT_EQ(ReplayPacer::step(0.1), 2 * stream_ms);
  EXPECT_EQ(ReplayPacer::step(2.5), 50 * stream_ms);

  pacer.anchor(1000 * ms, 0);
  EXPECT_EQ(pacer.delay(1005 * ms, 20 * stream_ms, 1.0), 15 * ms); // ahead: sleep the rest
  EXPECT_EQ(pacer.delay(1005 * ms, 20 * stream_ms, 2.0), 5 * ms);  // 20 ms of stream take 10 ms
  EXPECT_EQ(pacer.delay(1030 * ms, 20 * stream_ms, 1.0), 0);       // behind: no sleep
  EXPECT_EQ(pacer.wallAnchor(), 1000 * ms);

  // Simulated clock: blocks of 20 ms at speed 1, each taking 1 ms to process,
  // one stall of 300 ms (caught up) and one of 2 s (re-anchored, no burst).
  pacer.anchor(0, 0);
  std::int64_t now = 0;
  std::int64_t stream = 0;
  int unslept_after_short = 0;
  std::int64_t offset_after_stall = 0;
  for (int block = 0; block < 200; ++block) {
    if (block == 50)
      now += 300 * ms;
    if (block == 120)
      now += 2000 * ms;
    const std::int64_t sleep = pacer.delay(now, stream, 1.0);
    ASSERT_GE(sleep, 0);
    ASSERT_LE(sleep, 20 * ms);
    if (block >= 50 && block < 120 && sleep == 0)
      ++unslept_after_short;
    if (block == 120) {
      EXPECT_EQ(sleep, 0);
      EXPECT_EQ(pacer.wallAnchor(), now);
      EXPECT_EQ(pacer.streamAnchor(), stream);
    }
    if (block == 121) {
      EXPECT_EQ(sleep, 19 * ms); // paced again right away, not a burst
    }
    now += sleep + 1 * ms;
    if (block == 121)
      offset_after_stall = now - stream / 1000;
    stream += ReplayPacer::step(1.0);
  }
  // The short stall leaves the replay 281 ms behind; gaining 19 ms a block, 15 blocks run without sleeping.
  EXPECT_EQ(unslept_after_short, 15);
  // After the re-anchoring, wall time follows stream time again without drift.
  EXPECT_EQ(now - (stream - ReplayPacer::step(1.0)) / 1000, offset_after_stall);
}

} // namespace
} // namespace chronotick
