#include "support/LogCapture.h"
#include "support/TagFiles.h"
#include "support/VirtualChannelChecks.h"

#include <chronotick/FileWriter.h>

#include <gtest/gtest.h>

#include <filesystem>

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<Block> firstBlocks(const std::vector<Block> &blocks, std::size_t n) {
  return {blocks.begin(), blocks.begin() + std::ptrdiff_t(n)};
}

std::size_t timeTagBlocks(const std::string &part) {
  std::size_t n = 0;
  for (const BlockInfo &b : walkBlocks(readFile(part)))
    n += b.type == 4;
  return n;
}

const unsigned WORKERS = 4; // several blocks between pack and write at the fault

} // namespace

// Part 1 fills up and rotates; part 2 can't take anything: a full disk at its
// first flush, or a name that can't be opened at the rotation.
TEST(FileWriterFaults, DiskFaultStopsTheWriterOnceAndKeepsWhatWasWritten) {
  struct Case {
    const char *name;
    bool full_disk;
  };
  for (const Case c : {Case{"full disk", true}, Case{"part can't be opened", false}}) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string base = dir / "rec";
    const std::string part2 = dir / "rec.2.ctbin";
    if (c.full_disk)
      std::filesystem::create_symlink("/dev/full", part2);
    else
      std::filesystem::create_directory(part2);
    const auto stream = randomBlocks(5, {.blocks = 60, .max_tags = 20000});

    LogCapture capture;
    TestTagger tagger(8, CT_CHANNEL_NUMBER_SCHEME_ONE, WORKERS);
    BlockRecorder counter(&tagger); // another measurement on the same tagger
    FileWriter writer(&tagger, base, RECORDED);
    writer.setMaxFileSize(200000);
    for (const auto &block : stream)
      tagger.push(block.tags, block.begin_time, block.end_time);
    tagger.waitUntilDone();

    const std::string message =
        c.full_disk ? "FileWriter: Error on writing to the disk. Writing '" + part2 +
                          "' failed: No space left on device. Recording stopped."
                    : "FileWriter: Error on opening the file '" + base + "' for writing. Recording stopped.";
    EXPECT_EQ(capture.count(": " + message, LOGGER_ERROR), 1);
    EXPECT_EQ(capture.errors(), 1);
    EXPECT_FALSE(writer.isRunning());
    EXPECT_EQ(counter.blocks().size(), stream.size());

    // Part 1 was closed whole and reads back as the blocks it took.
    std::filesystem::remove(part2);
    const std::size_t written = timeTagBlocks(dir / "rec.1.ctbin");
    EXPECT_GT(written, 0u);
    EXPECT_LT(written, stream.size());
    EXPECT_EQ(firstDifference(readRecording({base}), expectedRecording(firstBlocks(stream, written))), "");
    EXPECT_EQ(capture.errors(), 1);
  }
}

TEST(FileWriterFaults, RemovedPartStopsTheWriterOnceAndStartGoesOnUnderItsNumber) {
  TempDir dir;
  const std::string base = dir / "rec";
  const std::string part1 = dir / "rec.1.ctbin";
  const auto stream = randomBlocks(6, {.blocks = 40});

  LogCapture capture;
  TestTagger tagger(8, CT_CHANNEL_NUMBER_SCHEME_ONE, WORKERS);
  BlockRecorder counter(&tagger); // another measurement on the same tagger
  FileWriter writer(&tagger, base, RECORDED);
  for (std::size_t i = 0; i < stream.size(); ++i) {
    if (i == 10) {
      tagger.waitUntilDone();
      std::filesystem::remove(part1);
    }
    tagger.push(stream[i].tags, stream[i].begin_time, stream[i].end_time);
  }
  tagger.waitUntilDone();
  EXPECT_EQ(capture.count(": FileWriter: Error on writing to the disk. Writing '" + part1 +
                              "' failed: the file was removed or moved. Recording stopped.",
                          LOGGER_ERROR),
            1);
  EXPECT_EQ(capture.errors(), 1);
  EXPECT_FALSE(writer.isRunning());
  EXPECT_EQ(counter.blocks().size(), stream.size());
  const std::int64_t size_at_fault = writer.getTotalSize();
  EXPECT_GT(size_at_fault, 0);

  // Starting again opens part 1 anew, so that the recording reads on from part 0.
  const auto more = randomBlocks(7, {.blocks = 10, .start_time = tagger.lastEndTime()});
  writer.start();
  for (const auto &block : more)
    tagger.push(block.tags, block.begin_time, block.end_time);
  tagger.waitUntilDone();
  writer.stop();
  EXPECT_GT(writer.getTotalSize(), size_at_fault);
  EXPECT_EQ(firstDifference(readRecording({base}), expectedRecording(more)), "");
  EXPECT_EQ(capture.errors(), 1);
}
