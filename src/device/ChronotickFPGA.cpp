#include "device/ChronotickFPGA.h"

#include "device/BoardProtocol.h"
#include "device/BuildTime.h"
#include "engine/Log.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <dlfcn.h>
#include <sys/stat.h>

namespace chronotick {

namespace {

namespace fs = std::filesystem;

constexpr int BUS_NACK = 1;
constexpr int BUS_FAILED = -1;
constexpr int DAC_POLLS = 999;
constexpr int VOLTAGE_TRIES = 8;

constexpr int CT20_DAC_OF_INPUT[] = {7, 5, 3, 1, 6, 4, 2, 0};
constexpr int ULTRA_DAC_OF_INPUT[] = {0,    1,    2,    3,    4,    5,    6,    7,    8,    0x17,
                                      0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0x10, 0x19, 0x0A, 0x0C};

constexpr const char *CT20_PCB[] = {"2.0", "2.2", "2.3"};
constexpr const char *ULTRA_PCB[] = {"1.0", "1.1", "1.2", "1.3", "1.4", "1.4b"};

// Supplies of "CT-Ultra" from hardware version 4 on. A low limit of 0 asks
// for the monitor's continuity flag instead of a number.
struct VoltageLimit {
  int sensor;
  double low;
  double high;
};
constexpr VoltageLimit VOLTAGE_LIMITS[] = {{0, 0.0, -1.0}, {1, -5.2, -4.8}, {5, -5.8, -5.2}, {7, 4.8, 5.2},
                                           {4, 4.8, 5.2},  {6, 5.3, 5.9},   {2, 2.3, 2.7},   {8, 2.3, 2.7},
                                           {3, 2.7, 3.3},  {9, 11.4, 12.6}};

// The retired production of "CT-Ultra": serials that start with four digits
// below 1710.
bool isRetiredSerial(const std::string &serial) {
  if (serial.size() < 4)
    return false;
  int number = 0;
  for (int i = 0; i < 4; ++i) {
    if (serial[std::size_t(i)] < '0' || serial[std::size_t(i)] > '9')
      return false;
    number = number * 10 + (serial[std::size_t(i)] - '0');
  }
  return number < 1710;
}

std::string customBitFile(const std::string *set = nullptr) {
  static std::mutex mutex;
  static std::string path;
  std::lock_guard<std::mutex> guard(mutex);
  if (set)
    path = *set;
  return path;
}

bool isFile(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Where this code was loaded from: the shared library, or the executable
// that the library's objects are linked into.
fs::path loadedFrom() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void *>(&customBitFile), &info) == 0 || !info.dli_fname)
    return {};
  std::error_code ec;
  fs::path path = fs::canonical(info.dli_fname, ec);
  return ec ? fs::path(info.dli_fname) : path;
}

// Shortest round trip text of a number: "-5.2", "12.6", "42".
std::string number(double value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

std::string fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

DeviceLinkProvider *providerListing(const std::string &serial) {
  for (DeviceLinkProvider *p : {&vendorLinkProvider(), &simulatedLinkProvider()}) {
    if (!p->available())
      continue;
    for (const DeviceLinkProvider::Listed &board : p->list()) {
      if (serial.empty() || board.serial == serial)
        return p;
    }
  }
  return nullptr;
}

std::string buildTimeText(std::uint32_t word) {
  const board::BuildTime t = board::unpackBuildTime(word);
  char text[64];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute,
                t.second);
  return text;
}

} // namespace

ChronotickFPGA::ChronotickFPGA(std::string serial) : serial_(std::move(serial)) {}

ChronotickFPGA::ChronotickFPGA(std::string serial, DeviceLinkProvider &fixed) : serial_(std::move(serial)) {
  provider = &fixed;
  fixed_provider = true;
}

ChronotickFPGA::~ChronotickFPGA() = default;

void ChronotickFPGA::setCustomBitFile(const std::string &path) {
  customBitFile(&path);
}

std::string ChronotickFPGA::findFirmware(const std::string &name) {
  std::string custom = customBitFile();
  if (!custom.empty()) {
    CT_WARNING("Loading custom bitfile '%s'", custom.c_str());
    return custom;
  }
  std::string local = "./" + name;
  if (isFile(local)) {
    CT_WARNING("INFO: Loading bitfile from current directory: %s", local.c_str());
    return local;
  }
  // An explicit directory is the only one asked.
  if (const char *dir = std::getenv("CHRONOTICK_FIRMWARE_DIR"); dir && *dir)
    return (fs::path(dir) / name).string();

  // Installed beside the library first, then the build tree: the firmware
  // directory beside the shared library or test program, and the one above a
  // test program in build/<preset>/tests.
  std::vector<fs::path> candidates;
  const fs::path library = loadedFrom();
  if (!library.empty()) {
    candidates.push_back(library.parent_path() / ".." / "share" / "chronotick" / "firmware" / name);
    candidates.push_back(library.parent_path() / "firmware" / name);
  }
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    candidates.push_back(exe.parent_path() / "firmware" / name);
    candidates.push_back(exe.parent_path() / ".." / "firmware" / name);
  }
  for (const fs::path &candidate : candidates) {
    if (isFile(candidate.string()))
      return candidate.lexically_normal().string();
  }
  // Not found anywhere: name the installed place in the error that follows.
  return candidates.empty() ? name : candidates.front().lexically_normal().string();
}

std::vector<std::string> ChronotickFPGA::scan() {
  std::vector<std::string> serials;
  for (DeviceLinkProvider *p : {&vendorLinkProvider(), &simulatedLinkProvider()}) {
    if (!p->available())
      continue;
    for (const DeviceLinkProvider::Listed &board : p->list())
      serials.push_back(board.serial);
  }
  return serials;
}

bool ChronotickFPGA::open(bool silent) {
  connected = false;
  link.reset(); // a stale handle must not hold the board while it is opened again
  if (!provider)
    provider = providerListing(serial_);
  int rc = link::FAILED;
  if (provider && provider->available()) {
    link = provider->makeLink();
    if (link)
      rc = link->openBySerial(serial_);
  }
  if (rc != link::NO_ERROR) {
    link.reset();
    if (silent)
      return false;
    std::string message = "Opening of USB connection failed or device with serial '" + serial_ + "' not found.";
    DeviceLinkProvider &usb = fixed_provider && provider ? *provider : vendorLinkProvider();
    if (!usb.available()) {
      message += ' ';
      message += usb.unavailableReason();
    }
    throw std::runtime_error(message);
  }
  try {
    bringUp();
  } catch (...) {
    connected = false;
    link.reset();
    throw;
  }
  return connected;
}

void ChronotickFPGA::bringUp() {
  using namespace board;
  if (serial_.empty())
    serial_ = link->getSerialNumber();

  DeviceInfo info;
  if (const int rc = link->getDeviceInfo(info); rc != link::NO_ERROR)
    throw std::runtime_error("Error on fetching the device information: " + std::to_string(rc));
  board_model = link->getBoardModel();

  if (board_model == link::MODEL_CT_ULTRA) {
    if (isRetiredSerial(serial_))
      throw std::runtime_error("From software version 2.6.6 on, the hardware with the serial '" + serial_ +
                               "' is not supported anymore. Please contact Norvane Instruments to arrange a free of "
                               "charge replacement of your Chronotick. To continue immediately, please install "
                               "version 2.6.4 (https://downloads.chronotick.org).");
    if (info.usb_speed != link::USB_SPEED_SUPER)
      CT_WARNING("The Chronotick '%s' is not connected by USB 3.0, its performance will be low.", serial_.c_str());
  }

  if (board_model == link::MODEL_CT20) {
    PllConfiguration pll;
    pll.vco_p = 125;
    pll.vco_q = 18;
    pll.div1_source = 1;
    pll.div1_value = 4;
    pll.outputs[0] = {1, true};
    pll.outputs[2] = {2, true};
    if (link->setPllConfiguration(pll) != link::NO_ERROR)
      throw std::runtime_error("Uploading PLL configuration failed");
  }

  const char *firmware = nullptr;
  if (board_model == link::MODEL_CT20) {
    model_ = "CT-20";
    firmware = FIRMWARE_CT20;
    resolution_ = 34;
  } else if (board_model == link::MODEL_CT_ULTRA) {
    model_ = "CT-Ultra";
    firmware = FIRMWARE_ULTRA;
    // The board stores no resolution option that we can read: the standard one.
    resolution_ = 9;
  } else {
    model_ = "unknown";
    throw std::runtime_error("No Chronotick model recognized!");
  }

  const std::string path = findFirmware(firmware);
  if (!isFile(path))
    throw std::runtime_error("Firmware file not found - filename: '" + path + "'");
  if (link->configureFpga(path) != link::NO_ERROR)
    throw std::runtime_error("Uploading FPGA configuration failed - bitfile: '" + path + "'");

  link->updateWireOuts();
  hardware_version = static_cast<int>(link->getWireOutValue(WO_HARDWARE_VERSION));
  const std::uint32_t interface_version = link->getWireOutValue(WO_INTERFACE_VERSION);
  const bool ultra = board_model == link::MODEL_CT_ULTRA;
  if (ultra ? hardware_version < 0 || hardware_version > 5 : hardware_version < 0 || hardware_version > 2)
    throw std::runtime_error("Unknown pcb version.");
  pcb_version = ultra ? ULTRA_PCB[hardware_version] : CT20_PCB[hardware_version];
  version_ = model_ + ", FW " + std::to_string(interface_version);
  if (ultra)
    version_ += ", TS " + buildTimeText(link->getWireOutValue(WO_BUILD_TIME));
  version_ += ", OK " + std::to_string(info.device_major_version) + "." + std::to_string(info.device_minor_version);
  if (interface_version != INTERFACE_VERSION)
    throw std::runtime_error("The firmware version '" + std::to_string(interface_version) +
                             "' is not supported by the Chronotick " CHRONOTICK_VERSION " version");
  inputs_ = static_cast<int>(link->getWireOutValue(WO_INPUTS));
  clock_period_ps = link->getWireOutValue(WO_CLOCK_PERIOD);
  bin_count = static_cast<int>(link->getWireOutValue(WO_BIN_COUNT));

  if (ultra) {
    wireIn(WI_OLD_PCB, hardware_version < 3 ? 12 : 0);
    updateWireIns();
    if (hardware_version >= 3) {
      link->writeRegister(2, 0);
      link->writeRegister(1, 0);
      link->writeRegister(0, 200);
      link->writeRegister(2, 0x80);
      sensorBusWrite(FAN_WRITE, {FAN_CONFIG, FAN_POWER_UP});
      wireIn(WI_FRONT_END, 7);
      updateWireIns();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (hardware_version >= 4)
      checkVoltages();
  }

  // Licence step: every input may be used, on both edges.
  usable_inputs.assign(std::size_t(std::max(inputs_, 0)) * 2, true);

  bool ok = wireIn(WI_PIPE_HALF_BLOCK, std::uint32_t(pipe_block_bytes / 2)) && updateWireIns();
  if (!ok)
    CT_ERROR("Uploading empty threshold failed");
  if (ultra) {
    ok = wireIn(WI_ULTRA_RESET, 1) && updateWireIns() && wireIn(WI_ULTRA_RESET, 0) && updateWireIns();
    ok = ok && wireIn(WI_DAC_ADDRESS, 0) && updateWireIns() && wireIn(WI_DAC_ADDRESS, 0x30000) && updateWireIns();
    ok = ok && serialBusSend(1u << SERIAL_SELECT_DAC_LOW, 0xAAE00004);
    ok = ok && serialBusSend(1u << SERIAL_SELECT_DAC_HIGH, 0xAAE00004);
  } else {
    writeDacFields(0, 1, 0, 8, 0);
    ok = ok && connected;
  }
  wireIn(WI_RUN, 1);
  updateWireIns();
  connected = ok;

  if (ultra && hardware_version >= 3) {
    std::uint32_t front_end = 0;
    link->getWireInValue(WI_FRONT_END, front_end);
    wireIn(WI_FRONT_END, front_end | 0x38);
    updateWireIns();
    const std::uint32_t clock_words[] = {
        hardware_version < 4 ? 5u : 0x400005u, 0xBC843C, 3, 0xA005D42, 0x8008011, 0x640000};
    for (std::uint32_t word : clock_words)
      serialBusSend(1u << SERIAL_SELECT_CLOCK, word);
  }
  if (ultra) {
    writeUltraDac(0x12, 0x7FFF);
    writeUltraDac(0x13, 0xB332);
  }
}

void ChronotickFPGA::checkVoltages() {
  // Selects the monitor once so that its first conversion is ready when read.
  sensorBusWrite(board::MONITOR_WRITE, {97});
  std::this_thread::sleep_for(std::chrono::milliseconds(15));
  for (const VoltageLimit &limit : VOLTAGE_LIMITS) {
    bool continuity = false;
    const double volts = readVoltage(limit.sensor, &continuity);
    const bool in_range =
        limit.low == 0.0 ? continuity && volts <= limit.high : volts >= limit.low && volts <= limit.high;
    if (volts == board::SENSOR_FAILURE || !in_range)
      throw std::runtime_error("Voltage " + std::to_string(limit.sensor) + " is out of valid range (" +
                               number(limit.low) + " - " + number(limit.high) + "): " + number(volts) +
                               " - cont: " + (continuity ? "1" : "0"));
  }
}

long ChronotickFPGA::readPipe(std::uint8_t *buffer, long bytes) {
  if (!connected || !link)
    return -1;
  const long result = link->readFromBlockPipeOut(board::PIPE_STREAM, pipe_block_bytes, buffer, bytes);
  if (result < 0) {
    CT_ERROR("PipeBackend: Pipe transfer failed, len=%d", static_cast<int>(bytes));
    connected = false;
    // The retry only tells whether the link still answers; its data is not used.
    if (link->readFromBlockPipeOut(board::PIPE_STREAM, pipe_block_bytes, buffer, bytes) < 0)
      CT_ERROR("PipeBackend: Pipe transfer failed, second run, len=%d", static_cast<int>(bytes));
  }
  return result;
}

void ChronotickFPGA::setDac(int input, std::uint32_t code) {
  if (board_model == link::MODEL_CT_ULTRA) {
    if (input < 0 || input >= int(std::size(ULTRA_DAC_OF_INPUT))) {
      CT_ERROR("setting DAC value failed");
      return;
    }
    writeUltraDac(ULTRA_DAC_OF_INPUT[input], code);
    return;
  }
  if (input < 0 || input >= int(std::size(CT20_DAC_OF_INPUT))) {
    CT_ERROR("setting DAC value failed");
    return;
  }
  writeDacFields(code, 0, 0, 3, std::uint32_t(CT20_DAC_OF_INPUT[input]));
}

void ChronotickFPGA::writeDacFields(std::uint32_t value, std::uint32_t low, std::uint32_t a, std::uint32_t b,
                                    std::uint32_t c) {
  using namespace board;
  connected = wireIn(WI_DAC_DATA, (value << 4) | low);
  if (!connected) {
    CT_ERROR("setting DAC value failed");
    return;
  }
  connected = wireIn(WI_DAC_ADDRESS, (value >> 12) | (a << 12) | (b << 8) | (c << 4));
  if (!connected) {
    CT_ERROR("setting DAC value failed");
    return;
  }
  connected = updateWireIns() && trigger(TI_DAC_LOAD, 0);
  if (!connected)
    CT_ERROR("triggering DAC failed");
}

void ChronotickFPGA::writeUltraDac(int dac_channel, std::uint32_t code) {
  // Bits 4 and up choose the chip; the code has 16 bits and must not spill
  // into the output field.
  const std::uint32_t chip = std::uint32_t(dac_channel) / 16;
  const std::uint32_t word = board::ULTRA_DAC_WRITE + ((std::uint32_t(dac_channel) & 15) << 16) + (code & 0xFFFF);
  if (!serialBusSend(1u << chip, word))
    CT_ERROR("setting DAC value failed");
}

bool ChronotickFPGA::serialBusSend(std::uint32_t select_mask, std::uint32_t word) {
  using namespace board;
  if (!link)
    return false;
  std::uint32_t kept = 0;
  bool ok = link->getWireInValue(WI_DAC_ADDRESS, kept) == link::NO_ERROR;
  ok = ok && wireIn(WI_DAC_ADDRESS, kept | select_mask) && wireIn(WI_DAC_DATA, word) && updateWireIns() &&
       trigger(TI_DAC_LOAD, 0);
  bool done = false;
  for (int i = 0; ok && i < DAC_POLLS && !done; ++i)
    done = (readWireOut(WO_STATUS) & 2) != 0;
  wireIn(WI_DAC_ADDRESS, kept);
  ok = updateWireIns() && ok;
  return ok && done;
}

bool ChronotickFPGA::wireIn(int address, std::uint32_t value) {
  return link && link->setWireInValue(address, value, 0xFFFFFFFF) == link::NO_ERROR;
}

bool ChronotickFPGA::updateWireIns() {
  return link && link->updateWireIns() == link::NO_ERROR;
}

std::uint32_t ChronotickFPGA::readWireOut(int address) {
  if (!link)
    return 0;
  link->updateWireOuts();
  return link->getWireOutValue(address);
}

bool ChronotickFPGA::trigger(int address, int bit) {
  return link && link->activateTriggerIn(address, bit) == link::NO_ERROR;
}

long ChronotickFPGA::writePipe(int address, const std::vector<std::uint8_t> &data) {
  if (!link)
    return link::DEVICE_NOT_OPEN;
  return link->writeToPipeIn(address, data.data(), static_cast<long>(data.size()));
}

void ChronotickFPGA::setTestSignalPeriod(std::uint32_t value) {
  const std::uint32_t period = board_model == link::MODEL_CT_ULTRA ? value * 2 : value;
  wireIn(board::WI_TEST_PERIOD, period);
  wireIn(board::WI_TEST_HALF_PERIOD, period / 2);
}

void ChronotickFPGA::setLeds(std::uint32_t mask) {
  const std::uint32_t value = board_model == link::MODEL_CT20 ? (mask & 7) | ((mask & 0x70000) >> 8) : mask;
  wireIn(board::WI_LEDS, value);
}

bool ChronotickFPGA::waitBus(std::uint32_t &status) {
  for (int i = 0; i < board::BUS_POLLS; ++i) {
    if (link->readRegister(board::REG_BUS_COMMAND, status) != link::NO_ERROR)
      return false;
    if ((status & board::BUS_STATUS_BUSY) == 0)
      return true;
  }
  return false;
}

bool ChronotickFPGA::sensorBusWrite(std::uint8_t address, const std::vector<std::uint8_t> &bytes) {
  using namespace board;
  if (!link)
    return false;
  std::uint32_t status = 0;
  if (link->writeRegister(REG_BUS_DATA, address) != link::NO_ERROR ||
      link->writeRegister(REG_BUS_COMMAND, BUS_START_WRITE) != link::NO_ERROR || !waitBus(status) ||
      (status & BUS_STATUS_NO_ACK) != 0)
    return false;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint32_t command = i + 1 == bytes.size() ? BUS_WRITE_END : BUS_WRITE;
    if (link->writeRegister(REG_BUS_DATA, bytes[i]) != link::NO_ERROR ||
        link->writeRegister(REG_BUS_COMMAND, command) != link::NO_ERROR || !waitBus(status))
      return false;
  }
  return true;
}

int ChronotickFPGA::sensorBusRead(std::uint8_t address, std::uint8_t *bytes, int count) {
  using namespace board;
  if (!link)
    return BUS_FAILED;
  std::uint32_t status = 0;
  if (link->writeRegister(REG_BUS_DATA, address) != link::NO_ERROR ||
      link->writeRegister(REG_BUS_COMMAND, BUS_START_WRITE) != link::NO_ERROR || !waitBus(status))
    return BUS_FAILED;
  if ((status & BUS_STATUS_NO_ACK) != 0)
    return BUS_NACK;
  for (int i = 0; i < count; ++i) {
    std::uint32_t value = 0;
    if (link->writeRegister(REG_BUS_COMMAND, i + 1 == count ? BUS_READ_END : BUS_READ) != link::NO_ERROR ||
        !waitBus(status) || link->readRegister(REG_BUS_DATA, value) != link::NO_ERROR)
      return BUS_FAILED;
    bytes[i] = static_cast<std::uint8_t>(value);
  }
  return 0;
}

double ChronotickFPGA::readVoltage(int channel, bool *continuity) {
  using namespace board;
  if (channel < 0 || channel >= MONITOR_CHANNELS)
    return SENSOR_FAILURE;
  if (!sensorBusWrite(MONITOR_WRITE, {static_cast<std::uint8_t>((channel & 15) * 2 + 97)}))
    return SENSOR_FAILURE;
  // The monitor doesn't acknowledge its read address while it converts:
  // ask again, a few times.
  for (int attempt = 0; attempt < VOLTAGE_TRIES; ++attempt) {
    std::uint8_t reading[2] = {};
    const int rc = sensorBusRead(MONITOR_READ, reading, 2);
    if (rc == BUS_FAILED)
      return SENSOR_FAILURE;
    if (rc == BUS_NACK)
      continue;
    if (continuity)
      *continuity = (reading[0] & 0x80) != 0;
    return monitorVolts(channel, (std::uint32_t(reading[0] & 15) << 8) | reading[1]);
  }
  return SENSOR_FAILURE;
}

bool ChronotickFPGA::fanRead(std::uint8_t reg, std::uint8_t &value) {
  return sensorBusWrite(board::FAN_WRITE, {reg}) && sensorBusRead(board::FAN_READ, &value, 1) == 0;
}

std::string ChronotickFPGA::sensorReport() {
  using namespace board;
  std::string report;
  auto line = [&report](const std::string &name, const std::string &value) { report += name + "\t" + value + "\n"; };
  line("Serial", serial_);
  if (!link)
    return report;

  std::vector<BoardSensor> sensors;
  if (link->getDeviceSensors(sensors) == link::NO_ERROR) {
    for (const BoardSensor &s : sensors)
      line(s.name, number(s.value));
  }

  const bool ultra = board_model == link::MODEL_CT_ULTRA;
  if (ultra && hardware_version > 2) {
    // A register that can't be read shows the bus failure value, like a voltage.
    auto reg = [this](std::uint8_t index) -> int {
      std::uint8_t value = 0;
      return fanRead(index, value) ? value : -1;
    };
    auto temperature = [&](std::uint8_t whole, std::uint8_t fraction) {
      const int w = reg(whole), f = reg(fraction);
      if (w < 0 || f < 0)
        return fixed(SENSOR_FAILURE, 3);
      return fixed(static_cast<std::int8_t>(w) + (f >> 5) / 8.0, 3);
    };
    auto duty = [&](std::uint8_t index) {
      const int v = reg(index);
      return v < 0 ? fixed(SENSOR_FAILURE, 1) : fixed(v * 100.0 / 240.0, 1);
    };
    auto tach = [&](std::uint8_t low) {
      const int lo = reg(low), hi = reg(static_cast<std::uint8_t>(low + 1));
      return lo < 0 || hi < 0 ? number(SENSOR_FAILURE) : std::to_string(lo | (hi << 8));
    };
    line("6615 Temp #1", temperature(FAN_TEMP1, FAN_TEMP1_FRACTION));
    line("6615 Temp #2", temperature(FAN_TEMP2, FAN_TEMP2_FRACTION));
    line("6615 DutyCyc #1", duty(FAN_DUTY1));
    line("6615 DutyCyc #2", duty(FAN_DUTY2));
    line("6615 FanTach #1", tach(FAN_TACH1));
    line("6615 FanTach #2", tach(FAN_TACH2));
    const int status = reg(FAN_STATUS);
    line("6615 Fan status", status < 0 ? number(SENSOR_FAILURE) : std::to_string(status));
    static const std::pair<const char *, int> supplies[] = {
        {"11611 -5VD", 0},   {"11611 -5VA", 1},  {"11611 -5.52V", 5}, {"11611 +5VD", 7},
        {"11611 +5VA", 4},   {"11611 +5.6V", 6}, {"11611 +2.5VD", 2}, {"11611 +2.5VA", 8},
        {"11611 +2.99V", 3}, {"11611 12V", 9},   {"11611 incurr", 10}};
    for (const auto &[name, channel] : supplies)
      line(name, fixed(readVoltage(channel), 3));
  }

  link->updateWireOuts();
  const double scale = ultra ? 0.001 : 3e-05;
  line("CLK IN freq", std::to_string(std::lround((link->getWireOutValue(WO_CLK_IN_FREQUENCY) & 0x0FFFFFFF) / scale)));
  const std::uint32_t sync = link->getWireOutValue(WO_SYNC_STATUS);
  if (ultra && (sync & 4) != 0) {
    line("Synchronizer flags", std::to_string(sync >> 28) + " " + std::to_string((sync >> 16) & 63) + " " +
                                   std::to_string((sync >> 22) & 63));
    line("Synchronizer data", std::to_string(link->getWireOutValue(WO_SYNC_LINK)));
    if ((sync & 8) != 0)
      line("SYNC IN offset", std::to_string((sync >> 6) & 31));
    if ((sync & 16) != 0)
      line("LOOP IN offset", std::to_string((sync >> 11) & 31));
  }
  return report;
}

} // namespace chronotick
