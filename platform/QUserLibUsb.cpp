// SPDX-License-Identifier: MIT
#include "platform/QUserLibUsb.h"

#include <time.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

namespace {

constexpr unsigned int kMaxMatches = 63;
constexpr uint32_t kRestartSettleMicros = 100000;
constexpr uint16_t kEnglishUs = 0x0409;
constexpr unsigned int kDescriptorTimeoutMs = 1000;

QUserLog &logger() { return QUserLog::GetInstance(); }

// Frees the device list (dropping its references) on every exit path.
struct DeviceList {
  libusb_device **devices = nullptr;
  ~DeviceList() {
    if (devices != nullptr) {
      libusb_free_device_list(devices, 1);
    }
  }
};

// The adapters the wrappers of this process hold, so that no adapter is ever
// opened twice. It lives in static storage that is never destroyed: drivers
// still close their devices while the library unloads.
class AdapterClaims {
public:
  static AdapterClaims &instance() {
    alignas(AdapterClaims) static unsigned char storage[sizeof(AdapterClaims)];
    static AdapterClaims *claims = ::new (storage) AdapterClaims();
    return *claims;
  }

  // False when another wrapper holds the same adapter.
  bool claim(const QUserLibUsb *owner, const UsbAdapterIdentity &id) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (heldByOtherLocked(owner, id)) {
      return false;
    }
    releaseLocked(owner);
    held_.emplace_back(owner, id);
    return true;
  }

  bool heldByOther(const QUserLibUsb *owner, const UsbAdapterIdentity &id) {
    std::lock_guard<std::mutex> guard(mutex_);
    return heldByOtherLocked(owner, id);
  }

  void release(const QUserLibUsb *owner) {
    std::lock_guard<std::mutex> guard(mutex_);
    releaseLocked(owner);
  }

private:
  bool heldByOtherLocked(const QUserLibUsb *owner, const UsbAdapterIdentity &id) const {
    return std::any_of(held_.begin(), held_.end(), [&](const auto &entry) {
      return entry.first != owner && entry.second.sameAdapter(id);
    });
  }
  void releaseLocked(const QUserLibUsb *owner) {
    held_.erase(std::remove_if(held_.begin(), held_.end(),
                               [owner](const auto &entry) { return entry.first == owner; }),
                held_.end());
  }

  std::mutex mutex_;
  std::vector<std::pair<const QUserLibUsb *, UsbAdapterIdentity>> held_;
};

// Bus and port path of a device in the list (no handle needed).
UsbAdapterIdentity locate(libusb_device *dev, const libusb_device_descriptor &desc) {
  UsbAdapterIdentity id;
  id.vendorId = desc.idVendor;
  id.productId = desc.idProduct;
  id.bus = libusb_get_bus_number(dev);
  const int n = libusb_get_port_numbers(dev, id.ports, sizeof id.ports);
  id.portCount = n >= 0 ? n : -1;
  return id;
}

// The serial number string of an opened device, as ASCII; empty when it has
// none or does not give it.
std::string readSerial(libusb_device_handle *open, uint8_t stringIndex) {
  if (stringIndex == 0) {
    return {};
  }
  unsigned char raw[256] = {};
  const int got =
      libusb_control_transfer(open, LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR,
                              static_cast<uint16_t>(LIBUSB_DT_STRING << 8 | stringIndex),
                              kEnglishUs, raw, sizeof raw, kDescriptorTimeoutMs);
  if (got < 2 || raw[1] != LIBUSB_DT_STRING) {
    return {};
  }
  const size_t end = std::min<size_t>(raw[0], static_cast<size_t>(got));
  std::string text;
  for (size_t i = 2; i + 1 < end; i += 2) {
    text.push_back(raw[i + 1] == 0 ? static_cast<char>(raw[i]) : '?');
  }
  return text;
}

} // namespace

bool UsbAdapterIdentity::samePath(const UsbAdapterIdentity &other) const {
  return portCount >= 0 && bus == other.bus && portCount == other.portCount &&
         std::equal(ports, ports + portCount, other.ports);
}

bool UsbAdapterIdentity::sameAdapter(const UsbAdapterIdentity &other) const {
  if (vendorId != other.vendorId || productId != other.productId) {
    return false;
  }
  if (!serial.empty() && !other.serial.empty()) {
    return serial == other.serial;
  }
  return samePath(other);
}

QUserLibUsb::QUserLibUsb() {
  libusb_init(&ctx);
  initRecursivePiMutex(&mutex);
}

QUserLibUsb::~QUserLibUsb() {
  CloseUSBDevice();
  libusb_exit(ctx);
  ctx = nullptr;
  pthread_mutex_destroy(&mutex);
}

UsbAdapterIdentity QUserLibUsb::identity() const {
  QUserMutex lock(mutex);
  return adapter;
}

libusb_device_handle *QUserLibUsb::openAndIdentify(libusb_device *dev, UsbAdapterIdentity &id) {
  libusb_device_descriptor desc{};
  libusb_get_device_descriptor(dev, &desc);
  libusb_device_handle *open = nullptr;
  if (libusb_open(dev, &open) != 0) {
    return nullptr;
  }
  id.serial = readSerial(open, desc.iSerialNumber);
  if (desc.iSerialNumber != 0 && id.serial.empty()) {
    logger().Warn("USB Device<%u> USB SerialNum Get Fail...", index);
  }
  return open;
}

void QUserLibUsb::adopt(libusb_device_handle *chosen, const UsbAdapterIdentity &id) {
  libusb_reset_device(chosen);
  adapter = id;
  {
    std::unique_lock<std::shared_mutex> noTransfers(handleInUse);
    handle.store(chosen, std::memory_order_release);
  }
  logger().Info("DRV Tip:USB Device<%u> Link...", index);
  linkStatus.store(1, std::memory_order_relaxed);
}

void QUserLibUsb::logMissing(unsigned int wantIndex) {
  if (lastErr.exchange(LIBUSB_ERROR_NO_DEVICE, std::memory_order_relaxed) !=
      LIBUSB_ERROR_NO_DEVICE) {
    logger().Error("DRV Tip:USB Device<%04x:%04x:%u> Not Exist...", vid, pid, wantIndex);
  }
}

// Enumerates with the wrapper's own context: libusb's default (null) context
// falls back to the first context a program created and is gone once that
// one exits, which would leave a later recovery enumerating with no context.
int QUserLibUsb::OpenUSBDevice(unsigned int wantVid, unsigned int wantPid, unsigned int wantIndex) {
  QUserMutex lock(mutex);
  closeLocked();
  if (claimed) {
    AdapterClaims::instance().release(this);
    claimed = false;
  }
  vid = wantVid;
  pid = wantPid;
  index = wantIndex;
  DeviceList list;
  const ssize_t count = libusb_get_device_list(ctx, &list.devices);
  if (count < 0) {
    return static_cast<int>(count);
  }
  unsigned int matches = 0;
  for (ssize_t i = 0; i < count; ++i) {
    libusb_device *dev = list.devices[i];
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(dev, &desc) != 0) {
      logger().Error("DRV Tip:USB Device<%04x:%04x:%u> Open Fail, Device Descriptor Get Fail...",
                     wantVid, wantPid, wantIndex);
      return 0;
    }
    if (desc.idVendor != wantVid || desc.idProduct != wantPid) {
      continue;
    }
    if (++matches > kMaxMatches || matches != wantIndex + 1) {
      continue;
    }
    UsbAdapterIdentity id = locate(dev, desc);
    libusb_device_handle *chosen = openAndIdentify(dev, id);
    if (chosen == nullptr) {
      logger().Error("设备打开失败,检测设备是否已连接，程序是否管理员权限运行!");
      return 0;
    }
    if (!AdapterClaims::instance().claim(this, id)) {
      libusb_close(chosen);
      logger().Error("DRV Tip:USB Device<%04x:%04x:%u> Already Open...", wantVid, wantPid,
                     wantIndex);
      return kOpenedElsewhere;
    }
    claimed = true;
    adopt(chosen, id);
    return 1;
  }
  logMissing(wantIndex);
  return 0;
}

// Looks for the adapter this wrapper holds: by serial number when it has
// one (adapters held by other wrappers are not even opened), else at its
// bus and port path.
int QUserLibUsb::ReopenUSBDevice() {
  QUserMutex lock(mutex);
  closeLocked();
  if (!claimed) {
    return 0;
  }
  DeviceList list;
  const ssize_t count = libusb_get_device_list(ctx, &list.devices);
  for (ssize_t i = 0; i < count; ++i) {
    libusb_device *dev = list.devices[i];
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(dev, &desc) != 0 || desc.idVendor != vid ||
        desc.idProduct != pid) {
      continue;
    }
    UsbAdapterIdentity id = locate(dev, desc);
    if (adapter.serial.empty() ? !id.samePath(adapter)
                               : AdapterClaims::instance().heldByOther(this, id)) {
      continue;
    }
    libusb_device_handle *chosen = openAndIdentify(dev, id);
    if (chosen == nullptr) {
      continue;
    }
    if (!id.sameAdapter(adapter) || !AdapterClaims::instance().claim(this, id)) {
      libusb_close(chosen);
      continue;
    }
    adopt(chosen, id);
    return 1;
  }
  logMissing(index);
  return 0;
}

void QUserLibUsb::closeLocked() {
  libusb_device_handle *open = handle.load(std::memory_order_acquire);
  if (open == nullptr) {
    return;
  }
  for (int ep = 0; ep < 8; ++ep) {
    if (const unsigned char in = inEps[ep].exchange(0, std::memory_order_relaxed)) {
      libusb_clear_halt(open, in);
    }
    if (const unsigned char out = outEps[ep].exchange(0, std::memory_order_relaxed)) {
      libusb_clear_halt(open, out);
    }
  }
  libusb_reset_device(open);
  std::unique_lock<std::shared_mutex> noTransfers(handleInUse);
  handle.store(nullptr, std::memory_order_release);
  libusb_close(open);
}

int QUserLibUsb::CloseUSBDevice() {
  QUserMutex lock(mutex);
  closeLocked();
  if (claimed) {
    AdapterClaims::instance().release(this);
    claimed = false;
  }
  return 1;
}

int QUserLibUsb::RestartUSBDevice() {
  ReopenUSBDevice();
  // The adapter needs a moment after a reopen before it takes commands; the
  // wait sleeps instead of spinning so a host with an unplugged adapter
  // does not lose a core.
  const uint32_t start = getCurMicroSec();
  while (getLapseMicroSec(start) < kRestartSettleMicros) {
    const uint32_t left = kRestartSettleMicros - getLapseMicroSec(start);
    timespec pause{0, static_cast<long>(std::min<uint32_t>(left, kRestartSettleMicros)) * 1000};
    nanosleep(&pause, nullptr);
  }
  return 1;
}

void QUserLibUsb::ProcessUSBDeviceErrCode(int err) {
  if (err != LIBUSB_ERROR_NO_DEVICE) {
    return;
  }
  if (linkStatus.exchange(0, std::memory_order_relaxed) == 1) {
    logger().Warn("USB Device<%u> DisLink...", index);
  }
}

int QUserLibUsb::WriteUSBDevice(unsigned char *data, int length, unsigned char ep,
                                unsigned int timeout) {
  return write(Kind::Interrupt, data, length, ep, timeout);
}

int QUserLibUsb::bulkWriteUSBDevice(unsigned char *data, int length, unsigned char ep,
                                    unsigned int timeout) {
  QUserMutex lock(mutex);
  return write(Kind::Bulk, data, length, ep, timeout);
}

int QUserLibUsb::ReadUSBDevice(unsigned char *buffer, int length, unsigned char ep,
                               unsigned int timeout) {
  return read(Kind::Interrupt, buffer, length, ep, timeout);
}

int QUserLibUsb::bulkReadUSBDevice(unsigned char *buffer, int length, unsigned char ep,
                                   unsigned int timeout) {
  return read(Kind::Bulk, buffer, length, ep, timeout);
}

int QUserLibUsb::write(Kind kind, unsigned char *data, int length, unsigned char ep,
                       unsigned int timeout) {
  std::shared_lock<std::shared_mutex> inUse(handleInUse);
  libusb_device_handle *open = handle.load(std::memory_order_acquire);
  if (open == nullptr) {
    return -1;
  }
  outEps[ep & 0x07].store(ep, std::memory_order_relaxed);
  virtualtime::chargeTransfer();
  int moved = 0;
  const int err = kind == Kind::Interrupt
                      ? libusb_interrupt_transfer(open, ep, data, length, &moved, timeout)
                      : libusb_bulk_transfer(open, ep, data, length, &moved, timeout);
  if (err == 0) {
    return moved;
  }
  ProcessUSBDeviceErrCode(err);
  if (lastWriteFailEp.exchange(ep, std::memory_order_relaxed) != ep) {
    if (kind == Kind::Interrupt) {
      logger().Warn("line:%d ep:%02x write %dbyte fail,ret=%d %s ", 361, ep, length, err,
                    libusb_strerror(err));
    } else {
      logger().Warn("line:%d ep:%02x bulk write %dbyte fail,ret=%d %s ", 401, ep, length, err,
                    libusb_strerror(err));
    }
  }
  return err;
}

// A read that times out after part of the data came still hands that part
// over: the bytes are gone from the device and would otherwise be lost.
int QUserLibUsb::read(Kind kind, unsigned char *buffer, int length, unsigned char ep,
                      unsigned int timeout) {
  std::shared_lock<std::shared_mutex> inUse(handleInUse);
  libusb_device_handle *open = handle.load(std::memory_order_acquire);
  if (open == nullptr) {
    return 0;
  }
  inEps[ep & 0x07].store(ep, std::memory_order_relaxed);
  virtualtime::chargeTransfer();
  int moved = 0;
  const int err = kind == Kind::Interrupt
                      ? libusb_interrupt_transfer(open, ep, buffer, length, &moved, timeout)
                      : libusb_bulk_transfer(open, ep, buffer, length, &moved, timeout);
  if (err == 0 || (err == LIBUSB_ERROR_TIMEOUT && moved > 0)) {
    lastErr.store(0, std::memory_order_relaxed);
    return moved;
  }
  ProcessUSBDeviceErrCode(err);
  if (lastErr.exchange(err, std::memory_order_relaxed) != err && err != LIBUSB_ERROR_TIMEOUT) {
    if (kind == Kind::Interrupt) {
      logger().Warn("line:%d ep:%02x read fail,ret=%d %s", 441, ep, err, libusb_strerror(err));
    } else {
      logger().Warn("line:%d ep:%02x bulk read fail,ret=%d %s", 487, ep, err, libusb_strerror(err));
    }
  }
  return err;
}

int QUserLibUsb::resetUSBEp(unsigned char ep) {
  std::shared_lock<std::shared_mutex> inUse(handleInUse);
  if (libusb_device_handle *open = handle.load(std::memory_order_acquire)) {
    libusb_clear_halt(open, ep);
  }
  return 0;
}
