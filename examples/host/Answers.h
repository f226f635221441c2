/// @file
/// The answers of a small host to a frame: functions from packet to packet, without endpoints.
#pragma once

#include "Mox/Ptr.h"
#include "Pavo/EthAddr.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "Pavo/Pkt.h"

namespace Host {

/// The addresses of the host.
struct Config {
    Pavo::EthAddr mac;
    Pavo::IpAddr ip;
    Pavo::Ip6Addr ip6;
};

/// @name Answers
/// Each gives the frame that answers a received one, or null for one that is not for the host, is
/// damaged, or is of another kind.
/// @{
/// An ARP request for the host's address (RFC 826).
Mox::Ptr<Pavo::Pkt> answerArp(const Config& host, const Mox::Ptr<Pavo::Pkt>& request);
/// An echo request (RFC 792).
Mox::Ptr<Pavo::Pkt> answerIcmp(const Config& host, const Mox::Ptr<Pavo::Pkt>& request);
/// A neighbour solicitation for the host's address (RFC 4861, 7.2.4), also one by which another
/// host finds out whether the address is in use; an echo request of IPv6 (RFC 4443, 4.2).
Mox::Ptr<Pavo::Pkt> answerIcmp6(const Config& host, const Mox::Ptr<Pavo::Pkt>& request);
/// A datagram of either family, which goes back to its sender (RFC 862).
Mox::Ptr<Pavo::Pkt> answerUdp(const Config& host, const Mox::Ptr<Pavo::Pkt>& request);
/// @}

}  // namespace Host
