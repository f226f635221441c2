/// @file
/// Layers of `buildPkt` for neighbour discovery: its messages, and the options after them.
/// `BuildPkt.h` includes it. The hop limit is set in the `Ip6` layer: 255.
///
///     buildPkt(Ip6{.src = own, .dst = group, .hopLimit = 255}, Icmp6Ns{.target = neighbour},
///              NdLinkAddr{.mac = mac})
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "Pavo/base/Export.h"
#include "Pavo/packet/Icmp6NdHdr.h"
#include "Pavo/packet/PktLayer.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/Ip6Addr.h"

namespace Pavo {

/// A router solicitation.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp6Rs {
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Icmp; }
    std::size_t hdrBytes() const { return sizeof(Icmp6RsHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A router advertisement. `preference` is 0 for medium, 1 for high, 3 for low.
/// @throws Mox::RangeException "Icmp6Ra::preference > 3 not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp6Ra {
    uint8_t hopLimit = 64;
    bool managed = false;
    bool otherConfig = false;
    uint8_t preference = 0;
    uint16_t lifetimeSeconds = 1800;
    uint32_t reachableMs = 0;
    uint32_t retransMs = 0;
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Icmp; }
    std::size_t hdrBytes() const { return sizeof(Icmp6RaHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A neighbour solicitation.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp6Ns {
    Ip6Addr target = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Icmp; }
    std::size_t hdrBytes() const { return sizeof(Icmp6NsHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A neighbour advertisement.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp6Na {
    Ip6Addr target = {};
    bool router = false;
    bool solicited = false;
    bool overriding = true;
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Icmp; }
    std::size_t hdrBytes() const { return sizeof(Icmp6NaHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A redirect.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp6Redirect {
    Ip6Addr target = {};
    Ip6Addr destination = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Icmp; }
    std::size_t hdrBytes() const { return sizeof(Icmp6RedirectHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The MAC of the sender, or of the target where `type` says so.
///
/// Members: the fields, in host order.
struct NdLinkAddr {
    uint8_t type = NdOptionType::sourceLinkAddr;
    EthAddr mac = {};

    std::size_t hdrBytes() const { return sizeof(NdLinkAddrOption); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A prefix of the link.
///
/// Members: the fields, in host order.
struct NdPrefix {
    Ip6Addr prefix = {};
    uint8_t prefixLen = 64;
    bool onLink = true;
    bool autonomous = true;
    uint32_t validSeconds = 2592000;
    uint32_t preferredSeconds = 604800;

    std::size_t hdrBytes() const { return sizeof(NdPrefixOption); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The MTU of the link, in bytes.
///
/// Members: the fields, in host order.
struct NdMtu {
    uint32_t mtu = 1500;

    std::size_t hdrBytes() const { return sizeof(NdMtuOption); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

}  // namespace Pavo
