#pragma once

// The settings of one channel (one edge of one input) of the hardware tagger.
// Guarded by the tagger's configuration lock. Internal to the library.

#include <cstddef>
#include <cstdint>

namespace chronotick {

struct ChannelConfig {
  std::uint32_t triggerLevelCode = 0; // DAC code, 0 to 65535
  std::int64_t inputDelay = 0;        // ps added to this channel's tags
  std::int32_t registeredCount = 0;
  std::uint16_t deadtimeCycles = 1;
  std::uint16_t eventDivider = 1; // keep one of this many; 0 and 1 keep all
  bool hasInput = false;          // the record that holds the input's analog settings (rising edge)
  std::int32_t inputMux = 0;      // low two bits: 0 connector, 1 and 2 neighbours, 3 test signal
  bool isTrigger = false;
  bool isFiltered = false;
};

// Where a channel lives.
struct ChannelLocation {
  std::size_t device = 0;
  std::int32_t slot = 0; // 2 * input, + 1 for the falling edge
};

} // namespace chronotick
