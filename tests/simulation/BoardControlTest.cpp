// The simulated board's control side: firmware files, wire-outs, the DAC and
// sensor buses, faults, and the board list behind the public API.

#include "BoardRig.h"
#include "device/BuildTime.h"
#include "simulation/BoardRegistry.h"

#include <chronotick/Simulation.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace chronotick::simulation::testing {
namespace {

using namespace board;

bool busCommand(SimulatedBoard &b, std::uint32_t command, std::uint32_t data = 0) {
  std::uint32_t status = 0;
  b.writeRegister(REG_BUS_DATA, data);
  b.writeRegister(REG_BUS_COMMAND, command);
  b.readRegister(REG_BUS_COMMAND, status);
  return !(status & BUS_STATUS_NO_ACK);
}

std::uint32_t busData(SimulatedBoard &b) {
  std::uint32_t value = 0;
  b.readRegister(REG_BUS_DATA, value);
  return value;
}

// One reading of the voltage monitor, written from the bus protocol alone.
double readVolts(SimulatedBoard &b, int channel, bool &continuity) {
  if (!busCommand(b, BUS_START_WRITE, MONITOR_WRITE) || !busCommand(b, BUS_WRITE_END, std::uint32_t(channel * 2 + 97)))
    return SENSOR_FAILURE;
  if (!busCommand(b, BUS_START_WRITE, MONITOR_READ) || !busCommand(b, BUS_READ))
    return SENSOR_FAILURE;
  const std::uint32_t first = busData(b);
  busCommand(b, BUS_READ_END);
  continuity = first & 0x80;
  return monitorVolts(channel, (first & 15) << 8 | busData(b));
}

TEST(SimulatedBoardControl, FirmwareFilesAreCheckedAndDescribeTheBoard) {
  SimulatedBoard b(Rig::spec("CT-Ultra", 1));
  std::vector<std::uint8_t> buffer(1024);
  EXPECT_EQ(b.configureFpga(writeFirmware("CT-Ultra")), link::DEVICE_NOT_OPEN);
  EXPECT_EQ(b.openBySerial("2447012346"), link::FAILED);
  ASSERT_EQ(b.openBySerial("2447012345"), link::NO_ERROR);
  EXPECT_LT(b.readFromBlockPipeOut(PIPE_STREAM, 1024, buffer.data(), 1024), 0) << "no firmware, no pipe";
  EXPECT_EQ(b.configureFpga(::testing::TempDir() + "/none.bit"), link::FILE_ERROR);
  EXPECT_EQ(b.configureFpga(writeFirmware("CT-20")), link::FPGA_CONFIG_FAILED);
  const std::string foreign = ::testing::TempDir() + "/foreign.bit";
  std::ofstream(foreign) << "\xff\xff\xff\xff some other board's bit stream\n";
  EXPECT_EQ(b.configureFpga(foreign), link::FPGA_CONFIG_FAILED);

  ASSERT_EQ(b.configureFpga(writeFirmware("CT-Ultra", 5, 1709210096, "u5.bit")), link::NO_ERROR);
  b.updateWireOuts();
  EXPECT_EQ(b.getWireOutValue(WO_INPUTS), 18u);
  EXPECT_EQ(b.getWireOutValue(WO_CLOCK_PERIOD), 2000u);
  EXPECT_EQ(b.getWireOutValue(WO_BIN_COUNT), 200u);
  EXPECT_EQ(b.getWireOutValue(WO_INTERFACE_VERSION), 5u);
  EXPECT_EQ(b.getWireOutValue(WO_HARDWARE_VERSION), 5u);
  EXPECT_EQ(b.getWireOutValue(WO_SYNC_STATUS), 0u);
  const BuildTime t = unpackBuildTime(b.getWireOutValue(WO_BUILD_TIME));
  EXPECT_EQ((std::vector<int>{t.year, t.month, t.day, t.hour, t.minute, t.second}),
            (std::vector<int>{2024, 2, 29, 12, 34, 56}));

  // Loaded but not yet running: idle words only.
  b.setRealTime(false);
  EXPECT_EQ(b.readFromBlockPipeOut(PIPE_STREAM, 1024, buffer.data(), 1024), 1024);
  EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](std::uint8_t v) { return v == 0; }));
  EXPECT_EQ(b.readFromBlockPipeOut(PIPE_STREAM, 1024, buffer.data(), 1000), link::INVALID_BLOCK_SIZE);
  EXPECT_EQ(b.readFromBlockPipeOut(0xA1, 1024, buffer.data(), 1024), link::INVALID_ENDPOINT);
}

TEST(SimulatedBoardControl, BuildTimePacking) {
  for (long long seconds : {951782400LL, 1709210096LL, 1767225600LL}) {
    const BuildTime t = buildTimeFromUnix(seconds);
    const BuildTime back = unpackBuildTime(packBuildTime(t));
    EXPECT_EQ((std::vector<int>{t.year, t.month, t.day, t.hour, t.minute, t.second}),
              (std::vector<int>{back.year, back.month, back.day, back.hour, back.minute, back.second}));
  }
  const BuildTime leap = buildTimeFromUnix(951782400);
  EXPECT_EQ((std::vector<int>{leap.year, leap.month, leap.day}), (std::vector<int>{2000, 2, 29}));
  const BuildTime late = buildTimeFromUnix(4102444799);
  EXPECT_EQ((std::vector<int>{late.year, late.month, late.day, late.hour, late.minute, late.second}),
            (std::vector<int>{2099, 12, 31, 23, 59, 59}));
}

TEST(SimulatedBoardControl, ThresholdsReachTheBoardThroughEachModelsDac) {
  Rig ultra;
  ultra.threshold(10, 1.25);
  EXPECT_NEAR(ultra.board.thresholdVolts(10), 1.25, 1e-4);
  ultra.board.updateWireOuts();
  EXPECT_TRUE(ultra.board.getWireOutValue(WO_STATUS) & 2);
  const auto writes = ultra.board.writes();
  const auto bus = std::find_if(writes.begin(), writes.end(),
                                [](const BoardWrite &w) { return w.kind == BoardWrite::Kind::SerialBus; });
  ASSERT_NE(bus, writes.end());
  EXPECT_EQ(bus->address, 2); // input 10 sits on the second DAC chip
  EXPECT_EQ(bus->value >> 16, (ULTRA_DAC_WRITE >> 16) + 6);

  Rig ct20("CT-20");
  ct20.threshold(3, 0.7);
  EXPECT_NEAR(ct20.board.thresholdVolts(3), 0.7, 1e-4);
  EXPECT_EQ(ct20.board.thresholdVolts(4), 0.0);
  PllConfiguration pll;
  pll.vco_p = 125, pll.vco_q = 18;
  EXPECT_EQ(ct20.board.setPllConfiguration(pll), link::NO_ERROR);
  EXPECT_EQ(ct20.board.writes().back().value, (125u << 16) | 18u);
  EXPECT_EQ(ultra.board.setPllConfiguration(pll), link::UNSUPPORTED_FEATURE);
}

TEST(SimulatedBoardControl, SensorBusReadsAndItsFaults) {
  Rig rig;
  struct Limit {
    int channel;
    double low, high;
  };
  const Limit limits[] = {{1, -5.2, -4.8}, {5, -5.8, -5.2}, {7, 4.8, 5.2}, {4, 4.8, 5.2},  {6, 5.3, 5.9},
                          {2, 2.3, 2.7},   {8, 2.3, 2.7},   {3, 2.7, 3.3}, {9, 11.4, 12.6}};
  bool flag = false;
  for (const Limit &l : limits) {
    const double v = readVolts(rig.board, l.channel, flag);
    EXPECT_TRUE(v >= l.low && v <= l.high) << "channel " << l.channel << ": " << v;
  }
  EXPECT_LE(readVolts(rig.board, 0, flag), -1.0);
  EXPECT_TRUE(flag);

  rig.board.injectFault(Fault::VoltageOutOfRange, 7);
  EXPECT_GT(readVolts(rig.board, 7, flag), 5.2);
  rig.board.injectFault(Fault::VoltageOutOfRange, 0);
  readVolts(rig.board, 0, flag);
  EXPECT_FALSE(flag);
  rig.board.injectFault(Fault::SensorFailure);
  EXPECT_EQ(readVolts(rig.board, 4, flag), SENSOR_FAILURE);

  // The fan controller stays on the bus: register 0 is the first temperature.
  ASSERT_TRUE(busCommand(rig.board, BUS_START_WRITE, FAN_WRITE));
  busCommand(rig.board, BUS_WRITE_END, FAN_TEMP1);
  ASSERT_TRUE(busCommand(rig.board, BUS_START_WRITE, FAN_READ));
  busCommand(rig.board, BUS_READ_END);
  EXPECT_EQ(busData(rig.board), 38u);
  rig.board.clearFaults();
  EXPECT_NEAR(readVolts(rig.board, 4, flag), 5.0, 0.01);

  Rig ct20("CT-20");
  std::uint32_t value = 0;
  EXPECT_EQ(ct20.board.readRegister(REG_BUS_COMMAND, value), link::UNSUPPORTED_FEATURE);
}

TEST(SimulatedBoardControl, StreamFaults) {
  Rig rig;
  rig.board.setSignal(0, Signal::poisson(1e6));
  rig.threshold(0, 0.5);
  rig.slot(0);
  rig.start();
  std::vector<std::uint8_t> buffer(4096);
  const auto read = [&] { return rig.board.readFromBlockPipeOut(PIPE_STREAM, 1024, buffer.data(), 4096); };

  rig.board.injectFault(Fault::ShortRead);
  const long short_read = read();
  EXPECT_GT(short_read, 0);
  EXPECT_LT(short_read, 4096);
  EXPECT_EQ(short_read % 4, 0);
  EXPECT_EQ(read(), 4096);

  rig.board.injectFault(Fault::ClockLoss);
  Decoded d;
  decode(rig.read(1 << 14), rig.truth, d);
  EXPECT_EQ(d.errors, 1);
  EXPECT_EQ(d.bad_words + d.out_of_order, 0);

  rig.board.injectFault(Fault::LinkLoss, 2);
  EXPECT_LT(read(), 0);
  EXPECT_FALSE(rig.board.isOpen());
  EXPECT_LT(read(), 0);
  EXPECT_NE(rig.board.openBySerial(""), link::NO_ERROR);
  ASSERT_EQ(rig.board.openBySerial(""), link::NO_ERROR);
  ASSERT_EQ(rig.board.configureFpga(writeFirmware("CT-Ultra")), link::NO_ERROR);
  rig.threshold(0, 0.5);
  rig.start();
  Decoded again;
  decode(rig.read(1 << 12), rig.truth, again);
  EXPECT_GT(again.events.size(), 4000u);

  rig.board.injectFault(Fault::WrongInterfaceVersion);
  rig.board.updateWireOuts();
  EXPECT_EQ(rig.board.getWireOutValue(WO_INTERFACE_VERSION), 3u);
  rig.board.injectFault(Fault::NoFirmware);
  EXPECT_EQ(rig.board.configureFpga(writeFirmware("CT-Ultra")), link::FPGA_CONFIG_FAILED);
}

TEST(SimulatedBoardControl, BoardListAndLinks) {
  removeAllBoards();
  BoardSpec spec;
  spec.model = "CT-20";
  const std::string made_up = addBoard(spec);
  EXPECT_EQ(made_up.substr(0, 5), "24470");
  EXPECT_GE(std::stoi(made_up.substr(0, 4)), 1710);
  spec.serial = "2500000001";
  spec.model = "XY-9";
  EXPECT_EQ(addBoard(spec), "2500000001");
  EXPECT_THROW(addBoard(spec), std::invalid_argument);
  EXPECT_EQ(listBoards(), (std::vector<std::string>{made_up, "2500000001"}));

  DeviceLinkProvider &provider = simulatedLinkProvider();
  ASSERT_TRUE(provider.available());
  const auto listed = provider.list();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].board_model, link::MODEL_CT20);
  EXPECT_NE(listed[1].board_model, link::MODEL_CT20);
  EXPECT_NE(listed[1].board_model, link::MODEL_CT_ULTRA);

  auto link = provider.makeLink();
  EXPECT_NE(link->openBySerial("999"), link::NO_ERROR);
  ASSERT_EQ(link->openBySerial(made_up), link::NO_ERROR);
  DeviceInfo info;
  ASSERT_EQ(link->getDeviceInfo(info), link::NO_ERROR);
  EXPECT_EQ(info.serial, made_up);
  EXPECT_EQ(info.usb_speed, link::USB_SPEED_SUPER);
  EXPECT_EQ(getTruth(made_up).inputs, 8);
  EXPECT_THROW(setSignal(made_up, 8, Signal::poisson(1)), std::invalid_argument);
  EXPECT_THROW(setSignal(made_up, 0, Signal::copy(0, 0)), std::invalid_argument);
  EXPECT_THROW(setSignal("404", 0, Signal::poisson(1)), std::invalid_argument);
  EXPECT_THROW(setBandwidth(made_up, 0), std::invalid_argument);

  removeBoard(made_up);
  EXPECT_FALSE(link->isOpen());
  EXPECT_EQ(link->updateWireIns(), link::DEVICE_NOT_OPEN);
  EXPECT_NE(link->openBySerial(made_up), link::NO_ERROR);
  EXPECT_EQ(provider.list().size(), 1u);
  removeAllBoards();
}

} // namespace
} // namespace chronotick::simulation::testing
