// SPDX-License-Identifier: MIT
#include "common/Adapters.h"

#include <map>
#include <utility>

#include "common/Args.h"
#include "common/DeviceTypes.h"
#include "common/FrameSyntax.h"

namespace wcantool {

UsbContext::UsbContext(const UsbApi &api) : usb(api) {
  if (usb.init(&ctx) != 0)
    throw ToolError{"cannot initialise the USB library"};
}

DeviceList::DeviceList(const UsbApi &api, libusb_context *ctx) : usb(api) {
  count = usb.getDeviceList(ctx, &list);
  if (count < 0)
    throw ToolError{"cannot list the USB devices"};
}

std::vector<AttachedAdapter> attachedAdapters(const Runtime &runtime) {
  const UsbApi &api = runtime.usb();
  if (!api.complete())
    throw ToolError{"the loaded USB library offers no device list"};
  UsbContext usb(api);
  DeviceList devices(api, usb.ctx);
  // The library counts an adapter's index among the devices with the same
  // USB ids, in the order of the device list.
  std::map<std::pair<uint16_t, uint16_t>, unsigned> seen;
  std::vector<AttachedAdapter> found;
  for (ssize_t i = 0; i < devices.count; ++i) {
    libusb_device *dev = devices.list[i];
    libusb_device_descriptor desc{};
    if (api.getDeviceDescriptor(dev, &desc) != 0)
      continue;
    AttachedAdapter a;
    a.types = typesForUsbId(desc.idVendor, desc.idProduct);
    if (a.types.empty())
      continue;
    a.index = seen[{desc.idVendor, desc.idProduct}]++;
    a.vendorId = desc.idVendor;
    a.productId = desc.idProduct;
    a.busNumber = api.getBusNumber(dev);
    a.address = api.getDeviceAddress(dev);
    a.type = findDeviceType(a.types.front());
    found.push_back(std::move(a));
  }
  return found;
}

bool adapterAttached(const UsbApi &usb, libusb_context *ctx, const DeviceType &type,
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

std::vector<std::string> attachedBuses(const Runtime &runtime) {
  std::vector<std::string> names;
  for (const AttachedAdapter &a : attachedAdapters(runtime)) {
    const DeviceType &t = *findDeviceType(a.types.front());
    if (t.family == Family::Recorder)
      continue;
    for (unsigned ch = 0; ch < t.channels; ++ch)
      names.push_back(interfaceName(t.type, a.index, ch));
  }
  return names;
}

std::string attachedBusNames(const Runtime &runtime) {
  std::string names;
  for (const std::string &name : attachedBuses(runtime))
    names += (names.empty() ? "" : " ") + name;
  return names.empty() ? "none" : names;
}

} // namespace wcantool
