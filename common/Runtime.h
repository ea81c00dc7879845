// SPDX-License-Identifier: MIT
// Run-time loading of the libraries behind `wcan`. The program links neither
// libusb nor libwcan: it loads libusb (the real one, or the simulated adapters
// of libwcan-sim.so, which define the same functions) with RTLD_GLOBAL, so
// that libwcan.so, loaded next, resolves its USB calls against it.
#pragma once

#include <libusb.h>

#include <memory>
#include <string>

#include "wcan.h"

namespace wcantool {

#define WCAN_TOOL_API(X)                                                                           \
  X(WCAN_OpenDevice)                                                                               \
  X(WCAN_CloseDevice)                                                                              \
  X(WCAN_BoardInfoGet)                                                                             \
  X(WCAN_ClearBuffer)                                                                              \
  X(WCAN_DataDirectTransfer)                                                                       \
  X(WCAN_SetFliter)                                                                                \
  X(WCAN_GetReceiveNum)                                                                            \
  X(WCAN_InitCAN)                                                                                  \
  X(WCAN_InitCANFD)                                                                                \
  X(WCAN_Start)                                                                                    \
  X(WCAN_Stop)                                                                                     \
  X(WCAN_Receive)                                                                                  \
  X(WCAN_ReceiveFD)                                                                                \
  X(WCAN_Transmit)                                                                                 \
  X(WCAN_TransmitFD)                                                                               \
  X(WCAN_RecordSettingSet)                                                                         \
  X(WCAN_RecordSettingGet)                                                                         \
  X(WCAN_RecordCmdExecute)                                                                         \
  X(WCAN_RecordFliterClr)                                                                          \
  X(WCAN_RecordFliterAdd)                                                                          \
  X(WCAN_RecordFliterEnable)                                                                       \
  X(WCAN_RecordFliterDisable)                                                                      \
  X(WCAN_RecordFliterInfoGet)                                                                      \
  X(WCAN_RecordFliterSettingGet)                                                                   \
  X(WCAN_DevRelayStatusSet)                                                                        \
  X(WCAN_DevRelayStatusGet)                                                                        \
  X(WCAN_DevBaudParaGet)                                                                           \
  X(WCAN_DevChStateGet)                                                                            \
  X(WCAN_GetLastError)                                                                             \
  X(WCAN_GetLastErrorStr)                                                                          \
  X(WCAN_GetReceiveEvent)

// The exported functions of libwcan.so: the 30 of the interface and the
// receive-event extension.
struct WcanApi {
#define WCAN_TOOL_MEMBER(name) decltype(&::name) name = nullptr;
  WCAN_TOOL_API(WCAN_TOOL_MEMBER)
#undef WCAN_TOOL_MEMBER
};

// The few libusb functions `wcan list` needs to enumerate attached devices.
struct UsbApi {
  decltype(&libusb_init) init = nullptr;
  decltype(&libusb_exit) exit = nullptr;
  decltype(&libusb_get_device_list) getDeviceList = nullptr;
  decltype(&libusb_free_device_list) freeDeviceList = nullptr;
  decltype(&libusb_get_device_descriptor) getDeviceDescriptor = nullptr;
  decltype(&libusb_get_bus_number) getBusNumber = nullptr;
  decltype(&libusb_get_device_address) getDeviceAddress = nullptr;
  bool complete() const;
};

// The C control interface of the simulation layer (null with the real libusb).
struct SimApi {
  int (*plugIn)(unsigned devType) = nullptr;
  void (*reset)() = nullptr;
  void (*unplug)(int adapter) = nullptr;
  void (*replug)(int adapter) = nullptr;
};

struct LoadOptions {
  bool simulate = false;
  std::string simSpec; // adapters plugged in at start (WCAN_SIM syntax), may be empty
};

// Raised when a library cannot be loaded or lacks a function.
struct LoadError {
  std::string message;
};

class Runtime {
public:
  // Loads libusb (or the simulation layer) and libwcan.so; throws LoadError.
  explicit Runtime(const LoadOptions &options);
  ~Runtime();
  Runtime(const Runtime &) = delete;
  Runtime &operator=(const Runtime &) = delete;

  const WcanApi &wcan() const { return wcan_; }
  const UsbApi &usb() const { return usb_; }
  const SimApi &sim() const { return sim_; }
  bool simulated() const { return simulated_; }

  // "Device Not Exist! (error 1)": the library's last error as text.
  std::string lastError() const;

private:
  struct DlHandle;
  std::unique_ptr<DlHandle> usbLib_;
  std::unique_ptr<DlHandle> wcanLib_;
  WcanApi wcan_;
  UsbApi usb_;
  SimApi sim_;
  bool simulated_ = false;
};

// Directory of the running executable, where libwcan.so and libwcan-sim.so are.
std::string executableDir();

} // namespace wcantool
