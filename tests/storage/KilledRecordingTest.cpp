#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/TagFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// What reading the child's recording gives back, block by block. No overflow
// stretch crosses a block, so each block's tags follow from the block alone.
class RecordingModel {
public:
  explicit RecordingModel(std::uint64_t seed) : blocks(killedRecordingBlocks(seed)) {
    for (const Block &block : blocks)
      expected.push_back(expectedRecording({block}));
  }
  std::vector<Tag> nextBlock() {
    const std::int64_t period = blocks.back().end_time - blocks.front().begin_time;
    std::vector<Tag> tags = expected[next % blocks.size()];
    for (Tag &tag : tags)
      tag.time += std::int64_t(next / blocks.size()) * period;
    ++next;
    return tags;
  }

private:
  std::vector<Block> blocks;
  std::vector<std::vector<Tag>> expected;
  std::size_t next = 0;
};

// The child starts part 2 once part 1 holds more than the writer's buffer, so
// from then on whole blocks are on disk. False if the child ended first.
bool waitForPart2(ChildProcess &child, const std::string &base) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!std::filesystem::exists(base + ".2.ctbin")) {
    if (child.wait(std::chrono::milliseconds(0)) || std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

} // namespace

// Killed at random moments while recording, with rotations: every block read
// back is whole and as recorded, and the cut is reported.
TEST(KilledRecording, ReadsBackWholeBlocksUpToTheCut) {
  const std::uint64_t seed = 41;
  std::mt19937 random(7);
  TempDir dir;
  for (int run = 0; run < 4; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    const std::string base = dir / ("rec" + std::to_string(run));
    {
      ChildProcess child("record_until_killed", {base, std::to_string(seed)});
      ASSERT_TRUE(child.started());
      ASSERT_TRUE(waitForPart2(child, base));
      std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 351));
      child.kill();
      ASSERT_TRUE(child.wait(std::chrono::seconds(10)));
      ASSERT_TRUE(child.killedBy(SIGKILL)) << "exit code " << child.exitCode();
    }

    LogCapture capture;
    FileReader reader(base);
    RecordingModel model(seed);
    std::vector<Tag> block, expected;
    std::size_t at = 0, tags = 0; // position in `expected`, tags read
    std::string difference;
    while (difference.empty() && reader.getDataRaw(block)) {
      for (const Tag &tag : block) {
        while (at == expected.size()) {
          expected = model.nextBlock();
          at = 0;
        }
        if (tagKey(tag) != tagKey(expected[at])) {
          difference = "tag " + std::to_string(tags) + ": " + firstDifference({tag}, {expected[at]});
          break;
        }
        ++at;
        ++tags;
      }
    }
    EXPECT_EQ(difference, "");
    EXPECT_EQ(at, expected.size()) << "the last block read back is cut";
    // Part 1 reached the disk at least in part before part 2 was opened.
    EXPECT_GT(tags, 0u);
    // The newest part, open at the kill, has no BLOCK_END: its cut is reported.
    EXPECT_GE(capture.count(": File access failed", LOGGER_ERROR), 1);
  }
}
