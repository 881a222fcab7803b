#pragma once

// One board of a hardware tagger behind its DeviceLink: bring-up (open), the
// pipe read of the data path, the threshold DACs, the serial and sensor
// buses. Everything above speaks to the board only through this class.
// Internal to the library.

#include "device/DeviceLink.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

class ChronotickFPGA {
public:
  // A closed board for `serial` ("" takes the first one listed).
  explicit ChronotickFPGA(std::string serial);
  // A board that only `provider` is asked for (tests, a fixed transport).
  ChronotickFPGA(std::string serial, DeviceLinkProvider &provider);
  ~ChronotickFPGA();
  ChronotickFPGA(const ChronotickFPGA &) = delete;
  ChronotickFPGA &operator=(const ChronotickFPGA &) = delete;

  // Brings the board up. With `silent` false a failed USB open throws; with
  // it true that returns false. Every later failure throws std::runtime_error
  // with the system's text. Returns whether the link is up.
  bool open(bool silent);
  bool isConnected() const { return connected; }

  // The data path's transfer: bytes read, or negative on failure (the link
  // is then marked down; the data of a retry counts as lost).
  long readPipe(std::uint8_t *buffer, long bytes);

  // Threshold of physical input `input` (0-based) as a DAC code.
  void setDac(int input, std::uint32_t code);
  bool wireIn(int address, std::uint32_t value);
  bool updateWireIns();
  std::uint32_t readWireOut(int address); // updates the wire-outs first
  bool trigger(int address, int bit);
  long writePipe(int address, const std::vector<std::uint8_t> &data);
  // The two model-dependent wire writes; buffered, updateWireIns sends them.
  void setTestSignalPeriod(std::uint32_t value); // "CT-Ultra" doubles it; 0x0B gets half
  void setLeds(std::uint32_t mask);              // "CT-20" keeps bits 0-2 and 16-18
  // "CT-20": the DAC wire sequence with the caller's fields.
  void writeDacFields(std::uint32_t value, std::uint32_t low, std::uint32_t a, std::uint32_t b, std::uint32_t c);
  // "CT-Ultra": sends one word to the serial-bus chips whose select bits are
  // in `select_mask` (1 << SERIAL_SELECT_...); false on a link failure or time-out.
  bool serialBusSend(std::uint32_t select_mask, std::uint32_t word);

  // The sensor report lines of this board, each "name\tvalue\n".
  std::string sensorReport();
  // Volts on a voltage monitor channel; 42.0 on any bus failure.
  double readVoltage(int channel, bool *continuity = nullptr);

  // What bring-up learned.
  const std::string &serial() const { return serial_; }
  const std::string &model() const { return model_; }     // "CT-20", "CT-Ultra" or "unknown"
  const std::string &version() const { return version_; } // model, ", FW ", ...
  const std::string &pcbVersion() const { return pcb_version; }
  int boardModel() const { return board_model; }
  int hardwareVersion() const { return hardware_version; }
  int resolution() const { return resolution_; }
  int inputs() const { return inputs_; }
  std::int64_t clockPeriodPs() const { return clock_period_ps; }
  int binCount() const { return bin_count; }
  // Per input slot (2 i rising, 2 i + 1 falling edge of input i).
  const std::vector<bool> &usableInputs() const { return usable_inputs; }
  int pipeBlockBytes() const { return pipe_block_bytes; }

  // Process-wide firmware override (setCustomBitFileName); "" for the built-in choice.
  static void setCustomBitFile(const std::string &path);
  // The path of a firmware file: the custom one, ./name, CHRONOTICK_FIRMWARE_DIR,
  // then the firmware directory installed beside the library.
  static std::string findFirmware(const std::string &name);
  // Serials of every board that can be opened: real boards, then simulated ones.
  static std::vector<std::string> scan();

private:
  void bringUp();
  void checkVoltages();
  void writeUltraDac(int dac_channel, std::uint32_t code);
  bool waitBus(std::uint32_t &status);
  bool sensorBusWrite(std::uint8_t address, const std::vector<std::uint8_t> &bytes);
  int sensorBusRead(std::uint8_t address, std::uint8_t *bytes, int count); // 0, BUS_NACK or BUS_FAILED
  bool fanRead(std::uint8_t reg, std::uint8_t &value);

  std::string serial_;
  std::string model_ = "unknown";
  std::string version_;
  std::string pcb_version;
  int board_model = 0;
  int hardware_version = 0;
  int resolution_ = 0;
  int inputs_ = 0;
  std::int64_t clock_period_ps = 0;
  int bin_count = 0;
  int pipe_block_bytes = 1024;
  std::vector<bool> usable_inputs;
  bool connected = false;
  DeviceLinkProvider *provider = nullptr; // found on the first open, kept for reconnects
  bool fixed_provider = false;
  std::unique_ptr<DeviceLink> link;
};

} // namespace chronotick
