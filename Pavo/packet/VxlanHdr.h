/// @file
/// The VXLAN header (RFC 7348, 5), between UDP and the frame that is tunnelled.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// A VXLAN header, laid over the bytes of a packet, or free-standing to build one from: then with
/// the flag set, and all else zero.
///
///     | flags (1): 0x08 | reserved (3) |
///     | network identifier (3) | reserved (1) |
///
/// Members: the fields, in host order.
class VxlanHdr {
  public:
    static constexpr std::string_view recordName = "VxlanHdr";
    /// The destination port in UDP.
    static constexpr uint16_t udpPort = 4789;
    /// The largest network identifier.
    static constexpr uint32_t maxVni = 0xffffff;

    /// The network identifier is valid (I).
    bool hasVni() const { return (flags_.value() & vniBit) != 0; }
    void hasVniIs(bool hasVni) { flags_.bitsIs(vniBit, hasVni ? vniBit : 0); }
    /// The network identifier, 0 to `maxVni`.
    uint32_t vni() const { return vni_.value() >> 8; }
    /// Uses the low 24 bits.
    void vniIs(uint32_t vni) { vni_.bitsIs(0xffffff00, vni << 8); }

    /// `badVxlanFlags` unless `hasVni()`; reserved bits are ignored.
    PktErrors check(uint32_t) const {
        return hasVni() ? PktErrors::noError : PktErrors::badVxlanFlags;
    }

  private:
    static constexpr uint32_t vniBit = 0x08000000;

    NetU32 flags_{vniBit};
    NetU32 vni_;
};
static_assert(isOverlay<VxlanHdr>(8));

/// Adds nothing to the record.
using VxlanHdrWrapper = PlainHdrWrapper<VxlanHdr>;

inline Mox::Ptr<VxlanHdrWrapper> vxlanHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<VxlanHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
