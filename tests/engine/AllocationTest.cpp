// The normal path of a block allocates nothing: counted by replacing the
// global allocation functions for this test program.

#include "Probes.h"
#include "support/TestTagger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<bool> counting{false};
std::atomic<long> worker_allocations{0};
thread_local bool client_thread = false;

void *allocate(std::size_t size) {
  if (counting.load(std::memory_order_relaxed) && !client_thread) {
    worker_allocations.fetch_add(1, std::memory_order_relaxed);
  }
  if (void *p = std::malloc(size == 0 ? 1 : size)) {
    return p;
  }
  throw std::bad_alloc();
}
} // namespace

void *operator new(std::size_t size) {
  return allocate(size);
}
void *operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void *p) noexcept {
  std::free(p);
}
void operator delete[](void *p) noexcept {
  std::free(p);
}
void operator delete(void *p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void *p, std::size_t) noexcept {
  std::free(p);
}

TEST(Engine, SteadyStateBlocksAllocateNothingOnWorkers) {
  client_thread = true;
  // One worker: with more, a worker that happened to sleep through the warm-up
  // would size its vector during the count.
  chronotick::testing::TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE, 1);
  probes::Shifter shifter(&tagger, 300);
  std::vector<std::unique_ptr<probes::Recorder>> idle;
  for (int i = 0; i < 5; ++i) {
    idle.push_back(std::make_unique<probes::Recorder>(&tagger, false));
  }
  std::vector<chronotick::Tag> block;
  for (int i = 0; i < 1000; ++i) {
    block.push_back(probes::tag(1 + i % 4, i));
  }
  std::int64_t t = 0;
  auto run = [&](int n) {
    for (int k = 0; k < n; ++k) {
      tagger.pushCopy(block, t, t + 1000);
      t += 1000;
    }
    tagger.waitUntilDone();
  };
  run(200); // warm up: vectors reach their working sizes
  counting = true;
  run(500);
  counting = false;
  EXPECT_EQ(worker_allocations.load(), 0);
}
