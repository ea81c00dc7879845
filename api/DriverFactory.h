// SPDX-License-Identifier: MIT
// Construction of the object-based drivers, one function per family, so the
// exported layer never names a concrete driver class.
#pragma once

#include <memory>

#include "QDevice.h"

std::unique_ptr<QDevice> makeUsbCanFdDevice();
std::unique_ptr<QDevice> makeCanRecordDevice();
