// SPDX-License-Identifier: MIT
// Registry of open driver objects by (device type, device index).
// WCAN_OpenDevice and WCAN_CloseDevice create and close the drivers; the
// registry shares them with every call in progress, so a driver closed on one
// thread stays alive until the calls still using it on others have returned.
#pragma once

#include <map>
#include <memory>
#include <shared_mutex>

#include "QDevice.h"

class QWCANCan {};

class QWCANDevice {
public:
  QWCANDevice() = default;
  ~QWCANDevice();
  QWCANDevice(const QWCANDevice &) = delete;
  QWCANDevice &operator=(const QWCANDevice &) = delete;

  QDevice *device = nullptr;
  std::shared_ptr<QDevice> holder; // keeps `device` alive for the calls using it
  std::map<unsigned int, std::unique_ptr<QWCANCan>> channels; // reserved, stays empty
};

class QWCANType {
public:
  std::map<unsigned int, std::unique_ptr<QWCANDevice>> devices;
};

class QWCANDevMgr {
public:
  QWCANDevMgr() = default;
  ~QWCANDevMgr();
  QWCANDevMgr(const QWCANDevMgr &) = delete;
  QWCANDevMgr &operator=(const QWCANDevMgr &) = delete;

  // Lookups: the node or driver, or null. They never create entries.
  QWCANDevice *devFind(unsigned int type, unsigned int index) const;
  QDevice *deviceFind(unsigned int type, unsigned int index) const;
  // The driver with a share in it that keeps it alive while held.
  std::shared_ptr<QDevice> deviceRef(unsigned int type, unsigned int index) const;
  // The first registration of a pair wins. A plain pointer is registered
  // without a share in it (its owner keeps it alive).
  int deviceAdd(unsigned int type, unsigned int index, std::shared_ptr<QDevice> device);
  int deviceAdd(unsigned int type, unsigned int index, QDevice *device);
  int deviceDel(unsigned int type, unsigned int index);
  bool hasType(unsigned int type) const;

private:
  QWCANDevice *devFindLocked(unsigned int type, unsigned int index) const;

  mutable std::shared_mutex lock_;
  std::map<unsigned int, std::unique_ptr<QWCANType>> types;
};

extern QWCANDevMgr wcanDevMgr;
