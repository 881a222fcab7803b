#include "device/ChronotickImpl.h"

#include "device/BoardProtocol.h"
#include "engine/Log.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace chronotick {

Chronotick::~Chronotick() = default;

namespace {

constexpr const char *CT20 = "CT-20";

// The board's own signal delay per input (ps), taken out of the tags while
// compensation is on.
constexpr std::int64_t COMPENSATION_CT20[] = {1580, 1859, 1490, 829, 1820, 1757, 1316, 0};
constexpr std::int64_t COMPENSATION_ULTRA[] = {1574, 1814, 1742, 1083, 822,  658,  614,  470,  0,
                                               2895, 2722, 2964, 2893, 3130, 3145, 2849, 3000, 2947};

constexpr double DEFAULT_TRIGGER_LEVEL = 0.5; // volts: half the usual pulse of a detector
constexpr std::uint32_t LED_IDLE = 0x70000;
constexpr std::uint32_t LED_ACTIVE = 7;

std::uint32_t levelCode(double volts, double lo, double hi) {
  return static_cast<std::uint32_t>(std::lround(std::clamp((volts - lo) * 65535.0 / (hi - lo), 0.0, 65535.0)));
}

std::string joinNumbers(const std::vector<std::int32_t> &values) {
  std::string text;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i)
      text += ", ";
    text += std::to_string(values[i]);
  }
  return text;
}

template <class T> std::string valuePair(const T &a, const T &b) {
  std::ostringstream out;
  out << std::boolalpha << "[" << a << ", " << b << "],\n";
  return out.str();
}

std::unique_ptr<ChronotickFPGA> openBoard(const std::string &serial, std::uint32_t identifier, std::uint32_t run) {
  auto fpga = std::make_unique<ChronotickFPGA>(serial);
  fpga->open(false);
  // A fresh identifier per probing, so that one left in a board by an earlier
  // run can't pass for a cable to this one.
  const std::uint32_t word = (identifier & 0xFF) | ((run & 0xFF) << 8) | ((1u << (identifier % 32)) << 16);
  fpga->wireIn(board::WI_IDENTITY, word);
  fpga->updateWireIns();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  if (fpga->readWireOut(board::WO_SYNC_STATUS) & 4)
    CT_WARNING("Chronotick '%s' is connected to a synchronizer; it runs as a tagger of its own.",
               fpga->serial().c_str());
  return fpga;
}

std::unique_ptr<ChronotickFPGA> probeBoard(const std::string &serial) {
  static std::mt19937 generator{std::random_device{}()};
  static std::mutex generator_mutex;
  std::uint32_t identifier, run;
  {
    std::lock_guard<std::mutex> guard(generator_mutex);
    identifier = std::uniform_int_distribution<std::uint32_t>(1, 255)(generator);
    run = std::uniform_int_distribution<std::uint32_t>(0, 255)(generator);
  }
  return openBoard(serial, identifier, run);
}

} // namespace

ChronotickImpl::ChronotickImpl(const std::string &serial) {
  const int requested = getChronotickChannelNumberScheme();
  // These boards have no input 0 on their front panel: AUTO counts from one.
  scheme = requested == CT_CHANNEL_NUMBER_SCHEME_ZERO ? CT_CHANNEL_NUMBER_SCHEME_ZERO : CT_CHANNEL_NUMBER_SCHEME_ONE;

  auto device = std::make_unique<Device>();
  device->fpga = probeBoard(serial);
  devices.push_back(std::move(device));
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    buildTables();
  }
  startWorkers();
  try {
    calibrateQuietly();
  } catch (...) {
    stopWorkers();
    throw;
  }
  for (auto &d : devices) {
    std::lock_guard<std::mutex> guard(d->decode_mutex);
    d->state.in_overflow = false;
  }
}

ChronotickImpl::~ChronotickImpl() {
  stopWorkers();
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    led_bitmask = (led_bitmask | LED_IDLE) & ~LED_ACTIVE;
    for (auto &d : devices)
      d->config_dirty = true;
  }
  // The front panel shows that nobody uses the board any more.
  for (auto &d : devices) {
    std::lock_guard<std::mutex> transfer(d->transfer_mutex);
    std::lock_guard<std::mutex> link(d->link_mutex);
    if (!d->fpga->isConnected())
      continue;
    try {
      std::lock_guard<std::mutex> guard(config_mutex);
      upload(*d);
    } catch (...) {
      CT_ERROR("The last upload to Chronotick %s failed: %s", d->fpga->serial().c_str(),
               currentExceptionText().c_str());
    }
  }
}

void ChronotickImpl::buildTables() {
  // Registrations belong to measurements that outlive a reset.
  std::map<std::int32_t, std::int32_t> registered;
  for (const auto &[channel, config] : configs)
    if (config.registeredCount > 0)
      registered[channel] = config.registeredCount;
  configs.clear();
  locations.clear();

  const ChronotickFPGA &first = *devices.front()->fpga;
  const bool ct20 = first.model() == CT20;
  test_signal_divider = ct20 ? 74 : 63;
  hardware_buffer_size = ct20 ? 0x800000 : 0x4000000;
  led_bitmask = 0;
  hardware_delay_compensation = true;
  stream_block_events = 131072;
  stream_block_latency_ms = 20;
  min_input_delay = 0;
  normalization = true;
  const std::vector<double> range = dacRange();
  const std::uint32_t default_code = levelCode(DEFAULT_TRIGGER_LEVEL, range[0], range[1]);

  for (std::size_t index = 0; index < devices.size(); ++index) {
    Device &d = *devices[index];
    const ChronotickFPGA &fpga = *d.fpga;
    const int inputs = fpga.inputs();
    const std::vector<bool> &usable = fpga.usableInputs();
    d.slot_channels.assign(2 * std::size_t(inputs), CHANNEL_UNUSED);
    d.compensation.assign(std::size_t(inputs), 0);
    for (int input = 0; input < inputs; ++input) {
      const std::size_t i = std::size_t(input);
      if (fpga.model() == CT20 && i < std::size(COMPENSATION_CT20))
        d.compensation[i] = COMPENSATION_CT20[i];
      else if (fpga.model() != CT20 && i < std::size(COMPENSATION_ULTRA))
        d.compensation[i] = COMPENSATION_ULTRA[i];
      // The licence names usable inputs, or usable slots.
      const bool open =
          usable.empty() || (usable.size() == 2 * std::size_t(inputs) ? usable[2 * i] : i < usable.size() && usable[i]);
      if (!open)
        continue;
      const std::int32_t rising = scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO ? input : input + 1;
      const std::int32_t falling = scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO ? input + inputs : -(input + 1);
      const std::int32_t channels[2] = {rising, falling};
      for (int edge = 0; edge < 2; ++edge) {
        const std::int32_t slot = board::slotOf(input, edge == 1);
        d.slot_channels[std::size_t(slot)] = channels[edge];
        ChannelConfig &config = configs[channels[edge]];
        config.hasInput = edge == 0;
        config.triggerLevelCode = default_code;
        auto kept = registered.find(channels[edge]);
        if (kept != registered.end())
          config.registeredCount = kept->second;
        locations[channels[edge]] = ChannelLocation{index, slot};
      }
    }
    d.config_dirty = true;
    d.fence_dirty = true;
    d.word_rate = 0;
    // Decoder state: no worker decodes while the tables are built.
    const std::int64_t time = d.state.watermark;
    d.state.setup(fpga.clockPeriodPs(), fpga.binCount(), 2 * inputs);
    d.state.slot_channels = d.slot_channels;
    d.state.pending_delays.assign(2 * std::size_t(inputs), 0);
    // The stream goes on from where it was: blocks never run back.
    d.state.rollover_base = time;
    d.state.watermark = time;
  }
}

void ChronotickImpl::calibrateQuietly() {
  std::vector<double> ignored;
  autoCalibration([&ignored](std::size_t n) {
    ignored.resize(n);
    return ignored.data();
  });
}

void ChronotickImpl::reset() {
  // The boards are held instead of stopping the engine, so that measurements
  // stay attached: workers find every board busy and wait.
  std::vector<std::unique_lock<std::mutex>> held;
  for (auto &d : devices) {
    held.emplace_back(d->transfer_mutex);
    d->reading = true;
    held.emplace_back(d->link_mutex);
    held.emplace_back(d->decode_mutex);
  }
  std::exception_ptr failure;
  for (auto &d : devices) {
    const std::string serial = d->fpga->serial();
    d->fpga.reset(); // closes the link before it is opened anew
    try {
      d->fpga = probeBoard(serial);
    } catch (...) {
      failure = std::current_exception();
      d->fpga = std::make_unique<ChronotickFPGA>(serial); // the read step keeps trying to reopen it
    }
  }
  if (!failure) {
    std::lock_guard<std::mutex> guard(config_mutex);
    buildTables();
  } else {
    std::lock_guard<std::mutex> guard(config_mutex);
    for (auto &d : devices)
      d->config_dirty = true;
  }
  for (auto &d : devices)
    d->reading = false;
  held.clear();
  wakeWorker();
  if (failure)
    std::rethrow_exception(failure);
  calibrateQuietly();
  clearOverflows();
}

// Data path

ChronotickRunner::ReadResult ChronotickImpl::readBlock(Worker &worker, std::unique_lock<std::mutex> &lock,
                                                       std::uint32_t fence, const std::function<void()> &done) {
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    if (!fence_seen || fence != last_fence) {
      fence_seen = true;
      last_fence = fence;
      for (auto &d : devices)
        d->fence_dirty = true;
    }
  }

  Device *device = nullptr;
  std::size_t index = 0;
  for (; index < devices.size(); ++index) {
    std::unique_lock<std::mutex> transfer(devices[index]->transfer_mutex, std::try_to_lock);
    if (transfer.owns_lock()) {
      lock.swap(transfer); // the next worker may go on to another board
      transfer.unlock();
      device = devices[index].get();
      break;
    }
  }
  if (!device) {
    lock.unlock();
    for (auto &d : devices)
      if (!d->reading.load())
        return ReadResult::TryAgainSoon; // that board comes free at once
    return ReadResult::Idle;             // done() of a read under way wakes us
  }

  std::vector<std::uint32_t> *raw;
  {
    std::lock_guard<std::mutex> guard(device->buffer_mutex);
    raw = &device->buffers[&worker];
  }
  device->reading = true;
  bool incomplete = false;
  try {
    readStep(*device, *raw, incomplete);
  } catch (...) {
    // Whatever the board did, the stream goes on with a break in it.
    CT_ERROR("Reading from Chronotick %s failed: %s", device->fpga->serial().c_str(), currentExceptionText().c_str());
    raw->assign(1, board::LINK_LOST_WORD);
    incomplete = true;
  }

  DecodeSettings settings;
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    settings = decodeSettings(index);
  }
  // Taken before the transfer lock goes, so that blocks decode in read order.
  std::unique_lock<std::mutex> decode(device->decode_mutex);
  device->reading = false;
  lock.swap(decode);
  decode.unlock();
  done();
  worker.incomplete = false;
  RawDecoder::decode(raw->data(), raw->size(), device->state, settings, fence, worker);
  if (incomplete)
    worker.incomplete = true;
  return ReadResult::Delivered;
}

bool ChronotickImpl::readStep(Device &d, std::vector<std::uint32_t> &raw, bool &incomplete) {
  std::unique_lock<std::mutex> link(d.link_mutex);
  ChronotickFPGA &fpga = *d.fpga;
  if (!fpga.isConnected()) {
    bool up = false;
    try {
      up = fpga.open(true);
    } catch (...) {
      CT_ERROR("Reopening Chronotick %s failed: %s", fpga.serial().c_str(), currentExceptionText().c_str());
    }
    {
      std::lock_guard<std::mutex> guard(config_mutex);
      d.config_dirty = true; // the board lost its configuration
    }
    if (!up) {
      raw.clear();
      if (!d.link_lost) {
        d.link_lost = true;
        raw.push_back(board::LINK_LOST_WORD); // one Error tag per loss
      }
      link.unlock();
      std::this_thread::sleep_for(std::chrono::milliseconds(RECONNECT_SLEEP_MS));
      incomplete = true;
      return false;
    }
    CT_INFO("Chronotick %s reconnected", fpga.serial().c_str());
    d.link_lost = false;
  }

  std::size_t words;
  bool have_delays = false;
  std::vector<std::int64_t> delays;
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    // Blocks follow the event rate: as many words as arrive within the
    // latency limit, capped by the event limit, in whole pipe blocks.
    const std::size_t unit = std::size_t(std::max(fpga.pipeBlockBytes() / 4, 1));
    const double by_latency = std::floor(double(stream_block_latency_ms) * d.word_rate / double(unit));
    const double by_events = std::floor(double(stream_block_events) / double(unit));
    words = std::max<std::size_t>(std::size_t(std::min(by_latency, by_events)), 1) * unit;
    if (d.config_dirty) {
      delays = upload(d);
      have_delays = true;
    } else if (d.fence_dirty) {
      fpga.wireIn(board::WI_FENCE, last_fence & 0xFF);
      fpga.updateWireIns();
      d.fence_dirty = false;
    }
  }
  if (have_delays) {
    std::lock_guard<std::mutex> guard(d.decode_mutex);
    d.state.pending_delays.swap(delays);
  }

  raw.resize(words);
  const long bytes = long(words * 4);
  const auto start = std::chrono::steady_clock::now();
  const long got = fpga.readPipe(reinterpret_cast<std::uint8_t *>(raw.data()), bytes);
  const auto elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    d.word_rate = double(words) / std::max(elapsed, 1e-3);
  }
  incomplete = false;
  if (got < 0) {
    raw.assign(1, board::LINK_LOST_WORD);
    d.link_lost = true;
    incomplete = true;
  } else if (got != bytes) {
    raw.resize(std::size_t(got) / 4);
    d.link_lost = true;
    incomplete = true;
  }
  return true;
}

std::vector<std::int64_t> ChronotickImpl::upload(Device &d) {
  ChronotickFPGA &fpga = *d.fpga;
  bool any_filtered = false;
  for (const auto &[channel, config] : configs)
    any_filtered = any_filtered || (config.isFiltered && config.registeredCount > 0);

  const std::size_t slots = d.slot_channels.size();
  std::vector<std::uint8_t> records(slots * board::CONFIG_RECORD_BYTES, 0);
  std::vector<std::int64_t> delays(slots, 0);
  const std::int64_t shift = std::min<std::int64_t>(min_input_delay, 0);
  for (std::size_t slot = 0; slot < slots; ++slot) {
    const std::int32_t channel = d.slot_channels[slot];
    if (channel == CHANNEL_UNUSED)
      continue;
    const ChannelConfig &config = configs.at(channel);
    // The input's source applies to both of its edges.
    const ChannelConfig &input = configs.at(d.slot_channels[slot & ~std::size_t(1)]);
    std::uint8_t *record = records.data() + slot * board::CONFIG_RECORD_BYTES;
    const bool enabled = config.registeredCount > 0 || (config.isTrigger && any_filtered);
    record[0] = std::uint8_t((enabled ? board::CONFIG_ENABLED : 0) | (config.isFiltered ? board::CONFIG_FILTERED : 0) |
                             (config.isTrigger ? board::CONFIG_TRIGGER : 0) | ((input.inputMux & 3) << 3));
    record[2] = std::uint8_t(config.deadtimeCycles & 0xFF);
    record[3] = std::uint8_t(config.deadtimeCycles >> 8);
    const std::uint16_t divider = config.eventDivider ? std::uint16_t(config.eventDivider - 1) : 0;
    record[4] = std::uint8_t(divider & 0xFF);
    record[5] = std::uint8_t(divider >> 8);
    if (config.hasInput)
      fpga.setDac(int(slot / 2), config.triggerLevelCode);
    delays[slot] = config.inputDelay + (hardware_delay_compensation ? d.compensation[slot / 2] : 0) - shift;
  }
  fpga.trigger(board::TI_CONFIG_REWIND, 0);
  fpga.writePipe(board::PIPE_CONFIG, records);
  fpga.wireIn(board::WI_BUFFER_SIZE, std::uint32_t(hardware_buffer_size));
  fpga.wireIn(board::WI_BUFFER_HALF, std::uint32_t(hardware_buffer_size / 2));
  fpga.setLeds(led_bitmask);
  fpga.setTestSignalPeriod(std::uint32_t(test_signal_divider));
  fpga.updateWireIns();
  fpga.wireIn(board::WI_FENCE, last_fence & 0xFF);
  fpga.updateWireIns();
  d.config_dirty = false;
  d.fence_dirty = false;
  return delays;
}

DecodeSettings ChronotickImpl::decodeSettings(std::size_t device) const {
  DecodeSettings settings;
  const std::vector<std::int32_t> &slots = devices[device]->slot_channels;
  for (std::size_t slot = 0; slot < slots.size() && slot < 64; ++slot) {
    if (slots[slot] == CHANNEL_UNUSED)
      continue;
    const ChannelConfig &config = configs.at(slots[slot]);
    if (config.isTrigger)
      settings.trigger_mask |= std::uint64_t(1) << slot;
    if (config.isFiltered)
      settings.filtered_mask |= std::uint64_t(1) << slot;
  }
  settings.normalization = normalization.load();
  return settings;
}

// Channels

ChannelConfig *ChronotickImpl::find(std::int32_t channel) {
  auto it = configs.find(channel);
  return it == configs.end() ? nullptr : &it->second;
}

ChannelConfig *ChronotickImpl::findInput(std::int32_t channel) {
  ChannelConfig *config = find(channel);
  if (config && config->hasInput)
    return config;
  config = find(invertedLocked(channel));
  return config && config->hasInput ? config : nullptr;
}

std::int32_t ChronotickImpl::invertedLocked(std::int32_t channel) const {
  auto it = locations.find(channel);
  if (it == locations.end())
    return CHANNEL_UNUSED;
  return devices[it->second.device]->slot_channels[std::size_t(it->second.slot ^ 1)];
}

void ChronotickImpl::markDirty(std::int32_t channel) {
  auto it = locations.find(channel);
  if (it != locations.end()) {
    devices[it->second.device]->config_dirty = true;
    return;
  }
  for (auto &d : devices)
    d->config_dirty = true;
}

void ChronotickImpl::recomputeMinInputDelay() {
  std::int64_t smallest = 0;
  bool first = true;
  for (const auto &[channel, config] : configs) {
    smallest = first ? config.inputDelay : std::min(smallest, config.inputDelay);
    first = false;
  }
  if (smallest != min_input_delay) {
    min_input_delay = smallest;
    markDirty(CHANNEL_UNUSED);
  }
}

std::int64_t ChronotickImpl::compensationOf(std::int32_t channel) const {
  auto it = locations.find(channel);
  const Device &d = *devices[it->second.device];
  return d.compensation[std::size_t(it->second.slot / 2)];
}

std::int64_t ChronotickImpl::clockPeriod(std::int32_t channel) const {
  auto it = locations.find(channel);
  return devices[it == locations.end() ? 0 : it->second.device]->fpga->clockPeriodPs();
}

std::vector<double> ChronotickImpl::dacRange() const {
  if (devices.front()->fpga->model() == CT20)
    return {0.0, 2.5};
  return {-2.5, 2.5};
}

std::vector<std::int32_t> ChronotickImpl::channelListLocked() const {
  std::vector<std::int32_t> list;
  for (const auto &d : devices)
    for (std::size_t slot = 0; slot < d->slot_channels.size(); slot += 2)
      if (d->slot_channels[slot] != CHANNEL_UNUSED)
        list.push_back(d->slot_channels[slot]);
  return list;
}

std::int32_t ChronotickImpl::getInvertedChannel(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return invertedLocked(channel);
}

bool ChronotickImpl::isUnusedChannel(std::int32_t channel) {
  // -1 is a channel in the ONE scheme (a falling edge), and none in ZERO.
  return channel == CHANNEL_UNUSED || (channel == -1 && scheme == CT_CHANNEL_NUMBER_SCHEME_ZERO);
}

std::int32_t ChronotickImpl::getNewVirtualChannel() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return next_virtual_channel++;
}

void ChronotickImpl::registerChannel(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (ChannelConfig *config = find(channel)) {
    if (++config->registeredCount == 1)
      markDirty(channel);
  } else if (channel < 1 || channel >= next_virtual_channel) {
    CT_WARNING("Tried to register an unknown channel");
  }
}

void ChronotickImpl::unregisterChannel(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (ChannelConfig *config = find(channel)) {
    if (config->registeredCount > 0 && --config->registeredCount == 0)
      markDirty(channel);
  } else if (channel < 1 || channel >= next_virtual_channel) {
    CT_WARNING("Tried to unregister an unknown channel");
  }
}

void ChronotickImpl::setInputDelay(std::int32_t channel, std::int64_t delay) {
  std::lock_guard<std::mutex> guard(config_mutex);
  ChannelConfig *config = find(channel);
  if (!config) {
    CT_WARNING("Tried to set the input delay of an unknown channel");
    return;
  }
  config->inputDelay = delay;
  markDirty(channel);
  recomputeMinInputDelay();
}

std::int64_t ChronotickImpl::getInputDelay(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  const ChannelConfig *config = find(channel);
  if (!config) {
    CT_WARNING("Tried to get the input delay of an unknown channel");
    return 0;
  }
  return config->inputDelay;
}

std::int64_t ChronotickImpl::setDeadtime(std::int32_t channel, std::int64_t deadtime) {
  std::lock_guard<std::mutex> guard(config_mutex);
  ChannelConfig *config = find(channel);
  if (!config) {
    CT_WARNING("Tried to configure the deadtime for an unknown channel");
    return 0;
  }
  const std::int64_t period = clockPeriod(channel);
  // Rounded to whole cycles; the board needs at least one.
  const std::int64_t cycles =
      std::clamp<std::int64_t>((period / 2 + deadtime) / std::max<std::int64_t>(period, 1), 1, 65535);
  config->deadtimeCycles = std::uint16_t(cycles);
  markDirty(channel);
  return cycles * period;
}

std::int64_t ChronotickImpl::getDeadtime(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  const ChannelConfig *config = find(channel);
  if (!config) {
    CT_WARNING("Tried to query the deadtime for an unknown channel");
    return 0;
  }
  return std::int64_t(config->deadtimeCycles) * clockPeriod(channel);
}

void ChronotickImpl::setTestSignal(std::vector<std::int32_t> channels, bool enable) {
  for (std::int32_t channel : channels)
    setTestSignal(channel, enable);
}

void ChronotickImpl::setTestSignal(std::int32_t channel, bool enable) {
  std::lock_guard<std::mutex> guard(config_mutex);
  ChannelConfig *config = findInput(channel);
  if (!config) {
    CT_WARNING("Tried to set the test signal of an unknown channel");
    return;
  }
  config->inputMux = enable ? 3 : 0;
  markDirty(channel);
}

bool ChronotickImpl::getTestSignal(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  const ChannelConfig *config = findInput(channel);
  if (!config) {
    CT_WARNING("Tried to query the test signal of an unknown channel");
    return false;
  }
  return config->inputMux == 3;
}

void ChronotickImpl::setTriggerLevel(std::int32_t channel, double voltage) {
  std::lock_guard<std::mutex> guard(config_mutex);
  ChannelConfig *config = findInput(channel);
  if (!config) {
    CT_WARNING("Tried to configure the trigger level for an unknown channel");
    return;
  }
  const std::vector<double> range = dacRange();
  config->triggerLevelCode = levelCode(voltage, range[0], range[1]);
  markDirty(channel);
}

double ChronotickImpl::getTriggerLevel(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  const ChannelConfig *config = findInput(channel);
  if (!config) {
    CT_WARNING("Tried to fetch the trigger level for an unknown channel");
    return 0;
  }
  const std::vector<double> range = dacRange();
  return double(config->triggerLevelCode) * (range[1] - range[0]) / 65535.0 + range[0];
}

std::int64_t ChronotickImpl::getHardwareDelayCompensation(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!hardware_delay_compensation)
    return 0;
  if (!find(channel)) {
    CT_WARNING("Tried to get the hardware delay compensation of an unknown channel");
    return 0;
  }
  return compensationOf(channel);
}

void ChronotickImpl::setInputMux(std::int32_t channel, std::int32_t mux_mode) {
  std::lock_guard<std::mutex> guard(config_mutex);
  ChannelConfig *config = findInput(channel);
  if (!config) {
    CT_WARNING("Tried to set the input multiplexer of an unknown channel");
    return;
  }
  config->inputMux = mux_mode;
  markDirty(channel);
}

std::int32_t ChronotickImpl::getInputMux(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  const ChannelConfig *config = findInput(channel);
  if (!config) {
    CT_WARNING("Tried to get the input multiplexer of an unknown channel");
    return 0;
  }
  return config->inputMux;
}

void ChronotickImpl::setEventDivider(std::int32_t channel, std::uint32_t divider) {
  std::lock_guard<std::mutex> guard(config_mutex);
  ChannelConfig *config = find(channel);
  if (!config) {
    CT_WARNING("Tried to configure the event divider for an unknown channel");
    return;
  }
  config->eventDivider = std::uint16_t(std::min<std::uint32_t>(divider, 65535));
  markDirty(channel);
}

std::uint32_t ChronotickImpl::getEventDivider(std::int32_t channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  const ChannelConfig *config = find(channel);
  if (!config) {
    CT_WARNING("Tried to query the event divider for an unknown channel");
    return 0;
  }
  return config->eventDivider;
}

void ChronotickImpl::setConditionalFilter(std::vector<std::int32_t> trigger, std::vector<std::int32_t> filtered,
                                          bool hardwareDelayCompensation) {
  std::lock_guard<std::mutex> guard(config_mutex);
  // The filter acts per board: each board that takes part needs both kinds.
  std::vector<int> triggers(devices.size(), 0), filters(devices.size(), 0);
  for (const std::vector<std::int32_t> *list : {&trigger, &filtered}) {
    for (std::int32_t channel : *list) {
      if (channel == CHANNEL_UNUSED)
        continue;
      auto it = locations.find(channel);
      if (it == locations.end())
        throw std::invalid_argument("Tried to configure the conditional filter for the unknown channel " +
                                    std::to_string(channel));
      ++(list == &trigger ? triggers : filters)[it->second.device];
    }
  }
  std::size_t taking_part = 0;
  for (std::size_t i = 0; i < devices.size(); ++i)
    taking_part += (triggers[i] || filters[i]) ? 1 : 0;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    if ((triggers[i] == 0) != (filters[i] == 0)) {
      std::string text = "The conditional filter on device " + devices[i]->fpga->serial() +
                         " requires at least one trigger and at least one filtered channel.";
      if (taking_part > 1)
        text += " The conditional filter is applied per hardware unit, not for the synchronized Chronotick.";
      throw std::invalid_argument(text);
    }
  }
  for (auto &[channel, config] : configs) {
    config.isTrigger = std::find(trigger.begin(), trigger.end(), channel) != trigger.end();
    config.isFiltered = std::find(filtered.begin(), filtered.end(), channel) != filtered.end();
  }
  hardware_delay_compensation = hardwareDelayCompensation;
  markDirty(CHANNEL_UNUSED);
}

void ChronotickImpl::clearConditionalFilter() {
  setConditionalFilter({}, {}, true);
}

std::vector<std::int32_t> ChronotickImpl::getConditionalFilterTrigger() {
  std::lock_guard<std::mutex> guard(config_mutex);
  std::vector<std::int32_t> channels;
  for (const auto &[channel, config] : configs)
    if (config.isTrigger)
      channels.push_back(channel);
  return channels;
}

std::vector<std::int32_t> ChronotickImpl::getConditionalFilterFiltered() {
  std::lock_guard<std::mutex> guard(config_mutex);
  std::vector<std::int32_t> channels;
  for (const auto &[channel, config] : configs)
    if (config.isFiltered)
      channels.push_back(channel);
  return channels;
}

// Common settings

void ChronotickImpl::setTestSignalDivider(std::int32_t divider) {
  if (divider < 1)
    throw std::invalid_argument("divider must be at least 1");
  std::lock_guard<std::mutex> guard(config_mutex);
  test_signal_divider = divider;
  markDirty(CHANNEL_UNUSED);
}

std::int32_t ChronotickImpl::getTestSignalDivider() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return test_signal_divider;
}

void ChronotickImpl::setNormalization(bool state) {
  // Held by every decoder, so that no block is decoded half one way.
  std::vector<std::unique_lock<std::mutex>> held;
  for (auto &d : devices)
    held.emplace_back(d->decode_mutex);
  normalization = state;
}

bool ChronotickImpl::getNormalization() {
  return normalization.load();
}

void ChronotickImpl::setHardwareBufferSize(std::int32_t size) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (devices.front()->fpga->model() == CT20) {
    CT_WARNING("Chronotick 20 does not support variable hardware buffer sizes.");
    return;
  }
  hardware_buffer_size = std::clamp<std::int32_t>(size, 32768, 0x20000000);
  markDirty(CHANNEL_UNUSED);
}

std::int32_t ChronotickImpl::getHardwareBufferSize() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return hardware_buffer_size;
}

void ChronotickImpl::setStreamBlockSize(std::int32_t max_events, std::int32_t max_latency) {
  if (max_latency < 1 || max_latency > 10000)
    throw std::invalid_argument("max_latency must be between 1 millisecond and 10 seconds");
  // The upper limit is 32 * 2^20, the message rounds it.
  if (max_events < board::PIPE_BLOCK_BYTES / 4 || max_events > 32 * (1 << 20))
    throw std::invalid_argument("max_events must be between 256 and 32*10^6 events");
  std::lock_guard<std::mutex> guard(config_mutex);
  stream_block_events = max_events;
  stream_block_latency_ms = max_latency;
}

std::int32_t ChronotickImpl::getStreamBlockSizeEvents() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return stream_block_events;
}

std::int32_t ChronotickImpl::getStreamBlockSizeLatency() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return stream_block_latency_ms;
}

void ChronotickImpl::setLED(std::uint32_t bitmask) {
  std::lock_guard<std::mutex> guard(config_mutex);
  led_bitmask = bitmask;
  markDirty(CHANNEL_UNUSED);
}

// Board facts

std::string ChronotickImpl::getSerial() {
  std::lock_guard<std::mutex> guard(config_mutex);
  std::string text;
  for (const auto &d : devices)
    text += (text.empty() ? "" : ", ") + d->fpga->serial();
  return text;
}

std::string ChronotickImpl::getModel() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return devices.front()->fpga->model();
}

std::int32_t ChronotickImpl::getChannelNumberScheme() {
  return scheme;
}

std::vector<double> ChronotickImpl::getDacRange() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return dacRange();
}

std::vector<std::int32_t> ChronotickImpl::getChannelList() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return channelListLocked();
}

std::int64_t ChronotickImpl::getPsPerClock() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return devices.empty() ? 0 : devices.front()->fpga->clockPeriodPs();
}

std::string ChronotickImpl::getPcbVersion() {
  std::lock_guard<std::mutex> guard(config_mutex);
  std::string text;
  for (const auto &d : devices)
    text += (text.empty() ? "" : ", ") + d->fpga->pcbVersion();
  return text;
}

std::string ChronotickImpl::getFirmwareVersion() {
  std::lock_guard<std::mutex> guard(config_mutex);
  std::string text;
  for (const auto &d : devices)
    text += (text.empty() ? "" : ", ") + d->fpga->version();
  return text;
}

std::string ChronotickImpl::getSensorData() {
  std::string text;
  for (auto &d : devices) {
    // Waits for a read under way, so that the wire-outs match the stream.
    std::lock_guard<std::mutex> transfer(d->transfer_mutex);
    std::lock_guard<std::mutex> link(d->link_mutex);
    text += d->fpga->sensorReport();
  }
  return text;
}

std::uint32_t ChronotickImpl::factoryAccess(std::uint32_t pw, std::uint32_t addr, std::uint32_t data,
                                            std::uint32_t mask) {
  if (pw != FACTORY_ACCESS_CODE)
    throw std::invalid_argument("Wrong factory access code.");
  if (addr > 0x3F)
    throw std::invalid_argument("Factory access address out of range.");
  Device &d = *devices.front();
  std::lock_guard<std::mutex> transfer(d.transfer_mutex);
  std::lock_guard<std::mutex> link(d.link_mutex);
  if (addr >= 0x20)
    return d.fpga->readWireOut(int(addr)) & mask;
  // Wire-ins can't be read back: the bits outside the mask are written as zero.
  if (mask != 0) {
    d.fpga->wireIn(int(addr), data & mask);
    d.fpga->updateWireIns();
  }
  return data & mask;
}

// Calibration

void ChronotickImpl::autoCalibration(std::function<double *(std::size_t)> array_out) {
  if (!array_out)
    throw std::bad_function_call();
  std::vector<std::int32_t> channels;
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    for (const auto &[channel, config] : configs)
      channels.push_back(channel);
  }
  std::map<std::int32_t, bool> saved;
  for (std::int32_t channel : channels) {
    registerChannel(channel);
    bool has_input;
    {
      std::lock_guard<std::mutex> guard(config_mutex);
      has_input = find(channel)->hasInput;
    }
    if (has_input) {
      saved[channel] = getTestSignal(channel);
      setTestSignal(channel, true);
    }
  }
  sync();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));

  std::vector<std::int64_t> counts;
  std::size_t rows = 0, length = 0;
  getDistributionCount([&](std::size_t n, std::size_t bins) {
    rows = n;
    length = bins;
    counts.assign(n * bins, 0);
    return counts.data();
  });
  std::vector<std::int32_t> list;
  std::vector<std::int64_t> periods;
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    list = channelListLocked();
    for (std::int32_t channel : list)
      periods.push_back(clockPeriod(channel));
  }
  double *out = array_out(list.size());
  for (std::size_t row = 0; row < list.size(); ++row) {
    double n = 0, s = 0;
    for (std::size_t i = 0; row < rows && i < length; ++i) {
      const double c = double(counts[row * length + i]);
      n += c;
      s += c * c * c;
    }
    // Bin i is period * c_i / N wide and holds c_i / N of the events, each
    // with a quantization variance of width^2 / 12.
    out[row] = length == 0 || n == 0 ? -1.0 : double(periods[row]) * std::sqrt(s / (n * 12.0)) / n;
  }

  for (std::int32_t channel : channels) {
    unregisterChannel(channel);
    auto it = saved.find(channel);
    if (it != saved.end())
      setTestSignal(channel, it->second);
  }
}

void ChronotickImpl::getDistributionCount(std::function<std::int64_t *(std::size_t, std::size_t)> array_out) {
  distribution(array_out, [](const FineBin *fine, std::size_t bins, std::size_t i) {
    return i < bins ? std::int64_t(fine[i].count) : 0;
  });
}

void ChronotickImpl::getDistributionPSecs(std::function<std::int64_t *(std::size_t, std::size_t)> array_out) {
  // Past this board's own bins: its sentinel, the end of the cycle.
  distribution(array_out, [](const FineBin *fine, std::size_t bins, std::size_t i) {
    return std::int64_t(fine[std::min(i, bins)].start_ps);
  });
}

// One row per channel of getChannelList, as long as the longest delay line
// of the boards; each row read under its board's decode lock.
void ChronotickImpl::distribution(const std::function<std::int64_t *(std::size_t, std::size_t)> &array_out,
                                  std::int64_t (*value)(const FineBin *, std::size_t, std::size_t)) {
  if (!array_out)
    throw std::bad_function_call();
  std::vector<ChannelLocation> rows;
  std::size_t length = 0;
  {
    std::lock_guard<std::mutex> guard(config_mutex);
    for (std::int32_t channel : channelListLocked())
      rows.push_back(locations.at(channel));
    for (const auto &d : devices)
      length = std::max(length, std::size_t(std::max(d->fpga->binCount(), 0)));
  }
  std::int64_t *out = array_out(rows.size(), length);
  for (std::size_t row = 0; row < rows.size(); ++row) {
    Device &d = *devices[rows[row].device];
    std::lock_guard<std::mutex> guard(d.decode_mutex);
    const std::size_t bins = std::size_t(std::max(d.state.bin_count, 0));
    const FineBin *fine = d.state.binsOf(rows[row].slot);
    for (std::size_t i = 0; i < length; ++i)
      out[row * length + i] = value(fine, bins, i);
  }
}

// Overflows

std::int64_t ChronotickImpl::getOverflows() {
  std::int64_t sum = 0;
  for (auto &d : devices) {
    std::lock_guard<std::mutex> guard(d->decode_mutex);
    sum += d->state.overflow_count;
  }
  return sum;
}

void ChronotickImpl::clearOverflows() {
  for (auto &d : devices) {
    std::lock_guard<std::mutex> guard(d->decode_mutex);
    d->state.overflow_count = 0;
  }
}

std::int64_t ChronotickImpl::getOverflowsAndClear() {
  std::int64_t sum = 0;
  for (auto &d : devices) {
    std::lock_guard<std::mutex> guard(d->decode_mutex);
    sum += d->state.overflow_count;
    d->state.overflow_count = 0;
  }
  return sum;
}

// Configuration text

std::string ChronotickImpl::getConfiguration() {
  char now[64] = "";
  const std::time_t t = std::time(nullptr);
  std::tm local{};
  if (localtime_r(&t, &local))
    std::strftime(now, sizeof(now), "%F %T %z", &local);

  const std::string serial = getSerial();
  const std::string firmware = getFirmwareVersion();
  std::lock_guard<std::mutex> guard(config_mutex);
  std::vector<std::int32_t> registered;
  for (const auto &[channel, config] : configs)
    if (config.registeredCount > 0)
      registered.push_back(channel);

  std::ostringstream out;
  out << "{\n";
  out << "  \"current time\": \"" << now << "\",\n";
  out << "  \"software version\": \"" << getVersion() << "\",\n";
  out << "  \"registered channels\": [" << joinNumbers(registered) << "],\n";
  out << "  \"serial\": \"" << serial << "\",\n";
  out << "  \"firmware version\": \"" << firmware << "\",\n";
  out << "  \"hardware buffer size\": " << hardware_buffer_size << ",\n";
  out << "  \"normalization\": " << (normalization.load() ? "true" : "false") << ",\n";
  out << "  \"test signal divider\": " << test_signal_divider << ",\n";
  out << "  \"channel number scheme\": " << scheme << ",\n";
  out << "  \"led bitmask\": " << led_bitmask << ",\n";
  out << "  \"stream block size events\": " << stream_block_events << ",\n";
  out << "  \"stream block size latency\": " << stream_block_latency_ms << ",\n";
  out << "  \"devices\": [\n";
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const ChronotickFPGA &fpga = *devices[i]->fpga;
    out << "    {\n";
    out << "      \"serial\": \"" << fpga.serial() << "\",\n";
    out << "      \"model\": \"" << fpga.model() << "\",\n";
    out << "      \"resolution\": " << fpga.resolution() << ",\n";
    out << "      \"PCB version\": \"" << fpga.pcbVersion() << "\"\n";
    out << "    }" << (i + 1 < devices.size() ? ",\n" : "\n");
  }
  out << "  ],\n";
  out << "  \"inputs\": [\n";
  const std::vector<std::int32_t> inputs = channelListLocked();
  const std::vector<double> range = dacRange();
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const std::int32_t a = inputs[i];
    const std::int32_t b = invertedLocked(a);
    const ChannelConfig &ca = configs.at(a);
    const ChannelConfig &cb = configs.at(b);
    const std::int64_t period = clockPeriod(a);
    const std::int64_t compensation = hardware_delay_compensation ? compensationOf(a) : 0;
    out << "    {\n";
    out << "      \"channel\": " << valuePair(a, b);
    out << "      \"trigger level\": " << double(ca.triggerLevelCode) * (range[1] - range[0]) / 65535.0 + range[0]
        << ",\n";
    out << "      \"input delay\": " << valuePair(ca.inputDelay, cb.inputDelay);
    out << "      \"hardware delay compensation\": " << valuePair(compensation, compensation);
    out << "      \"deadtime\": " << valuePair(ca.deadtimeCycles * period, cb.deadtimeCycles * period);
    out << "      \"event divider\": " << valuePair(ca.eventDivider, cb.eventDivider);
    out << "      \"conditional filter filtered\": " << valuePair(ca.isFiltered, cb.isFiltered);
    out << "      \"conditional filter triggers\": " << valuePair(ca.isTrigger, cb.isTrigger);
    out << "      \"input mux\": " << ca.inputMux << "\n";
    out << "    }" << (i + 1 < inputs.size() ? ",\n" : "\n");
  }
  out << "  ]\n";
  out << "}\n";
  return out.str();
}

} // namespace chronotick
