/// @file
/// Metadata of one packet.
#pragma once

#include <cstdint>

#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// Metadata of a packet in either direction. A member that is not known is zero, an address then of
/// no family.
struct PktInfo {
    /// The source and the destination in the IP header.
    /// @{
    IpGenAddr srcIpAddr;
    IpGenAddr dstIpAddr;
    /// @}
    /// The interface on which it arrived or leaves.
    uint32_t ifIndex = 0;
    /// The TOS byte or traffic class, and the TTL or hop limit.
    /// @{
    uint8_t tos = 0;
    uint8_t ttl = 0;
    /// @}
    /// Whether the kernel removes the IP header of a received packet, or adds that of a sent one:
    /// the packet then begins with what follows the header, which is of `protocol`.
    bool isIpHdrWithKernel = false;
    /// Of what follows the IP header.
    IpProtocolNumber protocol = IpProtocolNumber::hopopt;
};

/// Metadata of one received packet, without values of earlier ones.
struct RxInfo : PktInfo {
    /// The destination before any redirection.
    IpGenAddr origDstIpAddr;
    /// The packet was longer than the room for it: its end is missing.
    bool truncated = false;
};

/// Metadata of a packet that is about to be sent. A zero TTL is left to the kernel.
struct TxInfo : PktInfo {
    /// The kernel adds the router alert option (RFC 2113, RFC 2711).
    bool hasRouterAlert = false;
};

}  // namespace Pavo
