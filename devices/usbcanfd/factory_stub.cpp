// Placeholder until the CAN FD driver lands: its types answer as unsupported.
#include "api/DriverFactory.h"

std::unique_ptr<QDevice> makeUsbCanFdDevice() { return nullptr; }
