#include "api/QWCANDevMgr.h"

QWCANDevMgr wcanDevMgr;

QWCANDevice::~QWCANDevice() {
  if (device != nullptr) {
    device->closeDevice();
    device = nullptr;
  }
}

// At unload every driver still registered is closed, in ascending type and
// index order, but not destroyed.
QWCANDevMgr::~QWCANDevMgr() {
  for (auto &type : types) {
    for (auto &node : type.second->devices) {
      if (node.second->device != nullptr) {
        node.second->device->closeDevice();
        node.second->device = nullptr;
      }
    }
  }
}

QWCANDevice *QWCANDevMgr::devFind(unsigned int type, unsigned int index) const {
  const auto typeIt = types.find(type);
  if (typeIt == types.end()) {
    return nullptr;
  }
  const auto &devices = typeIt->second->devices;
  const auto devIt = devices.find(index);
  return devIt == devices.end() ? nullptr : devIt->second.get();
}

QDevice *QWCANDevMgr::deviceFind(unsigned int type, unsigned int index) const {
  QWCANDevice *node = devFind(type, index);
  return node == nullptr ? nullptr : node->device;
}

int QWCANDevMgr::deviceAdd(unsigned int type, unsigned int index, QDevice *device) {
  auto &typeNode = types[type];
  if (!typeNode) {
    typeNode = std::make_unique<QWCANType>();
  }
  auto &slot = typeNode->devices[index];
  if (!slot) {
    slot = std::make_unique<QWCANDevice>();
    slot->device = device;
  }
  return 1;
}

// The driver gets a second closeDevice here (the exported close already ran
// one); drivers tolerate it. The node is then dropped without closing again.
int QWCANDevMgr::deviceDel(unsigned int type, unsigned int index) {
  if (QDevice *device = deviceFind(type, index)) {
    device->closeDevice();
  }
  const auto typeIt = types.find(type);
  if (typeIt == types.end()) {
    return 1;
  }
  auto &devices = typeIt->second->devices;
  const auto devIt = devices.find(index);
  if (devIt != devices.end()) {
    devIt->second->device = nullptr;
    devices.erase(devIt);
  }
  return 1;
}
