#include "device/BoardProtocol.h"
#include "device/BuildTime.h"
#include "device/ChronotickFPGA.h"

#include "support/LogCapture.h"

#include <chronotick/Simulation.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <unistd.h>

namespace chronotick {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::LogCapture;

// A board as the wires see it, with a sensor bus that answers like the
// voltage monitor and fan controller do. Everything the host sends is recorded.
struct FakeBoard {
  std::string serial = "2301A7";
  int model = link::MODEL_CT_ULTRA;
  int usb_speed = link::USB_SPEED_SUPER;
  int open_rc = 0, info_rc = 0, pll_rc = 0, configure_rc = 0, wire_rc = 0, trigger_rc = 0;
  PllConfiguration pll;
  std::string configured;
  std::map<int, std::uint32_t> wire_in;
  std::map<int, std::uint32_t> wire_out = {{0x21, 18}, {0x22, 4000}, {0x23, 80}, {0x24, 4}, {0x29, 5}, {0x2A, 2}};
  std::vector<std::string> wires;                                 // "03:=000abcd0", "update", "trigger 40.0"
  std::vector<std::pair<std::uint32_t, std::uint32_t>> bus_words; // ("CT-Ultra") select bits, data word
  std::deque<long> pipe_results;
  std::vector<long> pipe_reads; // lengths asked for
  std::vector<BoardSensor> sensors;

  // Sensor bus.
  std::map<int, std::pair<std::uint32_t, bool>> monitor; // channel: 12-bit code, continuity
  std::map<int, std::uint8_t> fan;
  int monitor_busy = 0; // NACKs of the monitor's read address still to come
  bool bus_stuck = false;
  int status_polls = 0;
  std::uint32_t bus_data = 0, bus_address = 0, bus_status = 0;
  int monitor_channel = 0, fan_register = -1;
  std::deque<std::uint8_t> rx;

  FakeBoard() {
    // Every supply at its nominal value.
    const double nominal[] = {-5.0, -5.0, 2.5, 3.0, 5.0, -5.5, 5.6, 5.0, 2.5, 12.0, 0.5};
    for (int ch = 0; ch < 11; ++ch)
      setVolts(ch, nominal[ch]);
  }
  void setVolts(int channel, double volts, bool continuity = true) {
    const auto code = static_cast<std::uint32_t>(volts * 2048 / board::MONITOR_SCALE[channel] + 2048);
    monitor[channel] = {code, continuity};
  }

  void command(std::uint32_t cmd) {
    bus_status = 0;
    if (cmd == board::BUS_START_WRITE) {
      bus_address = bus_data;
      fan_register = bus_address == board::FAN_WRITE ? -1 : fan_register;
      rx.clear();
      if (bus_address == board::MONITOR_READ && monitor_busy > 0) {
        --monitor_busy;
        bus_status = board::BUS_STATUS_NO_ACK;
      } else if (bus_address == board::MONITOR_READ) {
        const auto [code, cont] = monitor[monitor_channel];
        rx = {std::uint8_t((cont ? 0x80 : 0) | (code >> 8)), std::uint8_t(code & 0xFF)};
      } else if (bus_address == board::FAN_READ) {
        rx = {fan[fan_register]};
      } else if (bus_address != board::MONITOR_WRITE && bus_address != board::FAN_WRITE) {
        bus_status = board::BUS_STATUS_NO_ACK;
      }
    } else if (cmd == board::BUS_WRITE || cmd == board::BUS_WRITE_END) {
      if (bus_address == board::MONITOR_WRITE)
        monitor_channel = int(bus_data - 97) / 2;
      else if (bus_address == board::FAN_WRITE && fan_register < 0)
        fan_register = int(bus_data);
      else if (bus_address == board::FAN_WRITE)
        fan[fan_register] = std::uint8_t(bus_data);
    } else if (cmd == board::BUS_READ || cmd == board::BUS_READ_END) {
      bus_data = rx.empty() ? 0xFF : rx.front();
      if (!rx.empty())
        rx.pop_front();
    }
  }
};

class FakeLink : public DeviceLink {
public:
  explicit FakeLink(FakeBoard &b) : board(b) {}
  int openBySerial(const std::string &serial) override {
    open = board.open_rc == 0 && (serial.empty() || serial == board.serial);
    return open ? 0 : (board.open_rc ? board.open_rc : link::FAILED);
  }
  bool isOpen() const override { return open; }
  void close() override { open = false; }
  int getDeviceInfo(DeviceInfo &info) override {
    info = {board.serial, board.model, board.usb_speed, 1, 2};
    return board.info_rc;
  }
  int getBoardModel() override { return board.model; }
  std::string getSerialNumber() override { return board.serial; }
  int configureFpga(const std::string &path) override {
    board.configured = path;
    return board.configure_rc;
  }
  int setPllConfiguration(const PllConfiguration &pll) override {
    board.pll = pll;
    return board.pll_rc;
  }
  int setWireInValue(int address, std::uint32_t value, std::uint32_t) override {
    char text[32];
    std::snprintf(text, sizeof(text), "%02X:=%08X", address, value);
    board.wires.push_back(text);
    if (board.wire_rc == 0)
      board.wire_in[address] = value;
    return board.wire_rc;
  }
  int getWireInValue(int address, std::uint32_t &value) override {
    value = board.wire_in[address];
    return 0;
  }
  int updateWireIns() override {
    board.wires.push_back("update");
    return board.wire_rc;
  }
  int updateWireOuts() override { return 0; }
  std::uint32_t getWireOutValue(int address) override { return board.wire_out[address]; }
  int activateTriggerIn(int address, int bit) override {
    board.wires.push_back("trigger " + std::to_string(address) + "." + std::to_string(bit));
    if (board.model == link::MODEL_CT_ULTRA && (board.wire_in[board::WI_DAC_ADDRESS] & 7) != 0)
      board.bus_words.emplace_back(board.wire_in[board::WI_DAC_ADDRESS] & 7, board.wire_in[board::WI_DAC_DATA]);
    return board.trigger_rc;
  }
  long writeToPipeIn(int, const std::uint8_t *, long length) override { return length; }
  long readFromBlockPipeOut(int address, int block_size, std::uint8_t *, long length) override {
    EXPECT_EQ(address, board::PIPE_STREAM);
    EXPECT_EQ(block_size, board::PIPE_BLOCK_BYTES);
    board.pipe_reads.push_back(length);
    if (board.pipe_results.empty())
      return length;
    const long result = board.pipe_results.front();
    board.pipe_results.pop_front();
    return result;
  }
  int writeRegister(std::uint32_t address, std::uint32_t value) override {
    if (address == board::REG_BUS_DATA)
      board.bus_data = value;
    else if (address == board::REG_BUS_COMMAND)
      board.command(value);
    return 0;
  }
  int readRegister(std::uint32_t address, std::uint32_t &value) override {
    if (address == board::REG_BUS_COMMAND) {
      ++board.status_polls;
      value = board.bus_stuck ? board::BUS_STATUS_BUSY : board.bus_status;
    } else {
      value = board.bus_data;
    }
    return 0;
  }
  int getDeviceSensors(std::vector<BoardSensor> &sensors) override {
    sensors = board.sensors;
    return 0;
  }

private:
  FakeBoard &board;
  bool open = false;
};

class FakeProvider : public DeviceLinkProvider {
public:
  explicit FakeProvider(FakeBoard &b) : board(b) {}
  bool available() const override { return true; }
  std::vector<Listed> list() override { return {{board.serial, board.model}}; }
  std::unique_ptr<DeviceLink> makeLink() override { return std::make_unique<FakeLink>(board); }

private:
  FakeBoard &board;
};

struct Bench {
  FakeBoard board;
  FakeProvider provider{board};
  ChronotickFPGA fpga;
  explicit Bench(const std::string &serial = "") : fpga(serial, provider) {}

  // The text of the bring-up failure, or "" when the board came up.
  std::string failure() {
    try {
      fpga.open(false);
    } catch (const std::runtime_error &e) {
      EXPECT_FALSE(fpga.isConnected());
      return e.what();
    }
    return "";
  }
  void ct20(int hardware_version = 2) {
    board.model = link::MODEL_CT20;
    board.wire_out[board::WO_HARDWARE_VERSION] = std::uint32_t(hardware_version);
    board.wire_out[board::WO_INPUTS] = 8;
  }
  void openAndForget() {
    ASSERT_TRUE(fpga.open(false));
    board.wires.clear();
    board.bus_words.clear();
  }
};

using Words = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

class BringUp : public ::testing::Test {
protected:
  void TearDown() override {
    ChronotickFPGA::setCustomBitFile("");
    unsetenv("CHRONOTICK_FIRMWARE_DIR");
  }
  LogCapture log;
};

TEST_F(BringUp, UltraComesUpWithWhatTheBoardReports) {
  Bench b;
  b.board.wire_out[board::WO_BUILD_TIME] = board::packBuildTime({2026, 1, 2, 3, 4, 5});
  ASSERT_TRUE(b.fpga.open(false));
  EXPECT_TRUE(b.fpga.isConnected());
  EXPECT_EQ(b.fpga.serial(), "2301A7"); // "" took the board's own
  EXPECT_EQ(b.fpga.model(), "CT-Ultra");
  EXPECT_EQ(b.fpga.pcbVersion(), "1.4b");
  EXPECT_EQ(b.fpga.resolution(), 9);
  EXPECT_EQ(b.fpga.inputs(), 18);
  EXPECT_EQ(b.fpga.clockPeriodPs(), 4000);
  EXPECT_EQ(b.fpga.binCount(), 80);
  EXPECT_EQ(b.fpga.usableInputs(), std::vector<bool>(36, true));
  EXPECT_EQ(b.fpga.version(), "CT-Ultra, FW 4, TS 2026-01-02 03:04:05, OK 1.2");
  EXPECT_THAT(b.board.configured, ::testing::EndsWith("/ChronotickUltraController.bit"));

  EXPECT_EQ(b.board.wire_in[board::WI_PIPE_HALF_BLOCK], 512u);
  EXPECT_EQ(b.board.wire_in[board::WI_OLD_PCB], 0u);
  EXPECT_EQ(b.board.wire_in[board::WI_RUN], 1u);
  EXPECT_EQ(b.board.wire_in[board::WI_FRONT_END], 0x3Fu);
  EXPECT_EQ(b.board.wire_in[board::WI_DAC_ADDRESS], 0x30000u); // restored after each serial-bus word
  EXPECT_EQ(b.board.fan[board::FAN_CONFIG], board::FAN_POWER_UP);
  const auto &w = b.board.wires;
  const auto pulse = std::find(w.begin(), w.end(), "0E:=00000001");
  ASSERT_GE(std::distance(pulse, w.end()), 4);
  EXPECT_THAT(std::vector<std::string>(pulse, pulse + 4),
              ElementsAre("0E:=00000001", "update", "0E:=00000000", "update"));
  EXPECT_EQ(b.board.bus_words, (Words{{1, 0xAAE00004},
                                      {2, 0xAAE00004},
                                      {4, 0x400005},
                                      {4, 0xBC843C},
                                      {4, 3},
                                      {4, 0xA005D42},
                                      {4, 0x8008011},
                                      {4, 0x640000},
                                      {2, 0xAA327FFF},
                                      {2, 0xAA33B332}}));
  EXPECT_EQ(log.errors(), 0);
  EXPECT_TRUE(log.entries().empty());
}

TEST_F(BringUp, OlderUltraBoardsSkipTheSupplySteps) {
  Bench v2;
  v2.board.wire_out[board::WO_HARDWARE_VERSION] = 2;
  v2.board.bus_stuck = true; // no supply check and no fan set-up may touch the bus
  ASSERT_TRUE(v2.fpga.open(false));
  EXPECT_EQ(v2.fpga.pcbVersion(), "1.2");
  EXPECT_EQ(v2.board.wire_in[board::WI_OLD_PCB], 12u);
  EXPECT_EQ(v2.board.status_polls, 0);
  EXPECT_EQ(v2.board.bus_words.size(), 4u); // DAC set-up and the two fixed DAC channels, no clock chip

  Bench v3;
  v3.board.wire_out[board::WO_HARDWARE_VERSION] = 3;
  v3.board.setVolts(7, 9.0); // out of range, but version 3 has no supply check
  ASSERT_TRUE(v3.fpga.open(false));
  EXPECT_EQ(v3.board.bus_words[2], std::make_pair(4u, 5u)); // the clock chip's first word before version 4
}

TEST_F(BringUp, Ct20ProgramsItsClockAndDac) {
  Bench b;
  b.ct20();
  ASSERT_TRUE(b.fpga.open(false));
  EXPECT_EQ(b.fpga.model(), "CT-20");
  EXPECT_EQ(b.fpga.version(), "CT-20, FW 4, OK 1.2");
  EXPECT_EQ(b.fpga.pcbVersion(), "2.3");
  EXPECT_EQ(b.fpga.resolution(), 34);
  EXPECT_THAT(b.board.configured, ::testing::EndsWith("/ChronotickController.bit"));
  const PllConfiguration &pll = b.board.pll;
  EXPECT_EQ(std::make_pair(pll.vco_p, pll.vco_q), std::make_pair(125, 18));
  EXPECT_EQ(std::make_pair(pll.div1_source, pll.div1_value), std::make_pair(1, 4));
  EXPECT_EQ(std::make_pair(pll.outputs[0].source, pll.outputs[0].enabled), std::make_pair(1, true));
  EXPECT_EQ(std::make_pair(pll.outputs[2].source, pll.outputs[2].enabled), std::make_pair(2, true));
  EXPECT_FALSE(pll.outputs[1].enabled || pll.outputs[3].enabled || pll.outputs[4].enabled || pll.outputs[5].enabled);
  // The general DAC write with data word 1 and address word 0x800, then the run bit.
  EXPECT_THAT(b.board.wires, ElementsAre("01:=00000200", "update", "03:=00000001", "04:=00000800", "update",
                                         "trigger 64.0", "0D:=00000001", "update"));
}

TEST_F(BringUp, FailuresSayWhatWentWrong) {
  {
    Bench b("X17");
    b.board.open_rc = link::DEVICE_NOT_OPEN;
    EXPECT_FALSE(b.fpga.open(true));
    EXPECT_EQ(b.failure(), "Opening of USB connection failed or device with serial 'X17' not found.");
  }
  {
    Bench b;
    b.board.info_rc = link::COMMUNICATION_ERROR;
    EXPECT_EQ(b.failure(), "Error on fetching the device information: -13");
  }
  {
    Bench b;
    b.board.serial = "1709B2";
    EXPECT_EQ(b.failure(), "From software version 2.6.6 on, the hardware with the serial '1709B2' is not supported "
                           "anymore. Please contact Norvane Instruments to arrange a free of charge replacement of "
                           "your Chronotick. To continue immediately, please install version 2.6.4 "
                           "(https://downloads.chronotick.org).");
  }
  for (const char *serial : {"1710B2", "17A9B2", "170"}) { // not old production
    Bench b;
    b.board.serial = serial;
    EXPECT_EQ(b.failure(), "") << serial;
  }
  {
    Bench b;
    b.board.model = 0x11;
    EXPECT_EQ(b.failure(), "No Chronotick model recognized!");
    EXPECT_EQ(b.fpga.model(), "unknown");
  }
  {
    Bench b;
    b.ct20();
    b.board.pll_rc = link::FAILED;
    EXPECT_EQ(b.failure(), "Uploading PLL configuration failed");
  }
  {
    Bench b;
    b.board.configure_rc = link::FPGA_CONFIG_FAILED;
    const std::string text = b.failure();
    EXPECT_EQ(text, "Uploading FPGA configuration failed - bitfile: '" + b.board.configured + "'");
  }
  {
    Bench b;
    b.board.wire_out[board::WO_INTERFACE_VERSION] = 3;
    EXPECT_EQ(b.failure(), "The firmware version '3' is not supported by the Chronotick 2.7.0 version");
  }
  {
    Bench ultra, ct20;
    ultra.board.wire_out[board::WO_HARDWARE_VERSION] = 6;
    ct20.ct20(3);
    EXPECT_EQ(ultra.failure(), "Unknown pcb version.");
    EXPECT_EQ(ct20.failure(), "Unknown pcb version.");
  }
}

TEST_F(BringUp, SuppliesAreCheckedAgainstTheirLimits) {
  Bench high;
  high.board.setVolts(7, 5.5);
  EXPECT_EQ(high.failure(), "Voltage 7 is out of valid range (4.8 - 5.2): 5.5 - cont: 1");

  Bench low;
  low.board.setVolts(9, 11.0);
  EXPECT_EQ(low.failure(), "Voltage 9 is out of valid range (11.4 - 12.6): 11 - cont: 1");

  Bench open_circuit; // sensor 0 asks for the continuity flag
  open_circuit.board.setVolts(0, -5.0, false);
  EXPECT_EQ(open_circuit.failure(), "Voltage 0 is out of valid range (0 - -1): -5 - cont: 0");

  Bench silent_monitor; // never acknowledges: the failure value, whatever the limits
  silent_monitor.board.monitor_busy = 1000;
  EXPECT_EQ(silent_monitor.failure(), "Voltage 0 is out of valid range (0 - -1): 42 - cont: 0");
}

TEST_F(BringUp, FirmwareIsFoundInItsPlaces) {
  {
    Bench b;
    b.board.usb_speed = link::USB_SPEED_HIGH;
    ASSERT_EQ(b.failure(), "");
    EXPECT_EQ(
        log.count("The Chronotick '2301A7' is not connected by USB 3.0, its performance will be low.", LOGGER_WARNING),
        1);
  }
  {
    ChronotickFPGA::setCustomBitFile("/nonexistent/custom.bit");
    Bench b;
    EXPECT_EQ(b.failure(), "Firmware file not found - filename: '/nonexistent/custom.bit'");
    EXPECT_EQ(log.count("Loading custom bitfile '/nonexistent/custom.bit'", LOGGER_WARNING), 1);
    ChronotickFPGA::setCustomBitFile("");
  }
  {
    setenv("CHRONOTICK_FIRMWARE_DIR", "/nonexistent", 1);
    Bench b;
    EXPECT_EQ(b.failure(), "Firmware file not found - filename: '/nonexistent/ChronotickUltraController.bit'");
    unsetenv("CHRONOTICK_FIRMWARE_DIR");
  }
  // Found anywhere else, the file is also usable as a custom file.
  Bench installed;
  ASSERT_EQ(installed.failure(), "");
  const std::string found = installed.board.configured;
  {
    ChronotickFPGA::setCustomBitFile(found);
    Bench b;
    ASSERT_EQ(b.failure(), "");
    EXPECT_EQ(b.board.configured, found);
    ChronotickFPGA::setCustomBitFile("");
  }
  // The working directory comes before every configured place.
  const std::filesystem::path before = std::filesystem::current_path();
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("ct-fw-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::filesystem::copy_file(found, dir / board::FIRMWARE_ULTRA);
  std::filesystem::current_path(dir);
  setenv("CHRONOTICK_FIRMWARE_DIR", "/nonexistent", 1);
  Bench local;
  const std::string outcome = local.failure();
  std::filesystem::current_path(before);
  std::filesystem::remove_all(dir);
  EXPECT_EQ(outcome, "");
  EXPECT_EQ(local.board.configured, "./ChronotickUltraController.bit");
  EXPECT_EQ(log.count("INFO: Loading bitfile from current directory: ./ChronotickUltraController.bit", LOGGER_WARNING),
            1);
}

TEST(BoardWires, DacWordsFollowEachModelsMap) {
  Bench ct20;
  ct20.ct20();
  ct20.openAndForget();
  ct20.fpga.setDac(0, 0xABCD); // input 0 is DAC channel 7
  ct20.fpga.setDac(7, 0x0010); // input 7 is DAC channel 0
  EXPECT_THAT(ct20.board.wires, ElementsAre("03:=000ABCD0", "04:=0000037A", "update", "trigger 64.0", "03:=00000100",
                                            "04:=00000300", "update", "trigger 64.0"));

  Bench ultra;
  ultra.openAndForget();
  ultra.fpga.setDac(0, 0x1234);
  ultra.fpga.setDac(9, 0x1234);  // DAC 0x17: the second chip
  ultra.fpga.setDac(17, 0xFFFF); // DAC 0x19
  ultra.fpga.setDac(19, 0x8000); // DAC 0x0C
  EXPECT_EQ(ultra.board.bus_words, (Words{{1, 0xAA301234}, {2, 0xAA371234}, {2, 0xAA39FFFF}, {1, 0xAA3C8000}}));
  EXPECT_EQ(ultra.board.wire_in[board::WI_DAC_ADDRESS], 0x30000u);
}

TEST(BoardWires, FailedDacWritesMarkTheLinkDown) {
  LogCapture log;
  Bench wires;
  wires.ct20();
  wires.openAndForget();
  wires.board.wire_rc = link::COMMUNICATION_ERROR;
  wires.fpga.setDac(1, 100);
  EXPECT_FALSE(wires.fpga.isConnected());
  EXPECT_EQ(log.count("setting DAC value failed", LOGGER_ERROR), 1);

  Bench trigger;
  trigger.ct20();
  trigger.openAndForget();
  trigger.board.trigger_rc = link::COMMUNICATION_ERROR;
  trigger.fpga.setDac(1, 100);
  EXPECT_FALSE(trigger.fpga.isConnected());
  EXPECT_EQ(log.count("triggering DAC failed", LOGGER_ERROR), 1);
}

TEST(BoardWires, TestSignalAndLedsPerModel) {
  Bench ct20, ultra;
  ct20.ct20();
  ct20.openAndForget();
  ultra.openAndForget();
  ct20.fpga.setTestSignalPeriod(74);
  ultra.fpga.setTestSignalPeriod(63);
  ct20.fpga.setLeds(0x70005 | 0xFFF8); // bits beyond 0-2 and 16-18 don't count on "CT-20"
  ultra.fpga.setLeds(0x70005);
  EXPECT_THAT(ct20.board.wires, ElementsAre("09:=0000004A", "0B:=00000025", "0C:=00000705"));
  EXPECT_THAT(ultra.board.wires, ElementsAre("09:=0000007E", "0B:=0000003F", "0C:=00070005"));
}

TEST(PipeBackend, AFailedTransferIsLostEvenWhenTheRetryWorks) {
  LogCapture log;
  std::vector<std::uint8_t> buffer(4096);
  Bench b;
  b.openAndForget();
  EXPECT_EQ(b.fpga.readPipe(buffer.data(), 4096), 4096);

  b.board.pipe_results = {link::TIMEOUT, 4096};
  EXPECT_EQ(b.fpga.readPipe(buffer.data(), 4096), link::TIMEOUT);
  EXPECT_FALSE(b.fpga.isConnected());
  EXPECT_EQ(log.count("PipeBackend: Pipe transfer failed, len=4096", LOGGER_ERROR), 1);
  EXPECT_EQ(log.count("second run, len=4096"), 0);
  EXPECT_EQ(b.board.pipe_reads.size(), 3u);
  EXPECT_EQ(b.fpga.readPipe(buffer.data(), 4096), -1); // down: the board isn't asked
  EXPECT_EQ(b.board.pipe_reads.size(), 3u);

  ASSERT_TRUE(b.fpga.open(true)); // the reconnect of the data path
  b.board.pipe_results = {link::COMMUNICATION_ERROR, link::COMMUNICATION_ERROR};
  EXPECT_EQ(b.fpga.readPipe(buffer.data(), 2048), link::COMMUNICATION_ERROR);
  EXPECT_EQ(log.count("PipeBackend: Pipe transfer failed, second run, len=2048", LOGGER_ERROR), 1);
}

TEST(Sensors, Ct20ReportsSerialBoardSensorsAndClock) {
  Bench b;
  b.ct20();
  b.board.sensors = {{"FPGA temp", 41.5}, {"VCCINT", 1.2}};
  b.board.wire_out[board::WO_CLK_IN_FREQUENCY] = 300;
  b.board.wire_out[board::WO_SYNC_STATUS] = 0x1C; // no synchronizer lines on "CT-20"
  b.openAndForget();
  EXPECT_EQ(b.fpga.sensorReport(), "Serial\t2301A7\nFPGA temp\t41.5\nVCCINT\t1.2\nCLK IN freq\t10000000\n");
}

TEST(Sensors, UltraReportsFanSuppliesAndSynchronizer) {
  Bench b;
  b.board.fan = {{0x00, 41},   {0x1E, 0xA0}, {0x01, 0xFE}, {0x1F, 0x00}, {0x0D, 120}, {0x0E, 240},
                 {0x10, 0x34}, {0x11, 0x12}, {0x12, 0},    {0x13, 0},    {0x02, 5}};
  b.board.setVolts(10, 0.75);
  b.board.wire_out[board::WO_CLK_IN_FREQUENCY] = 0xF0002710; // the top bits aren't part of the count
  b.board.wire_out[board::WO_SYNC_STATUS] = (3u << 28) | (5u << 22) | (9u << 16) | (17u << 6) | 0xC;
  b.board.wire_out[board::WO_SYNC_LINK] = 77;
  b.openAndForget();
  EXPECT_EQ(b.fpga.sensorReport(), "Serial\t2301A7\n"
                                   "6615 Temp #1\t41.625\n"
                                   "6615 Temp #2\t-2.000\n"
                                   "6615 DutyCyc #1\t50.0\n"
                                   "6615 DutyCyc #2\t100.0\n"
                                   "6615 FanTach #1\t4660\n"
                                   "6615 FanTach #2\t0\n"
                                   "6615 Fan status\t5\n"
                                   "11611 -5VD\t-5.000\n"
                                   "11611 -5VA\t-5.000\n"
                                   "11611 -5.52V\t-5.500\n"
                                   "11611 +5VD\t5.000\n"
                                   "11611 +5VA\t5.000\n"
                                   "11611 +5.6V\t5.598\n"
                                   "11611 +2.5VD\t2.500\n"
                                   "11611 +2.5VA\t2.500\n"
                                   "11611 +2.99V\t3.000\n"
                                   "11611 12V\t12.000\n"
                                   "11611 incurr\t0.750\n"
                                   "CLK IN freq\t10000000\n"
                                   "Synchronizer flags\t3 9 5\n"
                                   "Synchronizer data\t77\n"
                                   "SYNC IN offset\t17\n");

  Bench old; // up to hardware version 2 there is no fan controller or monitor
  old.board.wire_out[board::WO_HARDWARE_VERSION] = 2;
  old.openAndForget();
  EXPECT_EQ(old.fpga.sensorReport(), "Serial\t2301A7\nCLK IN freq\t0\n");
}

TEST(Sensors, VoltageReadsRetryABusyMonitorAndGiveUpOnAStuckBus) {
  Bench b;
  b.openAndForget();
  bool continuity = false;
  b.board.setVolts(9, 12.0);
  b.board.monitor_busy = 7;
  EXPECT_DOUBLE_EQ(b.fpga.readVoltage(9, &continuity), 12.0);
  EXPECT_TRUE(continuity);
  b.board.monitor_busy = 8;
  EXPECT_EQ(b.fpga.readVoltage(9), 42.0);
  EXPECT_EQ(b.fpga.readVoltage(11), 42.0); // no such channel

  b.board.monitor_busy = 0;
  b.board.bus_stuck = true;
  b.board.status_polls = 0;
  EXPECT_EQ(b.fpga.readVoltage(9), 42.0);
  EXPECT_EQ(b.board.status_polls, board::BUS_POLLS);
}

// The same bring-up against the simulated board, whose faults come from its
// own model rather than from a script.
class SimulatedBringUp : public ::testing::Test {
protected:
  ~SimulatedBringUp() override {
    for (const std::string &serial : serials)
      simulation::removeBoard(serial);
  }
  std::string add(const std::string &model, bool usb3 = true) {
    simulation::BoardSpec spec;
    spec.model = model;
    spec.serial = "BU" + std::to_string(serials.size()) + "-" + std::to_string(getpid());
    spec.usb3 = usb3;
    if (model == "CT-20")
      spec.hardware_version = 2;
    serials.push_back(simulation::addBoard(spec));
    return serials.back();
  }
  static std::string failure(ChronotickFPGA &fpga) {
    try {
      fpga.open(false);
    } catch (const std::runtime_error &e) {
      return e.what();
    }
    return "";
  }
  std::vector<std::string> serials;
  LogCapture log;
};

TEST_F(SimulatedBringUp, LearnsTheBoardAndReportsItsSensors) {
  const std::string serial = add("CT-Ultra", false);
  ChronotickFPGA fpga(serial);
  ASSERT_EQ(failure(fpga), "");
  const simulation::BoardTruth truth = simulation::getTruth(serial);
  EXPECT_EQ(fpga.inputs(), truth.inputs);
  EXPECT_EQ(fpga.clockPeriodPs(), truth.clock_period);
  EXPECT_EQ(fpga.binCount(), truth.bin_count);
  EXPECT_NE(fpga.version().find(", TS 2026-01-01 00:00:00, OK "), std::string::npos) << fpga.version();
  EXPECT_EQ(log.count("The Chronotick '" + serial + "' is not connected by USB 3.0, its performance will be low.",
                      LOGGER_WARNING),
            1);
  const std::string report = fpga.sensorReport();
  EXPECT_NE(report.find("\n6615 Temp #1\t38.375\n"), std::string::npos) << report;
  EXPECT_NE(report.find("\n11611 +5VD\t5.000\n"), std::string::npos) << report;

  ChronotickFPGA ct20(add("CT-20"));
  ASSERT_EQ(failure(ct20), "");
  EXPECT_EQ(ct20.model(), "CT-20");
  EXPECT_EQ(ct20.sensorReport().find("6615"), std::string::npos);
}

TEST_F(SimulatedBringUp, FaultsOfTheBoardStopBringUp) {
  const auto faulty = [this](simulation::Fault fault, int count) {
    const std::string serial = add("CT-Ultra");
    simulation::injectFault(serial, fault, count);
    ChronotickFPGA fpga(serial);
    return failure(fpga);
  };
  EXPECT_EQ(faulty(simulation::Fault::WrongInterfaceVersion, 1),
            "The firmware version '3' is not supported by the Chronotick 2.7.0 version");
  EXPECT_EQ(faulty(simulation::Fault::VoltageOutOfRange, 7),
            "Voltage 7 is out of valid range (4.8 - 5.2): 5.75 - cont: 1");
  EXPECT_EQ(faulty(simulation::Fault::SensorFailure, 1), "Voltage 0 is out of valid range (0 - -1): 42 - cont: 0");
  EXPECT_THAT(faulty(simulation::Fault::NoFirmware, 1),
              ::testing::StartsWith("Uploading FPGA configuration failed - bitfile: '"));
  // The USB library's absence may be added: no real board could be asked.
  const std::string lost = faulty(simulation::Fault::LinkLoss, 1);
  EXPECT_THAT(lost, ::testing::StartsWith("Opening of USB connection failed or device with serial '" + serials.back() +
                                          "' not found."));
}

TEST_F(SimulatedBringUp, ALostLinkComesBackOnReopen) {
  const std::string serial = add("CT-Ultra");
  simulation::setRealTime(serial, false);
  ChronotickFPGA fpga(serial);
  ASSERT_TRUE(fpga.open(false));
  std::vector<std::uint8_t> buffer(8192);
  EXPECT_EQ(fpga.readPipe(buffer.data(), 8192), 8192);
  simulation::injectFault(serial, simulation::Fault::LinkLoss, 1);
  EXPECT_LT(fpga.readPipe(buffer.data(), 8192), 0);
  EXPECT_FALSE(fpga.isConnected());
  EXPECT_EQ(log.count("PipeBackend: Pipe transfer failed, len=8192", LOGGER_ERROR), 1);
  for (int attempt = 0; attempt < 3 && !fpga.isConnected(); ++attempt)
    fpga.open(true);
  ASSERT_TRUE(fpga.isConnected());
  EXPECT_EQ(fpga.readPipe(buffer.data(), 8192), 8192);
}

} // namespace
} // namespace chronotick
