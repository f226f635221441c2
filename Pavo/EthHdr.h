/// @file
/// The Ethernet header.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/EthAddr.h"
#include "Pavo/Export.h"
#include "Pavo/HdrWrapper.h"
#include "Pavo/NetU.h"

namespace Pavo {

/// Numbers of the type field, in host order (IEEE "EtherType" registry).
struct EthType {
    static constexpr uint16_t ip = 0x0800;
    static constexpr uint16_t arp = 0x0806;
    /// A VLAN tag follows: its TPID (IEEE 802.1Q).
    static constexpr uint16_t dot1Q = 0x8100;
    static constexpr uint16_t ip6 = 0x86dd;
    static constexpr uint16_t slowProtocols = 0x8809;
    static constexpr uint16_t mpls = 0x8847;
    static constexpr uint16_t mplsMulticast = 0x8848;
    static constexpr uint16_t eapol = 0x888e;
    /// A service VLAN tag follows: its TPID (IEEE 802.1ad).
    static constexpr uint16_t dot1Ad = 0x88a8;
    static constexpr uint16_t lldp = 0x88cc;
    /// A type field below this is the length of an LLC frame (IEEE 802.3-2018, 3.2.6).
    static constexpr uint16_t firstType = 0x0600;
};

/// The first 14 bytes of a frame:
///
///     | destination (6) | source (6) | type (2) |
class EthHdr {
  public:
    static constexpr std::string_view recordName = "EthHdr";

    EthAddr dst() const { return dst_; }
    void dstIs(EthAddr dst) { dst_ = dst; }
    EthAddr src() const { return src_; }
    void srcIs(EthAddr src) { src_ = src; }
    /// One of `EthType`, or the length of an LLC frame.
    uint16_t type() const { return type_.value(); }
    void typeIs(uint16_t type) { type_.valueIs(type); }

    /// Any 14 bytes are an Ethernet header.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    EthAddr dst_;
    EthAddr src_;
    NetU16 type_;
};
static_assert(isOverlay<EthHdr>(14));

class PAVO_EXPORT EthHdrWrapper : public HdrWrapper<EthHdrWrapper, EthHdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::EthHdrWrapper";
};

inline Mox::Ptr<EthHdrWrapper> ethHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<EthHdrWrapper>(pkt, offset);
}

inline HdrView<EthHdr> tryEthHdr(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return tryHdr<EthHdr>(pkt, offset);
}

}  // namespace Pavo
