#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/OrderedBarrier.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace chronotick {

// The engine's record of one iterator. The mutexes live here rather than in
// the iterator so that the engine can go on touching the record after the
// iterator is gone.
struct IteratorSlot {
  explicit IteratorSlot(IteratorBase *it) : next(nullptr), iterator(it) {}

  IteratorSlot *next;
  std::atomic<IteratorBase *> iterator; // null once the iterator's destructor ran
  std::mutex iterator_mutex;
  std::mutex chain_mutex;
  // Grows only, under iterator_mutex; the barriers themselves never move.
  std::vector<std::unique_ptr<OrderedBarrier>> barriers;
};

} // namespace chronotick
