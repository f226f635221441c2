/// @file
/// What the agents that speak ICMP echo have in common, for both families.
#pragma once

#include <cstdint>
#include <optional>

#include "Pavo/RawIpPam.h"

namespace Echo {

/// What the endpoint said of a packet, and what its headers hold.
struct Packet {
    Pavo::IpGenAddr from;
    Pavo::IpGenAddr to;
    uint32_t ifIndex;
    uint8_t ttl;
    uint8_t tos;
    bool isRequest;
    uint16_t id;
    uint16_t sequence;
    /// Of the IP header in front, which IPv6 packets come without.
    uint32_t headerBytes;
    uint32_t bytes;
};

/// A disabled endpoint for ICMP or ICMPv6 that reports arrival interface, TTL and TOS.
Mox::Ptr<Pavo::RawIpPam> newPam(const char* name, Pavo::AddressFamily family,
                                const Pavo::NamespaceName& netNs);

/// Puts the header of an echo message in front of the payload; the checksum of an IPv6 one is left
/// to the kernel.
void addHeader(const Mox::Ptr<Pavo::Pkt>& pkt, Pavo::AddressFamily family, uint16_t id,
               uint16_t sequence);

/// Reads the packet that the endpoint gave last; nothing unless it is a sound echo message. An
/// ICMP socket hears every kind of message.
std::optional<Packet> readPacket(const Mox::Ptr<Pavo::Pkt>& pkt, const Pavo::RawIpPam& pam);

/// Makes the answer of a request, in place, without an IP header.
void makeAnswer(const Mox::Ptr<Pavo::Pkt>& pkt, const Packet& request);

}  // namespace Echo
