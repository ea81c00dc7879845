// SPDX-License-Identifier: MIT
// The host carries buses, not USB transfers: nobody in it waits for libusb
// events, so what the adapters signal for them goes nowhere.
#include "SimEvents.h"

void wcansim::usbEventHappened() {}
void wcansim::usbPlugEventHappened() {}
