/// @file
/// ARP packets for Ethernet and IPv4 (RFC 826).
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// The operation of an ARP packet (IANA, "ARP Parameters").
///
/// Members: the numbers of the operation field.
struct ArpOp {
    static constexpr uint16_t request = 1;
    static constexpr uint16_t reply = 2;
};

/// An ARP packet, laid over the bytes after an Ethernet header, or free-standing to build one from:
/// then the first four fields have their values, and the others are zero.
///
///     | hardware type (2): 1 | protocol type (2): 0x0800            |
///     | hardware length (1): 6 | protocol length (1): 4 | operation (2) |
///     | sender's MAC (6) | sender's address (4) |
///     | target's MAC (6) | target's address (4) |
///
/// Members: the fields, in host order.
class ArpHdr {
  public:
    static constexpr std::string_view recordName = "ArpHdr";

    uint16_t hwType() const { return hwType_.value(); }
    void hwTypeIs(uint16_t type) { hwType_.valueIs(type); }
    uint16_t protoType() const { return protoType_.value(); }
    void protoTypeIs(uint16_t type) { protoType_.valueIs(type); }
    uint8_t hwLen() const { return hwLen_; }
    void hwLenIs(uint8_t bytes) { hwLen_ = bytes; }
    uint8_t protoLen() const { return protoLen_; }
    void protoLenIs(uint8_t bytes) { protoLen_ = bytes; }
    /// One of `ArpOp`.
    uint16_t op() const { return op_.value(); }
    void opIs(uint16_t op) { op_.valueIs(op); }
    EthAddr senderMac() const { return senderMac_; }
    void senderMacIs(EthAddr mac) { senderMac_ = mac; }
    /// 0.0.0.0 in a probe (RFC 5227, 2.1.1).
    IpAddr senderIp() const { return senderIp_; }
    void senderIpIs(IpAddr address) { senderIp_ = address; }
    EthAddr targetMac() const { return targetMac_; }
    void targetMacIs(EthAddr mac) { targetMac_ = mac; }
    IpAddr targetIp() const { return targetIp_; }
    void targetIpIs(IpAddr address) { targetIp_ = address; }

    /// `badArpPkt` for other hardware, protocol or lengths than in the drawing, for an operation
    /// that is not one of `ArpOp`, and for a sender whose MAC is a group's (RFC 1812, 3.3.2) or
    /// whose address is multicast or broadcast.
    PktErrors check(uint32_t) const {
        const bool isForIp = hwType() == 1 && protoType() == 0x0800 && hwLen_ == sizeof(EthAddr) &&
                             protoLen_ == sizeof(IpAddr);
        const bool isKnown = op() == ArpOp::request || op() == ArpOp::reply;
        const bool isFromOne = senderMac_.isUnicast() && senderIp_.isUnicast();
        return isForIp && isKnown && isFromOne ? PktErrors::noError : PktErrors::badArpPkt;
    }

  private:
    NetU16 hwType_{1};
    NetU16 protoType_{0x0800};
    uint8_t hwLen_ = sizeof(EthAddr);
    uint8_t protoLen_ = sizeof(IpAddr);
    NetU16 op_;
    EthAddr senderMac_;
    IpAddr senderIp_;
    EthAddr targetMac_;
    IpAddr targetIp_;
};
static_assert(isOverlay<ArpHdr>(28));

/// Adds nothing to the record.
using ArpHdrWrapper = PlainHdrWrapper<ArpHdr>;

inline Mox::Ptr<ArpHdrWrapper> arpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<ArpHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
