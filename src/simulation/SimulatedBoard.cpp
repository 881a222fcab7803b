#include "simulation/SimulatedBoard.h"

#include "device/BoardProtocol.h"
#include "device/BuildTime.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace chronotick::simulation {
namespace {

using namespace board;

// Physical input to DAC channel.
constexpr int CT20_DAC[8] = {7, 5, 3, 1, 6, 4, 2, 0};
constexpr int ULTRA_DAC[18] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0x10, 0x19};

int inputOfDac(const int *table, int inputs, int dac) {
  for (int i = 0; i < inputs; ++i) {
    if (table[i] == dac)
      return i;
  }
  return -1;
}

bool validWireIn(int address) {
  return address >= 0 && address < 0x20;
}

} // namespace

SimulatedBoard::Model SimulatedBoard::modelOf(const std::string &name) {
  // Test signal: wire-in 0x09 counts 18 ns on "CT-20" (74 -> 1.332 us, 751 kHz)
  // and 10 ns on "CT-Ultra" (2 x 63 -> 1.26 us, 794 kHz).
  if (name == "CT-20")
    return {link::MODEL_CT20, 8, 6000, 160, 3, 0.0, 2.5, 0x800000, 0};
  if (name == "CT-Ultra")
    return {link::MODEL_CT_ULTRA, 18, 2000, 200, 5, -2.5, 2.5, 0x4000000, 3};
  return {0x99, 8, 6000, 160, 3, 0.0, 2.5, 0x800000, 0};
}

SimulatedBoard::SimulatedBoard(const BoardSpec &spec_) : spec(spec_), model(modelOf(spec_.model)) {
  signals.resize(std::size_t(model.inputs));
  loadFirmware(0, 0);
}

SimulatedBoard::~SimulatedBoard() = default;

void SimulatedBoard::record(BoardWrite::Kind kind, int address, std::uint32_t value, std::vector<std::uint8_t> data) {
  if (log.size() >= MAX_WRITES) // a long-lived board keeps its recent history
    log.erase(log.begin(), log.begin() + MAX_WRITES / 2);
  log.push_back(BoardWrite{kind, address, value, std::move(data)});
}

// A freshly loaded firmware: registers cleared, the stream stopped.
void SimulatedBoard::loadFirmware(std::uint32_t interface_version_, std::uint32_t build_word_) {
  running = false;
  interface_version = interface_version_;
  build_word = build_word_;
  wire_in.fill(0);
  wire_applied.fill(0);
  wire_out.fill(0);
  serial_done = false;
  config.assign(2 * std::size_t(model.inputs) * CONFIG_RECORD_BYTES, 0);
  config_at = 0;
  settings.slots.assign(2 * std::size_t(model.inputs), SlotSettings{});
  settings.thresholds.assign(std::size_t(model.inputs), model.dac_low);
  if (settings.words_per_second <= 0)
    settings.words_per_second = spec.usb3 ? 100e6 : 8e6;
  generator = std::make_unique<StreamGenerator>(model.inputs, model.clock_period_ps, model.bins, spec.seed, loads++);
  for (int i = 0; i < model.inputs; ++i)
    generator->setSignal(i, signals[std::size_t(i)]);
  queue.clear();
  queue_at = 0;
  applyWireIns();
}

int SimulatedBoard::openBySerial(const std::string &serial_) {
  std::lock_guard<std::mutex> guard(mutex);
  if (removed || (!serial_.empty() && serial_ != spec.serial))
    return link::FAILED;
  if (link_loss > 0) {
    --link_loss;
    return link::FAILED;
  }
  open_ = true;
  return link::NO_ERROR;
}

bool SimulatedBoard::isOpen() const {
  std::lock_guard<std::mutex> guard(mutex);
  return usable();
}

void SimulatedBoard::close() {
  std::lock_guard<std::mutex> guard(mutex);
  open_ = false;
}

int SimulatedBoard::getDeviceInfo(DeviceInfo &info) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  info.serial = spec.serial;
  info.board_model = model.number;
  info.usb_speed = spec.usb3 ? link::USB_SPEED_SUPER : link::USB_SPEED_HIGH;
  info.device_major_version = 1;
  info.device_minor_version = 4;
  return link::NO_ERROR;
}

int SimulatedBoard::getBoardModel() {
  std::lock_guard<std::mutex> guard(mutex);
  return usable() ? model.number : 0;
}

std::string SimulatedBoard::getSerialNumber() {
  std::lock_guard<std::mutex> guard(mutex);
  return usable() ? spec.serial : std::string();
}

int SimulatedBoard::configureFpga(const std::string &path) {
  if (!isOpen())
    return link::DEVICE_NOT_OPEN;
  // The file outside the lock: a magic line, then key=value lines.
  std::ifstream file(path);
  if (!file)
    return link::FILE_ERROR;
  const auto next = [&file](std::string &line) {
    if (!std::getline(file, line))
      return false;
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    return true;
  };
  std::string line;
  std::string file_model;
  long long version = -1;
  long long build = 0;
  const bool ours = next(line) && line == FIRMWARE_MAGIC;
  for (int lines = 0; ours && lines < 64 && next(line); ++lines) {
    const std::size_t eq = line.find('=');
    if (eq == std::string::npos)
      continue;
    const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    try {
      if (key == "model")
        file_model = value;
      else if (key == "interface")
        version = std::stoll(value);
      else if (key == "build")
        build = std::stoll(value);
    } catch (const std::exception &) {
      return link::FPGA_CONFIG_FAILED;
    }
  }

  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (!ours || file_model != spec.model || version < 0 || version > 0xFFFFFFFF || no_firmware) {
    configured = false;
    running = false;
    return link::FPGA_CONFIG_FAILED;
  }
  loadFirmware(static_cast<std::uint32_t>(version), packBuildTime(buildTimeFromUnix(build)));
  configured = true;
  return link::NO_ERROR;
}

int SimulatedBoard::setPllConfiguration(const PllConfiguration &pll) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (model.number != link::MODEL_CT20)
    return link::UNSUPPORTED_FEATURE;
  record(BoardWrite::Kind::Pll, 0, std::uint32_t(pll.vco_p) << 16 | std::uint32_t(pll.vco_q));
  return link::NO_ERROR;
}

int SimulatedBoard::setWireInValue(int address, std::uint32_t value, std::uint32_t mask) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (!validWireIn(address))
    return link::INVALID_ENDPOINT;
  std::uint32_t &wire = wire_in[std::size_t(address)];
  wire = (wire & ~mask) | (value & mask);
  record(BoardWrite::Kind::WireIn, address, wire);
  return link::NO_ERROR;
}

int SimulatedBoard::getWireInValue(int address, std::uint32_t &value) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (!validWireIn(address))
    return link::INVALID_ENDPOINT;
  value = wire_in[std::size_t(address)];
  return link::NO_ERROR;
}

int SimulatedBoard::updateWireIns() {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  record(BoardWrite::Kind::UpdateWireIns, 0, 0);
  wire_applied = wire_in;
  applyWireIns();
  return link::NO_ERROR;
}

void SimulatedBoard::applyWireIns() {
  const auto unit = model.test_unit_cycles * model.clock_period_ps;
  settings.fence = wire_applied[WI_FENCE] & 0xFF;
  // The test signal has an oscillator of its own, 1/65536 slower than the
  // clock's multiple, so that its edges sweep through every fine bin: that is
  // what the host's calibration learns the delay line from.
  const std::int64_t nominal = std::int64_t(wire_applied[WI_TEST_PERIOD]) * unit;
  settings.test_period_ps = nominal + nominal / 65536;
  settings.test_high_ps = std::int64_t(wire_applied[WI_TEST_HALF_PERIOD]) * unit;
  const std::uint32_t size = wire_applied[WI_BUFFER_SIZE] ? wire_applied[WI_BUFFER_SIZE] : model.buffer_events;
  settings.buffer_events = size;
  settings.resume_events = wire_applied[WI_BUFFER_HALF] ? wire_applied[WI_BUFFER_HALF] : size / 2;
  const bool run = configured && wire_applied[WI_RUN] == 1;
  if (run && !running)
    run_start = std::chrono::steady_clock::now() - std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                       std::chrono::nanoseconds(generator->time() / 1000));
  running = run;
}

int SimulatedBoard::updateWireOuts() {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  wire_out.fill(0);
  if (!configured)
    return link::NO_ERROR;
  wire_out[WO_BUILD_TIME - 0x20] = build_word;
  wire_out[WO_INPUTS - 0x20] = std::uint32_t(model.inputs);
  wire_out[WO_CLOCK_PERIOD - 0x20] = std::uint32_t(model.clock_period_ps);
  wire_out[WO_BIN_COUNT - 0x20] = std::uint32_t(model.bins);
  wire_out[WO_INTERFACE_VERSION - 0x20] = wrong_interface ? 3 : interface_version;
  wire_out[WO_CLK_IN_FREQUENCY - 0x20] = 0;
  // BoardSpec's default is the newest "CT-Ultra"; a "CT-20" never got past
  // version 2, so higher numbers mean its newest board.
  const int version = spec.model == "CT-20" ? std::min(spec.hardware_version, 2) : spec.hardware_version;
  wire_out[WO_HARDWARE_VERSION - 0x20] = std::uint32_t(version);
  wire_out[WO_STATUS - 0x20] = serial_done ? 2 : 0;
  wire_out[WO_SYNC_LINK - 0x20] = 0;
  wire_out[WO_SYNC_STATUS - 0x20] = 0; // a lone board: no synchronizer
  return link::NO_ERROR;
}

std::uint32_t SimulatedBoard::getWireOutValue(int address) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable() || address < 0x20 || address >= 0x40)
    return 0;
  return wire_out[std::size_t(address - 0x20)];
}

int SimulatedBoard::activateTriggerIn(int address, int bit) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (address < 0x40 || address >= 0x60 || bit < 0 || bit > 31)
    return link::INVALID_ENDPOINT;
  record(BoardWrite::Kind::Trigger, address, std::uint32_t(bit));
  if (address == TI_CONFIG_REWIND && bit == 0)
    config_at = 0;
  else if (address == TI_DAC_LOAD && bit == 0)
    loadDac();
  return link::NO_ERROR;
}

void SimulatedBoard::loadDac() {
  const std::uint32_t data_word = wire_applied[WI_DAC_DATA];
  const std::uint32_t address_word = wire_applied[WI_DAC_ADDRESS];
  if (model.number == link::MODEL_CT_ULTRA) {
    // The serial bus: the word goes to every selected chip.
    const std::uint32_t select = address_word & 7;
    record(BoardWrite::Kind::SerialBus, int(select), data_word);
    for (int chip = SERIAL_SELECT_DAC_LOW; chip <= SERIAL_SELECT_DAC_HIGH; ++chip) {
      if ((select >> chip & 1) && (data_word & 0xFFF00000) == ULTRA_DAC_WRITE) {
        const int dac = chip * 16 + int(data_word >> 16 & 15);
        const int input = inputOfDac(ULTRA_DAC, model.inputs, dac);
        if (input >= 0)
          setThreshold(input, data_word & 0xFFFF);
      }
    }
    serial_done = true;
    return;
  }
  // "CT-20": 0x300 in the address word loads a channel's threshold.
  if ((address_word >> 8 & 15) == 3) {
    const std::uint32_t code = (address_word & 15) << 12 | (data_word >> 4 & 0xFFF);
    const int input = inputOfDac(CT20_DAC, model.inputs, int(address_word >> 4 & 15));
    if (input >= 0) {
      setThreshold(input, code);
      return;
    }
  }
  record(BoardWrite::Kind::Dac, -1, address_word);
}

void SimulatedBoard::setThreshold(int input, std::uint32_t code) {
  record(BoardWrite::Kind::Dac, input, code);
  settings.thresholds[std::size_t(input)] = model.dac_low + double(code) * (model.dac_high - model.dac_low) / 65535.0;
}

long SimulatedBoard::writeToPipeIn(int address, const std::uint8_t *data, long length) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (address != PIPE_CONFIG)
    return link::INVALID_ENDPOINT;
  if (length < 0 || (length > 0 && !data))
    return link::FAILED;
  record(BoardWrite::Kind::PipeIn, address, 0, std::vector<std::uint8_t>(data, data + length));
  // Bytes past the last slot's record fall off the end of the table.
  for (long i = 0; i < length && config_at < config.size(); ++i)
    config[config_at++] = data[i];
  applyConfigRecords();
  return length;
}

void SimulatedBoard::applyConfigRecords() {
  for (std::size_t slot = 0; slot < settings.slots.size(); ++slot) {
    const std::uint8_t *r = &config[slot * CONFIG_RECORD_BYTES];
    SlotSettings &s = settings.slots[slot];
    s.enabled = r[0] & CONFIG_ENABLED;
    s.filtered = r[0] & CONFIG_FILTERED;
    s.trigger = r[0] & CONFIG_TRIGGER;
    s.mux = r[0] >> 3 & 3;
    s.deadtime_cycles = std::uint32_t(r[2]) | std::uint32_t(r[3]) << 8;
    s.divider = std::uint32_t(r[4]) | std::uint32_t(r[5]) << 8;
  }
}

std::int64_t SimulatedBoard::boardNow() const {
  const auto elapsed = std::chrono::steady_clock::now() - run_start;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() * 1000;
}

void SimulatedBoard::produce(std::int64_t until, std::size_t words) {
  if (queue_at > (1 << 16) && queue_at * 2 > queue.size()) {
    queue.erase(queue.begin(), queue.begin() + std::ptrdiff_t(queue_at));
    queue_at = 0;
  }
  while (queue.size() - queue_at < words && generator->time() + generator->span() <= until)
    generator->generate(settings, queue);
}

long SimulatedBoard::readFromBlockPipeOut(int address, int block_size, std::uint8_t *data, long length) {
  std::unique_lock<std::mutex> lock(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (address != PIPE_STREAM)
    return link::INVALID_ENDPOINT;
  if (block_size <= 0 || length < 0 || length % block_size != 0 || length % 4 != 0 || (length > 0 && !data))
    return link::INVALID_BLOCK_SIZE;
  if (link_loss > 0) {
    --link_loss;
    open_ = false;
    return link::COMMUNICATION_ERROR;
  }
  if (!configured)
    return link::FAILED;
  long bytes = length;
  if (short_read) {
    short_read = false;
    bytes = length / 2 / 4 * 4;
  }
  const auto words = std::size_t(bytes / 4);

  if (real_time) {
    const auto deadline = std::chrono::steady_clock::now() + PAD_AFTER;
    for (;;) {
      if (running)
        produce(boardNow(), words);
      if (queue.size() - queue_at >= words || std::chrono::steady_clock::now() >= deadline)
        break;
      lock.unlock();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      lock.lock();
      if (!usable())
        return link::DEVICE_NOT_OPEN;
    }
  } else if (running) {
    produce(generator->time() + FREE_RUN_SPAN, words);
  }

  std::size_t ready = queue.size() - queue_at;
  if (ready < words && running) {
    // The host's time catches up with the board's before the padding.
    generator->flushIdle(settings, queue);
    ready = queue.size() - queue_at;
  }
  const std::size_t taken = std::min(ready, words);
  for (std::size_t i = 0; i < taken; ++i) {
    const std::uint32_t w = queue[queue_at + i];
    const std::uint8_t bytes4[4] = {std::uint8_t(w), std::uint8_t(w >> 8), std::uint8_t(w >> 16),
                                    std::uint8_t(w >> 24)};
    std::memcpy(data + 4 * i, bytes4, 4);
  }
  queue_at += taken;
  if (taken < words) // idle words (kind 0) for the rest
    std::memset(data + 4 * taken, 0, 4 * (words - taken));
  return bytes;
}

int SimulatedBoard::writeRegister(std::uint32_t address, std::uint32_t value) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (model.sensor_bus_from_version == 0 || spec.hardware_version < model.sensor_bus_from_version)
    return link::UNSUPPORTED_FEATURE;
  record(BoardWrite::Kind::Register, int(address), value);
  bus.writeRegister(address, value);
  return link::NO_ERROR;
}

int SimulatedBoard::readRegister(std::uint32_t address, std::uint32_t &value) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  if (model.sensor_bus_from_version == 0 || spec.hardware_version < model.sensor_bus_from_version)
    return link::UNSUPPORTED_FEATURE;
  value = bus.readRegister(address);
  return link::NO_ERROR;
}

int SimulatedBoard::getDeviceSensors(std::vector<BoardSensor> &sensors) {
  std::lock_guard<std::mutex> guard(mutex);
  if (!usable())
    return link::DEVICE_NOT_OPEN;
  sensors = {{"FPGA temperature", 47.5}, {"1.0V supply", 1.0}, {"3.3V supply", 3.3}};
  return link::NO_ERROR;
}

void SimulatedBoard::setSignal(int input, const Signal &signal) {
  using Kind = Signal::Kind;
  const auto fail = [](const std::string &text) { throw std::invalid_argument(text); };
  if (input < 0 || input >= model.inputs)
    fail("The simulated board has no input " + std::to_string(input) + ".");
  if (signal.width < 0 || signal.delay < 0 || signal.jitter < 0 || signal.lifetime < 0)
    fail("A signal's width, delay, jitter and lifetime must not be negative.");
  if (signal.kind == Kind::Poisson && !(signal.rate >= 0 && signal.rate <= 1e12))
    fail("A Poisson signal's rate must lie between 0 and 1e12 per second.");
  if (signal.kind == Kind::Periodic && signal.period <= 0)
    fail("A periodic signal's period must be positive.");
  if (signal.kind == Kind::Copy || signal.kind == Kind::Fluorescence) {
    if (signal.source < 0 || signal.source >= model.inputs || signal.source == input)
      fail("A signal can only follow another input of the same board.");
    if (!(signal.probability >= 0 && signal.probability <= 1))
      fail("A fluorescence signal's probability must lie between 0 and 1.");
  }
  std::lock_guard<std::mutex> guard(mutex);
  signals[std::size_t(input)] = signal;
  generator->setSignal(input, signal);
}

void SimulatedBoard::setRealTime(bool real_time_) {
  std::lock_guard<std::mutex> guard(mutex);
  if (real_time_ && !real_time && running) {
    // Real time goes on from where the free run got to.
    running = false;
    applyWireIns();
  }
  real_time = real_time_;
}

void SimulatedBoard::setBandwidth(double words_per_second) {
  if (!(words_per_second > 0) || !std::isfinite(words_per_second))
    throw std::invalid_argument("The bandwidth must be a positive number of words per second.");
  std::lock_guard<std::mutex> guard(mutex);
  settings.words_per_second = words_per_second;
}

void SimulatedBoard::injectFault(Fault fault, int count) {
  std::lock_guard<std::mutex> guard(mutex);
  switch (fault) {
  case Fault::LinkLoss:
    link_loss = std::max(count, 1);
    break;
  case Fault::ShortRead:
    short_read = true;
    break;
  case Fault::ClockLoss:
    generator->loseClock();
    break;
  case Fault::VoltageOutOfRange:
    if (count < 0 || count >= MONITOR_CHANNELS)
      throw std::invalid_argument("The voltage monitor has channels 0 to 10.");
    bus.out_of_range = count;
    break;
  case Fault::SensorFailure:
    bus.monitor_dead = true;
    break;
  case Fault::WrongInterfaceVersion:
    wrong_interface = true;
    break;
  case Fault::NoFirmware:
    no_firmware = true;
    break;
  }
}

void SimulatedBoard::clearFaults() {
  std::lock_guard<std::mutex> guard(mutex);
  link_loss = 0;
  short_read = false;
  wrong_interface = false;
  no_firmware = false;
  bus.out_of_range = -1;
  bus.monitor_dead = false;
}

void SimulatedBoard::unplug() {
  std::lock_guard<std::mutex> guard(mutex);
  removed = true;
  open_ = false;
}

BoardTruth SimulatedBoard::truth() const {
  std::lock_guard<std::mutex> guard(mutex);
  BoardTruth t;
  t.model = spec.model;
  t.inputs = model.inputs;
  t.clock_period = model.clock_period_ps;
  t.bin_count = model.bins;
  for (int i = 0; i < model.inputs; ++i) {
    t.bin_widths.push_back(generator->delayLine(i).widths());
    t.quantization_rms.push_back(generator->delayLine(i).quantizationRms());
  }
  return t;
}

std::vector<BoardWrite> SimulatedBoard::writes() const {
  std::lock_guard<std::mutex> guard(mutex);
  return log;
}

void SimulatedBoard::clearWrites() {
  std::lock_guard<std::mutex> guard(mutex);
  log.clear();
}

SlotSettings SimulatedBoard::slotSettings(int slot) const {
  std::lock_guard<std::mutex> guard(mutex);
  return settings.slots.at(std::size_t(slot));
}

double SimulatedBoard::thresholdVolts(int input) const {
  std::lock_guard<std::mutex> guard(mutex);
  return settings.thresholds.at(std::size_t(input));
}

bool SimulatedBoard::streaming() const {
  std::lock_guard<std::mutex> guard(mutex);
  return running;
}

} // namespace chronotick::simulation
