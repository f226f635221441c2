#include "Pavo/packet/IcmpHdr.h"

#include "Pavo/packet/Checksum.h"

namespace Pavo {

IcmpType IcmpTypeInstance(uint32_t value) {
    return Mox::enumValue<IcmpType>(value);
}

IcmpType IcmpTypeInstance(const Mox::String& name) {
    return Mox::enumValue<IcmpType>(name);
}

IpChecksum IcmpHdr::computedChecksum(uint16_t bytes) const {
    return ipChecksumCalc(this, bytes, 0);
}

}  // namespace Pavo
