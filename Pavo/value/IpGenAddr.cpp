#include "Pavo/value/IpGenAddr.h"

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
    if (af_ == ipv4) {
        v4Addr().copyToBuffer(buffer);
    } else {
        address_.copyToBuffer(buffer);
    }
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
    switch (af_) {
        case ipv4:
            return v4Addr().mcastEtherAddress();
        case ipv6:
            return address_.mcastEtherAddress();
        default:
            return EthAddr();
    }
}

uint32_t IpGenAddr::longestCommonPrefix(const IpGenAddr& other) const {
    if (af_ != other.af_) {
        return 0;
    }
    switch (af_) {
        case ipv4:
            return v4Addr().longestCommonPrefix(other.v4Addr());
        case ipv6:
            return address_.longestCommonPrefix(other.address_);
        default:
            return 0;
    }
}

const char* IpGenAddr::parse(Mox::TextCursor& in) {
    const char* error = invalidText;
    switch (detectedFamily(in)) {
        case ipv4: {
            MOX_TRACE(traceFacility, 9, " af ipv4");
            IpAddr address;
            error = address.parse(in);
            handleV4Addr(address);
            break;
        }
        case ipv6: {
            MOX_TRACE(traceFacility, 9, " af ipv6");
            Ip6Addr address;
            error = address.parse(in);
            handleV6Addr(address);
            break;
        }
        default:
            break;
    }
    return error;
}

}  // namespace Pavo
