// SPDX-License-Identifier: MIT
#include "api/QWCANDevMgr.h"

#include <mutex>
#include <new>
#include <vector>

QWCANDevMgr wcanDevMgr;

namespace {

// Drivers still registered when the library unloads are closed but never
// destroyed; they are parked here, in storage that is never torn down.
std::vector<std::shared_ptr<QDevice>> &parkedAtUnload() {
  alignas(std::vector<std::shared_ptr<QDevice>>) static unsigned char
      storage[sizeof(std::vector<std::shared_ptr<QDevice>>)];
  static auto *parked = ::new (storage) std::vector<std::shared_ptr<QDevice>>();
  return *parked;
}

} // namespace

QWCANDevice::~QWCANDevice() {
  if (device != nullptr) {
    device->closeDevice();
    device = nullptr;
  }
}

// At unload every driver still registered is closed, in ascending type and
// index order, but not destroyed.
QWCANDevMgr::~QWCANDevMgr() {
  std::unique_lock<std::shared_mutex> guard(lock_);
  for (auto &type : types) {
    for (auto &node : type.second->devices) {
      if (node.second->device != nullptr) {
        node.second->device->closeDevice();
        node.second->device = nullptr;
        parkedAtUnload().push_back(std::move(node.second->holder));
      }
    }
  }
}

QWCANDevice *QWCANDevMgr::devFindLocked(unsigned int type, unsigned int index) const {
  const auto typeIt = types.find(type);
  if (typeIt == types.end()) {
    return nullptr;
  }
  const auto &devices = typeIt->second->devices;
  const auto devIt = devices.find(index);
  return devIt == devices.end() ? nullptr : devIt->second.get();
}

QWCANDevice *QWCANDevMgr::devFind(unsigned int type, unsigned int index) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  return devFindLocked(type, index);
}

QDevice *QWCANDevMgr::deviceFind(unsigned int type, unsigned int index) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  QWCANDevice *node = devFindLocked(type, index);
  return node == nullptr ? nullptr : node->device;
}

std::shared_ptr<QDevice> QWCANDevMgr::deviceRef(unsigned int type, unsigned int index) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  QWCANDevice *node = devFindLocked(type, index);
  return node == nullptr ? nullptr : node->holder;
}

int QWCANDevMgr::deviceAdd(unsigned int type, unsigned int index, std::shared_ptr<QDevice> device) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  auto &typeNode = types[type];
  if (!typeNode) {
    typeNode = std::make_unique<QWCANType>();
  }
  auto &slot = typeNode->devices[index];
  if (!slot) {
    slot = std::make_unique<QWCANDevice>();
    slot->device = device.get();
    slot->holder = std::move(device);
  }
  return 1;
}

int QWCANDevMgr::deviceAdd(unsigned int type, unsigned int index, QDevice *device) {
  return deviceAdd(type, index, std::shared_ptr<QDevice>(device, [](QDevice *) {}));
}

bool QWCANDevMgr::hasType(unsigned int type) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  return types.count(type) != 0;
}

// The driver gets a second closeDevice here (the exported close already ran
// one); drivers tolerate it. The node is then dropped without closing again.
int QWCANDevMgr::deviceDel(unsigned int type, unsigned int index) {
  if (QDevice *device = deviceFind(type, index)) {
    device->closeDevice();
  }
  std::unique_ptr<QWCANDevice> node;
  {
    std::unique_lock<std::shared_mutex> guard(lock_);
    const auto typeIt = types.find(type);
    if (typeIt == types.end()) {
      return 1;
    }
    auto &devices = typeIt->second->devices;
    const auto devIt = devices.find(index);
    if (devIt != devices.end()) {
      devIt->second->device = nullptr;
      node = std::move(devIt->second);
      devices.erase(devIt);
    }
  }
  return 1;
}
