// SPDX-License-Identifier: MIT
#include "platform/UsbEvents.h"

#include <pthread.h>

#include <chrono>
#include <new>

#include "platform/QUserLog.h"

namespace {

// Long enough that an idle event thread never wakes by itself; every change
// it must see interrupts it.
constexpr timeval kEventWait{3600, 0};

} // namespace

// Lives in static storage that is never destroyed: drivers still close their
// devices while the library unloads.
UsbEvents &UsbEvents::instance() {
  alignas(UsbEvents) static unsigned char storage[sizeof(UsbEvents)];
  static UsbEvents *events = ::new (storage) UsbEvents();
  return *events;
}

libusb_context *UsbEvents::acquire() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (contextUsers_ == 0 && libusb_init(&ctx_) != 0) {
    ctx_ = nullptr;
  }
  ++contextUsers_;
  return ctx_;
}

void UsbEvents::release() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (contextUsers_ == 0 || --contextUsers_ > 0) {
    return;
  }
  if (thread_.joinable()) {
    handlingUsers_ = 0;
    stopThreadLocked();
  }
  if (ctx_ != nullptr) {
    libusb_exit(ctx_);
    ctx_ = nullptr;
  }
}

void UsbEvents::startHandling() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (handlingUsers_++ == 0 && ctx_ != nullptr) {
    startThreadLocked();
  }
}

void UsbEvents::stopHandling() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (handlingUsers_ > 0 && --handlingUsers_ == 0) {
    stopThreadLocked();
  }
}

void UsbEvents::startThreadLocked() {
  stopping_.store(false, std::memory_order_relaxed);
  const bool canHotplug = libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) != 0;
  hotplug_.store(canHotplug &&
                     libusb_hotplug_register_callback(
                         ctx_, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, 0, LIBUSB_HOTPLUG_MATCH_ANY,
                         LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, &UsbEvents::arrived,
                         this, &hotplugHandle_) == LIBUSB_SUCCESS,
                 std::memory_order_release);
  thread_ = std::thread([this] { run(); });
}

void UsbEvents::stopThreadLocked() {
  if (!thread_.joinable()) {
    return;
  }
  stopping_.store(true, std::memory_order_release);
  libusb_interrupt_event_handler(ctx_);
  thread_.join();
  if (hotplug_.exchange(false, std::memory_order_acq_rel)) {
    libusb_hotplug_deregister_callback(ctx_, hotplugHandle_);
  }
}

void UsbEvents::run() {
  pthread_setname_np(pthread_self(), "wcan usb events");
  while (!stopping_.load(std::memory_order_acquire)) {
    timeval wait = kEventWait;
    const int rc = libusb_handle_events_timeout_completed(ctx_, &wait, nullptr);
    if (rc != 0 && rc != LIBUSB_ERROR_INTERRUPTED) {
      QUserLog::GetInstance().Warn("USB event handling failed: %s", libusb_strerror(rc));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

int LIBUSB_CALL UsbEvents::arrived(libusb_context *, libusb_device *, libusb_hotplug_event,
                                   void *self) {
  auto &events = *static_cast<UsbEvents *>(self);
  events.arrivals_.fetch_add(1, std::memory_order_acq_rel);
  std::lock_guard<std::mutex> guard(events.listenersMutex_);
  for (const auto &entry : events.listeners_) {
    entry.second();
  }
  return 0;
}

void UsbEvents::addArrivalListener(const void *key, std::function<void()> onArrival) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  listeners_[key] = std::move(onArrival);
}

void UsbEvents::removeArrivalListener(const void *key) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  listeners_.erase(key);
}
