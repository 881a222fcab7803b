#pragma once

// Per-board state of the raw word decoder. One per board of a hardware
// tagger, guarded by the board's decode lock. Internal to the library.

#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace chronotick {

// One fine bin of one slot's delay line: events counted in it, and where it
// starts within the clock cycle.
struct FineBin {
  std::uint32_t count = 0;
  std::uint32_t start_ps = 0;
};

// An event held back while the conditional filter decides on it.
struct PendingEvent {
  Tag tag;
  std::uint32_t payload = 0; // fine bin
  std::uint32_t code = 0;    // input slot
};

// Holds tags until they are released in time order (signed difference;
// ties in any order), as a min-heap would. Most tags arrive nearly in order
// and go to `run`, kept sorted from `head` on; one that would have to move
// far back in it goes to the min-heap `heap` instead.
struct TagSorter {
  std::vector<Tag> run;
  std::size_t head = 0;
  std::vector<Tag> heap;

  void clear() {
    run.clear();
    head = 0;
    heap.clear();
  }
  bool empty() const { return head == run.size() && heap.empty(); }
  std::size_t size() const { return run.size() - head + heap.size(); }
};

struct DeviceChannelState {
  std::int64_t clock_period_ps = 0;
  std::int32_t bin_count = 0;
  std::int32_t slot_count = 0;
  std::vector<std::int32_t> slot_channels; // CHANNEL_UNUSED for a slot that can't be used
  // (bin_count + 1) entries per slot, slots contiguous; entry bin_count of a
  // slot is a sentinel starting at clock_period_ps.
  std::vector<FineBin> fine_bins;

  std::int64_t rollover_base = 0; // time of coarse 0
  std::int64_t watermark = 0;     // tags before it are final

  // Min-heap on time (signed difference): events the conditional filter
  // has yet to decide on.
  std::vector<PendingEvent> pending_heap;
  // Tags waiting for the watermark to pass them, released in time order.
  TagSorter sort_heap;

  std::uint64_t filter_open_mask = 0;
  bool in_overflow = false;
  std::vector<std::int64_t> pending_delays; // per slot, written by the configuration upload
  std::vector<std::int64_t> active_delays;  // the copy a block is decoded with
  std::int64_t overflow_count = 0;          // read and cleared under the decode lock
  std::uint64_t rng_state = 1;
  std::int32_t fence = 0; // the last fence the board confirmed
  std::string serial;     // the board's, for log entries

  // Synchronized groups (several boards as one tagger).
  bool is_sync_member = false;
  bool resynchronized = false;
  bool heard_sync_board = false;

  // Sizes the tables for a board and returns the decoder to its start:
  // uniform bins, no counts, time 0.
  void setup(std::int64_t clock_period, std::int32_t bins, std::int32_t slots);
  FineBin *binsOf(std::int32_t slot) { return fine_bins.data() + std::size_t(slot) * std::size_t(bin_count + 1); }
};

} // namespace chronotick
