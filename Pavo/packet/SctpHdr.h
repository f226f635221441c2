/// @file
/// The common header of SCTP (RFC 9260, 3.1), and its checksum.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// A port of SCTP.
class SctpPort : public NetField<SctpPort, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::SctpPort";
};

/// A CRC-32C as SCTP sends it (RFC 9260, appendix A): its least significant byte comes first, so
/// `value()` is the CRC with its bytes in reverse order.
class SctpChecksum : public NetField<SctpChecksum, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::SctpChecksum";
};

static_assert(isOverlay<SctpPort>(2) && isOverlay<SctpChecksum>(4));

/// The header before the chunks of a packet, laid over its bytes, or free-standing and all
/// zero to build one from:
///
///     | source port (2) | destination port (2) |
///     | verification tag (4)                   |
///     | checksum (4)                           |
///
/// Numbers are in host order.
///
/// Members: the fields, in host order.
class SctpHdr {
  public:
    static constexpr std::string_view recordName = "SctpHdr";

    uint16_t srcPort() const { return srcPort_.value(); }
    void srcPortIs(uint16_t port) { srcPort_.valueIs(port); }
    uint16_t dstPort() const { return dstPort_.value(); }
    void dstPortIs(uint16_t port) { dstPort_.valueIs(port); }
    /// Tells whether the sender is the peer of the association; 0 before an INIT.
    uint32_t verificationTag() const { return verificationTag_.value(); }
    void verificationTagIs(uint32_t tag) { verificationTag_.valueIs(tag); }
    SctpChecksum checksum() const { return checksum_; }
    void checksumIs(SctpChecksum checksum) { checksum_ = checksum; }

    /// The checksum over the `bytes` bytes of header and chunks that begin here, with the checksum
    /// field taken as zero whatever it holds (RFC 9260, 6.8): a received one is right when it
    /// equals this. Fatal for less than the header: "bytes >= sizeof( SctpHdr )".
    PAVO_EXPORT SctpChecksum computedChecksum(uint32_t bytes) const;

    /// Any header is taken.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    SctpPort srcPort_;
    SctpPort dstPort_;
    NetU32 verificationTag_;
    SctpChecksum checksum_;
};
static_assert(isOverlay<SctpHdr>(12));

/// An SCTP common header in a packet.
class PAVO_EXPORT SctpHdrWrapper : public HdrWrapper<SctpHdrWrapper, SctpHdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::SctpHdrWrapper";

    /// As `SctpHdr::computedChecksum`. Fatal when the packet does not lie wholly in the first
    /// iovec: "( offset_ + bytes ) <= pkt_->frontBytes()".
    SctpChecksum computedChecksum(uint32_t bytes) const {
        requireFront(bytes, "( offset_ + bytes ) <= pkt_->frontBytes()");
        return header_->computedChecksum(bytes);
    }
};

inline Mox::Ptr<SctpHdrWrapper> sctpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<SctpHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
