// The normal path of a block allocates nothing: counted by the allocation
// probe that replaces the global allocation functions of the test programs.

#include "Probes.h"
#include "support/AllocationProbe.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

TEST(Engine, SteadyStateBlocksAllocateNothingOnWorkers) {
  namespace allocation = chronotick::testing::allocation;
  allocation::markClientThread();
  // One worker: with more, a worker that happened to sleep through the warm-up
  // would size its vector during the count.
  chronotick::testing::TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE, 1);
  probes::Shifter shifter(&tagger, 300);
  std::vector<std::unique_ptr<probes::Recorder>> idle;
  for (int i = 0; i < 5; ++i)
    idle.push_back(std::make_unique<probes::Recorder>(&tagger, false));
  std::vector<chronotick::Tag> block;
  for (int i = 0; i < 1000; ++i)
    block.push_back(probes::tag(1 + i % 4, i));
  std::int64_t t = 0;
  auto run = [&](int n) {
    for (int k = 0; k < n; ++k) {
      tagger.pushCopy(block, t, t + 1000);
      t += 1000;
    }
    tagger.waitUntilDone();
  };
  run(200); // warm up: vectors reach their working sizes
  const long before = allocation::workerAllocations();
  allocation::countWorkerAllocations(true);
  run(500);
  allocation::countWorkerAllocations(false);
  EXPECT_EQ(allocation::workerAllocations() - before, 0);
}
