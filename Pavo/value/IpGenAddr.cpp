#include "Pavo/value/IpGenAddr.h"

#include <algorithm>
#include <cstring>

#include "Mox/Trace.h"

#include "Pavo/value/EthAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility traceFacility("Pavo::IpGenAddr");

}  // namespace

AddressFamily AddressFamilyInstance(uint32_t value) {
    return enumValue<AddressFamily>(value);
}

AddressFamily AddressFamilyInstance(const Mox::String& name) {
    return enumValue<AddressFamily>(name);
}

AddressFamily detectedFamily(const Mox::TextCursor& in) {
    for (const char c : in.rest()) {
        switch (c) {
            case ':':
                return ipv6;
            case '.':
                return ipv4;
            case '/':
                return ipunknown;
            default:
                break;
        }
    }
    return ipunknown;
}

Mox::Bytes IpGenAddr::bytes() const {
    unsigned char buffer[16];
    copyToBuffer(buffer);
    return Mox::Bytes(buffer, size());
}

void IpGenAddr::copyToBuffer(unsigned char* buffer) const {
    unsigned char held[16];
    address_.copyToBuffer(held);
    std::memcpy(buffer, held, size());
}

IpGenAddr IpGenAddr::getMappedV4Addr(const IpGenAddr& address) {
    if (address.af_ != ipv6 || !address.address_.isV4MappedV6()) {
        return IpGenAddr();
    }
    return IpAddr(address.address_.u32(3));
}

IpGenAddr IpGenAddr::getV4MappedV6Addr(const IpGenAddr& address) {
    if (address.af_ != ipv4) {
        return IpGenAddr();
    }
    return Ip6Addr(0, uint64_t{0xffff} << 32 | address.v4Addr().value());
}

bool IpGenAddr::isReserved(bool routable) const {
    return af_ == ipv4 && v4Addr().isReserved(routable);
}

EthAddr IpGenAddr::mcastEtherAddress() const {
    return ofFamily(EthAddr(), [](const auto& address) { return address.mcastEtherAddress(); });
}

uint32_t IpGenAddr::longestCommonPrefix(const IpGenAddr& other) const {
    if (af_ != other.af_) {
        return 0;
    }
    return std::min(address_.longestCommonPrefix(other.address_), addressBits(af_));
}

const char* IpGenAddr::parse(Mox::TextCursor& in) {
    switch (detectedFamily(in)) {
        case ipv4:
            MOX_TRACE(traceFacility, 9, " af ipv4");
            return parseAs<IpAddr>(in, this);
        case ipv6:
            MOX_TRACE(traceFacility, 9, " af ipv6");
            return parseAs<Ip6Addr>(in, this);
        default:
            return invalidText;
    }
}

}  // namespace Pavo
