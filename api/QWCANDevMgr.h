// Registry of open driver objects by (device type, device index). It does not
// own the drivers: WCAN_OpenDevice/WCAN_CloseDevice create and destroy them.
#pragma once

#include <map>
#include <memory>

#include "QDevice.h"

class QWCANCan {};

class QWCANDevice {
public:
  QWCANDevice() = default;
  ~QWCANDevice();
  QWCANDevice(const QWCANDevice &) = delete;
  QWCANDevice &operator=(const QWCANDevice &) = delete;

  QDevice *device = nullptr;
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

  QWCANDevice *devFind(unsigned int type, unsigned int index) const;
  QDevice *deviceFind(unsigned int type, unsigned int index) const;
  int deviceAdd(unsigned int type, unsigned int index, QDevice *device);
  int deviceDel(unsigned int type, unsigned int index);
  bool hasType(unsigned int type) const { return types.count(type) != 0; }

private:
  std::map<unsigned int, std::unique_ptr<QWCANType>> types;
};

extern QWCANDevMgr wcanDevMgr;
