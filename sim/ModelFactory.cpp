// SPDX-License-Identifier: MIT
#include "Models.h"

namespace wcansim {

std::unique_ptr<DeviceModel> makeModel(unsigned devType) {
  switch (devType) {
  case 3:
  case 4:
    return makeUsbCan2Model(devType);
  case 61:
  case 62:
    return makeCanRecordModel(devType);
  default:
    return makeUsbCanFdModel(devType); // null for a type of no family
  }
}

} // namespace wcansim
