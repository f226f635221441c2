#include "Pavo/value/IpGenAddrWithMask.h"

#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility traceFacility("Pavo::IpGenAddrWithMask");

}  // namespace

const char* IpGenAddrWithMask::parse(Mox::TextCursor& in) {
    const AddressFamily af = detectedFamily(in);
    if (af == ipunknown) {
        return invalidText;
    }
    MOX_TRACE(traceFacility, 9, " Detected address ");
    return af == ipv4 ? parseAs<IpAddrWithMask>(in, this) : parseAs<Ip6AddrWithMask>(in, this);
}

}  // namespace Pavo
