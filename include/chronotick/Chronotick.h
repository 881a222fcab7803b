#pragma once

// The whole public interface of the library, and the hardware tagger's own.

#include <chronotick/ChannelScheme.h>
#include <chronotick/ChronotickBase.h>
#include <chronotick/Export.h>
#include <chronotick/Iterator.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Library.h>
#include <chronotick/Logging.h>
#include <chronotick/OrderedBarrier.h>
#include <chronotick/Tag.h>
#include <chronotick/TimeTagStream.h>
#include <chronotick/TimeTagStreamBuffer.h>

#include <chronotick/Channels.h>
#include <chronotick/Measurements.h>
#include <chronotick/Storage.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace chronotick {

// A tagger on one board, from createChronotick and given back with
// freeChronotick. Setters change the configuration at once and reach the
// board with the next block read; a fresh fence (getFence) says when. Times
// are picoseconds, levels volts. An unknown channel in a channel operation
// logs a warning and gives 0 or false. The order of the operations is part of
// the binary interface.
class CHRONOTICK_API Chronotick : virtual public ChronotickBase {
public:
  // Brings the board back to its start state: settings to their defaults,
  // the delay-line tables learned anew. Measurements stay attached.
  virtual void reset() = 0;

  // The internal test signal runs at the board's base frequency divided by
  // this (at least 1).
  virtual void setTestSignalDivider(std::int32_t divider) = 0;
  virtual std::int32_t getTestSignalDivider() = 0;

  // Threshold of the input of `channel` (either edge), saturated to the
  // getDacRange() span; the getter returns the quantized value in effect.
  virtual void setTriggerLevel(std::int32_t channel, double voltage) = 0;
  virtual double getTriggerLevel(std::int32_t channel) = 0;

  // The board's own delay of this input that is taken out of its tags (ps);
  // 0 while compensation is off (see setConditionalFilter).
  virtual std::int64_t getHardwareDelayCompensation(std::int32_t channel) = 0;

  // Input source of the input of `channel`: 0 its own connector, 1 and 2 the
  // neighbours', 3 the test signal. Only the low two bits count.
  virtual void setInputMux(std::int32_t channel, std::int32_t mux_mode) = 0;
  virtual std::int32_t getInputMux(std::int32_t channel) = 0;

  // Passes a filtered channel's event only if a trigger fired since that
  // channel's last event. Each board needs a trigger and a filtered channel of
  // its own. hardwareDelayCompensation false turns the compensation off.
  // Throws std::invalid_argument for unknown channels and incomplete boards.
  virtual void setConditionalFilter(std::vector<std::int32_t> trigger, std::vector<std::int32_t> filtered,
                                    bool hardwareDelayCompensation = true) = 0;
  // No filter, compensation on.
  virtual void clearConditionalFilter() = 0;
  virtual std::vector<std::int32_t> getConditionalFilterTrigger() = 0;
  virtual std::vector<std::int32_t> getConditionalFilterFiltered() = 0;

  // Spreads each event evenly over its fine bin instead of its bin start.
  virtual void setNormalization(bool state) = 0;
  virtual bool getNormalization() = 0;

  // Events the board may hold back before it overflows ("CT-Ultra" only:
  // 32768 to 2^29; "CT-20" logs a warning and keeps its fixed size).
  virtual void setHardwareBufferSize(std::int32_t size) = 0;
  virtual std::int32_t getHardwareBufferSize() = 0;

  // A block ends after max_events events (256 to 32 * 2^20) or max_latency
  // milliseconds (1 to 10000), whichever comes first. Throws
  // std::invalid_argument out of range.
  virtual void setStreamBlockSize(std::int32_t max_events, std::int32_t max_latency) = 0;
  virtual std::int32_t getStreamBlockSizeEvents() = 0;
  virtual std::int32_t getStreamBlockSizeLatency() = 0;

  // Keeps one of every `divider` events of exactly this channel (edge);
  // 0 and 1 keep all, at most 65535.
  virtual void setEventDivider(std::int32_t channel, std::uint32_t divider) = 0;
  virtual std::uint32_t getEventDivider(std::int32_t channel) = 0;

  // Runs the test signal through every input for 500 ms and reports, per
  // entry of getChannelList, the rms quantization error in ps that the
  // learned delay line implies (-1 without events). allocate(n_channels).
  virtual void autoCalibration(std::function<double *(std::size_t)> array_out) = 0;

  // Serials of the boards, joined with ", ".
  virtual std::string getSerial() = 0;
  // "CT-20" or "CT-Ultra".
  virtual std::string getModel() = 0;
  // The scheme in force: CT_CHANNEL_NUMBER_SCHEME_ZERO or _ONE.
  virtual std::int32_t getChannelNumberScheme() = 0;
  // {lowest, highest} trigger level in volts.
  virtual std::vector<double> getDacRange() = 0;

  // The delay-line tables, one row per entry of getChannelList:
  // allocate(n_channels, n_bins). Counts per fine bin, and where each fine
  // bin starts within the clock cycle (ps).
  virtual void getDistributionCount(std::function<std::int64_t *(std::size_t, std::size_t)> array_out) = 0;
  virtual void getDistributionPSecs(std::function<std::int64_t *(std::size_t, std::size_t)> array_out) = 0;

  // The rising-edge channel of every usable input, in input order.
  virtual std::vector<std::int32_t> getChannelList() = 0;
  // Clock period of the board in ps.
  virtual std::int64_t getPsPerClock() = 0;
  virtual std::string getPcbVersion() = 0;
  virtual std::string getFirmwareVersion() = 0;
  // Temperatures, fans, supplies and clock state, one "name\tvalue" a line.
  virtual std::string getSensorData() = 0;

  // Front panel LEDs; the idle pattern returns when the tagger goes.
  virtual void setLED(std::uint32_t bitmask) = 0;

  // Factory service only: a register window behind an access code.
  virtual std::uint32_t factoryAccess(std::uint32_t pw, std::uint32_t addr, std::uint32_t data, std::uint32_t mask) = 0;

  ~Chronotick() override;

protected:
  Chronotick() = default;
};

} // namespace chronotick
