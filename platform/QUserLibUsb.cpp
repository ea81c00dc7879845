#include "platform/QUserLibUsb.h"

#include <time.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

namespace {

constexpr int kMaxMatches = 63;
constexpr uint32_t kRestartSettleMicros = 100000;

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

} // namespace

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

// Enumerates with the wrapper's own context: libusb's default (null) context
// falls back to the first context a program created and is gone once that
// one exits, which would leave a later recovery enumerating with no context.
int QUserLibUsb::OpenUSBDevice(unsigned int wantVid, unsigned int wantPid, int wantIndex) {
  QUserMutex lock(mutex);
  DeviceList list;
  const ssize_t count = libusb_get_device_list(ctx, &list.devices);
  if (count < 0) {
    return static_cast<int>(count);
  }
  libusb_device_handle *chosen = nullptr;
  bool found = false;
  int matches = 0;
  for (ssize_t i = 0; i < count && !found; ++i) {
    libusb_device *dev = list.devices[i];
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(dev, &desc) != 0) {
      logger().Error("DRV Tip:USB Device<%04x:%04x:%d> Open Fail, Device Descriptor Get Fail...",
                     wantVid, wantPid, wantIndex);
      return 0;
    }
    if (desc.idVendor != wantVid || desc.idProduct != wantPid) {
      continue;
    }
    if (++matches > kMaxMatches) {
      continue;
    }
    if (serialLen == 0) {
      const int target = wantIndex < 0 ? 0 : wantIndex;
      if (matches != target + 1) {
        continue;
      }
      found = true;
      if (libusb_open(dev, &chosen) != 0) {
        chosen = nullptr;
        logger().Error("设备打开失败,检测设备是否已连接，程序是否管理员权限运行!");
        return 0;
      }
    } else if (readSerialMatches(dev)) {
      found = true;
      if (libusb_open(dev, &chosen) != 0) {
        chosen = nullptr;
        return 0;
      }
    }
  }
  if (!found) {
    if (lastErr.load(std::memory_order_relaxed) != LIBUSB_ERROR_NO_DEVICE) {
      lastErr.store(LIBUSB_ERROR_NO_DEVICE, std::memory_order_relaxed);
      logger().Error("DRV Tip:USB Device<%04x:%04x:%d> Not Exist...", wantVid, wantPid, wantIndex);
    }
    return 0;
  }
  closeLocked();
  libusb_reset_device(chosen);
  vid = wantVid;
  pid = wantPid;
  index = wantIndex;
  reserved = 0;
  {
    std::unique_lock<std::shared_mutex> noTransfers(handleInUse);
    handle.store(chosen, std::memory_order_release);
  }
  logger().Info("DRV Tip:USB Device<%d> Link...", wantIndex);
  linkStatus.store(1, std::memory_order_relaxed);
  return 1;
}

// Serial selection compares the raw string descriptor, header included. A
// temporary handle of a non-matching device is closed again here (the search
// must not leak handles on long-running hosts).
bool QUserLibUsb::readSerialMatches(libusb_device *dev) {
  libusb_device_handle *probe = nullptr;
  if (libusb_open(dev, &probe) != 0) {
    logger().Error("设备打开失败,检测设备是否已连接，程序是否管理员权限运行!");
    return false;
  }
  unsigned char raw[256] = {};
  const int got = libusb_control_transfer(probe, 0x80, 6, 0x0303, 0, raw, sizeof raw, 1000);
  if (got <= 0) {
    logger().Warn("USB Device<%d> USB SerialNum Get Fail...", index);
  }
  const bool same =
      got > 0 && static_cast<uint32_t>(got) == serialLen && memcmp(raw, serialNum, serialLen) == 0;
  libusb_close(probe);
  return same;
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
  return 1;
}

int QUserLibUsb::RestartUSBDevice() {
  CloseUSBDevice();
  OpenUSBDevice(vid, pid, index);
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
    logger().Warn("USB Device<%d> DisLink...", index);
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

int QUserLibUsb::read(Kind kind, unsigned char *buffer, int length, unsigned char ep,
                      unsigned int timeout) {
  std::shared_lock<std::shared_mutex> inUse(handleInUse);
  libusb_device_handle *open = handle.load(std::memory_order_acquire);
  if (open == nullptr) {
    return 0;
  }
  inEps[ep & 0x07].store(ep, std::memory_order_relaxed);
  int moved = 0;
  const int err = kind == Kind::Interrupt
                      ? libusb_interrupt_transfer(open, ep, buffer, length, &moved, timeout)
                      : libusb_bulk_transfer(open, ep, buffer, length, &moved, timeout);
  if (err == 0) {
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
