#pragma once

// The board operations that the hardware tagger needs, under our own names.
// Everything above this interface (ChronotickFPGA, the decoder, the tagger)
// speaks only wires, triggers, pipes and registers. Two implementations: the
// board vendor's USB library loaded at run time (VendorUsbLibrary), and the
// simulated board (src/simulation). Internal to the library.
//
// Return codes follow the vendor library: 0 (NoError) is success, negative
// values are failures. A link is used by one thread at a time (the tagger's
// device locks see to that); only the enumeration functions of a
// DeviceLinkProvider may be called from anywhere.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

namespace link {
constexpr int NO_ERROR = 0;
constexpr int FAILED = -1;
constexpr int TIMEOUT = -2;
constexpr int DEVICE_NOT_OPEN = -8;
constexpr int INVALID_ENDPOINT = -9;
constexpr int INVALID_BLOCK_SIZE = -10;
constexpr int COMMUNICATION_ERROR = -13;
constexpr int FILE_ERROR = -17;
constexpr int FPGA_CONFIG_FAILED = -18;
constexpr int UNSUPPORTED_FEATURE = -24;

// Board model numbers as the board reports them.
constexpr int MODEL_CT20 = 4;
constexpr int MODEL_CT_ULTRA = 0x24;

// USB speed field of DeviceInfo.
constexpr int USB_SPEED_HIGH = 2;  // USB 2.0
constexpr int USB_SPEED_SUPER = 3; // USB 3.0
} // namespace link

// What identify reports of a board; the fields the tagger uses.
struct DeviceInfo {
  std::string serial;
  int board_model = 0;
  int usb_speed = 0;
  int device_major_version = 0;
  int device_minor_version = 0;
};

// Settings of the board's clock generator ("CT-20"), in the order bring-up
// sets them.
struct PllConfiguration {
  int vco_p = 0;
  int vco_q = 0;
  int div1_source = 0;
  int div1_value = 0;
  struct Output {
    int source = 0;
    bool enabled = false;
  };
  Output outputs[6];
};

// One entry of the board's own sensor list.
struct BoardSensor {
  std::string name;
  double value = 0;
};

// One opened (or openable) board.
class DeviceLink {
public:
  virtual ~DeviceLink() = default;

  // Opens the board with this serial; "" opens the first one listed.
  virtual int openBySerial(const std::string &serial) = 0;
  virtual bool isOpen() const = 0;
  virtual void close() = 0;

  virtual int getDeviceInfo(DeviceInfo &info) = 0;
  virtual int getBoardModel() = 0;
  virtual std::string getSerialNumber() = 0;

  // Loads a firmware file; 0 on success.
  virtual int configureFpga(const std::string &path) = 0;
  virtual int setPllConfiguration(const PllConfiguration &pll) = 0;

  virtual int setWireInValue(int address, std::uint32_t value, std::uint32_t mask = 0xFFFFFFFF) = 0;
  virtual int getWireInValue(int address, std::uint32_t &value) = 0;
  virtual int updateWireIns() = 0;
  virtual int updateWireOuts() = 0;
  virtual std::uint32_t getWireOutValue(int address) = 0;
  virtual int activateTriggerIn(int address, int bit) = 0;

  // Returns bytes written or read, or a negative error.
  virtual long writeToPipeIn(int address, const std::uint8_t *data, long length) = 0;
  virtual long readFromBlockPipeOut(int address, int block_size, std::uint8_t *data, long length) = 0;

  virtual int writeRegister(std::uint32_t address, std::uint32_t value) = 0;
  virtual int readRegister(std::uint32_t address, std::uint32_t &value) = 0;

  // The board's own sensors (temperatures, supply currents); an error code
  // when it has none it can tell.
  virtual int getDeviceSensors(std::vector<BoardSensor> &sensors) = 0;
};

// Where links come from: lists the boards it can reach and makes links.
class DeviceLinkProvider {
public:
  struct Listed {
    std::string serial;
    int board_model = 0;
  };

  virtual ~DeviceLinkProvider() = default;
  // False when the provider can't reach any board at all (library missing).
  virtual bool available() const = 0;
  // Why it isn't available, in a sentence for the user.
  virtual std::string unavailableReason() const { return {}; }
  virtual std::vector<Listed> list() = 0;
  virtual std::unique_ptr<DeviceLink> makeLink() = 0;
};

} // namespace chronotick

namespace chronotick {

// The board vendor's USB library, loaded with dlopen on first use
// (src/device/VendorUsbLibrary.cpp). Its file comes from the environment
// variable CHRONOTICK_USB_LIBRARY, else the vendor's usual library name.
DeviceLinkProvider &vendorLinkProvider();
// The simulated boards of chronotick/Simulation.h (src/simulation).
DeviceLinkProvider &simulatedLinkProvider();

} // namespace chronotick
