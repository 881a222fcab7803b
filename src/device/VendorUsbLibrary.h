#pragma once

// The parts of the board vendor's USB library's binary interface that we fix
// ourselves, since we use no vendor headers: the device information record
// and the sensor record. Anything that stands in for the library (the test
// stand-in) must lay them out the same way. Internal to the library.

#include "device/DeviceLink.h"

#include <cstdint>
#include <memory>
#include <string>

namespace chronotick::vendor {

// okFrontPanel_GetDeviceInfoWithSize fills a record of this size; the fields
// we read sit at these byte offsets (32-bit integers, a NUL-ended serial).
constexpr unsigned DEVICE_INFO_BYTES = 0x118;
constexpr unsigned INFO_SERIAL = 0x00; // up to 32 bytes
constexpr unsigned INFO_SERIAL_BYTES = 32;
constexpr unsigned INFO_MAJOR_VERSION = 0x40;
constexpr unsigned INFO_MINOR_VERSION = 0x44;
constexpr unsigned INFO_BOARD_MODEL = 0x48;
constexpr unsigned INFO_USB_SPEED = 0x4C;

// Large enough for any serial the library writes.
constexpr unsigned SERIAL_BUFFER_BYTES = 64;

// What okDeviceSensors_GetSensor returns by value.
struct SensorRecord {
  int id;
  int type;
  char name[64];
  char description[128];
  double min;
  double max;
  double step;
  double value;
};

// The library's default file name, used unless CHRONOTICK_USB_LIBRARY names another.
constexpr const char *DEFAULT_LIBRARY = "libokFrontPanel.so";

// A provider over the library in `file`, independent of vendorLinkProvider().
// A file that can't be loaded gives a provider that isn't available.
std::unique_ptr<DeviceLinkProvider> makeVendorLinkProvider(const std::string &file);

} // namespace chronotick::vendor
