// SPDX-License-Identifier: MIT
// The attached USB devices, through the libusb functions the tool loaded:
// for `wcan list`, and for the live views to see an adapter leave and return.
#pragma once

#include "cli/Commands.h"
#include "common/DeviceTypes.h"

#include <vector>

namespace wcantool {

struct UsbContext {
  const UsbApi &usb;
  libusb_context *ctx = nullptr;

  explicit UsbContext(const UsbApi &api) : usb(api) {
    if (usb.init(&ctx) != 0)
      throw ToolError{"cannot initialise the USB library"};
  }
  ~UsbContext() { usb.exit(ctx); }
  UsbContext(const UsbContext &) = delete;
  UsbContext &operator=(const UsbContext &) = delete;
};

struct DeviceList {
  const UsbApi &usb;
  libusb_device **list = nullptr;
  ssize_t count = 0;

  DeviceList(const UsbApi &api, libusb_context *ctx) : usb(api) {
    count = usb.getDeviceList(ctx, &list);
    if (count < 0)
      throw ToolError{"cannot list the USB devices"};
  }
  ~DeviceList() {
    if (list)
      usb.freeDeviceList(list, 1);
  }
  DeviceList(const DeviceList &) = delete;
  DeviceList &operator=(const DeviceList &) = delete;
};

// Whether adapter `index` of this type is attached: the library counts an
// adapter's index among the devices with the same USB ids.
inline bool adapterAttached(const UsbApi &usb, libusb_context *ctx, const DeviceType &type,
                            unsigned index) {
  DeviceList devices(usb, ctx);
  unsigned seen = 0;
  for (ssize_t i = 0; i < devices.count; ++i) {
    libusb_device_descriptor desc{};
    if (usb.getDeviceDescriptor(devices.list[i], &desc) == 0 && desc.idVendor == type.vendorId &&
        desc.idProduct == type.productId && seen++ == index)
      return true;
  }
  return false;
}

// One attached adapter: the types its USB ids stand for and its index
// among the devices with those ids, in the order of the device list.
struct AttachedAdapter {
  std::vector<unsigned> types;
  unsigned index = 0;
  libusb_device_descriptor descriptor{};
  unsigned busNumber = 0, address = 0;
};
std::vector<AttachedAdapter> attachedAdapters(const Runtime &runtime);

} // namespace wcantool
