// SPDX-License-Identifier: MIT
// The libusb-1.0 functions the library and the tools use, over the simulated
// adapters of the test bed. Contexts carry nothing: every context (and the
// NULL default one) sees the same adapters.
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "SimEvents.h"
#include "SimTestbed.h"

using wcansim::Adapter;
using wcansim::Testbed;

struct libusb_context {
  int unused = 0;
};

// One generation of one adapter as libusb presents it; a replugged adapter is
// a new device, so handles of the old one keep failing.
struct libusb_device {
  std::shared_ptr<Adapter> adapter;
  uint32_t generation = 0;
  uint8_t address = 0;
  int refs = 0;
};

struct libusb_device_handle {
  std::shared_ptr<Adapter> adapter;
  uint32_t generation = 0;
  libusb_device *dev = nullptr;
};

namespace {

constexpr uint8_t kSerialStringIndex = 3;

// Every object handed out through the C interface is owned here, found again
// by its address when the caller gives it back.
class LibUsbObjects {
public:
  static LibUsbObjects &instance() {
    // Never destroyed: a library closing its devices at exit may still call in.
    static LibUsbObjects *objects = ::new (storage()) LibUsbObjects();
    return *objects;
  }

  libusb_context *newContext() {
    auto ctx = std::make_unique<libusb_context>();
    libusb_context *raw = ctx.get();
    std::lock_guard<std::mutex> lock(mutex_);
    contexts_.emplace(raw, std::move(ctx));
    return raw;
  }

  void deleteContext(libusb_context *ctx) {
    std::lock_guard<std::mutex> lock(mutex_);
    contexts_.erase(ctx);
  }

  libusb_device **newDeviceList(const std::vector<std::shared_ptr<Adapter>> &adapters,
                                size_t *count) {
    auto list = std::make_unique<std::vector<libusb_device *>>();
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &a : adapters)
      list->push_back(deviceForLocked(a));
    *count = list->size();
    list->push_back(nullptr);
    libusb_device **raw = list->data();
    lists_.emplace(raw, std::move(list));
    return raw;
  }

  void deleteDeviceList(libusb_device **list, bool unrefDevices) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = lists_.find(list);
    if (it == lists_.end())
      return;
    if (unrefDevices)
      for (libusb_device *dev : *it->second)
        if (dev != nullptr)
          unrefLocked(dev);
    lists_.erase(it);
  }

  void ref(libusb_device *dev) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++dev->refs;
  }

  void unref(libusb_device *dev) {
    std::lock_guard<std::mutex> lock(mutex_);
    unrefLocked(dev);
  }

  libusb_device_handle *newHandle(libusb_device *dev) {
    auto handle = std::make_unique<libusb_device_handle>();
    handle->adapter = dev->adapter;
    handle->generation = dev->generation;
    handle->dev = dev;
    libusb_device_handle *raw = handle.get();
    std::lock_guard<std::mutex> lock(mutex_);
    ++dev->refs;
    handles_.emplace(raw, std::move(handle));
    return raw;
  }

  void deleteHandle(libusb_device_handle *handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = handles_.find(handle);
    if (it == handles_.end())
      return;
    libusb_device *dev = it->second->dev;
    handles_.erase(it);
    unrefLocked(dev);
  }

private:
  using DeviceKey = std::pair<const Adapter *, uint32_t>;

  static void *storage() {
    alignas(LibUsbObjects) static unsigned char bytes[sizeof(LibUsbObjects)];
    return bytes;
  }

  libusb_device *deviceForLocked(const std::shared_ptr<Adapter> &adapter) {
    const DeviceKey key{adapter.get(), adapter->generation()};
    auto it = devices_.find(key);
    if (it == devices_.end()) {
      auto dev = std::make_unique<libusb_device>();
      dev->adapter = adapter;
      dev->generation = key.second;
      dev->address = adapter->address();
      it = devices_.emplace(key, std::move(dev)).first;
    }
    ++it->second->refs;
    return it->second.get();
  }

  void unrefLocked(libusb_device *dev) {
    if (--dev->refs > 0)
      return;
    devices_.erase({dev->adapter.get(), dev->generation});
  }

  std::mutex mutex_;
  std::map<libusb_context *, std::unique_ptr<libusb_context>> contexts_;
  std::map<DeviceKey, std::unique_ptr<libusb_device>> devices_;
  std::map<libusb_device **, std::unique_ptr<std::vector<libusb_device *>>> lists_;
  std::map<libusb_device_handle *, std::unique_ptr<libusb_device_handle>> handles_;
};

LibUsbObjects &objects() { return LibUsbObjects::instance(); }

// WCAN_SIM=41,41,4,61 plugs those adapters in, once per process, unless a
// program already plugged its own through the control interface; they sit
// on the buses every process of the user shares (see SimShared.h).
void plugInFromEnvironment() {
  static std::once_flag once;
  std::call_once(once, [] {
    const char *list = std::getenv("WCAN_SIM");
    if (list == nullptr || Testbed::instance().anyPlugged())
      return;
    std::string text(list);
    std::vector<unsigned> types;
    size_t pos = 0;
    while (pos <= text.size()) {
      const size_t comma = std::min(text.find(',', pos), text.size());
      const std::string item = text.substr(pos, comma - pos);
      char *end = nullptr;
      const unsigned long type = std::strtoul(item.c_str(), &end, 10);
      if (!item.empty() && end != nullptr && *end == '\0')
        types.push_back(static_cast<unsigned>(type));
      pos = comma + 1;
    }
    // Shared with the user's other processes unless WCAN_SIM_PRIVATE=1.
    if (wcansim::SharedBus::wanted() && Testbed::instance().plugInShared(text, types))
      return;
    for (unsigned type : types)
      Testbed::instance().plugIn(type);
  });
}

int stringDescriptor(const Adapter &a, uint8_t index, unsigned char *data, uint16_t room) {
  std::vector<uint8_t> desc;
  if (index == 0) {
    desc = {4, LIBUSB_DT_STRING, 0x09, 0x04}; // English (United States)
  } else {
    std::string text;
    if (index == 1)
      text = "wcan simulation";
    else if (index == 2)
      text = "Simulated CAN adapter type " + std::to_string(a.devType());
    else if (index == kSerialStringIndex && a.hasUsbSerialNumber())
      text = wcansim::serialNumberOf(a.devType(), a.slot());
    else
      return LIBUSB_ERROR_PIPE;
    desc = {static_cast<uint8_t>(2 + 2 * text.size()), LIBUSB_DT_STRING};
    for (char c : text) {
      desc.push_back(static_cast<uint8_t>(c));
      desc.push_back(0);
    }
  }
  const size_t n = std::min<size_t>(desc.size(), room);
  if (n > 0 && data == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  std::memcpy(data, desc.data(), n);
  return static_cast<int>(n);
}

void fillDeviceDescriptor(const Adapter &a, libusb_device_descriptor *desc) {
  *desc = {};
  desc->bLength = LIBUSB_DT_DEVICE_SIZE;
  desc->bDescriptorType = LIBUSB_DT_DEVICE;
  desc->bcdUSB = 0x0200;
  desc->bMaxPacketSize0 = 64;
  desc->idVendor = a.vendorId();
  desc->idProduct = a.productId();
  desc->bcdDevice = 0x0100;
  desc->iManufacturer = 1;
  desc->iProduct = 2;
  desc->iSerialNumber = a.hasUsbSerialNumber() ? kSerialStringIndex : 0;
  desc->bNumConfigurations = 1;
}

int transfer(libusb_device_handle *handle, unsigned char ep, unsigned char *data, int length,
             int *transferred, unsigned int timeout) {
  int ignored = 0;
  int *count = transferred != nullptr ? transferred : &ignored;
  *count = 0;
  if (handle == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  // Held for the whole transfer: a blocked read must outlive a reset of the
  // test bed that drops the adapter.
  const std::shared_ptr<Adapter> keep = handle->adapter;
  Adapter &adapter = *keep;
  if ((ep & LIBUSB_ENDPOINT_IN) != 0)
    return adapter.read(handle->generation, ep, data, length, count, timeout);
  // A full transmit queue holds the transfer back as a NAKing device does.
  if (adapter.isTransmitEndpoint(ep)) {
    const int rc = Testbed::instance().awaitTransmitRoom(adapter, handle->generation, timeout);
    if (rc != 0)
      return rc;
  }
  wcansim::BusFrames toBus;
  const int rc = adapter.write(handle->generation, ep, data, length, count, toBus);
  Testbed::instance().route(keep, toBus);
  return rc;
}

} // namespace

extern "C" {

int libusb_init(libusb_context **ctx) {
  plugInFromEnvironment();
  if (ctx != nullptr)
    *ctx = objects().newContext();
  return LIBUSB_SUCCESS;
}

void libusb_exit(libusb_context *ctx) {
  if (ctx != nullptr)
    objects().deleteContext(ctx);
}

ssize_t libusb_get_device_list(libusb_context *, libusb_device ***list) {
  if (list == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  size_t count = 0;
  *list = objects().newDeviceList(Testbed::instance().pluggedAdapters(), &count);
  return static_cast<ssize_t>(count);
}

void libusb_free_device_list(libusb_device **list, int unref_devices) {
  if (list != nullptr)
    objects().deleteDeviceList(list, unref_devices != 0);
}

libusb_device *libusb_ref_device(libusb_device *dev) {
  if (dev != nullptr)
    objects().ref(dev);
  return dev;
}

void libusb_unref_device(libusb_device *dev) {
  if (dev != nullptr)
    objects().unref(dev);
}

int libusb_get_device_descriptor(libusb_device *dev, struct libusb_device_descriptor *desc) {
  if (dev == nullptr || desc == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  fillDeviceDescriptor(*dev->adapter, desc);
  return LIBUSB_SUCCESS;
}

uint8_t libusb_get_bus_number(libusb_device *dev) {
  return dev != nullptr ? dev->adapter->socket().bus : 0;
}

int libusb_get_port_numbers(libusb_device *dev, uint8_t *port_numbers, int port_numbers_len) {
  if (dev == nullptr || port_numbers == nullptr || port_numbers_len <= 0)
    return LIBUSB_ERROR_INVALID_PARAM;
  const auto &ports = dev->adapter->socket().ports;
  if (static_cast<size_t>(port_numbers_len) < ports.size())
    return LIBUSB_ERROR_OVERFLOW;
  std::copy(ports.begin(), ports.end(), port_numbers);
  return static_cast<int>(ports.size());
}

uint8_t libusb_get_port_number(libusb_device *dev) {
  return dev != nullptr ? dev->adapter->socket().ports.back() : 0;
}

uint8_t libusb_get_device_address(libusb_device *dev) { return dev != nullptr ? dev->address : 0; }

int libusb_open(libusb_device *dev, libusb_device_handle **dev_handle) {
  if (dev == nullptr || dev_handle == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  if (!dev->adapter->isCurrent(dev->generation))
    return LIBUSB_ERROR_NO_DEVICE;
  *dev_handle = objects().newHandle(dev);
  return LIBUSB_SUCCESS;
}

void libusb_close(libusb_device_handle *dev_handle) {
  if (dev_handle != nullptr)
    objects().deleteHandle(dev_handle);
}

int libusb_reset_device(libusb_device_handle *dev_handle) {
  if (dev_handle == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  const int rc = dev_handle->adapter->resetDevice(dev_handle->generation);
  if (rc == 0)
    Testbed::instance().dropUnsent(dev_handle->adapter->id());
  return rc;
}

int libusb_clear_halt(libusb_device_handle *dev_handle, unsigned char) {
  if (dev_handle == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  return dev_handle->adapter->checkAlive(dev_handle->generation);
}

int libusb_interrupt_transfer(libusb_device_handle *dev_handle, unsigned char endpoint,
                              unsigned char *data, int length, int *actual_length,
                              unsigned int timeout) {
  return transfer(dev_handle, endpoint, data, length, actual_length, timeout);
}

int libusb_bulk_transfer(libusb_device_handle *dev_handle, unsigned char endpoint,
                         unsigned char *data, int length, int *actual_length,
                         unsigned int timeout) {
  return transfer(dev_handle, endpoint, data, length, actual_length, timeout);
}

// Only the standard GET_DESCRIPTOR requests for the device and its strings
// are answered; any other request stalls, as on a device without them.
int libusb_control_transfer(libusb_device_handle *dev_handle, uint8_t request_type,
                            uint8_t bRequest, uint16_t wValue, uint16_t, unsigned char *data,
                            uint16_t wLength, unsigned int) {
  if (dev_handle == nullptr)
    return LIBUSB_ERROR_INVALID_PARAM;
  const Adapter &adapter = *dev_handle->adapter;
  if (!adapter.isCurrent(dev_handle->generation))
    return LIBUSB_ERROR_NO_DEVICE;
  if (request_type != LIBUSB_ENDPOINT_IN || bRequest != LIBUSB_REQUEST_GET_DESCRIPTOR)
    return LIBUSB_ERROR_PIPE;
  const uint8_t type = static_cast<uint8_t>(wValue >> 8);
  const uint8_t index = static_cast<uint8_t>(wValue & 0xFF);
  if (type == LIBUSB_DT_STRING)
    return stringDescriptor(adapter, index, data, wLength);
  if (type == LIBUSB_DT_DEVICE && index == 0) {
    libusb_device_descriptor desc;
    fillDeviceDescriptor(adapter, &desc);
    const size_t n = std::min<size_t>(LIBUSB_DT_DEVICE_SIZE, wLength);
    if (n > 0 && data == nullptr)
      return LIBUSB_ERROR_INVALID_PARAM;
    // The struct is laid out as the wire descriptor except for byte order.
    const uint8_t wire[LIBUSB_DT_DEVICE_SIZE] = {desc.bLength,
                                                 desc.bDescriptorType,
                                                 static_cast<uint8_t>(desc.bcdUSB),
                                                 static_cast<uint8_t>(desc.bcdUSB >> 8),
                                                 desc.bDeviceClass,
                                                 desc.bDeviceSubClass,
                                                 desc.bDeviceProtocol,
                                                 desc.bMaxPacketSize0,
                                                 static_cast<uint8_t>(desc.idVendor),
                                                 static_cast<uint8_t>(desc.idVendor >> 8),
                                                 static_cast<uint8_t>(desc.idProduct),
                                                 static_cast<uint8_t>(desc.idProduct >> 8),
                                                 static_cast<uint8_t>(desc.bcdDevice),
                                                 static_cast<uint8_t>(desc.bcdDevice >> 8),
                                                 desc.iManufacturer,
                                                 desc.iProduct,
                                                 desc.iSerialNumber,
                                                 desc.bNumConfigurations};
    std::memcpy(data, wire, n);
    return static_cast<int>(n);
  }
  return LIBUSB_ERROR_PIPE;
}

const char *libusb_strerror(int errcode) {
  switch (errcode) {
  case LIBUSB_SUCCESS:
    return "Success";
  case LIBUSB_ERROR_IO:
    return "Input/Output Error";
  case LIBUSB_ERROR_INVALID_PARAM:
    return "Invalid parameter";
  case LIBUSB_ERROR_ACCESS:
    return "Access denied (insufficient permissions)";
  case LIBUSB_ERROR_NO_DEVICE:
    return "No such device (it may have been disconnected)";
  case LIBUSB_ERROR_NOT_FOUND:
    return "Entity not found";
  case LIBUSB_ERROR_BUSY:
    return "Resource busy";
  case LIBUSB_ERROR_TIMEOUT:
    return "Operation timed out";
  case LIBUSB_ERROR_OVERFLOW:
    return "Overflow";
  case LIBUSB_ERROR_PIPE:
    return "Pipe error";
  case LIBUSB_ERROR_INTERRUPTED:
    return "System call interrupted (perhaps due to signal)";
  case LIBUSB_ERROR_NO_MEM:
    return "Insufficient memory";
  case LIBUSB_ERROR_NOT_SUPPORTED:
    return "Operation not supported or unimplemented on this platform";
  case LIBUSB_ERROR_OTHER:
    return "Other error";
  default:
    return "**UNKNOWN**";
  }
}

} // extern "C"

std::shared_ptr<Adapter> wcansim::handleAdapter(libusb_device_handle *handle,
                                                uint32_t *generation) {
  if (handle == nullptr)
    return nullptr;
  *generation = handle->generation;
  return handle->adapter;
}
