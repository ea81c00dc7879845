// SPDX-License-Identifier: MIT
// What the simulated asynchronous transfers wait for: an adapter queued data,
// took a frame from the bus, or was plugged in, unplugged or removed. The
// thread handling libusb events sleeps until one of these happens.
#pragma once

#include <cstdint>
#include <memory>

#include <libusb-1.0/libusb.h>

namespace wcansim {

class Adapter;

// Something an IN transfer may be waiting for happened.
void usbEventHappened();
// An adapter appeared or disappeared: hot-plug callbacks are due.
void usbPlugEventHappened();

// The adapter and generation a handle of the simulated libusb opened; null
// for a handle that is not one.
std::shared_ptr<Adapter> handleAdapter(libusb_device_handle *handle, uint32_t *generation);

} // namespace wcansim
