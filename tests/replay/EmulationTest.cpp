// Channel emulation and replay pacing against a plain computation of what
// each setting must do.

#include "replay/ChannelEmulator.h"
#include "replay/ReplayPacer.h"
#include "support/RandomTagStreams.h"

#include <gmock/gmock.h>

#include <cmath>
#include <map>
#include <stdexcept>

namespace chronotick {
namespace {

using testing::canonicalOrder;
using testing::firstDifference;
using testing::makeTag;

constexpr std::int64_t FLUSH = 1000000000; // span of the last, empty block

// Feeds `tags` through the emulator in blocks cut at random places, up to
// `end`, then one empty block [end, end + FLUSH); returns all output, which
// must stay in time order.
std::vector<Tag> runBlocks(ChannelEmulator &emulator, const std::vector<Tag> &tags, std::int64_t end,
                           std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<Tag> out, block;
  std::size_t i = 0;
  for (std::int64_t begin = 0; begin < end + FLUSH;) {
    const std::int64_t block_end = begin < end ? std::min(end, begin + 1 + std::int64_t(rng() % 5000000)) : end + FLUSH;
    block.clear();
    while (i < tags.size() && tags[i].time < block_end)
      block.push_back(tags[i++]);
    emulator.applySettings();
    emulator.process(block, begin, block_end);
    out.insert(out.end(), block.begin(), block.end());
    begin = block_end;
  }
  for (std::size_t k = 1; k < out.size(); ++k)
    EXPECT_LE(out[k - 1].time, out[k].time) << "output out of order at " << k;
  return out;
}

TEST(Emulation, DelaysAndDeadTimeMatchDirectComputation) {
  std::mt19937 rng(7);
  std::vector<Tag> tags;
  std::int64_t t = 1000;
  for (int i = 0; i < 20000; ++i) {
    t += 500 * (rng() % 6); // equal times and gaps of exactly the dead time come up
    tags.push_back(i % 2500 == 1234 ? makeTag(CHANNEL_UNUSED, t, Tag::Type::Error) : makeTag(int(rng() % 4) + 1, t));
  }
  const std::map<std::int32_t, std::int64_t> delay{{1, 5000}, {2, -700}, {3, 0}, {4, 123456}};
  const std::map<std::int32_t, std::int64_t> deadtime{{1, 4000}, {2, 0}, {3, 9000}, {4, 0}};
  ChannelEmulator emulator(1);
  for (auto [channel, d] : delay)
    emulator.setInputDelay(channel, d);
  for (auto [channel, d] : deadtime)
    EXPECT_EQ(emulator.setDeadtime(channel, d), d);

  // Reference: every tag moves by its delay and by the largest negative delay;
  // dead time counts from the last accepted tag of the channel, reset by an error.
  std::map<std::int32_t, std::int64_t> last;
  std::vector<Tag> expected;
  for (Tag tag : tags) {
    tag.time += 700;
    if (tag.type == Tag::Type::Error) {
      last.clear();
    } else {
      tag.time += delay.at(tag.channel);
      auto seen = last.find(tag.channel);
      if (seen != last.end() && tag.time - seen->second < deadtime.at(tag.channel))
        continue;
      last[tag.channel] = tag.time;
    }
    expected.push_back(tag);
  }
  EXPECT_EQ(firstDifference(canonicalOrder(runBlocks(emulator, tags, t + 1, 3)), canonicalOrder(expected)), "");
  EXPECT_THAT([&] { emulator.setDeadtime(1, -5); }, ::testing::ThrowsMessage<std::invalid_argument>(
                                                        ::testing::StrEq("negative deadtimes are not supported")));
}

TEST(Emulation, OverflowTurnsHeldTagsIntoMissedEvents) {
  ChannelEmulator emulator(1);
  emulator.setInputDelay(1, 1000);
  const std::vector<Tag> in{makeTag(1, 100), makeTag(2, 200), makeTag(CHANNEL_UNUSED, 500, Tag::Type::OverflowBegin),
                            makeTag(CHANNEL_UNUSED, 2000, Tag::Type::OverflowEnd), makeTag(2, 2500)};
  // The end of the overflow comes after all that was held back, so the
  // stretch lasts until then.
  EXPECT_EQ(firstDifference(runBlocks(emulator, in, 2600, 1),
                            {makeTag(2, 200), makeTag(CHANNEL_UNUSED, 500, Tag::Type::OverflowBegin),
                             makeTag(1, 1100, Tag::Type::MissedEvents, 1), makeTag(2, 2500, Tag::Type::MissedEvents, 1),
                             makeTag(CHANNEL_UNUSED, 3000, Tag::Type::OverflowEnd)}),
            "");
}

TEST(Emulation, TestSignalReplacesInputWithJitteredEdges) {
  const std::uint32_t seed = 42;
  ChannelEmulator emulator(seed);
  emulator.setTestSignal({2, -3}, true);
  emulator.setInputDelay(3, 250);
  EXPECT_TRUE(emulator.getTestSignal(-2));
  EXPECT_TRUE(emulator.getTestSignal(3));
  EXPECT_FALSE(emulator.getTestSignal(1));

  const std::int64_t end = 200000000; // 200 us
  std::vector<Tag> in, expected;
  for (std::int64_t t = 5000; t < end; t += 77777) {
    in.push_back(makeTag(t % 2 ? 1 : 2, t)); // channel 2 is replaced, channel 1 passes
    if (t % 2)
      expected.push_back(in.back());
  }
  const std::vector<Tag> out = runBlocks(emulator, in, end, 9);

  // Reference: from the first block's begin, edges alternate rising/falling
  // every |N(628006.5, 1000)| ps; each edge of a channel gets |N(100, 9)| ps of
  // its own jitter, drawn in channel order from the same engine.
  std::mt19937 rng(seed);
  std::normal_distribution<double> half(628006.5, 1000.0);
  std::map<std::int32_t, std::normal_distribution<double>> jitter;
  const std::map<std::int32_t, std::int64_t> delay{{-3, 0}, {-2, 0}, {2, 0}, {3, 250}};
  bool rising = true;
  for (std::int64_t edge = 0; edge < end + FLUSH; rising = !rising) {
    for (auto [channel, d] : delay) {
      if ((channel > 0) != rising)
        continue;
      auto &dist = jitter.try_emplace(channel, 100.0, 9.0).first->second;
      const std::int64_t time = edge + d + std::int64_t(std::abs(dist(rng)));
      if (time < end + FLUSH)
        expected.push_back(makeTag(channel, time));
    }
    edge += std::int64_t(std::abs(half(rng)));
  }
  EXPECT_EQ(firstDifference(canonicalOrder(out), canonicalOrder(expected)), "");

  emulator.setTestSignal(std::vector<std::int32_t>{2, 3}, false);
  EXPECT_FALSE(emulator.getTestSignal(-2));
}

TEST(Pacing, WaitsForTheWallClockAndReanchorsAfterAStall) {
  ReplayPacer pacer;
  const std::int64_t ms = 1000000;           // ns
  const std::int64_t stream_ms = 1000000000; // ps
  EXPECT_EQ(ReplayPacer::step(1.0), 20 * stream_ms);

  pacer.anchor(1000 * ms, 0);
  EXPECT_EQ(pacer.delay(1005 * ms, 20 * stream_ms, 1.0), 15 * ms); // ahead: sleep the rest
  EXPECT_EQ(pacer.delay(1005 * ms, 20 * stream_ms, 2.0), 5 * ms);  // 20 ms of stream take 10 ms
  EXPECT_EQ(pacer.delay(1030 * ms, 20 * stream_ms, 1.0), 0);       // behind: no sleep
  EXPECT_EQ(pacer.wallAnchor(), 1000 * ms);

  // Simulated clock: blocks of 20 ms at speed 1, each taking 1 ms to process,
  // one stall of 300 ms (caught up) and one of 2 s (re-anchored, no burst).
  pacer.anchor(0, 0);
  std::int64_t now = 0, stream = 0, offset_after_stall = 0;
  int unslept_after_short = 0;
  for (int block = 0; block < 200; ++block) {
    now += block == 50 ? 300 * ms : block == 120 ? 2000 * ms : 0;
    const std::int64_t sleep = pacer.delay(now, stream, 1.0);
    ASSERT_GE(sleep, 0);
    ASSERT_LE(sleep, 20 * ms);
    unslept_after_short += block >= 50 && block < 120 && sleep == 0;
    if (block == 120) {
      EXPECT_EQ(sleep, 0);
      EXPECT_EQ(std::make_pair(pacer.wallAnchor(), pacer.streamAnchor()), std::make_pair(now, stream));
    }
    now += sleep + 1 * ms;
    if (block == 121) {
      EXPECT_EQ(sleep, 19 * ms); // paced again right away, not a burst
      offset_after_stall = now - stream / 1000;
    }
    stream += ReplayPacer::step(1.0);
  }
  // The short stall leaves the replay 281 ms behind; gaining 19 ms a block, 15 blocks run without sleeping.
  EXPECT_EQ(unslept_after_short, 15);
  // After the re-anchoring, wall time follows stream time again without drift.
  EXPECT_EQ(now - (stream - ReplayPacer::step(1.0)) / 1000, offset_after_stall);
}

} // namespace
} // namespace chronotick
