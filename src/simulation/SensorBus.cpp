#include "simulation/SensorBus.h"

#include "device/BoardProtocol.h"

#include <algorithm>
#include <cmath>

namespace chronotick::simulation {
namespace {

using namespace board;

// Nominal supplies, inside the limits that bring-up checks; channel 10 is the
// input current.
constexpr double NOMINAL[MONITOR_CHANNELS] = {-5.0, -5.0, 2.5, 3.0, 5.0, -5.5, 5.6, 5.0, 2.5, 12.0, 1.0};

} // namespace

SensorBus::SensorBus() {
  fan[FAN_TEMP1] = 38;
  fan[FAN_TEMP1_FRACTION] = 3 << 5; // 38.375 degrees
  fan[FAN_TEMP2] = 41;
  fan[FAN_TEMP2_FRACTION] = 6 << 5; // 41.75 degrees
  fan[FAN_DUTY1] = 120;             // 50 %
  fan[FAN_DUTY2] = 96;              // 40 %
  fan[FAN_TACH1] = 0x20;
  fan[FAN_TACH1 + 1] = 0x0F;
  fan[FAN_TACH2] = 0x40;
  fan[FAN_TACH2 + 1] = 0x0E;
}

double SensorBus::volts(int ch) const {
  if (ch != out_of_range)
    return NOMINAL[ch];
  // Well past either limit; channel 0 fails by rising towards 0 V.
  return ch == 0 ? 0.0 : NOMINAL[ch] * 1.15;
}

bool SensorBus::continuity(int ch) const {
  return !(ch == 0 && ch == out_of_range);
}

void SensorBus::writeRegister(std::uint32_t address, std::uint32_t value) {
  if (address < 3)
    setup[address] = value;
  else if (address == REG_BUS_DATA)
    data = value & 0xFF;
  else if (address == REG_BUS_COMMAND)
    command(value);
}

std::uint32_t SensorBus::readRegister(std::uint32_t address) const {
  if (address < 3)
    return setup[address];
  if (address == REG_BUS_DATA)
    return data;
  if (address == REG_BUS_COMMAND)
    return status;
  return 0;
}

void SensorBus::command(std::uint32_t value) {
  status = 0;
  if (value == BUS_START_WRITE) {
    const auto byte = static_cast<std::uint8_t>(data);
    const auto address = static_cast<std::uint8_t>(byte & 0xFE);
    const bool present = address == FAN_WRITE || (address == MONITOR_WRITE && !monitor_dead);
    if (!present) {
      device = -1;
      status = BUS_STATUS_NO_ACK;
      return;
    }
    device = address;
    reading = byte & 1;
    written = 0;
    monitor_byte = 0;
  } else if (value == BUS_WRITE || value == BUS_WRITE_END) {
    if (device < 0 || reading)
      status = BUS_STATUS_NO_ACK;
    else
      writeByte(static_cast<std::uint8_t>(data));
    if (value == BUS_WRITE_END)
      device = -1;
  } else if (value == BUS_READ || value == BUS_READ_END) {
    if (device < 0 || !reading) {
      data = 0xFF;
      status = BUS_STATUS_NO_ACK;
    } else {
      data = readByte();
    }
    if (value == BUS_READ_END)
      device = -1;
  }
}

void SensorBus::writeByte(std::uint8_t byte) {
  if (device == MONITOR_WRITE) {
    // The set-up byte (channel * 2 + 97) selects a channel.
    const int selected = (int(byte) - 97) / 2;
    if (written == 0 && byte >= 97 && (byte - 97) % 2 == 0 && selected < MONITOR_CHANNELS)
      channel = selected;
  } else if (written == 0) {
    pointer = byte;
  } else {
    fan[pointer++] = byte;
  }
  ++written;
}

std::uint8_t SensorBus::readByte() {
  if (device == FAN_WRITE)
    return fan[pointer++];
  const double v = volts(channel);
  const long code = std::clamp(std::lround(v * 2048.0 / MONITOR_SCALE[channel] + 2048.0), 0L, 4095L);
  if (monitor_byte++ == 0)
    return static_cast<std::uint8_t>((continuity(channel) ? 0x80 : 0) | ((code >> 8) & 15));
  return static_cast<std::uint8_t>(code & 0xFF);
}

} // namespace chronotick::simulation
