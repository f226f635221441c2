#include "Pavo/value/IpGenPrefix.h"

#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility traceFacility("Pavo::IpGenPrefix");

}  // namespace

const char* IpGenPrefixBase::parse(Mox::TextCursor& in) {
    if (const char* error = Mox::parseRecord(in, this, description(), invalidText)) {
        return error;
    }
    return IpGenAddr::isAddress(af_, address_) ? nullptr : invalidText;
}

void IpGenPrefixBase::print(Mox::TextWriter& out) const {
    Mox::printRecord(out, *this, description());
}

std::weak_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) {
    if (a.af_ != b.af_) {
        return a.af_ <=> b.af_;
    }
    return a.af_ == ipv4 ? a.v4Prefix() <=> b.v4Prefix() : a.v6Prefix() <=> b.v6Prefix();
}

const char* IpGenPrefix::parse(Mox::TextCursor& in) {
    const AddressFamily af = detectedFamily(in);
    if (af == ipunknown) {
        return invalidText;
    }
    MOX_TRACE(traceFacility, 9, " Detected prefix ");
    if (af == ipv6) {
        return parseAs<Ip6Prefix>(in, this);
    }
    if (in.rest().find('/') == std::string_view::npos) {
        return IpAddrWithMask::invalidText;  // Even when the address is wrong as well.
    }
    return parseAs<Prefix>(in, this);
}

}  // namespace Pavo
