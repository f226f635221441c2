#include "Pavo/label/MplsLabelStackBase.h"

namespace Pavo {

BoundedMplsLabelStackError BoundedMplsLabelStackErrorInstance(uint32_t value) {
    return Mox::enumValue<BoundedMplsLabelStackError>(value);
}

BoundedMplsLabelStackError BoundedMplsLabelStackErrorInstance(const Mox::String& name) {
    return Mox::enumValue<BoundedMplsLabelStackError>(name);
}

}  // namespace Pavo
