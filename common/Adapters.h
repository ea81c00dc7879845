// SPDX-License-Identifier: MIT
// The supported adapters attached to the host, found through the loaded
// libusb (or the simulation), numbered as the library numbers them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/Runtime.h"

namespace wcantool {

struct AttachedAdapter {
  std::vector<unsigned> types; // every type number that opens it
  unsigned index = 0;          // among the attached devices with the same USB ids
  uint16_t vendorId = 0, productId = 0;
  unsigned busNumber = 0, address = 0;
};

// Throws ToolError when the USB library cannot list its devices.
std::vector<AttachedAdapter> attachedAdapters(const Runtime &runtime);

// "wcan41-0-0 wcan41-0-1 wcan4-0-0 ...": the buses of the attached adapters
// that carry traffic, under the first type number of each; "none" without any.
std::string attachedBusNames(const Runtime &runtime);

} // namespace wcantool
