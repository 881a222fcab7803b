// The raw word decoder: hand-made words for each rule, and long random word
// streams cut into random blocks against the plain model of RawDecoderModel.h.

#include "RawDecoderModel.h"

#include "device/BoardProtocol.h"
#include "device/RawDecoder.h"
#include "engine/Worker.h"
#include "support/AllocationProbe.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

namespace chronotick {
namespace {

using testing::ModelBoard;

std::uint32_t word(std::uint32_t kind, std::uint32_t code, std::uint32_t payload, std::uint32_t coarse) {
  return board::rawWord(kind, code, payload, coarse);
}
std::uint32_t event(std::uint32_t slot, std::uint32_t bin, std::uint32_t coarse) {
  return word(1, slot, bin, coarse);
}
std::uint32_t rollover(std::uint32_t kind = 1, std::uint32_t payload = 0) {
  return word(kind, board::CODE_ROLLOVER, payload, 0);
}
std::uint32_t control(std::uint32_t kind, std::uint32_t coarse) {
  return word(kind, board::CODE_CONTROL, 0, coarse);
}

Tag tag(Tag::Type type, std::int32_t channel, std::int64_t time, std::uint16_t missed = 0) {
  return Tag{type, 0, missed, channel, time};
}
Tag timeTag(std::int32_t channel, std::int64_t time) {
  return tag(Tag::Type::TimeTag, channel, time);
}

// Tags of equal time may leave in any order, so runs of equal time compare
// as multisets. Within a run that holds an overflow mark, whether a tied
// event was lost depends on that order too.
::testing::AssertionResult sameStream(const std::vector<Tag> &got, const std::vector<Tag> &want) {
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " tags instead of " << want.size() << " (first: type "
                                         << int((got.empty() ? want : got)[0].type) << " at "
                                         << (got.empty() ? want : got)[0].time << ")";
  using Key = std::tuple<int, std::int32_t, int>;
  for (std::size_t i = 0; i < want.size();) {
    std::size_t j = i;
    bool mark = false;
    while (j < want.size() && want[j].time == want[i].time) {
      mark |= want[j].type == Tag::Type::OverflowBegin || want[j].type == Tag::Type::OverflowEnd;
      ++j;
    }
    std::vector<Key> a, b;
    for (std::size_t k = i; k < j; ++k) {
      if (got[k].time != want[i].time)
        return ::testing::AssertionFailure() << "tag " << k << " at " << got[k].time << " instead of " << want[i].time;
      for (auto [t, out] : {std::pair{got[k], &a}, std::pair{want[k], &b}}) {
        const bool lost_or_not =
            mark && (t.type == Tag::Type::TimeTag || (t.type == Tag::Type::MissedEvents && t.missed_events == 1));
        out->emplace_back(lost_or_not ? -1 : int(t.type), t.channel, lost_or_not ? 0 : int(t.missed_events));
      }
    }
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    if (a != b)
      return ::testing::AssertionFailure() << "tags " << i << " to " << j << " at " << want[i].time << " differ";
    i = j;
  }
  return ::testing::AssertionSuccess();
}

// One board, decoded by RawDecoder and by the model side by side.
struct Rig {
  DeviceChannelState state;
  ModelBoard model;
  Worker worker;
  bool negative_delays = false;
  DecodeSettings settings;
  std::uint32_t current_fence = 0;

  Rig(std::int64_t period, int bins, int slots) : model(period, bins, slots) {
    state.setup(period, bins, slots);
    state.slot_channels = model.channels;
  }
  void setDelay(int slot, std::int64_t delay) {
    negative_delays |= delay < 0; // the tagger never uploads those: tags could then go back
    state.pending_delays[std::size_t(slot)] = delay;
    model.delays[std::size_t(slot)] = delay;
  }
  void setCount(int slot, int bin, std::uint32_t count) {
    state.binsOf(slot)[bin].count = count;
    model.counts[std::size_t(slot)][std::size_t(bin)] = count;
  }
  const std::vector<Tag> &decode(const std::vector<std::uint32_t> &words) {
    RawDecoder::decode(words.data(), words.size(), state, settings, current_fence, worker);
    return worker.tags;
  }

  // Decodes with both; everything the model knows must agree.
  ::testing::AssertionResult step(const std::vector<std::uint32_t> &words) {
    const std::int64_t begin = model.watermark;
    const std::int32_t fence = model.fence;
    const std::vector<Tag> want =
        model.decode(words, settings.normalization, settings.trigger_mask, settings.filtered_mask, current_fence);
    decode(words);
    if (auto same = sameStream(worker.tags, want); !same)
      return same;
    if (worker.begin_time != begin || worker.end_time != model.watermark || worker.fence != std::uint32_t(fence))
      return ::testing::AssertionFailure() << "block span or fence";
    // What every measurement relies on: tags in order, inside the block.
    for (std::size_t i = 0; i < worker.tags.size() && !negative_delays; ++i)
      if (worker.tags[i].time < (i ? worker.tags[i - 1].time : begin) || worker.tags[i].time > worker.end_time)
        return ::testing::AssertionFailure() << "tag " << i << " out of order or outside its block";
    if (state.rng_state != model.rng || state.overflow_count != model.overflow_count || state.fence != model.fence ||
        state.rollover_base != model.base || state.in_overflow != model.in_overflow ||
        state.filter_open_mask != model.open)
      return ::testing::AssertionFailure() << "decoder state";
    for (int s = 0; s < model.slots; ++s)
      for (int i = 0; i <= model.bins; ++i) {
        const FineBin &bin = state.binsOf(s)[i];
        if (bin.start_ps != model.starts[std::size_t(s)][std::size_t(i)] ||
            (i < model.bins && bin.count != model.counts[std::size_t(s)][std::size_t(i)]))
          return ::testing::AssertionFailure() << "fine bin " << i << " of slot " << s;
      }
    return ::testing::AssertionSuccess();
  }
};

TEST(RawDecoder, SetupGivesUniformEmptyBins) {
  DeviceChannelState state;
  state.rng_state = 77;
  state.watermark = 5;
  state.setup(5000, 7, 4);
  ASSERT_EQ(state.fine_bins.size(), 4u * 8u);
  EXPECT_EQ(state.slot_channels, std::vector<std::int32_t>(4, CHANNEL_UNUSED));
  const std::uint32_t starts[] = {0, 714, 1428, 2142, 2857, 3571, 4285, 5000};
  for (int slot = 0; slot < 4; ++slot)
    for (int i = 0; i < 8; ++i) {
      EXPECT_EQ(state.binsOf(slot)[i].start_ps, starts[i]);
      EXPECT_EQ(state.binsOf(slot)[i].count, 0u);
    }
  EXPECT_EQ(state.rng_state, 1u);
  EXPECT_EQ(state.watermark, 0);
  EXPECT_EQ(state.pending_delays.size(), 4u);
}

TEST(RawDecoder, RebuildFineBinsLearnsFromCounts) {
  DeviceChannelState state;
  state.setup(1000, 4, 3);
  auto fill = [&](int slot, std::vector<std::uint32_t> counts) {
    for (int i = 0; i < 4; ++i)
      state.binsOf(slot)[i].count = counts[std::size_t(i)];
  };
  auto starts = [&](int slot) {
    std::vector<std::uint32_t> s;
    for (int i = 0; i <= 4; ++i)
      s.push_back(state.binsOf(slot)[i].start_ps);
    return s;
  };
  fill(0, {1000, 3000, 4000, 2000}); // 10000: still uniform
  fill(1, {1000, 3000, 4000, 2001});
  RawDecoder::rebuildFineBins(state, true);
  EXPECT_EQ(starts(0), (std::vector<std::uint32_t>{0, 250, 500, 750, 1000}));
  EXPECT_EQ(starts(1), (std::vector<std::uint32_t>{0, 99, 399, 799, 1000}));
  EXPECT_EQ(starts(2), (std::vector<std::uint32_t>{0, 250, 500, 750, 1000}));
  RawDecoder::rebuildFineBins(state, false); // the centres
  EXPECT_EQ(starts(1), (std::vector<std::uint32_t>{49, 249, 599, 899, 1000}));
  EXPECT_EQ(state.binsOf(1)[3].count, 2001u);

  // The counts decay by 0.9 only above 1,000,000, after the starts are taken.
  fill(0, {333333, 666667, 0, 0});
  fill(1, {333334, 666667, 0, 0});
  RawDecoder::rebuildFineBins(state, true);
  EXPECT_EQ(state.binsOf(0)[0].count, 333333u);
  EXPECT_EQ(state.binsOf(0)[1].count, 666667u);
  EXPECT_EQ(state.binsOf(1)[0].count, 300000u);
  EXPECT_EQ(state.binsOf(1)[1].count, 600000u);
  EXPECT_EQ(starts(1), (std::vector<std::uint32_t>{0, 333, 1000, 1000, 1000}));
}

TEST(RawDecoder, NormalizationDrawsFromTheXorshiftSequence) {
  Rig rig(4000, 8, 2);
  // Values of the generator from seed 1, worked out by hand: the state after
  // the first two steps, and the top 32 bits of its products.
  const std::int64_t r1 = 1206177355, r2 = 2882512552;
  const auto &tags = rig.decode({event(0, 2, 10), event(0, 2, 11), event(0, 2, 5), rollover()});
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_EQ(tags[0].time, 10 * 4000 + 1000 + ((500 * r1) >> 32));
  EXPECT_EQ(tags[1].time, 11 * 4000 + 1000 + ((500 * r2) >> 32));
  // The late third event was dropped, but had its draw.
  EXPECT_EQ(rig.state.rng_state, 0xd004003202803u);
  EXPECT_EQ(rig.state.binsOf(0)[2].count, 2u);
}

TEST(RawDecoder, TagsWaitForTheWatermarkToPassThem) {
  Rig rig(1000, 4, 2);
  rig.settings.normalization = false;
  EXPECT_TRUE(rig.decode({event(0, 1, 100)}).empty()); // the last word: held back
  EXPECT_EQ(rig.worker.end_time, 100000);
  // Same coarse time: accepted without a flush; an earlier one is lost, not counted.
  EXPECT_TRUE(rig.decode({event(1, 0, 100), event(0, 1, 99)}).empty());
  EXPECT_EQ(rig.worker.begin_time, 100000);
  EXPECT_EQ(rig.state.binsOf(0)[1].count, 1u);
  EXPECT_EQ(rig.state.binsOf(1)[0].count, 1u);
  EXPECT_TRUE(sameStream(rig.decode({event(0, 0, 101)}), {timeTag(101, 100000), timeTag(100, 100250)}));

  // A tag right at the flush time stays, also over a roll-over of 0 periods.
  const std::int64_t base = 65536000;
  EXPECT_TRUE(
      sameStream(rig.decode({rollover(), event(1, 0, 0), rollover(3, 0), rollover(2, 0)}), {timeTag(100, 101000)}));
  EXPECT_EQ(rig.state.rollover_base, base);
  EXPECT_TRUE(sameStream(rig.decode({rollover(3, 1)}), {timeTag(101, base)}));
  EXPECT_EQ(rig.state.rollover_base, base + 256 * base);

  // Idle words change nothing, whatever their other bits.
  const DeviceChannelState before = rig.state;
  EXPECT_TRUE(rig.decode({0x3F123456, 0x00FFFFFF, 0}).empty());
  EXPECT_EQ(rig.worker.begin_time, rig.worker.end_time);
  EXPECT_EQ(rig.state.rng_state, before.rng_state);
  EXPECT_EQ(rig.state.watermark, before.watermark);
  EXPECT_EQ(rig.state.sort_heap.size(), before.sort_heap.size());
}

TEST(RawDecoder, WordsBeyondTheTablesAreDropped) {
  Rig rig(1000, 4, 2);
  rig.decode({event(2, 0, 10), event(57, 0, 11), event(0, 4, 12), event(1, 255, 13), word(3, 9, 1, 0), rollover()});
  EXPECT_TRUE(rig.worker.tags.empty());
  EXPECT_EQ(rig.state.rng_state, 1u);
  EXPECT_EQ(rig.state.watermark, 65536000);
}

TEST(RawDecoder, RolloversWidenTheFenceEcho) {
  Rig rig(1000, 4, 2);
  rig.current_fence = 0x100;
  rig.decode({rollover(1, 0xFF)});
  EXPECT_EQ(rig.state.fence, 0xFF);
  rig.current_fence = 0xFF;
  rig.decode({rollover(1, 0x01)});
  EXPECT_EQ(rig.state.fence, 0x101);
  EXPECT_EQ(rig.worker.fence, 0xFFu); // a block reports the fence it began with
  rig.current_fence = 0x12345;
  rig.decode({rollover(1, 0x40)});
  EXPECT_EQ(rig.state.fence, 0x12340);
  EXPECT_EQ(rig.state.rollover_base, 3 * 65536000);
}

TEST(RawDecoder, OverflowAndErrorWordsMarkTheStream) {
  Rig rig(1000, 4, 2);
  rig.settings.normalization = false;
  rig.setDelay(1, 700);
  rig.decode({control(2, 10), event(0, 0, 20), word(3, 1, 2, 999), control(3, 30), event(0, 0, 40), rollover()});
  EXPECT_TRUE(sameStream(rig.worker.tags,
                         {tag(Tag::Type::OverflowBegin, CHANNEL_UNUSED, 10000),
                          tag(Tag::Type::MissedEvents, 100, 20000, 1), tag(Tag::Type::MissedEvents, 101, 20000, 512),
                          tag(Tag::Type::OverflowEnd, CHANNEL_UNUSED, 30700), timeTag(100, 40000)}));
  EXPECT_EQ(rig.state.overflow_count, 1);
  EXPECT_FALSE(rig.state.in_overflow);

  // An error word loses what is pending and stands in for one roll-over.
  const std::int64_t base = rig.state.rollover_base + 65536000;
  rig.decode({event(0, 0, 5), control(1, 3), event(1, 0, 4), rollover()});
  EXPECT_TRUE(
      sameStream(rig.worker.tags, {tag(Tag::Type::Error, CHANNEL_UNUSED, base + 3000), timeTag(101, base + 4700)}));
  EXPECT_EQ(rig.state.overflow_count, 2);

  // Negative delays don't move an overflow end earlier.
  rig.setDelay(0, -300);
  rig.setDelay(1, -100);
  const std::int64_t next = rig.state.rollover_base;
  rig.decode({control(2, 1), control(3, 2), event(0, 0, 3), rollover()});
  EXPECT_EQ(rig.state.active_delays, (std::vector<std::int64_t>{-300, -100}));
  EXPECT_TRUE(sameStream(rig.worker.tags,
                         {tag(Tag::Type::OverflowBegin, CHANNEL_UNUSED, next + 1000),
                          tag(Tag::Type::OverflowEnd, CHANNEL_UNUSED, next + 2000), timeTag(100, next + 2700)}));
}

TEST(RawDecoder, ExactFilterOpensForOneEventPerTrigger) {
  Rig rig(1000, 4, 4);
  rig.settings.normalization = false;
  rig.settings.trigger_mask = 0b01;
  rig.settings.filtered_mask = 0b10;
  rig.setDelay(1, 5000); // decided before the delays apply
  rig.decode({event(1, 0, 5), event(0, 0, 10), event(1, 0, 11), event(1, 0, 12), event(2, 0, 13), event(0, 0, 14),
              event(1, 0, 15), rollover()});
  EXPECT_TRUE(sameStream(rig.worker.tags, {timeTag(100, 10000), timeTag(102, 13000), timeTag(100, 14000),
                                           timeTag(101, 16000), timeTag(101, 20000)}));
  EXPECT_EQ(rig.state.binsOf(1)[0].count, 2u); // the dropped ones don't calibrate
  EXPECT_EQ(rig.state.binsOf(0)[0].count, 2u);
  EXPECT_EQ(rig.state.filter_open_mask, ~std::uint64_t(0b11));
}

TEST(RawDecoder, SyncMembersWaitForTheirTimeBase) {
  testing::LogCapture log;
  Rig rig(1000, 4, 2);
  rig.state.is_sync_member = true;
  rig.state.serial = "1234ABC";
  rig.decode({event(0, 0, 5), word(2, 0, 3, 0), word(2, board::CODE_SYNC_FIRST, 0, 0), rollover()});
  EXPECT_TRUE(rig.worker.tags.empty());
  EXPECT_TRUE(rig.worker.incomplete);
  EXPECT_EQ(rig.state.rng_state, 1u);

  rig.state.resynchronized = true;
  rig.decode({word(3, board::CODE_SYNC_LAST, 0, 0), event(0, 0, 5), rollover()});
  EXPECT_FALSE(rig.worker.incomplete);
  EXPECT_EQ(rig.worker.tags.size(), 1u);
  EXPECT_TRUE(rig.state.resynchronized);
  EXPECT_EQ(log.errors(), 0);
  rig.decode({event(0, 0, 5), rollover()}); // nothing from the sync board in this period
  EXPECT_FALSE(rig.state.resynchronized);
  EXPECT_EQ(log.count("Nothing received from the sync board between two rollover events. Is AUX IN 1 still "
                      "connected to 1234ABC?",
                      LOGGER_ERROR),
            1);

  rig.state.resynchronized = true;
  rig.decode({control(1, 0)});
  EXPECT_FALSE(rig.state.resynchronized);
  EXPECT_EQ(log.count("Error event received from 1234ABC, please make sure that the CLK is connected properly."), 1);
}

// Random board output: events on a few slots, late events, lost-event
// counts, roll-overs of every kind, overflow and error marks, idle and
// sync-board words. With `one_per_cycle`, no two events share a cycle, so
// that the filter's decisions don't depend on the order of ties.
std::vector<std::uint32_t> boardStream(std::mt19937_64 &rng, std::size_t n, int slots, int bins, bool one_per_cycle) {
  std::uniform_int_distribution<int> percent(0, 999);
  std::uniform_int_distribution<std::uint32_t> any(0, 0xFFFFFFFF);
  auto below = [&](std::uint32_t limit) { return std::uint32_t(any(rng) % limit); };
  std::vector<std::uint32_t> words;
  std::uint32_t cycle = 0;
  while (words.size() < n) {
    const int p = percent(rng);
    if (p < 750) {
      cycle += one_per_cycle ? 1 + below(6) : below(3);
      if (cycle > 0xFFFF) {
        words.push_back(rollover(1, below(256)));
        cycle = below(4);
      }
      std::uint32_t coarse = cycle;
      if (!one_per_cycle && p < 20 && cycle > 10)
        coarse -= 1 + below(10); // late
      words.push_back(event(below(std::uint32_t(slots)), below(std::uint32_t(bins)), coarse));
    } else if (p < 780) {
      words.push_back(word(2 + below(2), below(std::uint32_t(slots)), below(256), below(0x10000)));
    } else if (p < 830) {
      words.push_back(rollover(1, below(256)));
      cycle = 0;
    } else if (p < 845) {
      const std::uint32_t periods = below(3);
      words.push_back(rollover(2, periods));
      cycle = periods ? 0 : cycle;
    } else if (p < 850) {
      const std::uint32_t high = below(2);
      words.push_back(rollover(3, high));
      cycle = high ? 0 : cycle;
    } else if (p < 855) {
      cycle = below(20);
      words.push_back(control(1, cycle));
    } else if (p < 880) {
      // Now and then a mark out of place, as from a damaged link.
      words.push_back(control(2 + below(2), p < 860 && cycle > 50 ? cycle - 50 : cycle));
    } else if (p < 980) {
      words.push_back(any(rng) & 0x3FFFFFFF); // idle
    } else {
      words.push_back(word(1 + below(3), board::CODE_SYNC_FIRST + below(4), below(256), below(0x10000)));
    }
  }
  return words;
}

struct StreamCase {
  bool normalization;
  bool filter;
};

class RawDecoderStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(RawDecoderStream, MatchesTheModelBlockByBlock) {
  const StreamCase c = GetParam();
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    const int slots = 5, bins = 6;
    Rig rig(4000 + std::int64_t(seed) * 7, bins, slots);
    rig.settings.normalization = c.normalization;
    if (c.filter) {
      rig.settings.trigger_mask = 0b00101; // slot 2 is both trigger and filtered
      rig.settings.filtered_mask = 0b01110;
    }
    // Some slots start past the uniform table, with uneven bins.
    for (int s = 0; s < 3; ++s)
      for (int i = 0; i < bins; ++i)
        rig.setCount(s, i, std::uint32_t(1000 + 300 * i * (s + 1) + s));
    const std::vector<std::uint32_t> words = boardStream(rng, 200000, slots, bins, c.filter);
    std::size_t at = 0;
    while (at < words.size()) {
      // Delays change between blocks, some far beyond a clock cycle; odd
      // seeds also try negative ones.
      if (rng() % 8 == 0) {
        // One draw a statement: the order of draws must not depend on the compiler.
        const int slot = int(rng() % slots);
        const std::uint64_t range = rng() % 4 == 0 ? 2000000 : 20000;
        rig.setDelay(slot, std::int64_t(rng() % range) - (seed % 2 == 1 ? 5000 : 0));
      }
      rig.current_fence = std::uint32_t(rng());
      const std::size_t size = std::min<std::size_t>(words.size() - at, rng() % 4 == 0 ? 0 : rng() % 3000);
      ASSERT_TRUE(rig.step(
          std::vector<std::uint32_t>(words.begin() + std::ptrdiff_t(at), words.begin() + std::ptrdiff_t(at + size))))
          << "block at word " << at;
      at += size;
    }
    EXPECT_GT(rig.state.overflow_count, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Settings, RawDecoderStream,
                         ::testing::Values(StreamCase{true, false}, StreamCase{false, false}, StreamCase{true, true},
                                           StreamCase{false, true}));

TEST(RawDecoder, SteadyStateBlocksAllocateNothing) {
  namespace allocation = testing::allocation;
  std::mt19937_64 rng(3);
  Rig rig(6000, 64, 16);
  for (int s = 0; s < 8; ++s)
    rig.setDelay(s, s * 3000);
  // Whole roll-over periods: the block continues the stream on each decode.
  std::vector<std::uint32_t> words;
  for (int period = 0; period < 2; ++period) {
    for (std::uint32_t cycle = 0; cycle < 0xFFFF; cycle += std::uint32_t(rng() % 3))
      words.push_back(event(std::uint32_t(rng() % 8), std::uint32_t(rng() % 64), cycle));
    words.push_back(rollover());
  }
  for (int i = 0; i < 20; ++i)
    rig.decode(words);
  rig.settings.trigger_mask = 1;
  rig.settings.filtered_mask = 0b110;
  for (int i = 0; i < 20; ++i)
    rig.decode(words);
  ASSERT_GT(rig.worker.tags.size(), words.size() / 2);
  const long before = allocation::workerAllocations();
  allocation::countWorkerAllocations(true);
  for (int i = 0; i < 20; ++i)
    rig.decode(words);
  rig.settings.filtered_mask = 0;
  for (int i = 0; i < 20; ++i)
    rig.decode(words);
  allocation::countWorkerAllocations(false);
  EXPECT_EQ(allocation::workerAllocations() - before, 0);
}

} // namespace
} // namespace chronotick
