#include "Pavo/value/Ip.h"

namespace Pavo {

IpProtocolNumber IpProtocolNumberInstance(uint32_t value) {
    return enumValue<IpProtocolNumber>(value);
}

IpProtocolNumber IpProtocolNumberInstance(const Mox::String& name) {
    return enumValue<IpProtocolNumber>(name);
}

IpProtocolNumber protocolNumFromByte(uint8_t byte) {
    const auto* number = Mox::findEnumerator<IpProtocolNumber>(byte);
    return number != nullptr ? number->value : IpProtocolNumber::reserved;
}

}  // namespace Pavo
