#pragma once

#include <chronotick/Export.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace chronotick {

// Lets several workers run heavy work of one measurement at once while some
// steps still happen in block order: a ticket per block, taken in block order
// (under the iterator's mutex), and a wait until the ticket's turn has come.
class CHRONOTICK_API OrderedBarrier {
public:
  class CHRONOTICK_API OrderInstance {
  public:
    OrderInstance();
    OrderInstance(OrderedBarrier *barrier, std::uint64_t ticket);
    OrderInstance(const OrderInstance &) = default;
    OrderInstance &operator=(const OrderInstance &) = default;
    ~OrderInstance();

    // Waits until every earlier ticket released, then holds the barrier.
    void sync();
    // Lets the next ticket go; a no-op unless this instance holds.
    void release();

  private:
    OrderedBarrier *barrier;
    bool holding;
    std::uint64_t ticket;
  };

  OrderedBarrier();
  OrderedBarrier(const OrderedBarrier &) = delete;
  OrderedBarrier &operator=(const OrderedBarrier &) = delete;

  // Takes the next ticket. The caller must hold the iterator's mutex: that is
  // what makes tickets follow block order.
  OrderInstance queue();
  // Waits until every ticket handed out so far has been released.
  void waitUntilFinished();

private:
  void obtain(std::uint64_t ticket);
  void release(std::uint64_t ticket);

  std::atomic<std::uint64_t> next_ticket;
  std::uint64_t released;
  std::mutex mutex;
  std::condition_variable condition;
};

// The position of one next_impl call in the chain of its iterator's barriers.
class CHRONOTICK_API OrderedPipeline {
public:
  OrderedPipeline();

private:
  friend class IteratorBase;
  std::size_t position; // index of the next barrier among the iterator's
};

} // namespace chronotick
