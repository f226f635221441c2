#include "Pavo/value/IpGenAddrWithMask.h"

#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility traceFacility("Pavo::IpGenAddrWithMask");

// Reads the text of a family's own type.
template <class FamilyValue>
const char* parseAs(Mox::TextCursor& in, IpGenAddrWithMask* value) {
    FamilyValue read;
    const char* const error = read.parse(in);
    if (error == nullptr) {
        *value = read;
    }
    return error;
}

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
