#pragma once

#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

// Times on the tag path compare by signed difference and add with wrap-around,
// so that streams near the end of the 64-bit range stay ordered.
inline bool tagTimeBefore(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b)) < 0;
}

inline std::int64_t tagTimeAdd(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

// A first-in first-out queue of tags on a ring of power-of-two size. Unlike
// std::deque it keeps its storage when drained, so a channel that delays the
// stream allocates only while the ring grows to the largest delay seen.
class TagFifo {
public:
  bool empty() const { return head == tail; }
  std::size_t size() const { return static_cast<std::size_t>(tail - head); }
  const Tag &front() const { return ring[head & mask]; }
  void pop() { ++head; }
  void push(const Tag &tag) {
    if (tail - head == ring.size())
      grow();
    ring[tail & mask] = tag;
    ++tail;
  }
  void clear() { head = tail = 0; }

private:
  void grow() {
    std::size_t capacity = ring.empty() ? 256 : ring.size() * 2;
    std::vector<Tag> bigger(capacity);
    std::size_t n = size();
    for (std::size_t i = 0; i < n; ++i)
      bigger[i] = ring[(head + i) & mask];
    ring.swap(bigger);
    mask = capacity - 1;
    head = 0;
    tail = n;
  }

  std::vector<Tag> ring;
  std::size_t mask = 0;
  std::uint64_t head = 0;
  std::uint64_t tail = 0;
};

} // namespace chronotick
