// The replay tagger end to end: recordings made with FileWriter on a test
// source, replayed into a TimeTagStream.

#include "replay/ChronotickVirtualImpl.h"
#include "support/AllocationProbe.h"
#include "support/LogCapture.h"
#include "support/TagFiles.h"

#include <chronotick/FileWriter.h>
#include <chronotick/TimeTagStream.h>

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <thread>

// Streams name only the options they change.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace chronotick {
namespace {

using testing::Block;
using testing::firstDifference;
using testing::makeTag;

using testing::record;

// A replay from stream time `at` of the recording's tags in [from, until).
std::vector<Tag> shifted(const std::vector<Tag> &tags, std::int64_t at, std::int64_t from = 0,
                         std::int64_t until = INT64_MAX) {
  std::vector<Tag> out;
  for (Tag tag : tags)
    if (tag.time >= from && tag.time < until) {
      tag.time += at - from;
      out.push_back(tag);
    }
  return out;
}

// An Error tag at `at`, then the recording's tags replayed from there.
std::vector<Tag> afterError(const std::vector<Tag> &tags, std::int64_t at) {
  std::vector<Tag> out{makeTag(CHANNEL_UNUSED, at, Tag::Type::Error)};
  for (const Tag &tag : shifted(tags, at))
    out.push_back(tag);
  return out;
}

TEST(Replay, RefusesBadFilesAndSpeeds) {
  testing::TempDir dir;
  ChronotickVirtualImpl tagger;
  auto refuses = [&](const std::string &file, const std::string &message) {
    EXPECT_THAT([&] { tagger.replay(file); }, ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq(message)));
  };
  refuses(dir / "missing", "File '" + (dir / "missing") + ".ctbin' could not be opened.");
  testing::writeFile(dir / "text.ctbin", "plain text, not tags\n");
  refuses(dir / "text.ctbin", "File format error. Files must be written via the FileWriter class.");
  EXPECT_DOUBLE_EQ(tagger.getReplaySpeed(), -1.0);
  for (double bad : {0.05, 1e-9, 0.0999})
    EXPECT_THROW(tagger.setReplaySpeed(bad), std::runtime_error) << bad;
  tagger.setReplaySpeed(0.1); // the lowest speed that paces
  EXPECT_DOUBLE_EQ(tagger.getReplaySpeed(), 0.1);
  EXPECT_TRUE(tagger.waitForCompletion(0, 0)); // nothing was ever queued
}

TEST(Replay, RoundTripOfEveryTagTypeAcrossParts) {
  testing::TempDir dir;
  // A new part starts outside overflow, so a block doesn't end in one.
  const std::vector<Block> blocks = testing::randomBlocks(11, {.blocks = 60, .overflow_across_blocks = false});
  record(blocks, dir / "rec", 8 * 1024);
  EXPECT_GT(testing::partFiles(dir / "rec").size(), 5u);

  ChronotickVirtualImpl tagger;
  TimeTagStream stream(&tagger, 100000000);
  tagger.replay(dir / "rec.ctbin");
  EXPECT_TRUE(tagger.waitForCompletion());
  const std::vector<Tag> expected = testing::expectedRecording(blocks);
  EXPECT_EQ(firstDifference(testing::tagsOf(stream.getData()), expected), "");

  const auto counted = std::count_if(expected.begin(), expected.end(), [](const Tag &tag) {
    return tag.type == Tag::Type::Error || tag.type == Tag::Type::OverflowBegin;
  });
  EXPECT_EQ(tagger.getOverflowsAndClear(), counted);
  EXPECT_EQ(tagger.getOverflows(), 0);
  // The file's channel map answers channel questions now.
  EXPECT_EQ(tagger.getInvertedChannel(-1), 1);
  EXPECT_EQ(tagger.getInvertedChannel(7), CHANNEL_UNUSED);
}

TEST(Replay, SeekingDurationsAndQueue) {
  testing::TempDir dir;
  const std::vector<Block> blocks =
      testing::randomBlocks(5, {.blocks = 12, .overflow_across_blocks = false, .huge_deltas = false});
  const std::vector<Tag> tags = testing::expectedRecording(blocks);
  const std::int64_t length = blocks.back().end_time;
  const std::string path = dir / "seek";
  record(blocks, path, 4 * 1024);

  ChronotickVirtualImpl tagger;
  TimeTagStream stream(&tagger, 100000000);
  auto take = [&] { return testing::tagsOf(stream.getData()); };

  // Silence first, then the whole recording.
  tagger.replay(path, -1000);
  tagger.waitForCompletion();
  EXPECT_EQ(firstDifference(take(), shifted(tags, 1000)), "");
  std::int64_t at = 1000 + length;

  // A seek into the middle of a block, for a duration that ends in another
  // block; it starts with an error, as it continues another part than the last.
  const std::int64_t from = blocks[3].begin_time + (blocks[3].end_time - blocks[3].begin_time) / 3;
  const std::int64_t duration = blocks[8].begin_time + 77 - from;
  tagger.replay(path, from, duration);
  tagger.waitForCompletion();
  std::vector<Tag> expected = afterError(shifted(tags, 0, from, from + duration), at);
  EXPECT_EQ(firstDifference(take(), expected), "");
  at += duration;

  // A window whose ends fall exactly on tags inside blocks: the first is in,
  // the last is out.
  auto tagInside = [&](std::size_t from_block) {
    for (std::size_t b = from_block; b < blocks.size(); ++b)
      for (const Tag &tag : tags)
        if (tag.time > blocks[b].begin_time && tag.time < blocks[b].end_time)
          return tag.time;
    ADD_FAILURE() << "no tag inside a block";
    return std::int64_t(0);
  };
  const std::int64_t first_in = tagInside(2), first_out = tagInside(6);
  tagger.replay(path, first_in, first_out - first_in);
  tagger.waitForCompletion();
  expected = afterError(shifted(tags, 0, first_in, first_out), at);
  ASSERT_GT(expected.size(), 1u);
  EXPECT_EQ(expected[1].time, at);
  EXPECT_EQ(firstDifference(take(), expected), "");
  at += first_out - first_in;

  // Nothing from a duration of 0 or a begin beyond the end; a duration beyond
  // the end is filled with silence, which moves the next replay. Between two
  // replays comes one error.
  tagger.replay(path, 0, 0);
  tagger.replay(path, length + 5);
  tagger.replay(path, 0, length + 1000000);
  EXPECT_TRUE(tagger.waitForCompletion(tagger.replay(path), 20000));
  expected = afterError(tags, at);
  for (const Tag &tag : afterError(tags, at + length + 1000000))
    expected.push_back(tag);
  EXPECT_EQ(firstDifference(take(), expected), "");
  at += 2 * length + 1000000;

  // Paused: stream time stands still with replays queued, and a replay that
  // doesn't queue drops them.
  tagger.setReplaySpeed(0.0);
  const std::uint64_t dropped = tagger.replay(path);
  const std::int64_t captured = stream.getCaptureDuration();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(tagger.waitForCompletion(dropped, 0));
  EXPECT_EQ(stream.getCaptureDuration(), captured);
  const std::uint64_t kept = tagger.replay(path, 0, -1, false);
  EXPECT_TRUE(tagger.waitForCompletion(dropped, 0));
  EXPECT_FALSE(tagger.waitForCompletion(kept, 50));
  tagger.setReplaySpeed(-1.0);
  EXPECT_TRUE(tagger.waitForCompletion(kept));
  EXPECT_EQ(firstDifference(take(), afterError(tags, at)), "");
}

TEST(Replay, ErrorAtAGapAndEmulationOnReplayedTags) {
  testing::TempDir dir;
  // Two blocks with a hole between them.
  const std::vector<Block> blocks{{{makeTag(1, 100), makeTag(2, 900)}, 0, 1000},
                                  {{makeTag(1, 5100), makeTag(5, 5400)}, 5000, 6000}};
  record(blocks, dir / "gap");
  // Another writer's recording that begins where "gap" ends.
  record({{{makeTag(5, 6100)}, 6000, 7000}}, dir / "next");
  // A part of another recording under the next name is not played.
  record({blocks[1]}, dir / "foreign");
  std::filesystem::copy_file(dir / "foreign.1.ctbin", dir / "gap.2.ctbin");
  testing::LogCapture capture;

  ChronotickVirtualImpl tagger;
  tagger.setInputDelay(2, 50);
  tagger.setDeadtime(1, 5000);
  TimeTagStream stream(&tagger, 1000);
  tagger.replay(dir / "gap");
  tagger.replay(dir / "next");
  tagger.waitForCompletion();
  // The first block after construction has no error tag; the gap gets one,
  // and stream time runs on without the hole. The error ends channel 1's dead
  // time, so its second tag passes although it is 1000 ps after the first.
  // The join to the other recording has no gap in time, but another file id.
  EXPECT_EQ(firstDifference(testing::tagsOf(stream.getData()),
                            {makeTag(1, 100), makeTag(2, 950), makeTag(CHANNEL_UNUSED, 1000, Tag::Type::Error),
                             makeTag(1, 1100), makeTag(5, 1400), makeTag(CHANNEL_UNUSED, 2000, Tag::Type::Error),
                             makeTag(5, 2100)}),
            "");
  EXPECT_EQ(tagger.getOverflows(), 2);
  EXPECT_EQ(capture.messages().size(), 1u);
  EXPECT_EQ(capture.count("File '" + (dir / "gap") +
                          ".2.ctbin' matches the naming schema, but was not written in the same FileWriter. Skipped."),
            1);
}

TEST(Replay, AFileThatCantBeReadEndsItsRecordingAndReplayGoesOn) {
  namespace allocation = testing::allocation;
  testing::TempDir dir;
  // A configuration text this long makes each part's reader take a buffer of 1 MiB.
  testing::writeRecording(dir / "a", {1, 1, 1, 1}, {{makeTag(1, 100), makeTag(2, 900)}}, std::string(1536 * 1024, ' '));
  const std::vector<Block> b{{{makeTag(5, 10), makeTag(8, 20)}, 0, 50}, {{makeTag(1, 60)}, 50, 70}};
  record(b, dir / "b");
  const std::vector<Tag> tags_b = testing::expectedRecording(b);
  testing::LogCapture capture;

  ChronotickVirtualImpl tagger;
  TimeTagStream stream(&tagger, 1000);
  tagger.setReplaySpeed(0.0); // queue first, so that the failing requests are the files' own
  // Requests of 1 MiB and more are a's. Its very first file fails to open:
  // the recording is passed over, and the next plays from the start.
  allocation::failLargeRequests(std::size_t(1) << 20, 0, 1);
  tagger.replay(dir / "a");
  tagger.replay(dir / "b");
  tagger.setReplaySpeed(-1.0);
  EXPECT_TRUE(tagger.waitForCompletion());
  EXPECT_EQ(firstDifference(testing::tagsOf(stream.getData()), tags_b), "");

  // A later part that fails (after part 0's buffer and text) ends its
  // recording there; the next recording starts with an Error, as after a gap.
  tagger.setReplaySpeed(0.0);
  allocation::failLargeRequests(std::size_t(1) << 20, 2, 1);
  tagger.replay(dir / "a");
  tagger.replay(dir / "b");
  tagger.setReplaySpeed(-1.0);
  EXPECT_TRUE(tagger.waitForCompletion());
  allocation::stopFailing();
  EXPECT_EQ(firstDifference(testing::tagsOf(stream.getData()), afterError(tags_b, 70)), "");
  EXPECT_EQ(capture.count("' could not be read: std::bad_alloc. Replay goes on after it.", LOGGER_ERROR), 2);
  EXPECT_EQ(capture.messages().size(), 2u);
}

TEST(Replay, StreamTimeStaysWithinTheRangeMeasurementsCanAddWindowsTo) {
  // Each block may span 2^62 ps, but the stream time of a replay never passes it.
  testing::TempDir dir;
  const std::int64_t big = std::int64_t(1) << 62;
  record({{{makeTag(1, 5)}, 0, big - 1000}}, dir / "long");
  record({{{makeTag(1, 7)}, 0, 1000000}}, dir / "next");
  testing::LogCapture capture;
  ChronotickVirtualImpl tagger;
  TimeTagStream stream(&tagger, 100);
  tagger.setReplaySpeed(0.0);
  tagger.replay(dir / "long");
  tagger.replay(dir / "next");
  tagger.setReplaySpeed(-1.0);
  EXPECT_TRUE(tagger.waitForCompletion());
  EXPECT_EQ(firstDifference(testing::tagsOf(stream.getData()), {makeTag(1, 5)}), "");
  EXPECT_EQ(capture.count("' is skipped.", LOGGER_ERROR), 1);
  EXPECT_NE(capture.messages().at(0).find("The replay reached the end of its time range"), std::string::npos);
}

TEST(Replay, ChannelServices) {
  {
    ChronotickVirtualImpl tagger;
    EXPECT_EQ(tagger.getInvertedChannel(3), -3);
    EXPECT_FALSE(tagger.isUnusedChannel(-1));
    EXPECT_TRUE(tagger.isUnusedChannel(CHANNEL_UNUSED));
    tagger.setTestSignal(5, true);
    EXPECT_TRUE(tagger.getTestSignal(-5));
  }
  const int scheme = getChronotickChannelNumberScheme();
  setChronotickChannelNumberScheme(CT_CHANNEL_NUMBER_SCHEME_ZERO);
  ChronotickVirtualImpl zero;
  setChronotickChannelNumberScheme(scheme);
  EXPECT_TRUE(zero.isUnusedChannel(-1));
  EXPECT_THAT([&] { zero.setTestSignal(std::vector<std::int32_t>{1}, true); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  ::testing::StrEq("setTestSignal called with the zero channel numbering scheme. How many inputs has "
                                   "your virtual Chronotick?")));
}

} // namespace
} // namespace chronotick
