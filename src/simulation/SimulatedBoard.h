#pragma once

// One simulated board behind the DeviceLink operations: a model of the
// instrument's firmware (wires, triggers, the configuration pipe, the DACs,
// the serial and sensor buses, firmware files) around a StreamGenerator that
// makes its raw words. Only the standard library and the shared protocol
// headers: the stand-in for the board vendor's USB library is built from it too.
//
// All operations, the link's and the control ones, may come from different
// threads; one lock per board orders them. A pipe read in real time lets go of
// the lock while it waits, so that signals can change under a running stream.

#include "device/DeviceLink.h"
#include "simulation/SensorBus.h"
#include "simulation/StreamGenerator.h"

#include <chronotick/Simulation.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace chronotick::simulation {

// One write of the host to the board, in order: for tests of the host side.
struct BoardWrite {
  enum class Kind {
    WireIn,        // address, value after the mask
    UpdateWireIns, // the buffered wire-ins went out
    Trigger,       // address, value = bit
    PipeIn,        // address, data
    Dac,           // a threshold: address = input, value = code; on "CT-20" a DAC
                   // word that is no threshold has address -1 and value = wire-in 0x04
    SerialBus,     // "CT-Ultra": address = select bits of wire-in 0x04, value = word
    Register,      // sensor bus register: address, value
    Pll,           // value = (vco_p << 16) | vco_q
  };
  Kind kind = Kind::WireIn;
  int address = 0;
  std::uint32_t value = 0;
  std::vector<std::uint8_t> data;
};

class SimulatedBoard final : public DeviceLink {
public:
  // Real-time pipe reads that can't be filled wait this long, then pad with
  // idle words, so that an idle board still hands the host a block now and then.
  static constexpr std::chrono::milliseconds PAD_AFTER{50};
  // A free-running read makes at most this much board time (ps) before it pads.
  static constexpr std::int64_t FREE_RUN_SPAN = 1000000000000;

  // `spec.serial` must be set.
  explicit SimulatedBoard(const BoardSpec &spec);
  ~SimulatedBoard() override;

  // DeviceLink
  int openBySerial(const std::string &serial) override;
  bool isOpen() const override;
  void close() override;
  int getDeviceInfo(DeviceInfo &info) override;
  int getBoardModel() override;
  std::string getSerialNumber() override;
  int configureFpga(const std::string &path) override;
  int setPllConfiguration(const PllConfiguration &pll) override;
  int setWireInValue(int address, std::uint32_t value, std::uint32_t mask = 0xFFFFFFFF) override;
  int getWireInValue(int address, std::uint32_t &value) override;
  int updateWireIns() override;
  int updateWireOuts() override;
  std::uint32_t getWireOutValue(int address) override;
  int activateTriggerIn(int address, int bit) override;
  long writeToPipeIn(int address, const std::uint8_t *data, long length) override;
  long readFromBlockPipeOut(int address, int block_size, std::uint8_t *data, long length) override;
  int writeRegister(std::uint32_t address, std::uint32_t value) override;
  int readRegister(std::uint32_t address, std::uint32_t &value) override;
  int getDeviceSensors(std::vector<BoardSensor> &sensors) override;

  // Control of chronotick/Simulation.h; setSignal throws std::invalid_argument.
  void setSignal(int input, const Signal &signal);
  void setRealTime(bool real_time);
  void setBandwidth(double words_per_second);
  void injectFault(Fault fault, int count = 1);
  void clearFaults();
  // Unplugged: every operation fails from now on.
  void unplug();
  BoardTruth truth() const;

  const std::string &serial() const { return spec.serial; }
  int boardModelNumber() const { return model.number; }

  // Inspection for tests. The write log keeps the last MAX_WRITES / 2 to MAX_WRITES.
  static constexpr std::size_t MAX_WRITES = 1 << 16;
  std::vector<BoardWrite> writes() const;
  void clearWrites();
  SlotSettings slotSettings(int slot) const;
  double thresholdVolts(int input) const;
  bool streaming() const;

  // Fixed per model.
  struct Model {
    int number;
    int inputs;
    std::int64_t clock_period_ps;
    int bins;
    std::int64_t test_unit_cycles; // clock cycles per count of wire-ins 0x09 and 0x0B
    double dac_low, dac_high;      // volts at DAC codes 0 and 65535
    std::uint32_t buffer_events;   // before wire-in 0x12 is set
    int sensor_bus_from_version;   // hardware version; 0: never
  };
  static Model modelOf(const std::string &name);

private:
  bool usable() const { return open_ && !removed; }
  void record(BoardWrite::Kind kind, int address, std::uint32_t value, std::vector<std::uint8_t> data = {});
  void loadFirmware(std::uint32_t interface_version, std::uint32_t build_word);
  void applyWireIns();
  void applyConfigRecords();
  void loadDac();
  void setThreshold(int input, std::uint32_t code);
  // Makes roll-over periods up to board time `until`, while fewer than `words` are queued.
  void produce(std::int64_t until, std::size_t words);
  std::int64_t boardNow() const;

  BoardSpec spec;
  Model model;
  mutable std::mutex mutex;
  bool open_ = false;
  bool removed = false;
  bool configured = false; // a firmware file is loaded
  bool running = false;    // wire-in 0x0D is 1
  std::uint64_t loads = 0;
  std::uint32_t interface_version = 0;
  std::uint32_t build_word = 0;
  std::array<std::uint32_t, 32> wire_in{};      // as the host buffered them
  std::array<std::uint32_t, 32> wire_applied{}; // as the firmware has them
  std::array<std::uint32_t, 32> wire_out{};     // as last fetched
  bool serial_done = false;
  std::vector<std::uint8_t> config;
  std::size_t config_at = 0;
  StreamSettings settings;
  std::vector<Signal> signals;
  std::unique_ptr<StreamGenerator> generator;
  std::vector<std::uint32_t> queue;
  std::size_t queue_at = 0;
  std::chrono::steady_clock::time_point run_start;
  bool real_time = true;
  SensorBus bus;
  int link_loss = 0;
  bool short_read = false;
  bool wrong_interface = false;
  bool no_firmware = false;
  std::vector<BoardWrite> log;
};

} // namespace chronotick::simulation
