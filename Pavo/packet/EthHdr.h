/// @file
/// The Ethernet header, the VLAN tag after it, and where the IP header begins.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/EthAddr.h"

namespace Pavo {

/// Numbers of the type field, in host order (IEEE "EtherType" registry).
///
/// Members: the number that IEEE has assigned to what follows.
struct EthType {
    static constexpr uint16_t ip = 0x0800;
    static constexpr uint16_t arp = 0x0806;
    /// A VLAN tag follows: its TPID (IEEE 802.1Q).
    static constexpr uint16_t dot1Q = 0x8100;
    /// A whole frame follows, as in GRE (RFC 1701).
    static constexpr uint16_t bridging = 0x6558;
    static constexpr uint16_t ip6 = 0x86dd;
    static constexpr uint16_t slowProtocols = 0x8809;
    static constexpr uint16_t mpls = 0x8847;
    static constexpr uint16_t mplsMulticast = 0x8848;
    static constexpr uint16_t eapol = 0x888e;
    /// A service VLAN tag follows: its TPID (IEEE 802.1ad).
    static constexpr uint16_t dot1Ad = 0x88a8;
    static constexpr uint16_t lldp = 0x88cc;
    /// An I-TAG and the customer's frame follow (IEEE 802.1Q-2018, 9.7).
    static constexpr uint16_t mim = 0x88e7;
    /// A type field below this is the length of an LLC frame (IEEE 802.3-2018, 3.2.6).
    static constexpr uint16_t firstType = 0x0600;
};

/// The first 14 bytes of a frame:
///
///     | destination (6) | source (6) | type (2) |
///
/// Members: the fields, in host order.
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

/// What follows a type field of 0x8100: the control bytes of the tag, and the type of what comes
/// next (IEEE 802.1Q-2018, 9.6). The four bytes of a tag in a frame, TPID and control, begin two
/// bytes before this record.
///
///     | priority (3 bits), drop eligible (1 bit), VLAN identifier (12 bits) | type (2) |
///
/// Members: the fields, in host order.
class Eth8021QHdr {
  public:
    static constexpr std::string_view recordName = "Eth8021QHdr";

    /// All of the control bytes, in host order.
    uint16_t tci() const { return tci_.value(); }
    void tciIs(uint16_t tci) { tci_.valueIs(tci); }
    /// 0 to 4095.
    uint16_t vlanId() const { return tci() & vlanIdMask; }
    /// Uses the low 12 bits.
    void vlanIdIs(uint16_t vlanId) { tci_.bitsIs(vlanIdMask, vlanId); }
    /// 0 to 7.
    uint8_t priority() const { return static_cast<uint8_t>(tci() >> priorityShift); }
    /// Uses the low 3 bits.
    void priorityIs(uint8_t priority) {
        tci_.bitsIs(7u << priorityShift, uint32_t{priority} << priorityShift);
    }
    bool dropEligible() const { return (tci() & dropEligibleBit) != 0; }
    void dropEligibleIs(bool eligible) {
        tci_.bitsIs(dropEligibleBit, eligible ? dropEligibleBit : 0);
    }
    /// One of `EthType`, or the length of an LLC frame.
    uint16_t type() const { return type_.value(); }
    void typeIs(uint16_t type) { type_.valueIs(type); }

    /// Any 4 bytes are a tag.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    static constexpr uint16_t vlanIdMask = 0x0fff;
    static constexpr uint16_t dropEligibleBit = 0x1000;
    static constexpr int priorityShift = 13;

    NetU16 tci_;
    NetU16 type_;
};
static_assert(isOverlay<Eth8021QHdr>(4));

/// The offset of the IP header from the start of `eth`, of which `len` bytes may be read: 14 after
/// an untagged header, and 4 more for each 0x8100 tag. 0 when there is none: for any other type,
/// 0x88a8 among them, for an LLC frame, and where `len` ends before the type does. Only type fields
/// are read, so the IP header itself may be missing or cut short.
PAVO_EXPORT uint32_t ipHdrOffset(const EthHdr* eth, uint32_t len);
/// The same from the start of `tag`: 4 after a single tag.
PAVO_EXPORT uint32_t ipHdrOffset(const Eth8021QHdr* tag, uint32_t len);

class PAVO_EXPORT EthHdrWrapper : public HdrWrapper<EthHdrWrapper, EthHdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::EthHdrWrapper";

    /// As the function of that name, from the record at `offset()` to the end of the first iovec.
    uint32_t ipHdrOffset() const {
        const Pkt::Iovec rest = fromOffset();
        return Pavo::ipHdrOffset(reinterpret_cast<const EthHdr*>(rest.data), rest.bytes);
    }
};

class PAVO_EXPORT Eth8021QHdrWrapper : public HdrWrapper<Eth8021QHdrWrapper, Eth8021QHdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::Eth8021QHdrWrapper";

    /// As the function of that name, from the record at `offset()` to the end of the first iovec.
    uint32_t ipHdrOffset() const {
        const Pkt::Iovec rest = fromOffset();
        return Pavo::ipHdrOffset(reinterpret_cast<const Eth8021QHdr*>(rest.data), rest.bytes);
    }
};

inline Mox::Ptr<EthHdrWrapper> ethHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<EthHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Eth8021QHdrWrapper> eth8021QHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                              uint32_t offset) {
    return Mox::make<Eth8021QHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
