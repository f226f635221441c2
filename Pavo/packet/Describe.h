/// @file
/// Packets as text, a line for each layer, in the words of tcpdump(8).
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

/// The header that a description begins with.
enum class FirstHdr {
    ethernet,
    ip,  ///< IPv4 or IPv6, by its version.
    mpls,
    controlWord,  ///< That of a pseudowire, which carries an Ethernet frame.
};

/// A line for each layer of the packet, from the header at `offset` on, without a newline at the
/// end:
///
///     00:00:5e:00:53:01 > 00:00:5e:00:53:02, ethertype IPv4 (0x0800), length 53
///     IP (tos 0x0, ttl 64, id 0, offset 0, flags [none], proto UDP (17), length 39) 192.0.2.1 >
///         192.0.2.2
///     UDP 1024 > 53: [udp sum ok] length 11
///     payload, length 11
///
/// (the second is one line). Known are Ethernet, VLAN tags, the packet's separate tag too, I-TAGs,
/// MPLS, ARP, IPv4, IPv6 with its extension headers, ICMP, ICMPv6 with neighbour discovery, IGMP,
/// PIM, VRRP, UDP, TCP, SCTP, GRE and VXLAN (by its port), whatever their nesting, and the packets
/// in ICMP errors. Of TCP options and IPv6 extension headers only the length is given. What follows
/// the labels is taken for IP by its first four bits, else for payload. Checksums are checked where
/// all that they cover is there.
///
/// Any bytes in any pieces give a description. Where it ends early, the last line says where, in
/// bytes from the start of the packet, and why: "stopped at byte 14: [|ip] 6 of 20 bytes" for a
/// truncated header, "stopped at byte 14: ethertype LLDP (0x88cc) is not decoded, length 46".
PAVO_EXPORT Mox::String describe(const Mox::Ptr<Pkt>& pkt, uint32_t offset = 0,
                                 FirstHdr first = FirstHdr::ethernet);
/// The same from a header after the IP header on, as raw sockets deliver it. Checksums that take
/// in addresses are not checked.
PAVO_EXPORT Mox::String describe(const Mox::Ptr<Pkt>& pkt, uint32_t offset, IpProtocolNumber first);

}  // namespace Pavo
