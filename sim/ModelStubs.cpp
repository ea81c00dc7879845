// Stand-ins until the classic and recorder models are built; weak, so the
// real constructors replace them as soon as their sources are added.
#include "Models.h"

namespace wcansim {

__attribute__((weak)) std::unique_ptr<DeviceModel> makeUsbCan2Model(unsigned) { return nullptr; }
__attribute__((weak)) std::unique_ptr<DeviceModel> makeCanRecordModel(unsigned) { return nullptr; }

} // namespace wcansim
