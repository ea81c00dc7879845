// SPDX-License-Identifier: MIT
// The supported adapters attached to the host, found through the loaded
// libusb (or the simulation), numbered as the library numbers them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/DeviceTypes.h"
#include "common/Runtime.h"

namespace wcantool {

// libusb_init/libusb_exit of the loaded USB library, as an owner.
struct UsbContext {
  const UsbApi &usb;
  libusb_context *ctx = nullptr;

  explicit UsbContext(const UsbApi &api);
  ~UsbContext() { usb.exit(ctx); }
  UsbContext(const UsbContext &) = delete;
  UsbContext &operator=(const UsbContext &) = delete;
};

// The device list of a context, freed with it.
struct DeviceList {
  const UsbApi &usb;
  libusb_device **list = nullptr;
  ssize_t count = 0;

  DeviceList(const UsbApi &api, libusb_context *ctx);
  ~DeviceList() {
    if (list)
      usb.freeDeviceList(list, 1);
  }
  DeviceList(const DeviceList &) = delete;
  DeviceList &operator=(const DeviceList &) = delete;
};

// Whether adapter `index` of this type is attached: the library counts an
// adapter's index among the devices with the same USB ids.
bool adapterAttached(const UsbApi &usb, libusb_context *ctx, const DeviceType &type,
                     unsigned index);

struct AttachedAdapter {
  std::vector<unsigned> types; // every type number that opens it
  unsigned index = 0;          // among the attached devices with the same USB ids
  uint16_t vendorId = 0, productId = 0;
  unsigned busNumber = 0, address = 0;
  const DeviceType *type = nullptr; // the first of `types`
};

// Throws ToolError when the USB library cannot list its devices.
std::vector<AttachedAdapter> attachedAdapters(const Runtime &runtime);

// The buses of the attached adapters that carry traffic, under the first
// type number of each; throws ToolError like attachedAdapters.
std::vector<std::string> attachedBuses(const Runtime &runtime);
// "wcan41-0-0 wcan41-0-1 wcan4-0-0 ...": the buses of the attached adapters
// that carry traffic, under the first type number of each; "none" without any.
std::string attachedBusNames(const Runtime &runtime);

} // namespace wcantool
