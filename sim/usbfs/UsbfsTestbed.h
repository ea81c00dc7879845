// SPDX-License-Identifier: MIT
// Simulated adapters behind an emulated usbfs, for programs that use the real
// libusb-1.0 and run under umockdev-wrapper. Each adapter is a USB device on
// a bus of its own (sysfs record with its descriptors and a /dev/bus/usb node)
// whose node answers libusb's usbfs requests from the adapter's device model.
// Channel 2k of an adapter is cabled to channel 2k+1.
//
// The test bed must exist before the first libusb_init of the process (libusb
// starts its hot-plug monitor and scans the devices there), so programs create
// it first and load the library under test afterwards.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "SimModel.h"

namespace wcanumock {

class UsbfsTestbed {
public:
  // The process-wide test bed; created on first use.
  static UsbfsTestbed &instance();
  // Ends the test bed once nothing uses the devices any more (removes the
  // temporary sysfs tree). Call it last, after the library was unloaded.
  static void shutdown();

  // Adds an adapter of a device type; returns its id, or -1 for a type no
  // model exists for. Returns once the observer's libusb lists the device.
  int plugIn(unsigned devType);
  // Unplug: the udev remove event goes out, and once libusb has dropped the
  // device every transfer on it fails as on a vanished device. Replug: the
  // adapter comes back from its reset state and the add event goes out.
  // Both return once libusb's device list shows the change.
  void unplug(int adapter);
  void replug(int adapter);
  // Unplugs every adapter for good (end of a test).
  void removeAll();

  // Where libusb finds the adapter.
  uint8_t busNumber(int adapter) const;
  // Number of times the host opened the adapter's node since it was plugged in.
  unsigned opens(int adapter) const;
  // Frames a channel took from the bus.
  uint64_t framesDelivered(int adapter, unsigned channel) const;
  // Whether the model's channel is started.
  bool channelStarted(int adapter, unsigned channel) const;

  UsbfsTestbed(const UsbfsTestbed &) = delete;
  UsbfsTestbed &operator=(const UsbfsTestbed &) = delete;
  ~UsbfsTestbed();

  class Impl;

private:
  UsbfsTestbed();
  std::unique_ptr<Impl> impl_;
};

// Whether this process runs under the umockdev preload library; without it
// the emulated nodes cannot be opened.
bool inMockEnvironment();

} // namespace wcanumock
