/// @file
/// The TCP header (RFC 9293, 3.1), and its checksum over IPv4 and IPv6.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/packet/TransportHdr.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

/// A port of TCP.
class TcpPort : public NetField<TcpPort, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpPort";
};

/// The number of the first byte of data, or of the SYN. Ordered as a number: where the space wraps
/// around is not looked at.
class TcpSequenceNumber : public NetField<TcpSequenceNumber, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpSequenceNumber";
};

/// The number of the next byte that is waited for. Counts when `ack` is set.
class TcpAcknowledgementNumber : public NetField<TcpAcknowledgementNumber, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpAcknowledgementNumber";
};

/// The data offset in bits 12 to 15, reserved bits 9 to 11, and nine flags.
class TcpDataOffsetAndFlags : public NetField<TcpDataOffsetAndFlags, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpDataOffsetAndFlags";
};

/// The bytes that may be sent, before scaling (RFC 7323, 2.3).
class TcpWindow : public NetField<TcpWindow, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpWindow";
};

/// Where urgent data ends, from the sequence number on. Counts when `urg` is set.
class TcpUrgentPointer : public NetField<TcpUrgentPointer, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpUrgentPointer";
};

/// Header and data of a segment, in bytes.
class TcpLen : public NetField<TcpLen, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpLen";
};

/// The same in the pseudo header of IPv6.
class TcpLenIp6 : public NetField<TcpLenIp6, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::TcpLenIp6";
};

/// The length of header and options, in words of 32 bits.
class TcpDataOffset : public Ordinal<TcpDataOffset, uint8_t, 15> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::TcpDataOffset";
    static constexpr const char* rangeText = "TcpDataOffset::value < 0 or > 15 not allowed";
};

/// The three bits between data offset and flags.
class TcpReserved : public Ordinal<TcpReserved, uint8_t, 7> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::TcpReserved";
    static constexpr const char* rangeText = "TcpReserved::value < 0 or > 7 not allowed";
};

static_assert(isOverlay<TcpPort>(2) && isOverlay<TcpSequenceNumber>(4));
static_assert(isOverlay<TcpAcknowledgementNumber>(4) && isOverlay<TcpDataOffsetAndFlags>(2));
static_assert(isOverlay<TcpWindow>(2) && isOverlay<TcpUrgentPointer>(2));

/// The pseudo header of TCP over IPv4.
class TcpPseudoHdr : public PseudoHdr<TcpPseudoHdr, TcpLen, IpProtocolNumber::tcp> {
  public:
    using PseudoHdr::PseudoHdr;

    /// Header and data, in bytes.
    uint16_t tcpLen() const { return len_.value(); }
    void tcpLenIs(uint16_t bytes) { len_.valueIs(bytes); }

    static constexpr std::string_view typeName = "Pavo::TcpPseudoHdr";
    static constexpr std::string_view lenName = "tcpLen";
};
static_assert(isOverlay<TcpPseudoHdr>(12));

/// The pseudo header of TCP over IPv6.
class TcpPseudoHdrIpv6 : public PseudoHdrIpv6<TcpPseudoHdrIpv6, TcpLenIp6, IpProtocolNumber::tcp> {
  public:
    using PseudoHdrIpv6::PseudoHdrIpv6;

    /// Header and data, in bytes.
    uint32_t tcpLen() const { return len_.value(); }
    void tcpLenIs(uint32_t bytes) { len_.valueIs(bytes); }

    static constexpr std::string_view typeName = "Pavo::TcpPseudoHdrIpv6";
    static constexpr std::string_view lenName = "tcpLen";
};
static_assert(isOverlay<TcpPseudoHdrIpv6>(40));

/// A TCP header without its options, laid over the bytes of a packet, or free-standing and all zero
/// to build one from:
///
///     | source port (2)                                | destination port (2) |
///     | sequence number (4)                                                   |
///     | acknowledgement number (4)                                            |
///     | data offset (4 bits), reserved (3 bits), flags (9 bits) | window (2)  |
///     | checksum (2)                                   | urgent pointer (2)   |
///
/// Numbers are in host order. A setter changes the bits of its field only.
///
/// Checksums are taken over the header as it stands, the checksum field included: 0 when that is
/// right. To fill the field in, it is zeroed first. They read as many bytes from the header on as
/// the pseudo header has for length, so that is checked beforehand.
///
/// Members: the fields of the drawing, and the flags of RFC 9293, 3.1.
class TcpHdr {
  public:
    static constexpr std::string_view recordName = "TcpHdr";

    uint16_t srcPort() const { return srcPort_.value(); }
    void srcPortIs(uint16_t port) { srcPort_.valueIs(port); }
    uint16_t dstPort() const { return dstPort_.value(); }
    void dstPortIs(uint16_t port) { dstPort_.valueIs(port); }
    uint32_t sequenceNumber() const { return sequenceNumber_.value(); }
    void sequenceNumberIs(uint32_t number) { sequenceNumber_.valueIs(number); }
    uint32_t acknowledgementNumber() const { return acknowledgementNumber_.value(); }
    void acknowledgementNumberIs(uint32_t number) { acknowledgementNumber_.valueIs(number); }

    /// In words of 32 bits.
    TcpDataOffset dataOffset() const { return dataOffsetAndFlags_.value() >> dataOffsetShift; }
    void dataOffsetIs(TcpDataOffset words) {
        dataOffsetAndFlags_.bitsIs(0xf << dataOffsetShift,
                                   uint32_t{words.value()} << dataOffsetShift);
    }
    /// The length of header and options, in bytes: 0 to 60.
    uint16_t headerBytes() const { return static_cast<uint16_t>(dataOffset().value() * 4); }
    TcpReserved reserved() const { return dataOffsetAndFlags_.value() >> reservedShift & 7; }
    void reservedIs(TcpReserved reserved) {
        dataOffsetAndFlags_.bitsIs(7 << reservedShift, uint32_t{reserved.value()} << reservedShift);
    }
    /// The nonce sum of RFC 3540, which RFC 9768 calls AE.
    bool ns() const { return (dataOffsetAndFlags_.value() & nsBit) != 0; }
    void nsIs(bool ns) { dataOffsetAndFlags_.bitsIs(nsBit, ns ? nsBit : 0); }
    /// Congestion window reduced (RFC 3168).
    bool cwr() const { return (dataOffsetAndFlags_.value() & cwrBit) != 0; }
    void cwrIs(bool cwr) { dataOffsetAndFlags_.bitsIs(cwrBit, cwr ? cwrBit : 0); }
    /// Congestion echo (RFC 3168).
    bool ece() const { return (dataOffsetAndFlags_.value() & eceBit) != 0; }
    void eceIs(bool ece) { dataOffsetAndFlags_.bitsIs(eceBit, ece ? eceBit : 0); }
    bool urg() const { return (dataOffsetAndFlags_.value() & urgBit) != 0; }
    void urgIs(bool urg) { dataOffsetAndFlags_.bitsIs(urgBit, urg ? urgBit : 0); }
    bool ack() const { return (dataOffsetAndFlags_.value() & ackBit) != 0; }
    void ackIs(bool ack) { dataOffsetAndFlags_.bitsIs(ackBit, ack ? ackBit : 0); }
    bool psh() const { return (dataOffsetAndFlags_.value() & pshBit) != 0; }
    void pshIs(bool psh) { dataOffsetAndFlags_.bitsIs(pshBit, psh ? pshBit : 0); }
    bool rst() const { return (dataOffsetAndFlags_.value() & rstBit) != 0; }
    void rstIs(bool rst) { dataOffsetAndFlags_.bitsIs(rstBit, rst ? rstBit : 0); }
    bool syn() const { return (dataOffsetAndFlags_.value() & synBit) != 0; }
    void synIs(bool syn) { dataOffsetAndFlags_.bitsIs(synBit, syn ? synBit : 0); }
    bool fin() const { return (dataOffsetAndFlags_.value() & finBit) != 0; }
    void finIs(bool fin) { dataOffsetAndFlags_.bitsIs(finBit, fin ? finBit : 0); }

    /// In bytes, before scaling.
    uint16_t window() const { return window_.value(); }
    void windowIs(uint16_t window) { window_.valueIs(window); }
    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }
    uint16_t urgentPointer() const { return urgentPointer_.value(); }
    void urgentPointerIs(uint16_t offset) { urgentPointer_.valueIs(offset); }

    /// The checksum over IPv4, of `tcpLen` bytes.
    PAVO_EXPORT IpChecksum computedChecksum(const TcpPseudoHdr& pseudo) const;
    uint16_t computedChecksumU16(const TcpPseudoHdr& pseudo) const {
        return computedChecksum(pseudo).value();
    }
    /// A sum over IPv6 into which the first 12 bytes of the pseudo header enter, so neither the
    /// whole source nor any of the destination, the length and the protocol. It is for peers that
    /// compute the same; other TCPs send and expect `computedChecksumRfc8200`. Takes the low 16
    /// bits of `tcpLen` as the length.
    PAVO_EXPORT IpChecksum computedChecksumIpv6(const TcpPseudoHdrIpv6& pseudo) const;
    uint16_t computedChecksumIpv6U16(const TcpPseudoHdrIpv6& pseudo) const {
        return computedChecksumIpv6(pseudo).value();
    }
    /// The checksum over IPv6, with the whole pseudo header (RFC 8200, 8.1). Takes the low 16 bits
    /// of `tcpLen` as the length of what is summed after it.
    PAVO_EXPORT IpChecksum computedChecksumRfc8200(const TcpPseudoHdrIpv6& pseudo) const;
    uint16_t computedChecksumRfc8200U16(const TcpPseudoHdrIpv6& pseudo) const {
        return computedChecksumRfc8200(pseudo).value();
    }

    /// `badIpPayloadLen` unless 20 <= `headerBytes()` <= `bytes`.
    PktErrors check(uint32_t bytes) const {
        return headerBytes() >= sizeof(TcpHdr) && headerBytes() <= bytes
                   ? PktErrors::noError
                   : PktErrors::badIpPayloadLen;
    }

  private:
    static constexpr int dataOffsetShift = 12;
    static constexpr int reservedShift = 9;
    static constexpr uint16_t nsBit = 1 << 8;
    static constexpr uint16_t cwrBit = 1 << 7;
    static constexpr uint16_t eceBit = 1 << 6;
    static constexpr uint16_t urgBit = 1 << 5;
    static constexpr uint16_t ackBit = 1 << 4;
    static constexpr uint16_t pshBit = 1 << 3;
    static constexpr uint16_t rstBit = 1 << 2;
    static constexpr uint16_t synBit = 1 << 1;
    static constexpr uint16_t finBit = 1 << 0;

    TcpPort srcPort_;
    TcpPort dstPort_;
    TcpSequenceNumber sequenceNumber_;
    TcpAcknowledgementNumber acknowledgementNumber_;
    TcpDataOffsetAndFlags dataOffsetAndFlags_;
    TcpWindow window_;
    IpChecksum checksum_;
    TcpUrgentPointer urgentPointer_;
};
static_assert(isOverlay<TcpHdr>(20));

/// For a segment over IPv4.
class PAVO_EXPORT TcpHdrWrapper : public TransportHdrWrapper<TcpHdrWrapper, TcpHdr, TcpPseudoHdr> {
  public:
    using TransportHdrWrapper::TransportHdrWrapper;

    static constexpr const char* typeName = "Pavo::TcpHdrWrapper";

    /// Header and data, in bytes; 0 until it is set.
    uint16_t tcpLen() const { return pseudo_.tcpLen(); }
    void tcpLenIs(uint16_t bytes) { pseudo_.tcpLenIs(bytes); }

    /// As `TcpHdr::computedChecksum`, with the addresses and the length that are held.
    uint16_t computedChecksum() const { return header_->computedChecksumU16(pseudo_); }
};

/// For a segment over IPv6.
class PAVO_EXPORT TcpHdrWrapperIpv6
    : public TransportHdrWrapper<TcpHdrWrapperIpv6, TcpHdr, TcpPseudoHdrIpv6> {
  public:
    using TransportHdrWrapper::TransportHdrWrapper;

    static constexpr const char* typeName = "Pavo::TcpHdrWrapperIpv6";

    /// Header and data, in bytes; 0 until it is set.
    uint32_t tcpLen() const { return pseudo_.tcpLen(); }
    void tcpLenIs(uint32_t bytes) { pseudo_.tcpLenIs(bytes); }

    /// As `TcpHdr::computedChecksumIpv6`, with the addresses and the length that are held.
    uint16_t computedChecksum() const { return header_->computedChecksumIpv6U16(pseudo_); }
    /// As `TcpHdr::computedChecksumRfc8200`, likewise.
    uint16_t computedChecksumRfc8200() const {
        return header_->computedChecksumRfc8200U16(pseudo_);
    }
};

inline Mox::Ptr<TcpHdrWrapper> tcpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<TcpHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<TcpHdrWrapperIpv6> tcpHdrWrapperIpv6Factory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<TcpHdrWrapperIpv6>(pkt, offset);
}

}  // namespace Pavo
