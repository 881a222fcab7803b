// Stands in for the board vendor's USB library in tests: its C entry points,
// served by simulated boards of its own copy of the simulator. The boards come
// from CT_STANDIN_BOARDS="MODEL:SERIAL[,MODEL:SERIAL...]", read on first use,
// and run free (no waiting for real time).

#include "device/DeviceLink.h"
#include "device/VendorUsbLibrary.h"

#include <chronotick/Simulation.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#define STANDIN_EXPORT extern "C" __attribute__((visibility("default")))

using namespace chronotick;

namespace {

DeviceLinkProvider &boards() {
  static std::once_flag once;
  std::call_once(once, [] {
    const char *env = std::getenv("CT_STANDIN_BOARDS");
    std::string list = env ? env : "";
    std::size_t begin = 0;
    while (begin < list.size()) {
      std::size_t end = list.find(',', begin);
      if (end == std::string::npos)
        end = list.size();
      const std::string item = list.substr(begin, end - begin);
      const std::size_t colon = item.find(':');
      if (colon != std::string::npos) {
        simulation::BoardSpec spec;
        spec.model = item.substr(0, colon);
        spec.serial = item.substr(colon + 1);
        if (spec.model == "CT-20")
          spec.hardware_version = 2; // the last PCB of that model
        // Free running: a test reads at once instead of waiting for real time.
        simulation::setRealTime(simulation::addBoard(spec), false);
      }
      begin = end + 1;
    }
  });
  return simulatedLinkProvider();
}

struct Device {
  std::vector<DeviceLinkProvider::Listed> listed;
  std::unique_ptr<DeviceLink> link;
};

struct Sensors {
  std::vector<BoardSensor> list;
};

void copySerial(const std::string &serial, char *buffer, std::size_t size) {
  // Cut to the caller's buffer, as the library does.
  const std::size_t n = std::min(serial.size(), size - 1);
  std::memcpy(buffer, serial.data(), n);
  buffer[n] = 0;
}

// Entry points on a device that isn't open fail like the library's do.
DeviceLink *linkOf(void *handle) {
  auto *device = static_cast<Device *>(handle);
  return device && device->link && device->link->isOpen() ? device->link.get() : nullptr;
}

} // namespace

STANDIN_EXPORT void *okFrontPanel_Construct() {
  boards();
  return new Device;
}
STANDIN_EXPORT void okFrontPanel_Destruct(void *handle) {
  delete static_cast<Device *>(handle);
}

STANDIN_EXPORT int okFrontPanel_GetDeviceCount(void *handle) {
  auto *device = static_cast<Device *>(handle);
  device->listed = boards().list();
  return static_cast<int>(device->listed.size());
}
STANDIN_EXPORT void okFrontPanel_GetDeviceListSerial(void *handle, int index, char *buffer) {
  auto *device = static_cast<Device *>(handle);
  const bool known = index >= 0 && std::size_t(index) < device->listed.size();
  copySerial(known ? device->listed[std::size_t(index)].serial : "", buffer, 11);
}
STANDIN_EXPORT int okFrontPanel_GetDeviceListModel(void *handle, int index) {
  auto *device = static_cast<Device *>(handle);
  return index >= 0 && std::size_t(index) < device->listed.size() ? device->listed[std::size_t(index)].board_model : 0;
}

STANDIN_EXPORT int okFrontPanel_OpenBySerial(void *handle, const char *serial) {
  auto *device = static_cast<Device *>(handle);
  device->link = boards().makeLink();
  return device->link ? device->link->openBySerial(serial ? serial : "") : link::FAILED;
}
STANDIN_EXPORT int okFrontPanel_IsOpen(void *handle) {
  return linkOf(handle) != nullptr;
}
STANDIN_EXPORT void okFrontPanel_Close(void *handle) {
  if (DeviceLink *l = linkOf(handle))
    l->close();
}
STANDIN_EXPORT void okFrontPanel_GetSerialNumber(void *handle, char *buffer) {
  DeviceLink *l = linkOf(handle);
  copySerial(l ? l->getSerialNumber() : "", buffer, 11);
}
STANDIN_EXPORT int okFrontPanel_GetBoardModel(void *handle) {
  DeviceLink *l = linkOf(handle);
  return l ? l->getBoardModel() : 0;
}
STANDIN_EXPORT int okFrontPanel_GetDeviceInfoWithSize(void *handle, void *record, unsigned size) {
  DeviceLink *l = linkOf(handle);
  if (!l)
    return link::DEVICE_NOT_OPEN;
  if (size != vendor::DEVICE_INFO_BYTES)
    return link::FAILED;
  DeviceInfo info;
  const int rc = l->getDeviceInfo(info);
  auto *bytes = static_cast<unsigned char *>(record);
  std::memset(bytes, 0, size);
  copySerial(info.serial, reinterpret_cast<char *>(bytes + vendor::INFO_SERIAL), vendor::INFO_SERIAL_BYTES);
  const std::int32_t fields[][2] = {{vendor::INFO_MAJOR_VERSION, info.device_major_version},
                                    {vendor::INFO_MINOR_VERSION, info.device_minor_version},
                                    {vendor::INFO_BOARD_MODEL, info.board_model},
                                    {vendor::INFO_USB_SPEED, info.usb_speed}};
  for (const auto &field : fields)
    std::memcpy(bytes + field[0], &field[1], sizeof(std::int32_t));
  return rc;
}
STANDIN_EXPORT int okFrontPanel_GetDeviceMajorVersion(void *handle) {
  DeviceInfo info;
  DeviceLink *l = linkOf(handle);
  return l && l->getDeviceInfo(info) == link::NO_ERROR ? info.device_major_version : 0;
}
STANDIN_EXPORT int okFrontPanel_GetDeviceMinorVersion(void *handle) {
  DeviceInfo info;
  DeviceLink *l = linkOf(handle);
  return l && l->getDeviceInfo(info) == link::NO_ERROR ? info.device_minor_version : 0;
}
STANDIN_EXPORT int okFrontPanel_ConfigureFPGA(void *handle, const char *path) {
  DeviceLink *l = linkOf(handle);
  return l ? l->configureFpga(path) : link::DEVICE_NOT_OPEN;
}

STANDIN_EXPORT void *okPLL22150_Construct() {
  return new PllConfiguration;
}
STANDIN_EXPORT void okPLL22150_Destruct(void *pll) {
  delete static_cast<PllConfiguration *>(pll);
}
STANDIN_EXPORT int okPLL22150_SetVCOParameters(void *pll, int p, int q) {
  static_cast<PllConfiguration *>(pll)->vco_p = p;
  static_cast<PllConfiguration *>(pll)->vco_q = q;
  return 1;
}
STANDIN_EXPORT void okPLL22150_SetDiv1(void *pll, int source, int value) {
  static_cast<PllConfiguration *>(pll)->div1_source = source;
  static_cast<PllConfiguration *>(pll)->div1_value = value;
}
STANDIN_EXPORT void okPLL22150_SetOutputSource(void *pll, int output, int source) {
  if (output >= 0 && output < 6)
    static_cast<PllConfiguration *>(pll)->outputs[output].source = source;
}
STANDIN_EXPORT void okPLL22150_SetOutputEnable(void *pll, int output, int enable) {
  if (output >= 0 && output < 6)
    static_cast<PllConfiguration *>(pll)->outputs[output].enabled = enable != 0;
}
STANDIN_EXPORT int okFrontPanel_SetPLL22150Configuration(void *handle, void *pll) {
  DeviceLink *l = linkOf(handle);
  return l ? l->setPllConfiguration(*static_cast<PllConfiguration *>(pll)) : link::DEVICE_NOT_OPEN;
}

STANDIN_EXPORT int okFrontPanel_SetWireInValue(void *handle, int address, unsigned long value, unsigned long mask) {
  DeviceLink *l = linkOf(handle);
  return l ? l->setWireInValue(address, std::uint32_t(value), std::uint32_t(mask)) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT int okFrontPanel_GetWireInValue(void *handle, int address, std::uint32_t *value) {
  DeviceLink *l = linkOf(handle);
  return l ? l->getWireInValue(address, *value) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT int okFrontPanel_UpdateWireIns(void *handle) {
  DeviceLink *l = linkOf(handle);
  return l ? l->updateWireIns() : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT int okFrontPanel_UpdateWireOuts(void *handle) {
  DeviceLink *l = linkOf(handle);
  return l ? l->updateWireOuts() : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT unsigned long okFrontPanel_GetWireOutValue(void *handle, int address) {
  DeviceLink *l = linkOf(handle);
  return l ? l->getWireOutValue(address) : 0;
}
STANDIN_EXPORT int okFrontPanel_ActivateTriggerIn(void *handle, int address, int bit) {
  DeviceLink *l = linkOf(handle);
  return l ? l->activateTriggerIn(address, bit) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT long okFrontPanel_WriteToPipeIn(void *handle, int address, long length, unsigned char *data) {
  DeviceLink *l = linkOf(handle);
  return l ? l->writeToPipeIn(address, data, length) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT long okFrontPanel_ReadFromBlockPipeOut(void *handle, int address, int block_size, long length,
                                                      unsigned char *data) {
  DeviceLink *l = linkOf(handle);
  return l ? l->readFromBlockPipeOut(address, block_size, data, length) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT int okFrontPanel_WriteRegister(void *handle, std::uint32_t address, std::uint32_t value) {
  DeviceLink *l = linkOf(handle);
  return l ? l->writeRegister(address, value) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT int okFrontPanel_ReadRegister(void *handle, std::uint32_t address, std::uint32_t *value) {
  DeviceLink *l = linkOf(handle);
  return l ? l->readRegister(address, *value) : link::DEVICE_NOT_OPEN;
}

STANDIN_EXPORT void *okDeviceSensors_Construct() {
  return new Sensors;
}
STANDIN_EXPORT void okDeviceSensors_Destruct(void *sensors) {
  delete static_cast<Sensors *>(sensors);
}
STANDIN_EXPORT int okFrontPanel_GetDeviceSensors(void *handle, void *sensors) {
  DeviceLink *l = linkOf(handle);
  return l ? l->getDeviceSensors(static_cast<Sensors *>(sensors)->list) : link::DEVICE_NOT_OPEN;
}
STANDIN_EXPORT int okDeviceSensors_GetSensorCount(void *sensors) {
  return static_cast<int>(static_cast<Sensors *>(sensors)->list.size());
}
STANDIN_EXPORT vendor::SensorRecord okDeviceSensors_GetSensor(void *sensors, int index) {
  vendor::SensorRecord record{};
  const auto &list = static_cast<Sensors *>(sensors)->list;
  if (index >= 0 && std::size_t(index) < list.size()) {
    record.id = index;
    copySerial(list[std::size_t(index)].name, record.name, sizeof(record.name));
    record.value = list[std::size_t(index)].value;
  }
  return record;
}
