// Leaves taggers running at exit: one recording a live test signal with a
// FileWriter and a Countrate, one replaying that recording over and over, and
// a thread blocked in waitForCompletion on a paused tagger. The process must
// end by itself with status 0.

#include <chronotick/Chronotick.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

using namespace chronotick;

// Never deleted: the taggers go at exit with these attached. Held in a plain
// global so that a leak checker sees them as kept, not lost.
IteratorBase *kept[3];

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::string base = std::string(argv[1]) + "/alive";
  // Replaying parts that are still being written logs their cut ends.
  setLogger([](LogLevel, std::string) {});

  ChronotickVirtual *live = createChronotickVirtual();
  live->setReplaySpeed(1.0);
  live->setTestSignal({1, 2}, true);
  auto *writer = new FileWriter(live, base, {1, 2});
  kept[0] = writer;
  writer->setMaxFileSize(64 * 1024);
  kept[1] = new Countrate(live, {1, 2});
  while (writer->getTotalEvents() < 10000)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  writer->split();

  ChronotickVirtual *replayer = createChronotickVirtual();
  kept[2] = new Correlation(replayer, 1, 2);
  for (int i = 0; i < 50; ++i)
    replayer->replay(base);

  ChronotickVirtual *paused = createChronotickVirtual();
  paused->setReplaySpeed(0.0);
  const std::uint64_t never = paused->replay(base);
  std::thread([paused, never] { paused->waitForCompletion(never); }).detach();

  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::puts("leaving with taggers alive");
  return 0;
}
