// Taggers at the edges of their lives: freed under waiters, freed from their
// own workers, and still alive when the process exits.

#include "replay/ChronotickVirtualImpl.h"
#include "support/ChildProcess.h"
#include "support/TagFiles.h"

#include <chronotick/IteratorBase.h>
#include <chronotick/Library.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace chronotick {
namespace {

using namespace std::chrono_literals;
using testing::eventually;

TEST(Lifecycle, FreeingATaggerWakesItsWaiters) {
  testing::TempDir dir;
  testing::record({{{testing::makeTag(1, 10)}, 0, 100}}, dir / "one");
  ChronotickVirtual *tagger = createChronotickVirtual();
  auto *impl = dynamic_cast<ChronotickVirtualImpl *>(tagger);
  ASSERT_NE(impl, nullptr);
  ChronotickBase *base = tagger;
  tagger->setReplaySpeed(0.0); // the replay never finishes
  const std::uint64_t id = tagger->replay(dir / "one");
  std::vector<std::future<bool>> waiters;
  for (int i = 0; i < 3; ++i)
    waiters.push_back(std::async(std::launch::async, [=] { return tagger->waitForCompletion(id, -1); }));
  ASSERT_TRUE(eventually([&] { return impl->completionWaitersForTesting() == 3; }));
  EXPECT_TRUE(freeChronotick(base));
  for (auto &waiter : waiters) {
    ASSERT_EQ(waiter.wait_for(30s), std::future_status::ready);
    EXPECT_FALSE(waiter.get());
  }
}

// Frees its own tagger from next_impl, on a worker of that tagger.
class FreesItsTagger : public IteratorBase {
public:
  explicit FreesItsTagger(ChronotickBase *tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~FreesItsTagger() override { stop(); }
  std::atomic<int> freed{-1};

protected:
  bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override {
    if (freed < 0)
      freed = freeChronotick(tagger) ? 1 : 0;
    return false;
  }
};

TEST(Lifecycle, ATaggerFreedFromItsOwnWorkerGoesOnceTheBlockIsDone) {
  ChronotickVirtual *tagger = createChronotickVirtual(); // idle: empty blocks keep coming
  ChronotickBase *base = tagger;
  FreesItsTagger measurement(tagger);
  ASSERT_TRUE(eventually([&] { return measurement.freed >= 0; }));
  EXPECT_EQ(measurement.freed, 1);
  // Detached by the tagger's destruction, which ran on another thread.
  ASSERT_TRUE(eventually([&] { return !measurement.isRunning(); }));
  EXPECT_FALSE(freeChronotick(base));
}

TEST(Lifecycle, AProcessExitsCleanlyWithTaggersAlive) {
  testing::TempDir dir;
  testing::ChildProcess child("exit_with_taggers_alive", {dir / ""});
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(child.wait(60s)) << "the process hangs at exit";
  EXPECT_EQ(child.exitCode(), 0);
}

} // namespace
} // namespace chronotick
