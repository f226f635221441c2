/// @file
/// Functions that the ICMP echo agents share, for both families.
#pragma once

#include <cstdint>
#include <optional>

#include "Pavo/RawIpPam.h"

namespace Echo {

/// A received packet: what the endpoint reported, and the fields of its headers.
struct Packet {
    Pavo::IpGenAddr from;
    Pavo::IpGenAddr to;
    uint32_t ifIndex;
    uint8_t ttl;
    uint8_t tos;
    bool isRequest;
    uint16_t id;
    uint16_t sequence;
    /// The bytes of the IP header; 0 for IPv6, whose packets come without one.
    uint32_t headerBytes;
    uint32_t bytes;
};

/// A disabled endpoint for ICMP or ICMPv6 that reports arrival interface, TTL and TOS.
Mox::Ptr<Pavo::RawIpPam> newPam(const char* name, Pavo::AddressFamily family,
                                const Pavo::NamespaceName& netNs);

/// Prepends the header of an echo request to the payload. The kernel fills in the checksum of
/// ICMPv6.
void addHeader(const Mox::Ptr<Pavo::Pkt>& pkt, Pavo::AddressFamily family, uint16_t id,
               uint16_t sequence);

/// Reads the packet that the endpoint returned last; nothing unless it is a valid echo message. An
/// ICMP socket receives every kind of message.
std::optional<Packet> readPacket(const Mox::Ptr<Pavo::Pkt>& pkt, const Pavo::RawIpPam& pam);

/// Turns a request into its answer, in place, without an IP header.
void makeAnswer(const Mox::Ptr<Pavo::Pkt>& pkt, const Packet& request);

}  // namespace Echo
