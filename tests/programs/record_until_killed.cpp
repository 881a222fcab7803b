// Records an endless stream at full speed until it is killed:
//   ct_child_record_until_killed <base name> <seed>
// The stream is the one KilledRecordingTest.cpp generates again: the blocks of
// killedRecordingBlocks(seed) over and over, each time shifted to follow on,
// recorded over RECORDED in parts of at most PART_SIZE bytes.

#include "support/TagFiles.h"

#include <chronotick/FileWriter.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

// More than the writer's buffer, so that a part is on disk in pieces while it
// fills, and part 1 holds whole blocks on disk once part 2 exists.
constexpr std::int64_t PART_SIZE = 1500000;

} // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <base name> <seed>\n", argv[0]);
    return 2;
  }
  // Never outlive the test that runs us.
  const pid_t parent = getppid();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent)
    return 3;

  const std::string base = argv[1];
  const std::vector<Block> blocks = killedRecordingBlocks(std::stoull(argv[2]));
  const std::int64_t period = blocks.back().end_time - blocks.front().begin_time;

  TestTagger tagger(8, CT_CHANNEL_NUMBER_SCHEME_ONE, 2);
  FileWriter writer(&tagger, base, RECORDED);
  writer.setMaxFileSize(PART_SIZE);
  std::vector<Tag> tags;
  for (std::int64_t shift = 0;; shift += period) {
    for (const Block &block : blocks) {
      tags = block.tags;
      for (Tag &tag : tags)
        tag.time += shift;
      tagger.pushCopy(tags, block.begin_time + shift, block.end_time + shift);
    }
    tagger.waitUntilDone(); // keeps the queue short
  }
}
