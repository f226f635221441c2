/// @file
/// The contents of LLDP frames (IEEE 802.1AB-2016, 8), read and written.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Pavo/IpGenAddr.h"

namespace Lldp {

/// Subtypes of identifiers that are MAC addresses; chassis and ports are numbered apart.
constexpr uint8_t chassisMac = 4, portMac = 3;
/// The subtype of a port's identifier that is the name of an interface.
constexpr uint8_t portInterfaceName = 5;

/// Identifies a chassis, or a port of it: a subtype, and 1 to 255 bytes that depend on it.
struct Id {
    uint8_t subtype = 0;
    std::string bytes = {};

    friend auto operator<=>(const Id&, const Id&) = default;
};

/// Identifies a neighbour.
struct Key {
    Id chassis = {};
    Id port = {};

    friend auto operator<=>(const Key&, const Key&) = default;
};

/// The description that a system sends of itself. Texts are as they were received, at most 255
/// bytes; an empty one is not sent.
struct Pdu {
    Key key = {};
    /// How long the rest is valid; 0 ends it at once.
    uint16_t ttlSeconds = 0;
    std::string portDescription = {};
    std::string systemName = {};
    std::string systemDescription = {};
    /// Bits of `Capability`, those that the system has and those that are in use.
    uint16_t capabilities = 0;
    uint16_t enabledCapabilities = 0;
    /// IPv4 and IPv6; those of other families are left out.
    std::vector<Pavo::IpGenAddr> managementAddresses = {};

    friend bool operator==(const Pdu&, const Pdu&) = default;
};

enum Capability : uint16_t { bridge = 0x0004, router = 0x0010, station = 0x0080 };

/// Reads what follows the Ethernet header, padding included. Nothing when one of the three
/// mandatory fields is missing, not in its place, repeated or of a wrong length, or when a field
/// runs past the end; other fields that are wrong are ignored, and of a repeated one all but the
/// first.
std::optional<Pdu> parse(std::span<const uint8_t> bytes);

/// The same as bytes; with a time to live of 0 only the mandatory fields. Identifiers and texts are
/// cut after 255, and addresses that an Ethernet frame has no room for are left out.
std::string image(const Pdu& pdu);

/// A text as it may be shown: bytes that are not printable as "\x1b".
std::string printable(const std::string& text);
/// The same of an identifier; one of that subtype is a MAC address.
std::string printable(const Id& id, uint8_t macSubtype);

}  // namespace Lldp
