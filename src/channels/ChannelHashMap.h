#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

// Open-addressing map from a channel number to a small value, for lookups on
// every tag. Hashes the channel's four bytes with FNV-1a and keeps the table
// at most a quarter full, so that a channel that isn't in it costs one probe.
class ChannelHashMap {
public:
  ChannelHashMap() { slots.resize(8); }

  static std::uint64_t hash(std::int32_t channel) {
    const auto bits = static_cast<std::uint32_t>(channel);
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (int i = 0; i < 4; ++i) {
      h ^= (bits >> (8 * i)) & 0xffU;
      h *= 0x100000001b3ULL;
    }
    return h;
  }

  // Inserts or overwrites.
  void insert(std::int32_t channel, std::int32_t value) {
    if (4 * (count + 1) > slots.size())
      grow();
    if (place(slots, channel, value))
      ++count;
  }

  // The value of `channel`, or nullptr if it isn't in the map.
  const std::int32_t *find(std::int32_t channel) const {
    const std::size_t mask = slots.size() - 1;
    for (std::size_t i = hash(channel) & mask;; i = (i + 1) & mask) {
      const Slot &slot = slots[i];
      if (!slot.used)
        return nullptr;
      if (slot.key == channel)
        return &slot.value;
    }
  }

  std::size_t size() const { return count; }

private:
  struct Slot {
    std::int32_t key = 0;
    std::int32_t value = 0;
    bool used = false;
  };

  // Returns true if a new slot was taken.
  static bool place(std::vector<Slot> &table, std::int32_t channel, std::int32_t value) {
    const std::size_t mask = table.size() - 1;
    for (std::size_t i = hash(channel) & mask;; i = (i + 1) & mask) {
      Slot &slot = table[i];
      if (!slot.used) {
        slot = Slot{channel, value, true};
        return true;
      }
      if (slot.key == channel) {
        slot.value = value;
        return false;
      }
    }
  }

  void grow() {
    std::vector<Slot> bigger(slots.size() * 2);
    for (const Slot &slot : slots)
      if (slot.used)
        place(bigger, slot.key, slot.value);
    slots.swap(bigger);
  }

  std::vector<Slot> slots;
  std::size_t count = 0;
};

} // namespace chronotick
