#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

// Map from a channel number to a small value, for a lookup on every tag.
// Hashes the channel's four bytes with FNV-1a, masked to the table size. The
// table grows until every channel sits in its own home slot, so that a lookup
// is a single probe without branches; only when that would take more than
// max_slots does it fall back to linear probing.
class ChannelHashMap {
public:
  ChannelHashMap() : slots(8) {}

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
    for (Entry &entry : entries) {
      if (entry.key == channel) {
        entry.value = value;
        rebuild(slots.size());
        return;
      }
    }
    entries.push_back({channel, value});
    rebuild(slots.size());
  }

  // Whether `channel` is in the map; its value goes to `value`, which is
  // undefined otherwise.
  bool lookup(std::int32_t channel, std::int32_t &value) const {
    const std::size_t mask = slots.size() - 1;
    std::size_t i = hash(channel) & mask;
    if (direct) {
      const Slot &slot = slots[i];
      value = slot.value;
      return slot.used & (slot.key == channel);
    }
    for (;; i = (i + 1) & mask) {
      const Slot &slot = slots[i];
      if (!slot.used)
        return false;
      if (slot.key == channel) {
        value = slot.value;
        return true;
      }
    }
  }

  // The value of `channel`, or `absent` if it isn't in the map; without a
  // branch on the answer when every channel sits in its home slot.
  std::int32_t valueOr(std::int32_t channel, std::int32_t absent) const {
    if (!direct) {
      std::int32_t value = absent;
      return lookup(channel, value) ? value : absent;
    }
    const Slot &slot = slots[hash(channel) & (slots.size() - 1)];
    const std::int32_t keep = -static_cast<std::int32_t>(slot.used & (slot.key == channel));
    return (slot.value & keep) | (absent & ~keep);
  }

  // The value of `channel`, or nullptr if it isn't in the map.
  const std::int32_t *find(std::int32_t channel) const {
    for (const Entry &entry : entries)
      if (entry.key == channel)
        return &entry.value;
    return nullptr;
  }

  std::size_t size() const { return entries.size(); }

private:
  static constexpr std::size_t max_slots = 4096;

  struct Slot {
    std::int32_t key = 0;
    std::int32_t value = 0;
    bool used = false;
  };
  struct Entry {
    std::int32_t key;
    std::int32_t value;
  };

  // Rebuilds the table at the smallest size from `size` on, at most a quarter
  // full, where no two channels share a home slot; else probes.
  void rebuild(std::size_t size) {
    while (size < 4 * entries.size())
      size *= 2;
    for (;; size *= 2) {
      direct = size <= max_slots;
      slots.assign(size, Slot{});
      const std::size_t mask = slots.size() - 1;
      bool clash = false;
      for (const Entry &entry : entries) {
        std::size_t i = hash(entry.key) & mask;
        if (slots[i].used) {
          clash = true;
          if (direct)
            break;
          while (slots[i].used)
            i = (i + 1) & mask;
        }
        slots[i] = Slot{entry.key, entry.value, true};
      }
      if (!clash || !direct)
        return;
    }
  }

  std::vector<Slot> slots;
  std::vector<Entry> entries;
  bool direct = true;
};

} // namespace chronotick
