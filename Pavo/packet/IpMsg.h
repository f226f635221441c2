/// @file
/// A message that follows an IP header at once, as routing protocols send it, and what the checks
/// of such a message need of the IP header.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/packet/PktErrors.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// A message in a packet. Where the packet has its IP header, `ipMsgAt` reads it; where the kernel
/// removed it, the metadata of the endpoint has what is needed:
///
///     const RxInfo info = pam->rxInfo();  // With the options `ipPktInfo` and `ipRecvTTL`.
///     const IpMsg msg{.pkt = pkt, .bytes = pkt->totalBytes(), .protocol = info.protocol,
///                     .src = info.srcIpAddr, .dst = info.dstIpAddr, .ttl = info.ttl};
///
/// Without these options `dst` and `ttl` are unknown, and a check says that the sender was wrong.
///
/// `offset + bytes` is at most the size of the packet.
struct IpMsg {
    /// The packet, which is held.
    Mox::Ptr<Pkt> pkt;
    /// Where the message begins, in bytes from the start of the packet.
    uint32_t offset = 0;
    /// The length of the message. What follows it is padding of the link.
    uint32_t bytes = 0;
    /// The protocol of the message, as the IP header says.
    IpProtocolNumber protocol = IpProtocolNumber::hopopt;
    /// The addresses in the IP header.
    /// @{
    IpGenAddr src;
    IpGenAddr dst;
    /// @}
    /// The TTL or hop limit in the IP header.
    uint8_t ttl = 0;

    /// The record at `at` bytes from the start of the message. Null with `pktTooShort` where the
    /// message or the first iovec ends before the record does, else with what the record's own
    /// `check` finds for the bytes up to the end of the message.
    template <class Hdr>
    HdrView<Hdr> hdr(uint32_t at = 0) const {
        if (uint64_t{at} + sizeof(Hdr) > frontBytes()) {
            return PktErrors::pktTooShort;
        }
        auto* header = reinterpret_cast<Hdr*>(pkt->frontData() + offset + at);
        const PktErrors error = header->check(bytes - at);
        return error == PktErrors::noError ? HdrView<Hdr>(header) : HdrView<Hdr>(error);
    }
    /// The record that begins the message. As `hdr`, and `pktTooShort` too where the message does
    /// not lie wholly in the first iovec.
    template <class Hdr>
    HdrView<Hdr> wholeHdr() const {
        return frontBytes() == bytes ? hdr<Hdr>() : HdrView<Hdr>(PktErrors::pktTooShort);
    }
    /// As far as the message lies in the first iovec, in bytes.
    PAVO_EXPORT uint32_t frontBytes() const;

    /// The unfolded sum of the pseudo header of the family, for a message of `bytes` bytes (RFC
    /// 768; RFC 8200, 8.1).
    PAVO_EXPORT uint32_t pseudoHdrSum(uint32_t pseudoBytes) const;
    /// The checksum of the first `count` bytes, whatever the pieces, and of all that `sum` holds: 0
    /// where a checksum in the message is right. A message of 64 KiB or more is in no IP packet:
    /// its sum is never right.
    /// @pre `count <= bytes`
    PAVO_EXPORT IpChecksum checksum(uint32_t count, uint32_t sum = 0) const;
};

/// The message after the IPv4 or IPv6 header at `offset`, and after the hop-by-hop, routing and
/// destination options headers of IPv6. `msg` is set where there is none of these faults, of which
/// the first is returned:
/// - `pktTooShort`: the IP headers do not lie in the first iovec
/// - `nonIpHdr`: the version is neither 4 nor 6
/// - `badIpPayloadLen`, `badIp6PayloadLen`: the lengths do not fit each other or the packet
/// - `badIpHdrChecksum`: of the IPv4 header
/// - `ipFragment`: the packet holds a part of the message only; also a fragment header of IPv6 with
///   all of the message, which hosts do not send any more (RFC 8021)
PAVO_EXPORT PktErrors ipMsgAt(const Mox::Ptr<Pkt>& pkt, uint32_t offset, IpMsg& msg);

}  // namespace Pavo
