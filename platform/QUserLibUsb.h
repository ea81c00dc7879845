// SPDX-License-Identifier: MIT
// One USB device opened through libusb-1.0, in the process's one libusb
// context: selection by vendor/product id and index, its interface claimed
// while it is open, interrupt and bulk transfers (and asynchronous ones
// submitted on its handle), a link flag and a restart used by the drivers'
// fault recovery.
//
// Every wrapper remembers which physical adapter it opened (its serial number
// where it has one, and its bus and port path), so that a restart reopens
// that same adapter wherever it shows up in the device list, and no two
// wrappers of the process ever hold the same adapter.
#pragma once

#include <libusb-1.0/libusb.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include <string>

// Where an adapter is and what it calls itself.
struct UsbAdapterIdentity {
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  uint8_t bus = 0;
  uint8_t ports[7] = {};
  int portCount = -1; // -1: not known; 0: the device is the root of its bus
  std::string serial; // empty when the adapter has no serial number

  // The same adapter: by serial number when both have one (it may have moved
  // to another socket), else by bus and port path.
  bool sameAdapter(const UsbAdapterIdentity &other) const;
  bool samePath(const UsbAdapterIdentity &other) const;
};

class QUserLibUsb {
public:
  // OpenUSBDevice results besides 1 (opened) and 0 (not found, not opened).
  static constexpr int kOpenedElsewhere = 2;

  QUserLibUsb();
  virtual ~QUserLibUsb();
  QUserLibUsb(const QUserLibUsb &) = delete;
  QUserLibUsb &operator=(const QUserLibUsb &) = delete;

  // 1 opened; 0 not found or not opened; kOpenedElsewhere when the adapter at
  // that index is held by another wrapper of this process; a negative libusb
  // error if the device list could not be read. Index 63 and above is never
  // found.
  int OpenUSBDevice(unsigned int vid, unsigned int pid, unsigned int index);
  int CloseUSBDevice();
  int GetUSBDeviceLinkStatus() const { return linkStatus.load(std::memory_order_relaxed); }
  // Closes the handle and opens the adapter that was opened before, then
  // lets it settle for 100 ms. The adapter stays this wrapper's while it is
  // absent, so nothing else takes it when it comes back.
  int RestartUSBDevice();
  // The same without the settling pause: 1 when the adapter is back.
  int ReopenUSBDevice();
  void ProcessUSBDeviceErrCode(int err);

  // Bytes moved, or the negative libusb error; -1 when nothing is open.
  int WriteUSBDevice(unsigned char *data, int length, unsigned char ep, unsigned int timeout);
  int bulkWriteUSBDevice(unsigned char *data, int length, unsigned char ep, unsigned int timeout);
  // Bytes moved (also the part that arrived before a time-out), or the
  // negative libusb error; 0 when nothing is open.
  int ReadUSBDevice(unsigned char *buffer, int length, unsigned char ep, unsigned int timeout);
  int bulkReadUSBDevice(unsigned char *buffer, int length, unsigned char ep, unsigned int timeout);
  int resetUSBEp(unsigned char ep);
  // Submits an asynchronous transfer on the open device (filled in but for
  // the handle): 0 or the negative libusb error. The caller keeps every
  // transfer it submitted ended before the device is closed or reopened.
  int submitTransfer(libusb_transfer *transfer);

  bool isOpen() const { return handle.load(std::memory_order_acquire) != nullptr; }
  UsbAdapterIdentity identity() const;

private:
  enum class Kind { Interrupt, Bulk };
  int write(Kind kind, unsigned char *data, int length, unsigned char ep, unsigned int timeout);
  int read(Kind kind, unsigned char *buffer, int length, unsigned char ep, unsigned int timeout);
  // Opens `dev` and reads what identifies it; null handle when it cannot be
  // opened.
  libusb_device_handle *openAndIdentify(libusb_device *dev, UsbAdapterIdentity &id);
  void adopt(libusb_device_handle *chosen, const UsbAdapterIdentity &id);
  void closeLocked();
  void logMissing(unsigned int index);

  std::atomic<libusb_device_handle *> handle{nullptr};
  // Transfers hold it shared so they still run side by side; closing the
  // handle takes it exclusively, so a host thread's transfer can never use
  // a handle that the receive thread's recovery is freeing.
  std::shared_mutex handleInUse;
  libusb_context *ctx = nullptr;
  unsigned int vid = 0;
  unsigned int pid = 0;
  unsigned int index = 0;
  UsbAdapterIdentity adapter; // guarded by mutex
  bool claimed = false;
  bool interfaceClaimed = false; // guarded by mutex
  std::atomic<uint8_t> lastWriteFailEp{0xFF};
  // Written by every transfer (from the receive thread and host threads at
  // once), read when closing.
  std::atomic<unsigned char> inEps[8] = {};
  std::atomic<unsigned char> outEps[8] = {};
  std::atomic<int> linkStatus{0};
  std::atomic<int> lastErr{0};
  mutable pthread_mutex_t mutex;
};
