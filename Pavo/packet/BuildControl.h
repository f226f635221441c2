/// @file
/// Layers of `buildPkt` for messages between routers and hosts: ARP, IGMP, PIM and VRRP.
/// `BuildPkt.h` includes it. The TTL or hop limit is set in the IP layer: 255 for VRRP, 1 for IGMP
/// and most of PIM.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Pavo/base/Export.h"
#include "Pavo/packet/ArpHdr.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/IgmpHdr.h"
#include "Pavo/packet/PimHdr.h"
#include "Pavo/packet/PktLayer.h"
#include "Pavo/packet/VrrpHdr.h"

namespace Pavo {

/// An ARP packet for Ethernet and IPv4.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Arp {
    uint16_t op = ArpOp::request;
    EthAddr senderMac = {};
    IpAddr senderIp = {};
    EthAddr targetMac = {};
    IpAddr targetIp = {};

    uint16_t etherType() const { return EthType::arp; }
    std::size_t hdrBytes() const { return sizeof(ArpHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A VRRP advertisement. `interval` is in seconds in the second version and in hundredths of a
/// second in the third. Set the addresses of the family; those of IPv4 come first. The second
/// version has eight bytes of authentication data after them, all zero.
/// @throws Mox::RangeException "Vrrp::version > 15 not allowed", "Vrrp::interval too large" or
/// "Vrrp: more than 255 addresses not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Vrrp {
    uint8_t version = 3;
    uint8_t vrid = 0;
    uint8_t priority = 100;
    uint8_t authType = 0;
    uint16_t interval = 100;
    std::span<const IpAddr> addresses = {};
    std::span<const Ip6Addr> addresses6 = {};
    /// The bytes that the checksum of version 3 covers over IPv4; `either` means `pseudoHdr`.
    VrrpSum sum = VrrpSum::pseudoHdr;
    std::optional<uint8_t> addressCount = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::vrrp; }
    std::size_t hdrBytes() const {
        return sizeof(VrrpHdr) + addresses.size_bytes() + addresses6.size_bytes() +
               (version == 2 ? VrrpHdr::authBytes : 0);
    }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An IGMP message of version 1 or 2.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Igmp {
    uint8_t type = IgmpType::query;
    uint8_t maxRespCode = 0;
    IpAddr group = {};
    std::optional<IpChecksum> checksum = {};

    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::igmp; }
    std::size_t hdrBytes() const { return sizeof(IgmpHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An IGMP query of version 3.
/// @throws Mox::RangeException "Igmp3Query::robustness > 7 not allowed", "Igmp3Query: more than
/// 65535 sources not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Igmp3Query {
    uint8_t maxRespCode = 100;
    IpAddr group = {};
    bool suppress = false;
    uint8_t robustness = 2;
    uint8_t intervalCode = 125;
    std::span<const IpAddr> sources = {};
    std::optional<uint16_t> sourceCount = {};
    std::optional<IpChecksum> checksum = {};

    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::igmp; }
    std::size_t hdrBytes() const { return sizeof(Igmp3QueryHdr) + sources.size_bytes(); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A group record of `Igmp3Report`.
///
/// Members: the fields, in host order.
struct IgmpRecord {
    uint8_t type = IgmpRecordType::isExclude;
    IpAddr group = {};
    std::span<const IpAddr> sources = {};

    std::size_t hdrBytes() const { return sizeof(IgmpRecordHdr) + sources.size_bytes(); }
};

/// An IGMP report of version 3.
/// @throws Mox::RangeException "Igmp3Report: more than 65535 records not allowed", "IgmpRecord:
/// more than 65535 sources not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Igmp3Report {
    std::span<const IgmpRecord> records = {};
    std::optional<uint16_t> recordCount = {};
    std::optional<IpChecksum> checksum = {};

    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::igmp; }
    PAVO_EXPORT std::size_t hdrBytes() const;
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The header of a PIM message. The body is the payload.
/// @throws Mox::RangeException "Pim::type > 15 not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Pim {
    uint8_t type = PimType::hello;
    uint8_t reserved = 0;
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::pim; }
    std::size_t hdrBytes() const { return sizeof(PimHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The header of a PIM register message, before an IP layer or bytes. The checksum covers the
/// header only.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct PimRegister {
    bool border = false;
    bool nullRegister = false;
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::pim; }
    std::size_t hdrBytes() const { return sizeof(PimRegisterHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

}  // namespace Pavo
