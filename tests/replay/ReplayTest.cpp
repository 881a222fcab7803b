// The replay tagger end to end: recordings made with FileWriter on a test
// source, replayed into a TimeTagStream.

#include "replay/ChronotickVirtualImpl.h"
#include "support/TestTagger.h"

#include <chronotick/FileWriter.h>
#include <chronotick/Logging.h>
#include <chronotick/TimeTagStream.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace chronotick {
namespace {

using testing::Block;

const std::vector<std::int32_t> RECORDED{1, 2, 3, -4};

std::string dataPath(const std::string &name) {
  return std::string(CT_TEST_DATA_DIR) + "/replay_" + name;
}

// Blocks of tags as a recording can hold them exactly: time tags outside
// overflow, missed events inside, each at the time of the tag before it
// (or the block's begin).
// Deltas now and then need one or two extension words.
std::vector<Block> randomBlocks(std::uint64_t seed, int n_blocks) {
  std::mt19937_64 rng(seed);
  std::vector<Block> blocks;
  bool overflow = false;
  std::int64_t end = 0;
  for (int b = 0; b < n_blocks; ++b) {
    Block block;
    block.begin_time = end;
    std::int64_t t = end;
    const int n = static_cast<int>(rng() % 4000);
    for (int i = 0; i < n; ++i) {
      const unsigned roll = rng() % 1000;
      std::int64_t delta = static_cast<std::int64_t>(rng() % 200000);
      if (roll < 3)
        delta += std::int64_t(1) << 24;
      else if (roll == 3)
        delta += (std::int64_t(1) << 48) + 12345;
      Tag tag{Tag::Type::TimeTag, 0, 0, CHANNEL_UNUSED, t};
      if (roll >= 980 && roll < 990) {
        tag.type = Tag::Type::Error;
      } else if (roll >= 990) {
        tag.type = overflow ? Tag::Type::OverflowEnd : Tag::Type::OverflowBegin;
        overflow = !overflow;
      } else if (overflow) {
        tag.type = Tag::Type::MissedEvents; // takes the running time
        tag.missed_events = static_cast<std::uint16_t>(rng() % 65535 + 1);
        tag.channel = RECORDED[rng() % RECORDED.size()];
        delta = 0;
      } else {
        tag.channel = RECORDED[rng() % RECORDED.size()];
      }
      t += delta;
      tag.time = t;
      block.tags.push_back(tag);
    }
    if (overflow) {
      // A new part starts outside overflow, so a block doesn't end in one.
      block.tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, ++t});
      overflow = false;
    }
    end = t + 1 + static_cast<std::int64_t>(rng() % 1000000);
    block.end_time = end;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

void record(const std::vector<Block> &blocks, const std::string &path, std::int64_t max_file_size = 0x40000000) {
  // Parts left from an earlier run would be taken for another recording's.
  const std::filesystem::path base(path);
  for (const auto &entry : std::filesystem::directory_iterator(base.parent_path()))
    if (entry.path().filename().string().rfind(base.filename().string() + ".", 0) == 0)
      std::filesystem::remove(entry.path());
  testing::TestTagger source(8, CT_CHANNEL_NUMBER_SCHEME_ONE, 2);
  FileWriter writer(&source, path, RECORDED);
  writer.setMaxFileSize(max_file_size);
  for (const Block &block : blocks)
    source.push(block.tags, block.begin_time, block.end_time);
  source.waitUntilDone();
}

std::vector<Tag> take(TimeTagStream &stream) {
  TimeTagStreamBuffer data = stream.getData();
  std::vector<std::int32_t> channels;
  std::vector<std::int64_t> times;
  std::vector<std::uint16_t> missed;
  std::vector<std::uint8_t> types;
  data.getChannels([&](std::size_t n) { return channels.resize(n), channels.data(); });
  data.getTimestamps([&](std::size_t n) { return times.resize(n), times.data(); });
  data.getMissedEvents([&](std::size_t n) { return missed.resize(n), missed.data(); });
  data.getEventTypes([&](std::size_t n) { return types.resize(n), types.data(); });
  std::vector<Tag> tags;
  for (std::size_t i = 0; i < times.size(); ++i)
    tags.push_back(Tag{static_cast<Tag::Type>(types[i]), 0, missed[i], channels[i], times[i]});
  return tags;
}

auto key(const Tag &t) {
  return std::make_tuple(static_cast<int>(t.type), t.channel, t.time, t.missed_events);
}

void expectTags(const std::vector<Tag> &actual, const std::vector<Tag> &expected) {
  EXPECT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < std::min(actual.size(), expected.size()); ++i)
    ASSERT_EQ(key(actual[i]), key(expected[i])) << "tag " << i;
}

// The tags of `blocks` as a replay from stream time `at` must give them:
// recorded blocks follow each other without gaps.
std::vector<Tag> shifted(const std::vector<Block> &blocks, std::int64_t at, std::int64_t from = 0,
                         std::int64_t until = INT64_MAX) {
  std::vector<Tag> tags;
  for (const Block &block : blocks)
    for (Tag tag : block.tags)
      if (tag.time >= from && tag.time < until) {
        tag.time += at - from - blocks.front().begin_time;
        tags.push_back(tag);
      }
  return tags;
}

Tag errorAt(std::int64_t time) {
  return Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, time};
}

std::vector<std::string> logged;
void keepLog(LogLevel, std::string message) {
  logged.push_back(std::move(message));
}

TEST(Replay, RefusesBadFilesAndSpeeds) {
  ChronotickVirtualImpl tagger;
  try {
    tagger.replay(dataPath("missing"));
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error &e) {
    EXPECT_EQ(std::string(e.what()), "File '" + dataPath("missing") + ".ctbin' could not be opened.");
  }
  std::ofstream(dataPath("text.ctbin")) << "plain text, not tags\n";
  try {
    tagger.replay(dataPath("text.ctbin"));
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "File format error. Files must be written via the FileWriter class.");
  }
  EXPECT_DOUBLE_EQ(tagger.getReplaySpeed(), -1.0);
  for (double bad : {0.05, 1e-9, 0.0999})
    EXPECT_THROW(tagger.setReplaySpeed(bad), std::runtime_error) << bad;
  for (double good : {0.0, 0.1, 2.0, -1.0}) {
    tagger.setReplaySpeed(good);
    EXPECT_DOUBLE_EQ(tagger.getReplaySpeed(), good);
  }
  EXPECT_TRUE(tagger.waitForCompletion(0, 0)); // nothing was ever queued
}

TEST(Replay, RoundTripOfEveryTagTypeAcrossParts) {
  const std::vector<Block> blocks = randomBlocks(11, 60);
  const std::string path = dataPath("roundtrip");
  record(blocks, path, 16 * 1024); // many parts
  EXPECT_TRUE(std::ifstream(path + ".5.ctbin").is_open());

  ChronotickVirtualImpl tagger;
  TimeTagStream stream(&tagger, 100000000);
  tagger.replay(path + ".ctbin");
  EXPECT_TRUE(tagger.waitForCompletion());
  const std::vector<Tag> expected = shifted(blocks, 0);
  expectTags(take(stream), expected);

  std::int64_t counted = 0;
  for (const Tag &tag : expected)
    counted += tag.type == Tag::Type::Error || tag.type == Tag::Type::OverflowBegin;
  EXPECT_EQ(tagger.getOverflows(), counted);
  EXPECT_EQ(tagger.getOverflowsAndClear(), counted);
  EXPECT_EQ(tagger.getOverflows(), 0);

  // The file's channel map answers channel questions now.
  EXPECT_EQ(tagger.getInvertedChannel(-4), 4);
  EXPECT_EQ(tagger.getInvertedChannel(7), CHANNEL_UNUSED);
  EXPECT_FALSE(tagger.isUnusedChannel(-1)); // the other edge of recorded channel 1
}

TEST(Replay, SeekingDurationsAndQueue) {
  const std::vector<Block> blocks = randomBlocks(5, 12);
  const std::int64_t length = blocks.back().end_time;
  const std::string path = dataPath("seek");
  record(blocks, path, 32 * 1024);

  ChronotickVirtualImpl tagger;
  TimeTagStream stream(&tagger, 100000000);

  // Silence first, then the whole recording.
  tagger.replay(path, -1000);
  tagger.waitForCompletion();
  expectTags(take(stream), shifted(blocks, 1000));
  std::int64_t at = 1000 + length;

  // A seek into the middle of a block, for a duration that ends in another block.
  const std::int64_t from = blocks[3].begin_time + (blocks[3].end_time - blocks[3].begin_time) / 3;
  const std::int64_t duration = blocks[8].begin_time + 77 - from;
  tagger.replay(path, from, duration);
  tagger.waitForCompletion();
  std::vector<Tag> expected{errorAt(at)}; // another part of the recording than the last one ended on
  for (const Tag &tag : shifted(blocks, at, from, from + duration))
    expected.push_back(tag);
  expectTags(take(stream), expected);
  at += duration;

  // Nothing from a duration of 0 or a begin beyond the end; a duration beyond
  // the end is filled with silence, which moves the next replay.
  tagger.replay(path, 0, 0);
  tagger.replay(path, length + 5);
  tagger.replay(path, 0, length + 1000000);
  const std::uint64_t last = tagger.replay(path);
  EXPECT_TRUE(tagger.waitForCompletion(last, 20000));
  expected = {errorAt(at)};
  for (const Tag &tag : shifted(blocks, at))
    expected.push_back(tag);
  at += length + 1000000;
  expected.push_back(errorAt(at)); // two queued replays of one recording: one error between them
  for (const Tag &tag : shifted(blocks, at))
    expected.push_back(tag);
  expectTags(take(stream), expected);
  at += length;

  // Paused: stream time stands still with replays queued, and a replay that
  // doesn't queue drops them.
  tagger.setReplaySpeed(0.0);
  const std::uint64_t dropped = tagger.replay(path);
  const std::int64_t captured = stream.getCaptureDuration();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(tagger.waitForCompletion(dropped, 0));
  EXPECT_EQ(stream.getCaptureDuration(), captured);
  const std::uint64_t kept = tagger.replay(path, 0, -1, false);
  EXPECT_TRUE(tagger.waitForCompletion(dropped, 0));
  EXPECT_FALSE(tagger.waitForCompletion(kept, 50));
  tagger.setReplaySpeed(-1.0);
  EXPECT_TRUE(tagger.waitForCompletion(kept));
  expected = {errorAt(at)};
  for (const Tag &tag : shifted(blocks, at))
    expected.push_back(tag);
  expectTags(take(stream), expected);
}

TEST(Replay, ErrorAtAGapAndEmulationOnReplayedTags) {
  // Two blocks with a hole between them.
  std::vector<Block> blocks(2);
  blocks[0] = {{Tag{Tag::Type::TimeTag, 0, 0, 1, 100}, Tag{Tag::Type::TimeTag, 0, 0, 2, 900}}, 0, 1000};
  blocks[1] = {{Tag{Tag::Type::TimeTag, 0, 0, 1, 5100}, Tag{Tag::Type::TimeTag, 0, 0, 3, 5400}}, 5000, 6000};
  const std::string path = dataPath("gap");
  record(blocks, path);
  // A part of another recording under the next name is not played.
  record({blocks[1]}, dataPath("foreign"));
  std::filesystem::copy_file(dataPath("foreign.1.ctbin"), path + ".2.ctbin");
  logged.clear();
  logger_callback previous = setLogger(keepLog);

  ChronotickVirtualImpl tagger;
  tagger.setInputDelay(2, 50);
  tagger.setDeadtime(1, 5000);
  TimeTagStream stream(&tagger, 1000);
  tagger.replay(path);
  tagger.waitForCompletion();
  // The first block after construction has no error tag; the gap gets one,
  // and stream time runs on without the hole. The error ends channel 1's dead
  // time, so its second tag passes although it is 1000 ps after the first.
  expectTags(take(stream), {Tag{Tag::Type::TimeTag, 0, 0, 1, 100}, Tag{Tag::Type::TimeTag, 0, 0, 2, 950}, errorAt(1000),
                            Tag{Tag::Type::TimeTag, 0, 0, 1, 1100}, Tag{Tag::Type::TimeTag, 0, 0, 3, 1400}});
  EXPECT_EQ(tagger.getOverflows(), 1);
  setLogger(previous);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find("File '" + path +
                           ".2.ctbin' matches the naming schema, but was not written in the same FileWriter. Skipped."),
            std::string::npos)
      << logged[0];
}

TEST(Replay, ChannelServices) {
  {
    ChronotickVirtualImpl tagger;
    EXPECT_EQ(tagger.getNewVirtualChannel(), 257);
    EXPECT_EQ(tagger.getNewVirtualChannel(), 258);
    EXPECT_EQ(tagger.getInvertedChannel(3), -3);
    EXPECT_FALSE(tagger.isUnusedChannel(-1));
    EXPECT_TRUE(tagger.isUnusedChannel(CHANNEL_UNUSED));
    EXPECT_EQ(tagger.getConfiguration(), "");
    EXPECT_EQ(tagger.setDeadtime(3, 0), 0);
    EXPECT_THROW(tagger.setDeadtime(3, -1), std::invalid_argument);
    tagger.setTestSignal(5, true);
    EXPECT_TRUE(tagger.getTestSignal(-5));
  }
  const int scheme = getChronotickChannelNumberScheme();
  setChronotickChannelNumberScheme(CT_CHANNEL_NUMBER_SCHEME_ZERO);
  ChronotickVirtualImpl zero;
  setChronotickChannelNumberScheme(scheme);
  EXPECT_TRUE(zero.isUnusedChannel(-1));
  try {
    zero.setTestSignal(std::vector<std::int32_t>{1}, true);
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "setTestSignal called with the zero channel numbering scheme. How many inputs has your "
                           "virtual Chronotick?");
  }
}

} // namespace
} // namespace chronotick
