#pragma once

#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

// Signed-difference time order, as everywhere on the tag path.
inline bool timeBefore(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b)) < 0;
}

// Wrapping addition of picoseconds, so that far-off times never overflow.
inline std::int64_t timePlus(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

// A double-ended queue of tags in time order on a ring buffer that keeps its
// capacity, so that the steady state allocates nothing. Hot loops may work on
// ring, head and count directly (tag i sits at ring[(head + i) & (size - 1)])
// and call grow() when count reaches the ring's size.
class TagQueue {
public:
  TagQueue() : ring(16) {}

  bool empty() const { return count == 0; }
  std::size_t size() const { return count; }
  const Tag &front() const { return ring[head]; }
  const Tag &back() const { return ring[(head + count - 1) & (ring.size() - 1)]; }
  const Tag &operator[](std::size_t i) const { return ring[(head + i) & (ring.size() - 1)]; }

  void pop_front() {
    head = (head + 1) & (ring.size() - 1);
    --count;
  }

  void clear() {
    head = 0;
    count = 0;
  }

  // Appends, or inserts behind the last tag that isn't later if `tag` would
  // break the order (only after a change of delay).
  void push(const Tag &tag) {
    if (count == ring.size())
      grow();
    if (count == 0 || !timeBefore(tag.time, back().time)) {
      ring[(head + count) & (ring.size() - 1)] = tag;
      ++count;
      return;
    }
    insertSorted(tag);
  }

  // Keeps only the tags for which keep(tag) is true, in order.
  template <typename Keep> void filter(Keep keep) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const Tag tag = (*this)[i];
      if (keep(tag))
        ring[(head + kept++) & (ring.size() - 1)] = tag;
    }
    count = kept;
  }

  void grow() {
    std::vector<Tag> bigger(ring.size() * 2);
    for (std::size_t i = 0; i < count; ++i)
      bigger[i] = (*this)[i];
    ring.swap(bigger);
    head = 0;
  }

  std::vector<Tag> ring; // power-of-two size
  std::size_t head = 0;
  std::size_t count = 0;

private:
  void insertSorted(const Tag &tag) {
    const std::size_t mask = ring.size() - 1;
    std::size_t i = count;
    while (i > 0 && timeBefore(tag.time, ring[(head + i - 1) & mask].time)) {
      ring[(head + i) & mask] = ring[(head + i - 1) & mask];
      --i;
    }
    ring[(head + i) & mask] = tag;
    ++count;
  }
};

} // namespace chronotick
