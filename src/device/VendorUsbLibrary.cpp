#include "device/VendorUsbLibrary.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include <dlfcn.h>

namespace chronotick {

namespace {

// The C interface of the board vendor's USB library, as far as we call it.
// Handles are opaque pointers; the library's Bool is an int.
using Handle = void *;
using Construct = Handle (*)();
using Destruct = void (*)(Handle);
using GetDeviceCount = int (*)(Handle);
using GetDeviceListSerial = void (*)(Handle, int, char *);
using GetDeviceListModel = int (*)(Handle, int);
using OpenBySerial = int (*)(Handle, const char *);
using GetSerialNumber = void (*)(Handle, char *);
using GetInt = int (*)(Handle);
using GetDeviceInfoWithSize = int (*)(Handle, void *, unsigned);
using ConfigureFpga = int (*)(Handle, const char *);
using SetPllConfiguration = int (*)(Handle, Handle);
using PllSetVcoParameters = int (*)(Handle, int, int);
using PllSetDiv1 = void (*)(Handle, int, int);
using PllSetOutputSource = void (*)(Handle, int, int);
using PllSetOutputEnable = void (*)(Handle, int, int);
using SetWireInValue = int (*)(Handle, int, unsigned long, unsigned long);
using GetWireInValue = int (*)(Handle, int, std::uint32_t *);
using GetWireOutValue = unsigned long (*)(Handle, int);
using ActivateTriggerIn = int (*)(Handle, int, int);
using WriteToPipeIn = long (*)(Handle, int, long, unsigned char *);
using ReadFromBlockPipeOut = long (*)(Handle, int, int, long, unsigned char *);
using WriteRegister = int (*)(Handle, std::uint32_t, std::uint32_t);
using ReadRegister = int (*)(Handle, std::uint32_t, std::uint32_t *);
using GetDeviceSensors = int (*)(Handle, Handle);
using SensorsGetCount = int (*)(Handle);
using SensorsGetSensor = vendor::SensorRecord (*)(Handle, int);

// The loaded library and its entry points. Shared by the provider and its
// links, so that an open link keeps the library loaded.
struct Library {
  void *dl = nullptr;
  Construct construct = nullptr;
  Destruct destruct = nullptr;
  GetDeviceCount get_device_count = nullptr;
  GetDeviceListSerial get_device_list_serial = nullptr;
  GetDeviceListModel get_device_list_model = nullptr;
  OpenBySerial open_by_serial = nullptr;
  Destruct close = nullptr;
  GetInt is_open = nullptr;
  GetSerialNumber get_serial_number = nullptr;
  GetInt get_board_model = nullptr;
  GetDeviceInfoWithSize get_device_info = nullptr;
  GetInt get_major_version = nullptr;
  GetInt get_minor_version = nullptr;
  ConfigureFpga configure_fpga = nullptr;
  SetPllConfiguration set_pll = nullptr;
  Construct pll_construct = nullptr;
  Destruct pll_destruct = nullptr;
  PllSetVcoParameters pll_set_vco = nullptr;
  PllSetDiv1 pll_set_div1 = nullptr;
  PllSetOutputSource pll_set_output_source = nullptr;
  PllSetOutputEnable pll_set_output_enable = nullptr;
  SetWireInValue set_wire_in = nullptr;
  GetWireInValue get_wire_in = nullptr;
  GetInt update_wire_ins = nullptr;
  GetInt update_wire_outs = nullptr;
  GetWireOutValue get_wire_out = nullptr;
  ActivateTriggerIn activate_trigger_in = nullptr;
  WriteToPipeIn write_to_pipe_in = nullptr;
  ReadFromBlockPipeOut read_from_block_pipe_out = nullptr;
  WriteRegister write_register = nullptr;
  ReadRegister read_register = nullptr;
  GetDeviceSensors get_device_sensors = nullptr;
  Construct sensors_construct = nullptr;
  Destruct sensors_destruct = nullptr;
  SensorsGetCount sensors_get_count = nullptr;
  SensorsGetSensor sensors_get_sensor = nullptr;
  std::string missing; // the first entry point not found, if any

  ~Library() {
    if (dl)
      dlclose(dl);
  }

  template <typename F> void bind(F &f, const char *name) {
    f = reinterpret_cast<F>(dlsym(dl, name));
    if (!f && missing.empty())
      missing = name;
  }

  bool load(const std::string &file) {
    dl = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!dl)
      return false;
    bind(construct, "okFrontPanel_Construct");
    bind(destruct, "okFrontPanel_Destruct");
    bind(get_device_count, "okFrontPanel_GetDeviceCount");
    bind(get_device_list_serial, "okFrontPanel_GetDeviceListSerial");
    bind(get_device_list_model, "okFrontPanel_GetDeviceListModel");
    bind(open_by_serial, "okFrontPanel_OpenBySerial");
    bind(close, "okFrontPanel_Close");
    bind(is_open, "okFrontPanel_IsOpen");
    bind(get_serial_number, "okFrontPanel_GetSerialNumber");
    bind(get_board_model, "okFrontPanel_GetBoardModel");
    bind(get_device_info, "okFrontPanel_GetDeviceInfoWithSize");
    bind(get_major_version, "okFrontPanel_GetDeviceMajorVersion");
    bind(get_minor_version, "okFrontPanel_GetDeviceMinorVersion");
    bind(configure_fpga, "okFrontPanel_ConfigureFPGA");
    bind(set_pll, "okFrontPanel_SetPLL22150Configuration");
    bind(pll_construct, "okPLL22150_Construct");
    bind(pll_destruct, "okPLL22150_Destruct");
    bind(pll_set_vco, "okPLL22150_SetVCOParameters");
    bind(pll_set_div1, "okPLL22150_SetDiv1");
    bind(pll_set_output_source, "okPLL22150_SetOutputSource");
    bind(pll_set_output_enable, "okPLL22150_SetOutputEnable");
    bind(set_wire_in, "okFrontPanel_SetWireInValue");
    bind(get_wire_in, "okFrontPanel_GetWireInValue");
    bind(update_wire_ins, "okFrontPanel_UpdateWireIns");
    bind(update_wire_outs, "okFrontPanel_UpdateWireOuts");
    bind(get_wire_out, "okFrontPanel_GetWireOutValue");
    bind(activate_trigger_in, "okFrontPanel_ActivateTriggerIn");
    bind(write_to_pipe_in, "okFrontPanel_WriteToPipeIn");
    bind(read_from_block_pipe_out, "okFrontPanel_ReadFromBlockPipeOut");
    bind(write_register, "okFrontPanel_WriteRegister");
    bind(read_register, "okFrontPanel_ReadRegister");
    bind(get_device_sensors, "okFrontPanel_GetDeviceSensors");
    bind(sensors_construct, "okDeviceSensors_Construct");
    bind(sensors_destruct, "okDeviceSensors_Destruct");
    bind(sensors_get_count, "okDeviceSensors_GetSensorCount");
    bind(sensors_get_sensor, "okDeviceSensors_GetSensor");
    return missing.empty();
  }
};

std::string readSerial(const char *buffer, std::size_t size) {
  return std::string(buffer, strnlen(buffer, size));
}

class VendorLink : public DeviceLink {
public:
  explicit VendorLink(std::shared_ptr<Library> library) : lib(std::move(library)), handle(lib->construct()) {}
  ~VendorLink() override {
    if (handle)
      lib->destruct(handle);
  }
  VendorLink(const VendorLink &) = delete;
  VendorLink &operator=(const VendorLink &) = delete;

  int openBySerial(const std::string &serial) override {
    if (!handle)
      return link::FAILED;
    return lib->open_by_serial(handle, serial.c_str());
  }
  bool isOpen() const override { return handle && lib->is_open(handle) != 0; }
  void close() override {
    if (handle)
      lib->close(handle);
  }

  int getDeviceInfo(DeviceInfo &info) override {
    unsigned char record[vendor::DEVICE_INFO_BYTES] = {};
    const int rc = lib->get_device_info(handle, record, vendor::DEVICE_INFO_BYTES);
    if (rc != link::NO_ERROR)
      return rc;
    info.serial = readSerial(reinterpret_cast<const char *>(record + vendor::INFO_SERIAL), vendor::INFO_SERIAL_BYTES);
    info.board_model = field(record, vendor::INFO_BOARD_MODEL);
    info.usb_speed = field(record, vendor::INFO_USB_SPEED);
    info.device_major_version = lib->get_major_version(handle);
    info.device_minor_version = lib->get_minor_version(handle);
    return rc;
  }
  int getBoardModel() override { return lib->get_board_model(handle); }
  std::string getSerialNumber() override {
    char buffer[vendor::SERIAL_BUFFER_BYTES] = {};
    lib->get_serial_number(handle, buffer);
    return readSerial(buffer, sizeof(buffer));
  }

  int configureFpga(const std::string &path) override { return lib->configure_fpga(handle, path.c_str()); }
  int setPllConfiguration(const PllConfiguration &pll) override {
    Handle p = lib->pll_construct();
    if (!p)
      return link::FAILED;
    lib->pll_set_vco(p, pll.vco_p, pll.vco_q);
    lib->pll_set_div1(p, pll.div1_source, pll.div1_value);
    for (int i = 0; i < 6; ++i) {
      lib->pll_set_output_source(p, i, pll.outputs[i].source);
      lib->pll_set_output_enable(p, i, pll.outputs[i].enabled ? 1 : 0);
    }
    const int rc = lib->set_pll(handle, p);
    lib->pll_destruct(p);
    return rc;
  }

  int setWireInValue(int address, std::uint32_t value, std::uint32_t mask) override {
    return lib->set_wire_in(handle, address, value, mask);
  }
  int getWireInValue(int address, std::uint32_t &value) override { return lib->get_wire_in(handle, address, &value); }
  int updateWireIns() override { return lib->update_wire_ins(handle); }
  int updateWireOuts() override { return lib->update_wire_outs(handle); }
  std::uint32_t getWireOutValue(int address) override {
    return static_cast<std::uint32_t>(lib->get_wire_out(handle, address));
  }
  int activateTriggerIn(int address, int bit) override { return lib->activate_trigger_in(handle, address, bit); }

  long writeToPipeIn(int address, const std::uint8_t *data, long length) override {
    // The library's prototype isn't const-correct; it only reads the data.
    return lib->write_to_pipe_in(handle, address, length, const_cast<std::uint8_t *>(data));
  }
  long readFromBlockPipeOut(int address, int block_size, std::uint8_t *data, long length) override {
    return lib->read_from_block_pipe_out(handle, address, block_size, length, data);
  }

  int writeRegister(std::uint32_t address, std::uint32_t value) override {
    return lib->write_register(handle, address, value);
  }
  int readRegister(std::uint32_t address, std::uint32_t &value) override {
    return lib->read_register(handle, address, &value);
  }

  int getDeviceSensors(std::vector<BoardSensor> &sensors) override {
    sensors.clear();
    Handle s = lib->sensors_construct();
    if (!s)
      return link::FAILED;
    const int rc = lib->get_device_sensors(handle, s);
    if (rc == link::NO_ERROR) {
      const int n = lib->sensors_get_count(s);
      for (int i = 0; i < n; ++i) {
        const vendor::SensorRecord r = lib->sensors_get_sensor(s, i);
        sensors.push_back({readSerial(r.name, sizeof(r.name)), r.value});
      }
    }
    lib->sensors_destruct(s);
    return rc;
  }

private:
  static int field(const unsigned char *record, unsigned offset) {
    std::int32_t value;
    std::memcpy(&value, record + offset, sizeof(value));
    return value;
  }

  std::shared_ptr<Library> lib;
  Handle handle;
};

class VendorProvider : public DeviceLinkProvider {
public:
  explicit VendorProvider(std::string library_file) : file(std::move(library_file)) {
    auto loaded = std::make_shared<Library>();
    if (loaded->load(file)) {
      lib = std::move(loaded);
    } else if (!loaded->dl) {
      reason = "The board vendor's USB library (" + file + ") was not found.";
    } else {
      reason = "The board vendor's USB library (" + file + ") lacks the function " + loaded->missing + ".";
    }
  }

  bool available() const override { return lib != nullptr; }
  std::string unavailableReason() const override { return reason; }

  std::vector<Listed> list() override {
    std::vector<Listed> boards;
    if (!lib)
      return boards;
    // The library's device list belongs to a handle; one handle per listing
    // keeps concurrent callers apart, the mutex keeps the library's
    // enumeration to one at a time.
    std::lock_guard<std::mutex> guard(list_mutex);
    Handle h = lib->construct();
    if (!h)
      return boards;
    const int n = lib->get_device_count(h);
    for (int i = 0; i < n; ++i) {
      char buffer[vendor::SERIAL_BUFFER_BYTES] = {};
      lib->get_device_list_serial(h, i, buffer);
      boards.push_back({readSerial(buffer, sizeof(buffer)), lib->get_device_list_model(h, i)});
    }
    lib->destruct(h);
    return boards;
  }

  std::unique_ptr<DeviceLink> makeLink() override {
    if (!lib)
      return nullptr;
    return std::make_unique<VendorLink>(lib);
  }

private:
  std::string file;
  std::string reason;
  std::shared_ptr<Library> lib;
  std::mutex list_mutex;
};

} // namespace

std::unique_ptr<DeviceLinkProvider> vendor::makeVendorLinkProvider(const std::string &file) {
  return std::make_unique<VendorProvider>(file);
}

DeviceLinkProvider &vendorLinkProvider() {
  // Loaded once and never unloaded: links may live until the process ends.
  static VendorProvider *provider = [] {
    const char *file = std::getenv("CHRONOTICK_USB_LIBRARY");
    return new VendorProvider(file && *file ? file : vendor::DEFAULT_LIBRARY);
  }();
  return *provider;
}

} // namespace chronotick
