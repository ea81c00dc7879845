// One USB device opened through libusb-1.0: selection by vendor/product id and
// index, interrupt and bulk transfers, a link flag and a restart used by the
// drivers' fault recovery.
#pragma once

#include <libusb-1.0/libusb.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <shared_mutex>

class QUserLibUsb {
public:
  QUserLibUsb();
  virtual ~QUserLibUsb();
  QUserLibUsb(const QUserLibUsb &) = delete;
  QUserLibUsb &operator=(const QUserLibUsb &) = delete;

  // 1 opened; 0 not found or not opened; a negative libusb error if the
  // device list could not be read.
  int OpenUSBDevice(unsigned int vid, unsigned int pid, int index);
  int CloseUSBDevice();
  int GetUSBDeviceLinkStatus() const { return linkStatus.load(std::memory_order_relaxed); }
  int RestartUSBDevice();
  void ProcessUSBDeviceErrCode(int err);

  // Bytes moved, or the negative libusb error; -1 when nothing is open.
  int WriteUSBDevice(unsigned char *data, int length, unsigned char ep, unsigned int timeout);
  int bulkWriteUSBDevice(unsigned char *data, int length, unsigned char ep, unsigned int timeout);
  // Bytes moved, or the negative libusb error; 0 when nothing is open.
  int ReadUSBDevice(unsigned char *buffer, int length, unsigned char ep, unsigned int timeout);
  int bulkReadUSBDevice(unsigned char *buffer, int length, unsigned char ep, unsigned int timeout);
  int resetUSBEp(unsigned char ep);

  bool isOpen() const { return handle.load(std::memory_order_acquire) != nullptr; }

private:
  enum class Kind { Interrupt, Bulk };
  int write(Kind kind, unsigned char *data, int length, unsigned char ep, unsigned int timeout);
  int read(Kind kind, unsigned char *buffer, int length, unsigned char ep, unsigned int timeout);
  bool readSerialMatches(libusb_device *dev);
  void closeLocked();

  std::atomic<libusb_device_handle *> handle{nullptr};
  // Transfers hold it shared so they still run side by side; closing the
  // handle takes it exclusively, so a host thread's transfer can never use
  // a handle that the receive thread's recovery is freeing.
  std::shared_mutex handleInUse;
  libusb_context *ctx = nullptr;
  unsigned int vid = 0;
  unsigned int pid = 0;
  int index = 0;
  unsigned char serialNum[256] = {};
  std::atomic<uint8_t> lastWriteFailEp{0xFF};
  // Written by every transfer (from the receive thread and host threads at
  // once), read when closing.
  std::atomic<unsigned char> inEps[8] = {};
  std::atomic<unsigned char> outEps[8] = {};
  uint32_t reserved = 0;
  std::atomic<int> linkStatus{0};
  std::atomic<int> lastErr{0};
  uint32_t serialLen = 0;
  pthread_mutex_t mutex;
};
