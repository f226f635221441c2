/// @file
/// IP addresses in attributes of netlink messages.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <span>

#include "Pavo/kernel/NetlinkAttributes.h"
#include "Pavo/kernel/NetlinkMessage.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// The family with the kernel's number AF_INET or AF_INET6; `ipunknown` for any other number.
constexpr AddressFamily familyOf(uint8_t kernelFamily) {
    return kernelFamily == AF_INET ? ipv4 : kernelFamily == AF_INET6 ? ipv6 : ipunknown;
}

/// The kernel's number of a family, AF_UNSPEC for `ipunknown`.
constexpr uint8_t kernelFamilyOf(AddressFamily family) {
    return family == ipv4 ? AF_INET : family == ipv6 ? AF_INET6 : AF_UNSPEC;
}

/// The address that `bytes` begin with; `ipunknown` where they are too few, or the family is not
/// one of IP.
inline IpGenAddr addressIn(std::span<const uint8_t> bytes, uint16_t kernelFamily) {
    IpAddr v4;
    Ip6Addr v6;
    if (kernelFamily == AF_INET && bytes.size() >= sizeof(v4)) {
        v4.copyFromBuffer(bytes.data());
        return v4;
    }
    if (kernelFamily == AF_INET6 && bytes.size() >= sizeof(v6)) {
        v6.copyFromBuffer(bytes.data());
        return v6;
    }
    return {};
}

/// Copies the address in an attribute. False, with `*address` unchanged, when it is missing or
/// short, or the family is not one of IP.
inline bool readAddress(const NetlinkAttributes& attributes, uint16_t type, uint8_t kernelFamily,
                        IpGenAddr* address) {
    const IpGenAddr read = addressIn(attributes.payload(type), kernelFamily);
    *address = read.af() == ipunknown ? *address : read;
    return read.af() != ipunknown;
}

/// Appends the 4 or 16 bytes of an address; nothing for an unknown one.
inline void addAddress(NetlinkMessage& message, uint16_t type, const IpGenAddr& address) {
    if (address.af() == ipv4) {
        message.attributeIs(type, address.v4Addr());
    } else if (address.af() == ipv6) {
        message.attributeIs(type, address.v6Addr());
    }
}

}  // namespace Pavo
