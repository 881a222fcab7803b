#pragma once

// Watches the global allocation functions of a test program: counts what
// worker threads allocate, measures the largest request and the peak of
// memory in use, and makes chosen large requests fail as if memory had run
// out. Linked into the test programs only (it replaces operator new).

#include <cstddef>
#include <cstdint>

namespace chronotick::testing::allocation {

// Requests of threads marked as client threads are not counted.
void markClientThread();
void countWorkerAllocations(bool on);
long workerAllocations();

struct Usage {
  std::size_t largest = 0;      // largest single request, bytes
  std::int64_t peak_growth = 0; // highest memory in use above the start, bytes
  std::int64_t growth = 0;      // memory in use above the start now, bytes
};
// Measures from now on, until stopped.
void startMeasuring();
Usage usage();
void stopMeasuring();

// Requests of at least `min_size` bytes: the first `skip` pass, the next
// `count` throw std::bad_alloc, the rest pass again.
void failLargeRequests(std::size_t min_size, int skip, int count = 1);
void stopFailing();

} // namespace chronotick::testing::allocation
