#pragma once

#include <chronotick/Tag.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace chronotick {

class ChronotickRunner;

// One worker thread's block and state. The vectors are kept across blocks so
// that the normal path allocates nothing.
struct Worker {
  std::vector<Tag> tags;
  std::int64_t begin_time = 0;
  std::int64_t end_time = 0;
  std::uint32_t fence = 0;
  std::atomic<bool> stop{false};
  ChronotickRunner *runner = nullptr;
  std::thread thread;
  bool incomplete = false;    // hardware source only
  std::uint64_t sequence = 0; // free for the source to number its blocks
};

} // namespace chronotick
