#include "support/AllocationProbe.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace chronotick::testing::allocation {

namespace {
std::atomic<bool> counting{false};
std::atomic<long> counted{0};
thread_local bool client_thread = false;

std::atomic<bool> measuring{false};
std::atomic<std::size_t> largest{0};
std::atomic<std::int64_t> live{0};
std::atomic<std::int64_t> peak{0};

std::atomic<bool> failing{false};
std::atomic<std::size_t> fail_size{0};
std::atomic<int> fail_skip{0};
std::atomic<int> fail_count{0};

bool shouldFail(std::size_t size) {
  if (!failing.load(std::memory_order_relaxed) || size < fail_size.load(std::memory_order_relaxed))
    return false;
  if (fail_skip.fetch_sub(1) > 0)
    return false;
  return fail_count.fetch_sub(1) > 0;
}

void *allocate(std::size_t size) {
  if (counting.load(std::memory_order_relaxed) && !client_thread)
    counted.fetch_add(1, std::memory_order_relaxed);
  if (shouldFail(size))
    throw std::bad_alloc();
  void *p = std::malloc(size == 0 ? 1 : size);
  if (!p)
    throw std::bad_alloc();
  if (measuring.load(std::memory_order_relaxed)) {
    std::size_t seen = largest.load(std::memory_order_relaxed);
    while (size > seen && !largest.compare_exchange_weak(seen, size)) {
    }
    const std::int64_t now = live.fetch_add(std::int64_t(malloc_usable_size(p))) + std::int64_t(malloc_usable_size(p));
    std::int64_t high = peak.load(std::memory_order_relaxed);
    while (now > high && !peak.compare_exchange_weak(high, now)) {
    }
  }
  return p;
}

void release(void *p) {
  if (p && measuring.load(std::memory_order_relaxed))
    live.fetch_sub(std::int64_t(malloc_usable_size(p)));
  std::free(p);
}
} // namespace

void markClientThread() {
  client_thread = true;
}
void countWorkerAllocations(bool on) {
  counting = on;
}
long workerAllocations() {
  return counted.load();
}

void startMeasuring() {
  largest = 0;
  live = 0;
  peak = 0;
  measuring = true;
}
Usage usage() {
  return {largest.load(), peak.load(), live.load()};
}
void stopMeasuring() {
  measuring = false;
}

void failLargeRequests(std::size_t min_size, int skip, int count) {
  fail_size = min_size;
  fail_skip = skip;
  fail_count = count;
  failing = true;
}
void stopFailing() {
  failing = false;
}

} // namespace chronotick::testing::allocation

using namespace chronotick::testing::allocation;

void *operator new(std::size_t size) {
  return allocate(size);
}
void *operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void *p) noexcept {
  release(p);
}
void operator delete[](void *p) noexcept {
  release(p);
}
void operator delete(void *p, std::size_t) noexcept {
  release(p);
}
void operator delete[](void *p, std::size_t) noexcept {
  release(p);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void *p, const std::nothrow_t &) noexcept {
  release(p);
}
void operator delete[](void *p, const std::nothrow_t &) noexcept {
  release(p);
}
