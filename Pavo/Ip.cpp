#include "Pavo/Ip.h"

namespace Pavo {

IpProtocolNumber IpProtocolNumberInstance(uint32_t value) {
    return enumValue<IpProtocolNumber>(value);
}

IpProtocolNumber IpProtocolNumberInstance(const Mox::String& name) {
    return enumValue<IpProtocolNumber>(name);
}

}  // namespace Pavo
