#include "device/DeviceChannelState.h"

namespace chronotick {

void DeviceChannelState::setup(std::int64_t clock_period, std::int32_t bins, std::int32_t slots) {
  clock_period_ps = clock_period;
  bin_count = bins < 1 ? 1 : bins;
  slot_count = slots < 0 ? 0 : slots;
  const std::size_t slot_n = std::size_t(slot_count);
  const std::size_t row = std::size_t(bin_count) + 1;
  slot_channels.assign(slot_n, CHANNEL_UNUSED);
  fine_bins.assign(slot_n * row, FineBin{});
  for (std::int32_t slot = 0; slot < slot_count; ++slot) {
    FineBin *bins_of_slot = binsOf(slot);
    for (std::int32_t i = 0; i < bin_count; ++i)
      bins_of_slot[i].start_ps = std::uint32_t(std::uint32_t(clock_period_ps * i) / std::uint32_t(bin_count));
    bins_of_slot[bin_count].start_ps = std::uint32_t(clock_period_ps);
  }
  pending_delays.assign(slot_n, 0);
  active_delays.assign(slot_n, 0);
  rollover_base = 0;
  watermark = 0;
  pending_heap.clear();
  sort_heap.clear();
  filter_open_mask = 0;
  in_overflow = false;
  overflow_count = 0;
  rng_state = 1;
  fence = 0;
  resynchronized = false;
  heard_sync_board = false;
}

} // namespace chronotick
