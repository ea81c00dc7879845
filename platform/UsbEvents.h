// SPDX-License-Identifier: MIT
// The process's one libusb context, shared by every adapter, and the one
// thread that handles its events while any adapter streams: it delivers the
// completions of the queued receive transfers and the hot-plug arrivals.
// With no traffic and a healthy link the thread sleeps in event handling
// without a time-out; stopping it interrupts the event handling.
#pragma once

#include <libusb-1.0/libusb.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

class UsbEvents {
public:
  static UsbEvents &instance();

  // The shared context: made at the first acquire, ended at the last
  // release. Null when libusb could not be initialised.
  libusb_context *acquire();
  void release();

  // Event handling runs while at least one user needs it.
  void startHandling();
  void stopHandling();

  // Whether arrivals are learnt from hot-plug callbacks (else a recovering
  // adapter lists the devices), and how many arrived so far.
  bool hotplugArrivals() const { return hotplug_.load(std::memory_order_acquire); }
  uint64_t arrivals() const { return arrivals_.load(std::memory_order_acquire); }
  // `onArrival` runs on the event thread at each arrival until removed.
  void addArrivalListener(const void *key, std::function<void()> onArrival);
  void removeArrivalListener(const void *key);

private:
  UsbEvents() = default;
  static int LIBUSB_CALL arrived(libusb_context *, libusb_device *, libusb_hotplug_event,
                                 void *self);
  void run();
  void startThreadLocked();
  void stopThreadLocked();

  std::mutex mutex_; // context, users, thread
  libusb_context *ctx_ = nullptr;
  unsigned contextUsers_ = 0;
  unsigned handlingUsers_ = 0;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> hotplug_{false};
  libusb_hotplug_callback_handle hotplugHandle_ = 0;
  std::atomic<uint64_t> arrivals_{0};
  std::mutex listenersMutex_;
  std::map<const void *, std::function<void()>> listeners_;
};
