#include "Pavo/value/IpGenAddrWithFullMask.h"

#include "Pavo/value/IpText.h"

namespace Pavo {

// Reads address and mask, both by the parser of `Address`.
template <class Address>
const char* IpGenAddrWithFullMask::parseAs(Mox::TextCursor& in, const char* addressError,
                                           const char* maskError) {
    Address address;
    if (address.parse(in) != nullptr) {
        return addressError;
    }
    const IpGenAddr whole(address);
    if (atMaskLength(in, whole.af() == ipv6)) {
        uint32_t len = 0;
        if (readLengthSuffix(in, &len) != LengthFault::none || len > addressBits(whole.af())) {
            return longLengthText(whole.af());
        }
        *this = {whole.af(), whole.address(), ip6AddrFromPrefixLen(len)};
        return nullptr;
    }
    if (!in.take('/') || in.atEnd()) {
        return "premature end of Prefix type";
    }
    Address mask;
    if (mask.parse(in) != nullptr) {
        return maskError;
    }
    *this = {whole.af(), whole.address(), IpGenAddr(mask).address()};
    return nullptr;
}

const char* IpGenAddrWithFullMask::parse(Mox::TextCursor& in) {
    switch (detectedFamily(in)) {
        case ipv4:
            return parseAs<IpAddr>(in, "Invalid IPv4 address", "Invalid IPv4 mask");
        case ipv6:
            return parseAs<Ip6Addr>(in, "Invalid IPv6 address", "Invalid IPv6 mask");
        default:
            return invalidText;
    }
}

void IpGenAddrWithFullMask::print(Mox::TextWriter& out) const {
    if (af_ == ipv4) {
        v4AddrWithFullMask().print(out);
    } else {
        v6AddrWithFullMask().print(out);
    }
}

}  // namespace Pavo
