/// @file
/// Metadata of one packet.
#pragma once

#include <cstdint>

#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrAndPort.h"

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
    /// The source and the destination in the UDP header that the kernel removes or adds.
    /// @{
    Port srcPort;
    Port dstPort;
    /// @}
    /// The TOS byte or traffic class, and the TTL or hop limit.
    /// @{
    uint8_t tos = 0;
    uint8_t ttl = 0;
    /// @}
    /// Whether the kernel removes the IP header of a received packet, or adds that of a sent one:
    /// the packet then begins with what follows the header, which is of `protocol`.
    bool isIpHdrWithKernel = false;
    /// The same of the UDP header: the packet is what a datagram carries.
    bool isUdpHdrWithKernel = false;
    /// The protocol of what follows the IP header.
    IpProtocolNumber protocol = IpProtocolNumber::hopopt;

    /// The sender of a datagram, such as `UdpPam::remoteIs` takes it.
    IpGenAddrAndPort source() const { return {srcIpAddr, srcPort}; }
};

/// To whom a frame was addressed, as this host sees it (packet(7)); `outgoing` is one that it sent
/// itself.
enum class RxPktType : uint8_t { host, broadcast, multicast, otherHost, outgoing };

/// Metadata of one received packet, without values of earlier ones.
struct RxInfo : PktInfo {
    /// The destination before any redirection; the port for UDP only.
    /// @{
    IpGenAddr origDstIpAddr;
    Port origDstPort;
    /// @}
    /// The packet was longer than the room for it: its end is missing.
    bool truncated = false;
    /// The type of the receiver of a frame.
    RxPktType pktType = RxPktType::host;
    /// The checksum in the TCP or UDP header of a frame is not there yet, since this host sent the
    /// frame and left the checksum to a device.
    bool isChecksumPending = false;
    /// When the kernel received it, in nanoseconds since 1970-01-01 00:00 UTC by the system's
    /// clock; needs `ipRecvTimestamp`.
    int64_t timestampNs = 0;
};

/// Metadata of a packet that is about to be sent. A zero TTL is left to the kernel.
struct TxInfo : PktInfo {
    /// The kernel adds the router alert option (RFC 2113, RFC 2711).
    bool hasRouterAlert = false;
};

/// An error that concerns a packet sent earlier, as the network or the kernel reports it
/// (IP_RECVERR in ip(7)).
struct QueuedError {
    /// The `errno` that it stands for, such as ECONNREFUSED for an ICMP "port unreachable".
    int error = 0;
    /// Where the packet was to go; the port for UDP only.
    /// @{
    IpGenAddr dstIpAddr;
    Port dstPort;
    /// @}
    /// The host that reported it; of no family for this host.
    IpGenAddr reporter;
    /// As in the ICMP or ICMPv6 message; 0 for an error of this host.
    /// @{
    uint8_t icmpType = 0;
    uint8_t icmpCode = 0;
    /// @}
    /// The largest packet that fits, in bytes, for EMSGSIZE.
    uint32_t mtu = 0;
};

}  // namespace Pavo
