// SPDX-License-Identifier: MIT
// Constructors of the three family models (each in its own source file).
#pragma once

#include "SimModel.h"

namespace wcansim {

// Types 41, 42, 43, 64, 65, 66, 67.
std::unique_ptr<DeviceModel> makeUsbCanFdModel(unsigned devType);
// Types 3, 4.
std::unique_ptr<DeviceModel> makeUsbCan2Model(unsigned devType);
// Types 61, 62.
std::unique_ptr<DeviceModel> makeCanRecordModel(unsigned devType);

} // namespace wcansim
