#include "Pavo/packet/PktErrors.h"

namespace Pavo {

PktErrors PktErrorsInstance(uint32_t value) {
    return Mox::enumValue<PktErrors>(value);
}

PktErrors PktErrorsInstance(const Mox::String& name) {
    return Mox::enumValue<PktErrors>(name);
}

}  // namespace Pavo
