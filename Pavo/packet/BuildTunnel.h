/// @file
/// Layers of `buildPkt` for tunnels: GRE, VXLAN, the control word of pseudowires, I-TAGs.
/// `BuildPkt.h` includes it. The layers of what is tunnelled follow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "Pavo/base/Export.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/GreHdr.h"
#include "Pavo/packet/MimHdr.h"
#include "Pavo/packet/PktLayer.h"
#include "Pavo/packet/PwControlWord.h"
#include "Pavo/packet/VxlanHdr.h"

namespace Pavo {

/// A GRE header, with a key and a sequence number where they are set, and a checksum where it is
/// set or `hasChecksum`.
/// @throws Mox::RangeException "Gre::type not set, and no layer follows that has one"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Gre {
    bool hasChecksum = false;
    std::optional<uint32_t> key = {};
    std::optional<uint32_t> sequenceNumber = {};
    std::optional<uint16_t> type = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool nextHasEtherType = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::gre; }
    std::size_t hdrBytes() const {
        return sizeof(GreHdr) + (hasChecksum || checksum ? 4u : 0u) + (key ? 4u : 0u) +
               (sequenceNumber ? 4u : 0u);
    }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A VXLAN header, between a `Udp` layer with the port `VxlanHdr::udpPort` and an `Eth` layer.
/// @throws Mox::RangeException "Vxlan::vni > 16777215 not allowed"
///
/// Members: the fields, in host order.
struct Vxlan {
    uint32_t vni = 0;

    std::size_t hdrBytes() const { return sizeof(VxlanHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The control word of a pseudowire, after an `Mpls` layer.
/// @throws Mox::RangeException "ControlWord::flags > 15 not allowed", "ControlWord::fragmentation >
/// 3 not allowed", "ControlWord::length > 63 not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct ControlWord {
    uint8_t flags = 0;
    uint8_t fragmentation = 0;
    uint16_t sequenceNumber = 0;
    std::optional<uint8_t> length = {};

    std::size_t hdrBytes() const { return sizeof(PwControlWord); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An I-TAG, before an `Eth` layer.
/// @throws Mox::RangeException "Mim::serviceId > 16777215 not allowed", "Mim::priority > 7 not
/// allowed"
///
/// Members: the fields, in host order.
struct Mim {
    uint32_t serviceId = 0;
    uint8_t priority = 0;
    bool dropEligible = false;
    bool uca = false;

    uint16_t etherType() const { return EthType::mim; }
    std::size_t hdrBytes() const { return sizeof(MimHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

}  // namespace Pavo
