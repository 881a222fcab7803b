#include <chronotick/Simulation.h>

#include "device/DeviceLink.h"
#include "simulation/BoardRegistry.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace chronotick {
namespace simulation {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<std::shared_ptr<SimulatedBoard>> boards; // in the order added
  std::uint32_t made_up = 0;
};

Registry &registry() {
  static Registry r;
  return r;
}

std::shared_ptr<SimulatedBoard> findLocked(Registry &r, const std::string &serial) {
  for (const auto &b : r.boards) {
    if (serial.empty() || b->serial() == serial)
      return b;
  }
  return nullptr;
}

std::shared_ptr<SimulatedBoard> required(const std::string &serial) {
  auto b = serial.empty() ? nullptr : findBoard(serial);
  if (!b)
    throw std::invalid_argument("There is no simulated board with the serial '" + serial + "'.");
  return b;
}

} // namespace

std::shared_ptr<SimulatedBoard> findBoard(const std::string &serial) {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  return findLocked(r, serial);
}

std::string addBoard(const BoardSpec &spec) {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  BoardSpec s = spec;
  if (s.serial.empty()) {
    // Present-day production: the host takes serials that start below 1710 for retired boards.
    do {
      char text[16];
      std::snprintf(text, sizeof(text), "24470%05X", ++r.made_up & 0xFFFFF);
      s.serial = text;
    } while (findLocked(r, s.serial));
  } else if (findLocked(r, s.serial)) {
    throw std::invalid_argument("A simulated board with the serial '" + s.serial + "' exists already.");
  }
  r.boards.push_back(std::make_shared<SimulatedBoard>(s));
  return s.serial;
}

void removeBoard(const std::string &serial) {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  const auto it = std::find_if(r.boards.begin(), r.boards.end(), [&](const auto &b) { return b->serial() == serial; });
  if (it == r.boards.end())
    return;
  (*it)->unplug();
  r.boards.erase(it);
}

void removeAllBoards() {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  for (const auto &b : r.boards)
    b->unplug();
  r.boards.clear();
}

std::vector<std::string> listBoards() {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  std::vector<std::string> serials;
  for (const auto &b : r.boards)
    serials.push_back(b->serial());
  return serials;
}

Signal Signal::poisson(double rate_per_second) {
  Signal s;
  s.kind = Kind::Poisson;
  s.rate = rate_per_second;
  return s;
}

Signal Signal::periodic(std::int64_t period_ps, std::int64_t jitter_ps) {
  Signal s;
  s.kind = Kind::Periodic;
  s.period = period_ps;
  s.jitter = jitter_ps;
  return s;
}

Signal Signal::fluorescence(int source_input, double probability_, std::int64_t lifetime_ps, std::int64_t delay_ps) {
  Signal s;
  s.kind = Kind::Fluorescence;
  s.source = source_input;
  s.probability = probability_;
  s.lifetime = lifetime_ps;
  s.delay = delay_ps;
  return s;
}

Signal Signal::copy(int source_input, std::int64_t delay_ps, std::int64_t jitter_ps) {
  Signal s;
  s.kind = Kind::Copy;
  s.source = source_input;
  s.delay = delay_ps;
  s.jitter = jitter_ps;
  return s;
}

void setSignal(const std::string &serial, int input, const Signal &signal) {
  required(serial)->setSignal(input, signal);
}

void setRealTime(const std::string &serial, bool real_time) {
  required(serial)->setRealTime(real_time);
}

void setBandwidth(const std::string &serial, double words_per_second) {
  required(serial)->setBandwidth(words_per_second);
}

void injectFault(const std::string &serial, Fault fault, int count) {
  required(serial)->injectFault(fault, count);
}

void clearFaults(const std::string &serial) {
  required(serial)->clearFaults();
}

BoardTruth getTruth(const std::string &serial) {
  return required(serial)->truth();
}

} // namespace simulation

namespace {

// A link that finds its board in the registry when it opens; an unplugged
// board fails every operation from then on.
class SimulatedLink final : public DeviceLink {
public:
  int openBySerial(const std::string &serial) override {
    auto found = simulation::findBoard(serial);
    if (!found)
      return link::FAILED;
    const int result = found->openBySerial(serial);
    board = result == link::NO_ERROR ? found : nullptr;
    return result;
  }
  bool isOpen() const override { return board && board->isOpen(); }
  void close() override {
    if (board)
      board->close();
    board.reset();
  }
  int getDeviceInfo(DeviceInfo &info) override { return board ? board->getDeviceInfo(info) : link::DEVICE_NOT_OPEN; }
  int getBoardModel() override { return board ? board->getBoardModel() : 0; }
  std::string getSerialNumber() override { return board ? board->getSerialNumber() : std::string(); }
  int configureFpga(const std::string &path) override {
    return board ? board->configureFpga(path) : link::DEVICE_NOT_OPEN;
  }
  int setPllConfiguration(const PllConfiguration &pll) override {
    return board ? board->setPllConfiguration(pll) : link::DEVICE_NOT_OPEN;
  }
  int setWireInValue(int address, std::uint32_t value, std::uint32_t mask) override {
    return board ? board->setWireInValue(address, value, mask) : link::DEVICE_NOT_OPEN;
  }
  int getWireInValue(int address, std::uint32_t &value) override {
    return board ? board->getWireInValue(address, value) : link::DEVICE_NOT_OPEN;
  }
  int updateWireIns() override { return board ? board->updateWireIns() : link::DEVICE_NOT_OPEN; }
  int updateWireOuts() override { return board ? board->updateWireOuts() : link::DEVICE_NOT_OPEN; }
  std::uint32_t getWireOutValue(int address) override { return board ? board->getWireOutValue(address) : 0; }
  int activateTriggerIn(int address, int bit) override {
    return board ? board->activateTriggerIn(address, bit) : link::DEVICE_NOT_OPEN;
  }
  long writeToPipeIn(int address, const std::uint8_t *data, long length) override {
    return board ? board->writeToPipeIn(address, data, length) : link::DEVICE_NOT_OPEN;
  }
  long readFromBlockPipeOut(int address, int block_size, std::uint8_t *data, long length) override {
    return board ? board->readFromBlockPipeOut(address, block_size, data, length) : link::DEVICE_NOT_OPEN;
  }
  int writeRegister(std::uint32_t address, std::uint32_t value) override {
    return board ? board->writeRegister(address, value) : link::DEVICE_NOT_OPEN;
  }
  int readRegister(std::uint32_t address, std::uint32_t &value) override {
    return board ? board->readRegister(address, value) : link::DEVICE_NOT_OPEN;
  }
  int getDeviceSensors(std::vector<BoardSensor> &sensors) override {
    return board ? board->getDeviceSensors(sensors) : link::DEVICE_NOT_OPEN;
  }

private:
  std::shared_ptr<simulation::SimulatedBoard> board;
};

class SimulatedLinkProvider final : public DeviceLinkProvider {
public:
  bool available() const override { return true; }
  std::vector<Listed> list() override {
    std::vector<Listed> boards;
    for (const std::string &serial : simulation::listBoards()) {
      if (auto b = simulation::findBoard(serial))
        boards.push_back({serial, b->boardModelNumber()});
    }
    return boards;
  }
  std::unique_ptr<DeviceLink> makeLink() override { return std::make_unique<SimulatedLink>(); }
};

} // namespace

DeviceLinkProvider &simulatedLinkProvider() {
  static SimulatedLinkProvider provider;
  return provider;
}

} // namespace chronotick
