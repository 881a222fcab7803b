#pragma once

// Turns one block of a board's raw 32-bit words into time-ordered tags:
// time from the coarse count and roll-overs, the fine bin through the
// learned delay-line table, input delays, the exact conditional filter, and
// overflow and error words as marks in the stream. No model-specific code:
// a board differs only in the numbers of its DeviceChannelState.
// Internal to the library.

#include "device/DeviceChannelState.h"

#include <cstddef>
#include <cstdint>

namespace chronotick {

struct Worker;

// What decode takes from the tagger's configuration, read under its
// configuration lock before the block.
struct DecodeSettings {
  std::uint64_t trigger_mask = 0;  // conditional-filter triggers, one bit per slot
  std::uint64_t filtered_mask = 0; // filtered slots
  bool normalization = true;       // spread each event evenly over its fine bin
};

class RawDecoder {
public:
  // Relearns each slot's bin starts from its counts (uniform up to 10000
  // events; the counts decay by 0.9 above 1,000,000).
  static void rebuildFineBins(DeviceChannelState &state, bool normalization);

  // Decodes `count` words into worker.tags (emptied first), and sets
  // worker.begin_time / end_time (the watermark before and after), fence
  // (the board's confirmed fence on entry) and, where words had to be
  // dropped, incomplete (cleared first). Copies pending_delays to active_delays first.
  // Never throws on bad words.
  static void decode(const std::uint32_t *words, std::size_t count, DeviceChannelState &state,
                     const DecodeSettings &settings, std::uint32_t current_fence, Worker &worker);

private:
  class Pass; // one block's pass over the words

  // The check of the sync board's presence at each plain roll-over; a board
  // on its own has none.
  static void checkSyncBoard(DeviceChannelState &state);
};

} // namespace chronotick
