// Placeholder until the recorder driver lands: its types answer as unsupported.
#include "api/DriverFactory.h"

std::unique_ptr<QDevice> makeCanRecordDevice() { return nullptr; }
