#pragma once

// What the board's firmware and the host agree on: the address map, the raw
// word format, the serial buses and the firmware file header. Shared by the
// host side (src/device) and the simulated board (src/simulation), so that the
// two can't drift apart. Internal to the library.

#include <cstdint>

namespace chronotick::board {

// Wire-ins.
constexpr int WI_PIPE_HALF_BLOCK = 0x01;
constexpr int WI_DAC_DATA = 0x03;
constexpr int WI_DAC_ADDRESS = 0x04; // "CT-Ultra": serial-bus select bits too, 1 << select
constexpr int WI_FENCE = 0x08;
constexpr int WI_TEST_PERIOD = 0x09;
constexpr int WI_TEST_HALF_PERIOD = 0x0B;
constexpr int WI_LEDS = 0x0C;
constexpr int WI_RUN = 0x0D;
constexpr int WI_ULTRA_RESET = 0x0E;
constexpr int WI_FRONT_END = 0x0F;
constexpr int WI_BUFFER_SIZE = 0x12;
constexpr int WI_BUFFER_HALF = 0x13;
constexpr int WI_IDENTITY = 0x14;
constexpr int WI_OLD_PCB = 0x15;

// Wire-outs.
constexpr int WO_BUILD_TIME = 0x20;
constexpr int WO_INPUTS = 0x21;
constexpr int WO_CLOCK_PERIOD = 0x22;
constexpr int WO_BIN_COUNT = 0x23;
constexpr int WO_INTERFACE_VERSION = 0x24;
constexpr int WO_CLK_IN_FREQUENCY = 0x25; // low 28 bits: frequency in Hz times 0.001 ("CT-Ultra") or 3e-5 ("CT-20")
constexpr int WO_HARDWARE_VERSION = 0x29;
constexpr int WO_STATUS = 0x2A; // bit 1: serial-bus transfer done
constexpr int WO_SYNC_LINK = 0x2B;
constexpr int WO_SYNC_STATUS = 0x2C;

// Triggers and pipes.
constexpr int TI_DAC_LOAD = 0x40;
constexpr int TI_CONFIG_REWIND = 0x41;
constexpr int PIPE_CONFIG = 0x80;
constexpr int PIPE_STREAM = 0xA0;

constexpr int PIPE_BLOCK_BYTES = 1024;
constexpr std::uint32_t INTERFACE_VERSION = 4;
constexpr std::uint32_t ROLLOVER_CYCLES = 65536;

// Raw stream words: coarse 0-15, payload 16-23, code 24-29, kind 30-31.
constexpr std::uint32_t rawWord(std::uint32_t kind, std::uint32_t code, std::uint32_t payload, std::uint32_t coarse) {
  return (kind << 30) | ((code & 63) << 24) | ((payload & 0xFF) << 16) | (coarse & 0xFFFF);
}
constexpr std::uint32_t CODE_CONTROL = 63;  // kind 1 error, 2 overflow begin, 3 overflow end
constexpr std::uint32_t CODE_ROLLOVER = 62; // kind 1 one (fence echo), 2 payload, 3 payload x 256
constexpr std::uint32_t CODE_SYNC_FIRST = 58;
constexpr std::uint32_t CODE_SYNC_LAST = 61;
constexpr std::uint32_t MAX_SLOT_CODE = 57;
constexpr std::uint32_t LINK_LOST_WORD = 0x7F000000; // what the host writes for a lost link

// Input slots: slot 2 i is the rising edge of input i, slot 2 i + 1 the falling edge.
constexpr int slotOf(int input, bool falling) {
  return 2 * input + (falling ? 1 : 0);
}

// One configuration pipe record per slot, 8 bytes little-endian.
constexpr int CONFIG_RECORD_BYTES = 8;
constexpr std::uint8_t CONFIG_ENABLED = 1;
constexpr std::uint8_t CONFIG_FILTERED = 2;
constexpr std::uint8_t CONFIG_TRIGGER = 4;
// byte 0 bits 3-4: input mux (0 connector, 1 and 2 the neighbours' connectors, 3 test signal)
// bytes 2-3: dead time in cycles; bytes 4-5: event divider - 1 (0 keeps all)

// Serial bus ("CT-Ultra" DACs and clock chip): wire-in 0x04 select bits,
// wire-in 0x03 data word, trigger 0x40 bit 0, wire-out 0x2A bit 1 when done.
constexpr int SERIAL_SELECT_DAC_LOW = 0;              // DAC channels 0x00 to 0x0F
constexpr int SERIAL_SELECT_DAC_HIGH = 1;             // DAC channels 0x10 to 0x1F
constexpr int SERIAL_SELECT_CLOCK = 2;                // the clock chip (select bit value 4)
constexpr std::uint32_t ULTRA_DAC_WRITE = 0xAA300000; // + (output << 16) + code

// Sensor bus: a two-register master behind WriteRegister/ReadRegister.
constexpr std::uint32_t REG_BUS_DATA = 3;
constexpr std::uint32_t REG_BUS_COMMAND = 4; // command on write, status on read
constexpr std::uint32_t BUS_STATUS_BUSY = 2;
constexpr std::uint32_t BUS_STATUS_NO_ACK = 0x80;
constexpr std::uint32_t BUS_START_WRITE = 144; // start, then write the data register's byte
constexpr std::uint32_t BUS_WRITE_END = 80;    // write the byte, then stop
constexpr std::uint32_t BUS_WRITE = 16;        // write the byte, no stop
constexpr std::uint32_t BUS_READ = 32;         // read a byte, acknowledge
constexpr std::uint32_t BUS_READ_END = 96;     // read a byte, then stop
constexpr int BUS_POLLS = 1001;
// Master set-up at bring-up: registers 2, 1, 0, 2 := 0, 0, 200, 0x80.

// Voltage monitor: address bytes 106 (write) and 107 (read). A write of the
// set-up byte (channel & 15) * 2 + 97 selects a channel; a read gives two
// bytes: bit 7 of the first is the continuity flag, the low 4 bits of the
// first and the second are a 12-bit code. volts = (code - 2048) * scale / 2048.
constexpr std::uint8_t MONITOR_WRITE = 106;
constexpr std::uint8_t MONITOR_READ = 107;
constexpr int MONITOR_CHANNELS = 11;
constexpr double MONITOR_SCALE[MONITOR_CHANNELS] = {8, 8, 4, 4, 8, 8, 8, 8, 4, 16, 4};
constexpr double SENSOR_FAILURE = 42.0;
inline double monitorVolts(int channel, std::uint32_t code12) {
  return (static_cast<double>(code12) - 2048.0) * MONITOR_SCALE[channel] / 2048.0;
}

// Fan controller: address bytes 0x58 (write) and 0x59 (read); a register is
// read by writing its index, then reading one byte.
constexpr std::uint8_t FAN_WRITE = 0x58;
constexpr std::uint8_t FAN_READ = 0x59;
constexpr std::uint8_t FAN_TEMP1 = 0x00, FAN_TEMP2 = 0x01;                   // whole degrees, signed
constexpr std::uint8_t FAN_TEMP1_FRACTION = 0x1E, FAN_TEMP2_FRACTION = 0x1F; // top 3 bits: eighths
constexpr std::uint8_t FAN_DUTY1 = 0x0D, FAN_DUTY2 = 0x0E;                   // of 240
constexpr std::uint8_t FAN_TACH1 = 0x10, FAN_TACH2 = 0x12;                   // 16-bit, low byte first
constexpr std::uint8_t FAN_STATUS = 0x02;
constexpr std::uint8_t FAN_CONFIG = 0x03; // bring-up's power-up step writes FAN_POWER_UP here
constexpr std::uint8_t FAN_POWER_UP = 0x01;

// Firmware files: a text header line, then key=value lines.
//   CHRONOTICK-FIRMWARE 1
//   model=CT-Ultra
//   interface=4
//   build=<unix seconds>
constexpr const char *FIRMWARE_MAGIC = "CHRONOTICK-FIRMWARE 1";
constexpr const char *FIRMWARE_CT20 = "ChronotickController.bit";
constexpr const char *FIRMWARE_ULTRA = "ChronotickUltraController.bit";

} // namespace chronotick::board
