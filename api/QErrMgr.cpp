// SPDX-License-Identifier: MIT
#include "api/QErrMgr.h"

#include "platform/QUserUtils.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace {

constexpr int kSlots = 15;
constexpr char kUnknown[] = "Unknown Error!";

// Slot n holds the message of code n; an empty slot is not a code of the
// interface.
constexpr char errInfoTab[kSlots][128] = {
    "OK",
    "Device Not Exist!",
    "",
    "USB Transport Error!",
    "Package Format Error!",
    "Device Info Get Failed!",
    "Device Type Not Supported!",
    "Device Not Opened!",
    "Parameter Error!",
    "Memory Malloc Failed!",
    "Parameter Not Supported!",
    "Baud Rate Parameter Not Supported!",
    "USB Command Failed!",
    "CAN Not Initialized!",
    "CAN Format Error!",
};

bool isKnownCode(int code) { return code >= 0 && code < kSlots && errInfoTab[code][0] != '\0'; }

// The instance lives in static storage rather than on the heap, so nothing
// is left allocated when the library is unloaded without destroyInstance.
alignas(QErrMgr) unsigned char instanceStorage[sizeof(QErrMgr)];
std::atomic<QErrMgr *> m_pInstance{nullptr};
std::mutex creation;

} // namespace

QErrMgr::QErrMgr() { initRecursivePiMutex(&mutex); }

QErrMgr::~QErrMgr() { pthread_mutex_destroy(&mutex); }

QErrMgr *QErrMgr::getInstance() {
  if (QErrMgr *instance = m_pInstance.load(std::memory_order_acquire)) {
    return instance;
  }
  std::lock_guard<std::mutex> once(creation);
  if (m_pInstance.load(std::memory_order_relaxed) == nullptr) {
    m_pInstance.store(new (instanceStorage) QErrMgr(), std::memory_order_release);
  }
  return m_pInstance.load(std::memory_order_relaxed);
}

void QErrMgr::destroyInstance() {
  std::lock_guard<std::mutex> once(creation);
  if (QErrMgr *instance = m_pInstance.exchange(nullptr, std::memory_order_acq_rel)) {
    instance->~QErrMgr();
  }
}

void QErrMgr::setLastError(int code) {
  if (!isKnownCode(code)) {
    return;
  }
  QUserMutex lock(mutex);
  if (lastError != code) {
    lastError = code;
  }
}

int QErrMgr::getLastError() {
  QUserMutex lock(mutex);
  return lastError;
}

const char *QErrMgr::getLastErrorStr() {
  int code;
  {
    QUserMutex lock(mutex);
    code = lastError;
  }
  return messageFor(code);
}

const char *QErrMgr::messageFor(int code) {
  return isKnownCode(code) ? errInfoTab[code] : kUnknown;
}
