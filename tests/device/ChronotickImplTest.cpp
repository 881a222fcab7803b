// The hardware tagger on simulated boards: its settings and their messages,
// the configuration text, and what the settings do to the stream measured
// against the board's truth.

#include <chronotick/Chronotick.h>
#include <chronotick/Simulation.h>

#include "device/BoardProtocol.h"
#include "device/ChronotickImpl.h"
#include "simulation/BoardRegistry.h"
#include "support/LogCapture.h"
#include "support/MeasurementHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>

namespace chronotick {
namespace {

using simulation::Signal;
using testing::fetch;
using testing::LogCapture;

constexpr std::int64_t MS = 1000000000; // ps

// A simulated board for one test, free running unless asked otherwise.
struct SimBoard {
  std::string serial;
  SimBoard(const std::string &model, const std::string &name, bool real_time = false) {
    simulation::BoardSpec spec;
    spec.model = model;
    spec.serial = name;
    if (model == "CT-20")
      spec.hardware_version = 2; // PCB 2.3, the last of that model
    serial = simulation::addBoard(spec);
    simulation::setRealTime(serial, real_time);
  }
  ~SimBoard() { simulation::removeBoard(serial); }
};

// Builds taggers with the requested channel scheme and leaves the process-wide one as it was.
std::unique_ptr<ChronotickImpl> makeTagger(const std::string &serial, int scheme = CT_CHANNEL_NUMBER_SCHEME_AUTO) {
  const int before = getChronotickChannelNumberScheme();
  setChronotickChannelNumberScheme(scheme);
  auto tagger = std::make_unique<ChronotickImpl>(serial);
  setChronotickChannelNumberScheme(before);
  return tagger;
}

// Runs a measurement for `duration` ps of stream time.
void runFor(IteratorBase &m, std::int64_t duration) {
  m.startFor(duration);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (m.isRunning() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_FALSE(m.isRunning()) << "the stream did not advance";
}

std::vector<double> rates(ChronotickBase &tagger, std::vector<std::int32_t> channels, std::int64_t duration) {
  Countrate rate(&tagger, channels);
  runFor(rate, duration);
  return fetch(rate, &Countrate::getData);
}

// Setters, getters and messages on one board that all tests of the suite share.
class UltraSettings : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    board = new SimBoard("CT-Ultra", "impl-settings");
    tagger = makeTagger(board->serial).release();
  }
  static void TearDownTestSuite() {
    delete tagger;
    delete board;
  }
  static SimBoard *board;
  static ChronotickImpl *tagger;
};
SimBoard *UltraSettings::board = nullptr;
ChronotickImpl *UltraSettings::tagger = nullptr;

TEST_F(UltraSettings, ChannelNumbersCountFromOneAndDifferInSign) {
  EXPECT_EQ(tagger->getChannelNumberScheme(), CT_CHANNEL_NUMBER_SCHEME_ONE);
  std::vector<std::int32_t> expected;
  for (int i = 1; i <= 18; ++i)
    expected.push_back(i);
  EXPECT_EQ(tagger->getChannelList(), expected);
  EXPECT_EQ(tagger->getInvertedChannel(3), -3);
  EXPECT_EQ(tagger->getInvertedChannel(-3), 3);
  EXPECT_EQ(tagger->getInvertedChannel(0), CHANNEL_UNUSED);
  EXPECT_EQ(tagger->getInvertedChannel(19), CHANNEL_UNUSED);
  EXPECT_FALSE(tagger->isUnusedChannel(-1));
  EXPECT_TRUE(tagger->isUnusedChannel(CHANNEL_UNUSED));
  const std::int32_t first = tagger->getNewVirtualChannel();
  EXPECT_GT(first, 1000);
  EXPECT_NE(first % 100, 0);
  EXPECT_EQ(tagger->getNewVirtualChannel(), first + 1);
}

TEST_F(UltraSettings, ModelDefaults) {
  EXPECT_EQ(tagger->getModel(), "CT-Ultra");
  EXPECT_EQ(tagger->getSerial(), board->serial);
  EXPECT_EQ(tagger->getTestSignalDivider(), 63);
  EXPECT_EQ(tagger->getHardwareBufferSize(), 0x4000000);
  EXPECT_EQ(tagger->getDacRange(), (std::vector<double>{-2.5, 2.5}));
  EXPECT_TRUE(tagger->getNormalization());
  EXPECT_EQ(tagger->getStreamBlockSizeEvents(), 131072);
  EXPECT_EQ(tagger->getStreamBlockSizeLatency(), 20);
  EXPECT_EQ(tagger->getPsPerClock(), simulation::getTruth(board->serial).clock_period);
  EXPECT_EQ(tagger->getHardwareDelayCompensation(2), 1814);
  EXPECT_EQ(tagger->getHardwareDelayCompensation(-18), 2947);
}

TEST_F(UltraSettings, DeadtimeIsWholeCyclesOfAtLeastOne) {
  const std::int64_t period = tagger->getPsPerClock();
  EXPECT_EQ(tagger->setDeadtime(4, 0), period);
  EXPECT_EQ(tagger->setDeadtime(4, -5000), period);
  EXPECT_EQ(tagger->setDeadtime(4, 10 * period + (period + 1) / 2 - 1), 10 * period);
  EXPECT_EQ(tagger->setDeadtime(4, 10 * period + (period + 1) / 2), 11 * period);
  EXPECT_EQ(tagger->setDeadtime(4, std::int64_t(1) << 50), 65535 * period);
  EXPECT_EQ(tagger->getDeadtime(4), 65535 * period);
  EXPECT_EQ(tagger->getDeadtime(-4), period); // each edge has its own
  tagger->setDeadtime(4, 0);
}

TEST_F(UltraSettings, TriggerLevelSaturatesAndReadsBackQuantized) {
  tagger->setTriggerLevel(5, 7.0);
  EXPECT_DOUBLE_EQ(tagger->getTriggerLevel(5), 2.5);
  tagger->setTriggerLevel(-5, -7.0); // the other edge names the same input
  EXPECT_DOUBLE_EQ(tagger->getTriggerLevel(5), -2.5);
  tagger->setTriggerLevel(5, 0.1234);
  const double level = tagger->getTriggerLevel(-5);
  EXPECT_NEAR(level, 0.1234, 5.0 / 65535);
  EXPECT_NE(level, 0.1234);
  tagger->setTriggerLevel(5, 0.5);
}

TEST_F(UltraSettings, DividersMuxAndTestSignal) {
  tagger->setEventDivider(6, 70000);
  EXPECT_EQ(tagger->getEventDivider(6), 65535u);
  EXPECT_EQ(tagger->getEventDivider(-6), 1u);
  tagger->setEventDivider(6, 1);

  tagger->setTestSignal(std::vector<std::int32_t>{-7, 8}, true);
  EXPECT_TRUE(tagger->getTestSignal(7));
  EXPECT_TRUE(tagger->getTestSignal(-8));
  EXPECT_EQ(tagger->getInputMux(7), 3); // the test signal is input source 3
  tagger->setInputMux(-7, 1);
  EXPECT_EQ(tagger->getInputMux(7), 1);
  EXPECT_FALSE(tagger->getTestSignal(7));
  tagger->setTestSignal({7, 8}, false);
  EXPECT_EQ(tagger->getInputMux(8), 0);
}

TEST_F(UltraSettings, CommonSettingsAndTheirLimits) {
  auto message = [](auto call) { return testing::messageOf(call); };
  EXPECT_EQ(message([] { tagger->setStreamBlockSize(100, 0); }),
            "max_latency must be between 1 millisecond and 10 seconds");
  EXPECT_EQ(message([] { tagger->setStreamBlockSize(131072, 10001); }),
            "max_latency must be between 1 millisecond and 10 seconds");
  EXPECT_EQ(message([] { tagger->setStreamBlockSize(255, 20); }), "max_events must be between 256 and 32*10^6 events");
  EXPECT_EQ(message([] { tagger->setStreamBlockSize(33554433, 20); }),
            "max_events must be between 256 and 32*10^6 events");
  tagger->setStreamBlockSize(33554432, 10000); // 32 * 2^20 passes, though the message says 32 * 10^6
  EXPECT_EQ(tagger->getStreamBlockSizeEvents(), 33554432);
  EXPECT_EQ(tagger->getStreamBlockSizeLatency(), 10000);
  tagger->setStreamBlockSize(131072, 20);

  tagger->setHardwareBufferSize(1000);
  EXPECT_EQ(tagger->getHardwareBufferSize(), 32768);
  tagger->setHardwareBufferSize(0x7FFFFFFF);
  EXPECT_EQ(tagger->getHardwareBufferSize(), 0x20000000);
  tagger->setHardwareBufferSize(0x4000000);

  EXPECT_THROW(tagger->setTestSignalDivider(0), std::invalid_argument);
  tagger->setNormalization(false);
  EXPECT_FALSE(tagger->getNormalization());
  tagger->setNormalization(true);
}

TEST_F(UltraSettings, ConditionalFilterNeedsBothKindsOnEachBoard) {
  EXPECT_EQ(testing::messageOf([] { tagger->setConditionalFilter({1}, {99}); }),
            "Tried to configure the conditional filter for the unknown channel 99");
  EXPECT_EQ(testing::messageOf([] { tagger->setConditionalFilter({1}, {}); }),
            "The conditional filter on device " + board->serial +
                " requires at least one trigger and at least one filtered channel.");
  EXPECT_TRUE(tagger->getConditionalFilterTrigger().empty()); // a refused filter changes nothing

  tagger->setConditionalFilter({1, CHANNEL_UNUSED}, {3, -3}, false);
  EXPECT_EQ(tagger->getConditionalFilterTrigger(), std::vector<std::int32_t>{1});
  EXPECT_EQ(tagger->getConditionalFilterFiltered(), (std::vector<std::int32_t>{-3, 3}));
  EXPECT_EQ(tagger->getHardwareDelayCompensation(2), 0);
  tagger->clearConditionalFilter();
  EXPECT_TRUE(tagger->getConditionalFilterFiltered().empty());
  EXPECT_EQ(tagger->getHardwareDelayCompensation(2), 1814); // clearing turns compensation back on
}

TEST_F(UltraSettings, UnknownChannelsWarnAndGiveZero) {
  LogCapture log;
  const std::int32_t unknown = 99;
  tagger->setInputDelay(unknown, 5);
  EXPECT_EQ(tagger->getInputDelay(unknown), 0);
  EXPECT_EQ(tagger->setDeadtime(unknown, 5), 0);
  EXPECT_EQ(tagger->getDeadtime(unknown), 0);
  tagger->setTestSignal(unknown, true);
  EXPECT_FALSE(tagger->getTestSignal(unknown));
  tagger->setTriggerLevel(unknown, 1.0);
  EXPECT_EQ(tagger->getTriggerLevel(unknown), 0.0);
  tagger->setEventDivider(unknown, 2);
  EXPECT_EQ(tagger->getEventDivider(unknown), 0u);
  EXPECT_EQ(tagger->getHardwareDelayCompensation(unknown), 0);
  tagger->setInputMux(unknown, 1);
  EXPECT_EQ(tagger->getInputMux(unknown), 0);
  tagger->registerChannel(0); // no channel in this scheme
  tagger->unregisterChannel(-19);
  const std::int32_t virtual_channel = tagger->getNewVirtualChannel();
  tagger->registerChannel(virtual_channel); // passes silently
  tagger->unregisterChannel(virtual_channel);

  for (const char *text :
       {"Tried to set the input delay of an unknown channel", "Tried to get the input delay of an unknown channel",
        "Tried to configure the deadtime for an unknown channel", "Tried to query the deadtime for an unknown channel",
        "Tried to set the test signal of an unknown channel", "Tried to query the test signal of an unknown channel",
        "Tried to configure the trigger level for an unknown channel",
        "Tried to fetch the trigger level for an unknown channel",
        "Tried to configure the event divider for an unknown channel",
        "Tried to query the event divider for an unknown channel",
        "Tried to get the hardware delay compensation of an unknown channel",
        "Tried to set the input multiplexer of an unknown channel",
        "Tried to get the input multiplexer of an unknown channel", "Tried to register an unknown channel",
        "Tried to unregister an unknown channel"})
    EXPECT_EQ(log.count(text, LOGGER_WARNING), 1) << text;
  EXPECT_EQ(log.entries().size(), 15u);
}

TEST_F(UltraSettings, SensorReportStartsWithTheSerial) {
  const std::string report = tagger->getSensorData();
  EXPECT_EQ(report.rfind("Serial\t" + board->serial + "\n", 0), 0u) << report;
  EXPECT_NE(report.find("CLK IN freq\t"), std::string::npos);
}

TEST_F(UltraSettings, FactoryAccessNeedsItsCode) {
  EXPECT_EQ(testing::messageOf([] { tagger->factoryAccess(1, 0x21, 0, 0xFFFFFFFF); }), "Wrong factory access code.");
  EXPECT_EQ(tagger->factoryAccess(ChronotickImpl::FACTORY_ACCESS_CODE, 0x21, 0, 0xFFFFFFFF), 18u); // input count
  EXPECT_THROW(tagger->factoryAccess(ChronotickImpl::FACTORY_ACCESS_CODE, 0x40, 0, 1), std::invalid_argument);
}

TEST_F(UltraSettings, ConfigurationText) {
  tagger->setInputDelay(2, -5);
  tagger->setEventDivider(-2, 3);
  tagger->setConditionalFilter({1}, {-2});
  tagger->setLED(5);
  tagger->registerChannel(-2);
  tagger->registerChannel(1);
  const std::int64_t period = tagger->getPsPerClock();
  const std::int64_t compensation[18] = {1574, 1814, 1742, 1083, 822,  658,  614,  470,  0,
                                         2895, 2722, 2964, 2893, 3130, 3145, 2849, 3000, 2947};

  std::string expected = "  \"software version\": \"2.7.0\",\n"
                         "  \"registered channels\": [-2, 1],\n"
                         "  \"serial\": \"" +
                         board->serial + "\",\n  \"firmware version\": \"" + tagger->getFirmwareVersion() +
                         "\",\n"
                         "  \"hardware buffer size\": 67108864,\n"
                         "  \"normalization\": true,\n"
                         "  \"test signal divider\": 63,\n"
                         "  \"channel number scheme\": 2,\n"
                         "  \"led bitmask\": 5,\n"
                         "  \"stream block size events\": 131072,\n"
                         "  \"stream block size latency\": 20,\n"
                         "  \"devices\": [\n"
                         "    {\n"
                         "      \"serial\": \"" +
                         board->serial +
                         "\",\n"
                         "      \"model\": \"CT-Ultra\",\n"
                         "      \"resolution\": @,\n"
                         "      \"PCB version\": \"" +
                         tagger->getPcbVersion() +
                         "\"\n"
                         "    }\n"
                         "  ],\n"
                         "  \"inputs\": [\n";
  for (int i = 1; i <= 18; ++i) {
    const std::string c = std::to_string(compensation[i - 1]);
    const std::string d = std::to_string(period);
    expected += "    {\n      \"channel\": [" + std::to_string(i) + ", " + std::to_string(-i) +
                "],\n"
                "      \"trigger level\": 0.5,\n"
                "      \"input delay\": [" +
                (i == 2 ? "-5" : "0") + ", 0],\n      \"hardware delay compensation\": [" + c + ", " + c +
                "],\n      \"deadtime\": [" + d + ", " + d + "],\n      \"event divider\": [1, " +
                (i == 2 ? "3" : "1") + "],\n      \"conditional filter filtered\": [false, " +
                (i == 2 ? "true" : "false") + "],\n      \"conditional filter triggers\": [" +
                (i == 1 ? "true" : "false") + ", false],\n      \"input mux\": 0\n    }" + (i < 18 ? ",\n" : "\n");
  }
  expected += "  ]\n}\n";

  const std::string text = tagger->getConfiguration();
  const std::string head = "{\n  \"current time\": \"";
  ASSERT_EQ(text.substr(0, head.size()), head);
  const std::size_t time_end = text.find("\",\n", head.size());
  ASSERT_NE(time_end, std::string::npos);
  const std::string time = text.substr(head.size(), time_end - head.size());
  EXPECT_EQ(time.size(), std::string("2026-01-01 12:00:00 +0000").size()) << time;
  // The resolution is the board's option; everything else is fixed above.
  const std::string rest = text.substr(time_end + 3);
  const std::string key = "\"resolution\": ";
  const std::size_t at = rest.find(key) + key.size();
  const std::string resolution = rest.substr(at, rest.find(',', at) - at);
  EXPECT_TRUE(resolution == "9" || resolution == "42") << resolution;
  expected.replace(expected.find('@'), 1, resolution);
  EXPECT_EQ(rest, expected);

  tagger->unregisterChannel(-2);
  tagger->unregisterChannel(1);
  tagger->clearConditionalFilter();
  tagger->setEventDivider(-2, 1);
  tagger->setInputDelay(2, 0);
  tagger->setLED(0);
}

TEST(ChronotickImpl, ZeroSchemeOnAChronotick20) {
  SimBoard board("CT-20", "impl-zero");
  auto tagger = makeTagger(board.serial, CT_CHANNEL_NUMBER_SCHEME_ZERO);
  EXPECT_EQ(tagger->getModel(), "CT-20");
  EXPECT_EQ(tagger->getChannelList(), (std::vector<std::int32_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(tagger->getInvertedChannel(3), 11);
  EXPECT_EQ(tagger->getInvertedChannel(11), 3);
  EXPECT_TRUE(tagger->isUnusedChannel(-1));
  EXPECT_EQ(tagger->getDacRange(), (std::vector<double>{0.0, 2.5}));
  EXPECT_EQ(tagger->getTestSignalDivider(), 74);
  EXPECT_EQ(tagger->getHardwareDelayCompensation(9), 1859);

  LogCapture log;
  tagger->setHardwareBufferSize(65536);
  EXPECT_EQ(log.count("Chronotick 20 does not support variable hardware buffer sizes.", LOGGER_WARNING), 1);
  EXPECT_EQ(tagger->getHardwareBufferSize(), 0x800000);

  // Input 2's edges arrive on channels 2 and 10.
  simulation::setSignal(board.serial, 2, Signal::poisson(2e5));
  const std::vector<double> r = rates(*tagger, {2, 10, 3}, 20 * MS);
  EXPECT_NEAR(r[0], 2e5, 2e5 * 0.06);
  EXPECT_NEAR(r[1], r[0], r[0] * 0.02);
  EXPECT_EQ(r[2], 0.0);
}

// The records and wires that reach the board, from its own log of writes.
TEST(ChronotickImpl, UploadWritesRecordsAndWires) {
  using simulation::BoardWrite;
  SimBoard board("CT-Ultra", "impl-upload");
  auto tagger = makeTagger(board.serial);
  const auto sim = simulation::findBoard(board.serial);
  ASSERT_TRUE(sim);
  sim->clearWrites();
  tagger->registerChannel(1);
  tagger->registerChannel(3);
  tagger->setConditionalFilter({2}, {3}); // trigger 2 is not registered
  tagger->setDeadtime(-1, 5 * tagger->getPsPerClock());
  tagger->setEventDivider(1, 3);
  tagger->setEventDivider(-1, 0);
  tagger->setTestSignal(-5, true);
  tagger->setTriggerLevel(6, 1.0);
  tagger->setHardwareBufferSize(100000);
  tagger->setTestSignalDivider(10);
  tagger->setLED(0x70005);
  const std::uint32_t fence = tagger->getFence();
  ASSERT_TRUE(tagger->waitForFence(fence, 10000));

  const std::vector<BoardWrite> writes = sim->writes();
  auto last = [&](BoardWrite::Kind kind, int address) {
    for (auto it = writes.rbegin(); it != writes.rend(); ++it)
      if (it->kind == kind && it->address == address)
        return std::ptrdiff_t(writes.rend() - it) - 1;
    return std::ptrdiff_t(-1);
  };
  const std::ptrdiff_t pipe = last(BoardWrite::Kind::PipeIn, board::PIPE_CONFIG);
  ASSERT_GE(pipe, 0);
  EXPECT_LT(last(BoardWrite::Kind::Trigger, board::TI_CONFIG_REWIND), pipe);
  const std::vector<std::uint8_t> &records = writes[std::size_t(pipe)].data;
  ASSERT_EQ(records.size(), 36u * 8);
  auto record = [&](int slot) {
    return std::vector<std::uint8_t>(records.begin() + slot * 8, records.begin() + slot * 8 + 8);
  };
  EXPECT_EQ(record(0), (std::vector<std::uint8_t>{board::CONFIG_ENABLED, 0, 1, 0, 2, 0, 0, 0}));
  EXPECT_EQ(record(1), (std::vector<std::uint8_t>{0, 0, 5, 0, 0, 0, 0, 0}));
  // The trigger is on while a filtered channel is in use.
  EXPECT_EQ(record(2), (std::vector<std::uint8_t>{board::CONFIG_ENABLED | board::CONFIG_TRIGGER, 0, 1, 0, 0, 0, 0, 0}));
  EXPECT_EQ(record(4),
            (std::vector<std::uint8_t>{board::CONFIG_ENABLED | board::CONFIG_FILTERED, 0, 1, 0, 0, 0, 0, 0}));
  EXPECT_EQ(record(8)[0], 3 << 3); // the test signal is the input's source for both edges
  EXPECT_EQ(record(9)[0], 3 << 3);
  EXPECT_NEAR(sim->thresholdVolts(5), 1.0, 1e-4);

  auto wire = [&](int address) {
    const std::ptrdiff_t at = last(BoardWrite::Kind::WireIn, address);
    EXPECT_GT(at, pipe) << "wire-in " << address;
    return at < 0 ? 0u : writes[std::size_t(at)].value;
  };
  EXPECT_EQ(wire(board::WI_BUFFER_SIZE), 100000u);
  EXPECT_EQ(wire(board::WI_BUFFER_HALF), 50000u);
  EXPECT_EQ(wire(board::WI_LEDS), 0x70005u);
  EXPECT_EQ(wire(board::WI_TEST_PERIOD), 20u); // doubled on this model
  EXPECT_EQ(wire(board::WI_TEST_HALF_PERIOD), 10u);
  EXPECT_EQ(wire(board::WI_FENCE) & 0xFF, fence & 0xFF);

  // Once the trigger's filtered partner is gone, the trigger goes quiet.
  tagger->unregisterChannel(3);
  sim->clearWrites();
  ASSERT_TRUE(tagger->waitForFence(tagger->getFence(), 10000));
  const std::vector<BoardWrite> again = sim->writes();
  auto pipe_again = std::find_if(again.rbegin(), again.rend(),
                                 [](const BoardWrite &w) { return w.kind == BoardWrite::Kind::PipeIn; });
  ASSERT_NE(pipe_again, again.rend());
  EXPECT_EQ(pipe_again->data[2 * 8], board::CONFIG_TRIGGER);

  // The front panel goes idle with the tagger.
  sim->clearWrites();
  tagger.reset();
  const std::vector<BoardWrite> last_writes = sim->writes();
  auto leds = std::find_if(last_writes.rbegin(), last_writes.rend(), [](const BoardWrite &w) {
    return w.kind == BoardWrite::Kind::WireIn && w.address == board::WI_LEDS;
  });
  ASSERT_NE(leds, last_writes.rend());
  EXPECT_EQ(leds->value, 0x70000u);
}

// What the settings do to the stream of one board.
class UltraStream : public ::testing::Test {
protected:
  SimBoard board{"CT-Ultra",
                 "impl-stream-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name())};
  std::unique_ptr<ChronotickImpl> tagger = makeTagger(board.serial);
};

TEST_F(UltraStream, CountRateDividerAndDeadtime) {
  const double rate = 1e6;
  simulation::setSignal(board.serial, 0, Signal::poisson(rate));
  simulation::setSignal(board.serial, 1, Signal::poisson(rate));
  simulation::setSignal(board.serial, 2, Signal::poisson(rate));
  tagger->setEventDivider(2, 4);
  const std::int64_t deadtime = tagger->setDeadtime(3, 1000000); // 1 us, rounded to cycles
  const std::vector<double> r = rates(*tagger, {1, 2, 3, -1}, 50 * MS);
  // 50000 events: the counts scatter by under 0.5 %.
  EXPECT_NEAR(r[0], rate, rate * 0.02);
  EXPECT_NEAR(r[1], rate / 4, rate / 4 * 0.03);
  const double expected = rate / (1 + rate * double(deadtime) * 1e-12); // a dead time that doesn't extend
  EXPECT_NEAR(r[2], expected, expected * 0.03);
  EXPECT_NEAR(r[3], r[0], r[0] * 0.02); // falling edges of input 0
}

TEST_F(UltraStream, InputDelayMovesOneChannelAgainstTheOther) {
  // Input 1 repeats input 0 exactly: the measured difference moves by the delay set.
  simulation::setSignal(board.serial, 0, Signal::poisson(2e5));
  simulation::setSignal(board.serial, 1, Signal::copy(0, 0));
  auto medianDifference = [&] {
    TimeTagStream stream(tagger.get(), 1000000, {1, 2});
    runFor(stream, 20 * MS);
    const TimeTagStreamBuffer data = stream.getData();
    std::vector<std::int32_t> channels(data.size);
    std::vector<std::int64_t> times(data.size);
    data.getChannels([&](std::size_t) { return channels.data(); });
    data.getTimestamps([&](std::size_t) { return times.data(); });
    std::vector<std::int64_t> starts, differences;
    for (std::size_t i = 0; i < times.size(); ++i)
      if (channels[i] == 1)
        starts.push_back(times[i]);
    for (std::size_t i = 0; i < times.size(); ++i) {
      if (channels[i] != 2)
        continue;
      auto it = std::lower_bound(starts.begin(), starts.end(), times[i]);
      std::int64_t best = it != starts.end() ? *it - times[i] : std::int64_t(1) << 40;
      if (it != starts.begin() && times[i] - *(it - 1) < std::llabs(best))
        best = *(it - 1) - times[i];
      differences.push_back(-best);
    }
    EXPECT_GT(differences.size(), 1000u);
    std::nth_element(differences.begin(), differences.begin() + std::ptrdiff_t(differences.size() / 2),
                     differences.end());
    return differences.empty() ? std::int64_t(0) : differences[differences.size() / 2];
  };
  const std::int64_t base = medianDifference();
  tagger->setInputDelay(2, 7000);
  EXPECT_NEAR(double(medianDifference() - base), 7000.0, 60.0);
  tagger->setInputDelay(2, -3000); // shifts every other channel instead
  EXPECT_NEAR(double(medianDifference() - base), -3000.0, 60.0);
  EXPECT_EQ(tagger->getInputDelay(2), -3000);
}

TEST_F(UltraStream, TestSignalFollowsTheDivider) {
  tagger->setTestSignal(4, true);
  const double fast = rates(*tagger, {4}, 20 * MS)[0];
  EXPECT_GT(fast, 1e5);
  tagger->setTestSignalDivider(2 * tagger->getTestSignalDivider());
  const double slow = rates(*tagger, {4}, 20 * MS)[0];
  EXPECT_NEAR(slow, fast / 2, fast * 0.01);
  tagger->setTestSignal(4, false);
  EXPECT_EQ(rates(*tagger, {4}, 5 * MS)[0], 0.0);
}

TEST_F(UltraStream, LifetimeOfAFluorescenceInput) {
  const std::int64_t lifetime = 2000;
  simulation::setSignal(board.serial, 0, Signal::periodic(1000003)); // a 1 MHz laser, not locked to the board clock
  simulation::setSignal(board.serial, 1, Signal::fluorescence(0, 0.2, lifetime, 5000));
  const std::int64_t binwidth = 10;
  Histogram histogram(tagger.get(), 2, 1, binwidth, 5000);
  runFor(histogram, 200 * MS); // about 40000 photons
  const std::vector<std::int32_t> counts = fetch(histogram, &Histogram::getData);
  // Above a point past the onset, an exponential's mean distance from that point is its lifetime.
  const std::size_t peak = std::size_t(std::max_element(counts.begin(), counts.end()) - counts.begin());
  const std::size_t from = peak + 50;
  double n = 0, sum = 0;
  for (std::size_t i = from; i < counts.size(); ++i) {
    n += counts[i];
    sum += counts[i] * (double(i - from) + 0.5) * double(binwidth);
  }
  ASSERT_GT(n, 10000);
  EXPECT_NEAR(sum / n, double(lifetime), lifetime * 0.05);
}

TEST_F(UltraStream, LinkLossGivesOneErrorTagAndReconnects) {
  simulation::setSignal(board.serial, 0, Signal::poisson(1e5));
  LogCapture log;
  TimeTagStream stream(tagger.get(), 1000000, {1});
  tagger->sync();
  simulation::injectFault(board.serial, simulation::Fault::LinkLoss, 3);
  const std::string reconnected = "Chronotick " + board.serial + " reconnected";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (log.count(reconnected, LOGGER_INFO) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(log.count(reconnected, LOGGER_INFO), 1);
  tagger->sync();
  const TimeTagStreamBuffer data = stream.getData();
  std::vector<std::uint8_t> types(data.size);
  data.getEventTypes([&](std::size_t) { return types.data(); });
  EXPECT_EQ(std::count(types.begin(), types.end(), std::uint8_t(Tag::Type::Error)), 1);
  EXPECT_GT(std::count(types.begin(), types.end(), std::uint8_t(Tag::Type::TimeTag)), 0);
  // Events flow again after the reconnect: the configuration was uploaded anew.
  EXPECT_GT(rates(*tagger, {1}, 5 * MS)[0], 5e4);
}

TEST_F(UltraStream, ResetRestoresDefaultsAndKeepsMeasurements) {
  simulation::setSignal(board.serial, 0, Signal::poisson(1e5));
  Countrate rate(tagger.get(), {1});
  const std::int32_t virtual_channel = tagger->getNewVirtualChannel();
  tagger->setTestSignalDivider(10);
  tagger->setDeadtime(1, 100 * tagger->getPsPerClock());
  tagger->reset();
  EXPECT_EQ(tagger->getTestSignalDivider(), 63);
  EXPECT_EQ(tagger->getDeadtime(1), tagger->getPsPerClock());
  EXPECT_GT(tagger->getNewVirtualChannel(), virtual_channel); // numbers in use stay taken
  EXPECT_EQ(tagger->getOverflows(), 0);
  // The measurement still registers its channel and gets blocks.
  runFor(rate, 10 * MS);
  EXPECT_NEAR(fetch(rate, &Countrate::getData)[0], 1e5, 1e5 * 0.1);
}

TEST_F(UltraStream, AutoCalibrationMatchesTheDelayLine) {
  tagger->setTestSignal(3, true); // stays on: only the channels that were off go back
  std::vector<double> rms;
  tagger->autoCalibration([&](std::size_t n) {
    rms.assign(n, -7);
    return rms.data();
  });
  const simulation::BoardTruth truth = simulation::getTruth(board.serial);
  ASSERT_EQ(rms.size(), std::size_t(truth.inputs));
  for (std::size_t i = 0; i < rms.size(); ++i)
    EXPECT_NEAR(rms[i], truth.quantization_rms[i], truth.quantization_rms[i] * 0.1) << "input " << i;
  EXPECT_TRUE(tagger->getTestSignal(3));
  EXPECT_FALSE(tagger->getTestSignal(4));

  std::vector<std::size_t> shape;
  const std::vector<std::int64_t> starts = fetch(*tagger, &Chronotick::getDistributionPSecs, &shape);
  ASSERT_EQ(shape, (std::vector<std::size_t>{std::size_t(truth.inputs), std::size_t(truth.bin_count)}));
  EXPECT_EQ(starts[0], 0);
  EXPECT_TRUE(std::is_sorted(starts.begin(), starts.begin() + truth.bin_count));
  EXPECT_THROW(tagger->autoCalibration(nullptr), std::bad_function_call);
}

} // namespace
} // namespace chronotick
