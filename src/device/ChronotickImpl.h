#pragma once

#include <chronotick/Chronotick.h>

#include "device/ChannelConfig.h"
#include "device/ChronotickFPGA.h"
#include "device/DeviceChannelState.h"
#include "device/RawDecoder.h"
#include "engine/ChronotickRunner.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace chronotick {

// The hardware tagger: the engine fed from the pipes of its boards. Workers
// read and decode; setters only change records here and mark boards dirty, and
// the worker that next reads a dirty board uploads its whole configuration.
//
// Locks nest in this order: a board's transfer lock, its link lock, its
// decode lock, the configuration lock. Nothing that holds the configuration
// lock takes another, so the decoders never wait for a setter.
class ChronotickImpl : public Chronotick, public ChronotickRunner {
public:
  // Brings up the board `serial` ("" the first one found); throws
  // std::runtime_error with the bring-up's text if it can't.
  explicit ChronotickImpl(const std::string &serial);
  ~ChronotickImpl() override;

  // Chronotick
  void reset() override;
  void setTestSignalDivider(std::int32_t divider) override;
  std::int32_t getTestSignalDivider() override;
  void setTriggerLevel(std::int32_t channel, double voltage) override;
  double getTriggerLevel(std::int32_t channel) override;
  std::int64_t getHardwareDelayCompensation(std::int32_t channel) override;
  void setInputMux(std::int32_t channel, std::int32_t mux_mode) override;
  std::int32_t getInputMux(std::int32_t channel) override;
  void setConditionalFilter(std::vector<std::int32_t> trigger, std::vector<std::int32_t> filtered,
                            bool hardwareDelayCompensation = true) override;
  void clearConditionalFilter() override;
  std::vector<std::int32_t> getConditionalFilterTrigger() override;
  std::vector<std::int32_t> getConditionalFilterFiltered() override;
  void setNormalization(bool state) override;
  bool getNormalization() override;
  void setHardwareBufferSize(std::int32_t size) override;
  std::int32_t getHardwareBufferSize() override;
  void setStreamBlockSize(std::int32_t max_events, std::int32_t max_latency) override;
  std::int32_t getStreamBlockSizeEvents() override;
  std::int32_t getStreamBlockSizeLatency() override;
  void setEventDivider(std::int32_t channel, std::uint32_t divider) override;
  std::uint32_t getEventDivider(std::int32_t channel) override;
  void autoCalibration(std::function<double *(std::size_t)> array_out) override;
  std::string getSerial() override;
  std::string getModel() override;
  std::int32_t getChannelNumberScheme() override;
  std::vector<double> getDacRange() override;
  void getDistributionCount(std::function<std::int64_t *(std::size_t, std::size_t)> array_out) override;
  void getDistributionPSecs(std::function<std::int64_t *(std::size_t, std::size_t)> array_out) override;
  std::vector<std::int32_t> getChannelList() override;
  std::int64_t getPsPerClock() override;
  std::string getPcbVersion() override;
  std::string getFirmwareVersion() override;
  std::string getSensorData() override;
  void setLED(std::uint32_t bitmask) override;
  std::uint32_t factoryAccess(std::uint32_t pw, std::uint32_t addr, std::uint32_t data, std::uint32_t mask) override;

  // ChronotickBase
  std::int32_t getInvertedChannel(std::int32_t channel) override;
  bool isUnusedChannel(std::int32_t channel) override;
  std::string getConfiguration() override;
  void setInputDelay(std::int32_t channel, std::int64_t delay) override;
  std::int64_t getInputDelay(std::int32_t channel) override;
  std::int64_t setDeadtime(std::int32_t channel, std::int64_t deadtime) override;
  std::int64_t getDeadtime(std::int32_t channel) override;
  void setTestSignal(std::vector<std::int32_t> channels, bool enable) override;
  void setTestSignal(std::int32_t channel, bool enable) override;
  bool getTestSignal(std::int32_t channel) override;
  std::int64_t getOverflows() override;
  void clearOverflows() override;
  std::int64_t getOverflowsAndClear() override;
  std::int32_t getNewVirtualChannel() override;
  void registerChannel(std::int32_t channel) override;
  void unregisterChannel(std::int32_t channel) override;

  // The code that opens factoryAccess.
  static constexpr std::uint32_t FACTORY_ACCESS_CODE = 0x43540F0A;
  // Wall time slept after a failed reopen of a lost link.
  static constexpr int RECONNECT_SLEEP_MS = 50;

protected:
  ReadResult readBlock(Worker &worker, std::unique_lock<std::mutex> &lock, std::uint32_t fence,
                       const std::function<void()> &done) override;

private:
  struct Device {
    std::unique_ptr<ChronotickFPGA> fpga;
    DeviceChannelState state; // decode lock
    std::mutex transfer_mutex;
    std::mutex link_mutex;
    std::mutex decode_mutex;
    std::atomic<bool> reading{false};
    // Configuration lock.
    std::vector<std::int32_t> slot_channels; // CHANNEL_UNUSED where the slot can't be used
    bool config_dirty = true;
    bool fence_dirty = true;
    double word_rate = 0;                   // words per millisecond, as the last read measured
    std::vector<std::int64_t> compensation; // per input, ps
    // Link lock.
    bool link_lost = false;
    // Raw words of a block from its read until its decode: one buffer per
    // worker, since the next worker reads while this one decodes.
    std::mutex buffer_mutex;
    std::unordered_map<const Worker *, std::vector<std::uint32_t>> buffers;
  };

  // Opens the board(s) and gives them their identity word (probing); fills
  // `devices` and the tables. Configuration lock not held.
  void probe(const std::string &serial);
  // Channel records, channel map and defaults for the probed boards.
  void buildTables();
  // Internal allocator of construction and reset: the result is dropped.
  void calibrateQuietly();

  // The read step of one board: false if the link is down (the raw buffer
  // then holds at most the link-loss word). Transfer lock held.
  bool readStep(Device &device, std::vector<std::uint32_t> &raw, bool &incomplete);
  // Writes the whole configuration to a board. Link lock and configuration
  // lock held; returns the delays the decoder is to apply from now on.
  std::vector<std::int64_t> upload(Device &device);

  // Configuration lock held for all below.
  ChannelConfig *find(std::int32_t channel);
  // The record with the input's settings: `channel`'s own, or its other edge's.
  ChannelConfig *findInput(std::int32_t channel);
  std::int32_t invertedLocked(std::int32_t channel) const;
  void markDirty(std::int32_t channel);
  void recomputeMinInputDelay();
  std::int64_t compensationOf(std::int32_t channel) const;
  std::int64_t clockPeriod(std::int32_t channel) const;
  DecodeSettings decodeSettings(std::size_t device) const;
  std::vector<double> dacRange() const;
  std::vector<std::int32_t> channelListLocked() const;
  void distribution(const std::function<std::int64_t *(std::size_t, std::size_t)> &array_out,
                    std::int64_t (*value)(const FineBin *, std::size_t, std::size_t));

  std::mutex config_mutex;
  std::int32_t scheme = CT_CHANNEL_NUMBER_SCHEME_ONE;
  std::vector<std::unique_ptr<Device>> devices; // fixed after construction
  std::map<std::int32_t, ChannelConfig> configs;
  std::map<std::int32_t, ChannelLocation> locations;
  std::int32_t next_virtual_channel = 1001;
  std::int32_t test_signal_divider = 63;
  std::int32_t hardware_buffer_size = 0x4000000;
  std::uint32_t led_bitmask = 0;
  bool hardware_delay_compensation = true;
  std::int32_t stream_block_events = 131072;
  std::int32_t stream_block_latency_ms = 20;
  std::int64_t min_input_delay = 0;
  std::uint32_t last_fence = 0;
  bool fence_seen = false;
  std::atomic<bool> normalization{true}; // written under every decode lock
};

} // namespace chronotick
