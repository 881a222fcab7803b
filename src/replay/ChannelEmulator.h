#pragma once

#include <chronotick/Tag.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <vector>

namespace chronotick {

// What a device does to one input, imitated on replayed tags. Only channels
// with a non-default setting have one.
struct ChannelEmulation {
  std::int64_t deadtime = 0;
  std::int64_t last_accepted = 0;
  bool last_valid = false;
  std::int64_t input_delay = 0;
  bool test_signal = false;
  bool rising_edge = true;
  std::normal_distribution<double> jitter{100.0, 9.0};

  bool isDefault() const { return deadtime == 0 && input_delay == 0 && !test_signal; }
};

// The step between reading a block and handing it to the chain: input delay,
// dead time and a test signal per channel. Settings may change on any thread;
// they take effect at the next applySettings, which the block path calls
// together with process, one block at a time.
class ChannelEmulator {
public:
  static constexpr double HALF_PERIOD_MEAN = 628006.5; // ps between two test signal edges
  static constexpr double HALF_PERIOD_SIGMA = 1000.0;

  ChannelEmulator();
  explicit ChannelEmulator(std::uint32_t seed);

  void setInputDelay(std::int32_t channel, std::int64_t delay);
  std::int64_t getInputDelay(std::int32_t channel);
  // Throws std::invalid_argument for a negative dead time.
  std::int64_t setDeadtime(std::int32_t channel, std::int64_t deadtime);
  std::int64_t getDeadtime(std::int32_t channel);
  // Switches the test signal of both edges of each channel's input (|c| rising, -|c| falling).
  void setTestSignal(const std::vector<std::int32_t> &channels, bool enable);
  bool getTestSignal(std::int32_t channel);

  // Makes pending settings active, if any changed.
  void applySettings();
  // Emulates on one block in place. Tags held back by a delay come out in a later block.
  void process(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time);

private:
  ChannelEmulation &pendingEntry(std::int32_t channel);
  void dropIfDefault(std::int32_t channel);
  void generate(std::int64_t limit);
  void flush(std::int64_t limit);
  void pushHeap(const Tag &tag);

  // Settings, under settings_mutex.
  std::mutex settings_mutex;
  std::map<std::int32_t, ChannelEmulation> pending;
  std::atomic<bool> changed{false}; // read without the lock on every block

  // Block path state.
  std::map<std::int32_t, ChannelEmulation> active;
  bool any_test_signal = false;
  std::int64_t largest_delay = 0;
  std::int64_t smallest_delay = 0;
  std::vector<Tag> heap; // min-heap by time
  std::vector<Tag> output;
  bool overflow = false;
  bool test_running = false;
  std::int64_t next_test_time = 0;
  bool phase = true;
  std::mt19937 rng;
  std::normal_distribution<double> half_period{HALF_PERIOD_MEAN, HALF_PERIOD_SIGMA};
};

} // namespace chronotick
