#pragma once

// The sensor bus of a "CT-Ultra" board from hardware version 3 on: the
// two-register bus master and the two devices on it, the voltage monitor and
// the fan controller. Transfers complete at once, so the master is never busy.

#include <cstdint>

namespace chronotick::simulation {

class SensorBus {
public:
  SensorBus();

  void writeRegister(std::uint32_t address, std::uint32_t value);
  std::uint32_t readRegister(std::uint32_t address) const;

  // The monitor's reading of a channel in volts, and its continuity flag.
  double volts(int channel) const;
  bool continuity(int channel) const;

  // Faults: a channel that reads out of its limits (-1: none), a monitor
  // that no longer acknowledges.
  int out_of_range = -1;
  bool monitor_dead = false;

private:
  void command(std::uint32_t value);
  std::uint8_t readByte();
  void writeByte(std::uint8_t byte);

  std::uint32_t setup[3] = {}; // the master's set-up registers 0 to 2
  std::uint32_t data = 0;
  std::uint32_t status = 0;
  int device = -1; // address byte of the device in a transfer, write form
  bool reading = false;
  int written = 0; // bytes written since the address
  int channel = 0; // the monitor's selected channel
  int monitor_byte = 0;
  std::uint8_t pointer = 0; // the fan controller's register pointer
  std::uint8_t fan[256] = {};
};

} // namespace chronotick::simulation
