#include "Pavo/value/IpGenAddrWithFullMask.h"

#include "Pavo/value/IpText.h"

namespace Pavo {

// Reads address and mask, both by the parser of `Address`.
template <class Address>
const char* IpGenAddrWithFullMask::parseParts(Mox::TextCursor& in, const char* addressError) {
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
        return IpAddrWithMask::invalidText;
    }
    Address mask;
    if (mask.parse(in) != nullptr) {
        return maskText(whole.af());
    }
    *this = {whole.af(), whole.address(), IpGenAddr(mask).address()};
    return nullptr;
}

const char* IpGenAddrWithFullMask::parse(Mox::TextCursor& in) {
    switch (detectedFamily(in)) {
        case ipv4:
            return parseParts<IpAddr>(in, "Invalid IPv4 address");
        case ipv6:
            return parseParts<Ip6Addr>(in, "Invalid IPv6 address");
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
