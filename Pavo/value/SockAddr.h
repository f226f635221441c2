/// @file
/// Addresses as the structures of the system's calls, and back.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>

#include "Mox/Lifetime.h"

#include "Pavo/base/Export.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// The address as the system's calls take it, in network order, and back.
/// @{
inline in_addr inAddrFrom(const IpAddr& address) {
    return {htonl(address.value())};
}
inline IpAddr ipAddrFrom(const in_addr& address) {
    return IpAddr(ntohl(address.s_addr));
}
inline in6_addr in6AddrFrom(const Ip6Addr& address) {
    in6_addr image;
    address.copyToBuffer(image.s6_addr);
    return image;
}
inline Ip6Addr ip6AddrFrom(const in6_addr& address) {
    Ip6Addr value;
    value.copyFromBuffer(address.s6_addr);
    return value;
}
/// @}

/// One end of an IPv4 connection; `port` is in host order.
PAVO_EXPORT sockaddr_in sockaddrInFrom(const IpAddr& address, uint16_t port = 0);
/// One end of an IPv6 connection; `port` is in host order. `scopeId` is the index of the interface
/// that a link-local address belongs to.
PAVO_EXPORT sockaddr_in6 sockaddrIn6From(const Ip6Addr& address, uint16_t port = 0,
                                         uint32_t scopeId = 0);

/// The address of a socket of either family, with the length that the system's calls take beside
/// it: `bind(fd, name.get(), name.length)`, `getsockname(fd, name.get(), name.room())`.
struct SockAddr {
    SockAddr() = default;
    /// `scopeId` counts for IPv6 only. An unknown family is AF_UNSPEC,
    /// without a port.
    PAVO_EXPORT explicit SockAddr(const IpGenAddr& address, Port port = 0, uint32_t scopeId = 0);

    /// For the system's calls, with `length` or `room()`.
    sockaddr* get() MOX_LIFETIME_BOUND { return reinterpret_cast<sockaddr*>(&storage); }
    /// For a call that writes an address of any family and its length.
    socklen_t* room() MOX_LIFETIME_BOUND {
        length = sizeof(storage);
        return &length;
    }
    /// For the system's calls, with `length`.
    const sockaddr* get() const MOX_LIFETIME_BOUND {
        return reinterpret_cast<const sockaddr*>(&storage);
    }

    /// The address, of an unknown family where this is neither AF_INET nor AF_INET6, or is shorter
    /// than an address of its family; port and scope are then 0.
    PAVO_EXPORT IpGenAddr address() const;
    /// In host order; 0 where `address` is of an unknown family.
    PAVO_EXPORT Port port() const;
    /// 0 for IPv4.
    PAVO_EXPORT uint32_t scopeId() const;

    /// The bytes, of which the first `length` count.
    sockaddr_storage storage{};
    /// The number of bytes that count.
    socklen_t length = sizeof(storage);
};

}  // namespace Pavo
