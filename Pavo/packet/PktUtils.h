/// @file
/// Checks of received frames, from the Ethernet header to the checksum. They never throw; what is
/// wrong is also traced, at level 1.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/Icmp6Hdr.h"
#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/packet/PktErrors.h"

namespace Pavo {

/// Checks an untagged frame with an IPv4 header. The first fault, in this order, is one of
/// - `pktTooShort`: fewer than 34 bytes
/// - `wrongEthType`: the type field is not 0x0800
/// - `nonIpHdr`: the version is not 4
/// - `badIpPayloadLen`: the header length is below 20 bytes, above the total length or past the end
///   of the packet, or the total length is past that end
/// - `badIpHdrChecksum`
///
/// Headers, options included, must lie in the first iovec, else `pktTooShort`; the payload may
/// reach into the second. `eth` is set once the type field is right, `ip` along with it; both are
/// good until the head of the packet's data changes.
PAVO_EXPORT PktErrors checkEthIpHdr(const Mox::Ptr<Pkt>& pkt, EthHdr*& eth, IpHdr*& ip);

/// Checks an untagged frame with an IPv6 header. The first fault, in this order, is one of
/// - `pktTooShort`: fewer than 54 bytes
/// - `wrongEthType`: the type field is not 0x86dd
/// - `nonIp6Hdr`: the version is not 6
/// - `badIp6PayloadLen`: the payload length is past the end of the packet
///
/// As `checkEthIpHdr` in the rest.
PAVO_EXPORT PktErrors checkEthIp6Hdr(const Mox::Ptr<Pkt>& pkt, EthHdr*& eth, Ip6Hdr*& ip6);

/// Checks the ICMPv6 message that follows `ip6` at once; `ip6` lies in the first iovec of `pkt`.
/// The first fault, in this order, is one of
/// - `nextHdrIsNotIcmp6`: an extension header is such a fault too
/// - `badIp6PayloadLen`: a payload of 3 bytes or fewer, or one past the end of the packet
/// - `pktTooShort`: the ICMPv6 header does not lie in the first iovec
/// - `badIcmp6Checksum`: over the pseudo header and all of the payload, in whatever pieces
///
/// `icmp6` is set when the header is there.
PAVO_EXPORT PktErrors checkIcmp6CheckSum(const Mox::Ptr<Pkt>& pkt, Ip6Hdr* ip6, Icmp6Hdr*& icmp6);
/// The same without the packet. The payload length is trusted: `checkEthIp6Hdr` first, and the
/// whole packet in one iovec.
PAVO_EXPORT PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6, Icmp6Hdr*& icmp6);

/// The checksum of `bytes` bytes of the packet from `offset` on, whatever its pieces, and of all
/// that `sum` holds (see `ipChecksumCalc`). Fatal where the packet ends before: "offset + bytes <=
/// pkt.totalBytes()".
PAVO_EXPORT IpChecksum pktChecksum(const Pkt& pkt, uint32_t offset, uint16_t bytes,
                                   uint32_t sum = 0);

}  // namespace Pavo
