/// @file
/// The IPv4 header and its options (RFC 791, 3.1).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

#include "Mox/Assert.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/packet/Checksum.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// Header and payload of a datagram, in bytes.
class IpTotalLen : public NetField<IpTotalLen, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::IpTotalLen";
};

/// Tells the fragments of one datagram from those of another.
class IpId : public NetField<IpId, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::IpId";
};

/// Bit 15 is reserved, bit 14 forbids fragmenting, bit 13 says that more fragments follow, bits 0
/// to 12 are the offset of the fragment.
class IpFragmentOffsetAndFlags : public NetField<IpFragmentOffsetAndFlags, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::IpFragmentOffsetAndFlags";
};

/// The first byte of the header: the version in the high four bits, the header length in the low.
class IpVersionAndHeaderLen : public Ordinal<IpVersionAndHeaderLen, uint8_t, 255> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpVersionAndHeaderLen";
    static constexpr const char* rangeText =
        "IpVersionAndHeaderLen::value < 0 or > 255 not allowed";
};

/// The length of a header, in words of 32 bits.
class IpHdrLen : public Ordinal<IpHdrLen, uint8_t, 15> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpHdrLen";
    static constexpr const char* rangeText = "IpHdrLen::value < 0 or > 15 not allowed";
};

/// The three flags above the fragment offset: 4 reserved, 2 don't fragment, 1 more fragments.
class IpFlags : public Ordinal<IpFlags, uint8_t, 7> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpFlags";
    static constexpr const char* rangeText = "IpFlags::value < 0 or > 7 not allowed";
};

/// The place of a fragment in its datagram, in units of 8 bytes.
class IpFragmentOffset : public Ordinal<IpFragmentOffset, uint16_t, 0x1fff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpFragmentOffset";
    static constexpr const char* rangeText = "IpFragmentOffset::value < 0 or > 8191 not allowed";
};

/// A byte that is a number and nothing more.
class OrdinalU8 : public Ordinal<OrdinalU8, uint8_t, 255> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::OrdinalU8";
    static constexpr const char* rangeText = "OrdinalU8::value < 0 or > 255 not allowed";
};

static_assert(isOverlay<IpTotalLen>(2) && isOverlay<IpId>(2));
static_assert(isOverlay<IpFragmentOffsetAndFlags>(2) && isOverlay<IpVersionAndHeaderLen>(1));

/// An IPv4 header without its options, laid over the bytes of a packet, or free-standing and all
/// zero to build one from:
///
///     | version (4 bits), header length (4 bits) | type of service (1) | total length (2)       |
///     | identification (2)                       | flags (3 bits), fragment offset (13 bits)    |
///     | time to live (1) | protocol (1)          | header checksum (2)                          |
///     | source (4)                                                                              |
///     | destination (4)                                                                         |
///
/// Numbers are in host order. A setter changes the bits of its field only.
///
/// Members: the fields of the drawing.
class IpHdr {
  public:
    static constexpr std::string_view recordName = "IpHdr";

    IpVersion version() const { return versionAndHeaderLen_.value() >> 4; }
    void versionIs(IpVersion version) {
        versionAndHeaderLen_.valueIs(uint32_t{version.value()} << 4 | headerLen().value());
    }
    /// In words of 32 bits.
    IpHdrLen headerLen() const { return versionAndHeaderLen_.value() & 0xf; }
    void headerLenIs(IpHdrLen len) {
        versionAndHeaderLen_.valueIs(uint32_t{version().value()} << 4 | len.value());
    }
    /// The length of header and options, in bytes: 0 to 60.
    uint16_t headerBytes() const { return static_cast<uint16_t>(headerLen().value() * 4); }
    /// Fatal for what is no multiple of 4: "(b % 4) == 0".
    /// @throws Mox::RangeException "IpHdrLen::value < 0 or > 15 not allowed"
    void headerBytesIs(uint16_t b) {
        Mox::require((b % 4) == 0, "(b % 4) == 0");
        headerLenIs(b / 4u);
    }
    /// The header is longer than 20 bytes.
    bool hasOptions() const { return headerBytes() > 20; }

    /// The whole byte: code point and congestion notification (RFC 2474, RFC 3168).
    uint8_t tos() const { return tos_; }
    void tosIs(uint8_t tos) { tos_ = tos; }

    /// Header and payload, in bytes.
    uint16_t totalLen() const { return totalLen_.value(); }
    void totalLenIs(uint16_t bytes) { totalLen_.valueIs(bytes); }
    /// What the total length leaves beside the header, modulo 2^16.
    uint16_t payloadLen() const { return static_cast<uint16_t>(totalLen() - headerBytes()); }

    uint16_t id() const { return id_.value(); }
    void idIs(uint16_t id) { id_.valueIs(id); }

    /// In units of 8 bytes.
    IpFragmentOffset fragmentOffset() const { return fragment_.value() & offsetMask; }
    void fragmentOffsetIs(IpFragmentOffset offset) { fragment_.bitsIs(offsetMask, offset.value()); }
    IpFlags flags() const { return fragment_.value() >> flagsShift; }
    void flagsIs(IpFlags flags) {
        fragment_.bitsIs(flagsMask, uint32_t{flags.value()} << flagsShift);
    }
    /// The last bit of the flags: this is not the last fragment.
    bool moreFrag() const { return (fragment_.value() & moreFragBit) != 0; }
    void moreFragIs(bool more) { fragment_.bitsIs(moreFragBit, more ? moreFragBit : 0); }
    /// The second bit of the flags: no router fragments the packet.
    bool dontFrag() const { return (fragment_.value() & dontFragBit) != 0; }
    void dontFragIs(bool dont) { fragment_.bitsIs(dontFragBit, dont ? dontFragBit : 0); }
    /// The first bit of the flags, which is sent as 0.
    bool reservedFragFlag() const { return (fragment_.value() & reservedBit) != 0; }
    void reservedFragFlagIs(bool reserved) {
        fragment_.bitsIs(reservedBit, reserved ? reservedBit : 0);
    }

    IpTtl ttl() const { return ttl_; }
    void ttlIs(IpTtl ttl) { ttl_ = ttl; }

    /// The protocol byte as it is.
    uint8_t protocol() const { return protocol_; }
    void protocolIs(uint8_t protocol) { protocol_ = protocol; }
    /// The protocol byte as a number; 255 for one that is not assigned.
    IpProtocolNumber protocolNum() const { return protocolNumFromByte(protocol_); }
    void protocolNumIs(IpProtocolNumber number) { protocol_ = static_cast<uint8_t>(number); }

    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }
    /// The checksum over the header as it stands, the checksum field included: 0 when that is
    /// right. To fill the field in, it is zeroed first. Reads `headerBytes()` bytes, past this
    /// record where there are options.
    IpChecksum computedChecksum() const {
        Mox::require((headerBytes() % 2) == 0, "(headerBytes() % 2) == 0");
        return headerBytes() == sizeof(IpHdr) ? ipChecksumOf(fieldSum())
                                              : ipChecksumCalc(this, headerBytes(), 0);
    }

    IpAddr src() const { return src_; }
    void srcIs(IpAddr src) { src_ = src; }
    IpAddr dst() const { return dst_; }
    void dstIs(IpAddr dst) { dst_ = dst; }

    /// `nonIpHdr` for another version than 4; `badIpPayloadLen` unless 20 <= `headerBytes()` <=
    /// `totalLen()` <= `bytes`.
    PktErrors check(uint32_t bytes) const {
        if (version() != IpVersion(4)) {
            return PktErrors::nonIpHdr;
        }
        const bool lengthsFit =
            headerBytes() >= sizeof(IpHdr) && headerBytes() <= totalLen() && totalLen() <= bytes;
        return lengthsFit ? PktErrors::noError : PktErrors::badIpPayloadLen;
    }

  private:
    // A header that has just been written is summed by its fields: a wider load would wait for the
    // stores.
    uint32_t fieldSum() const {
        return uint32_t{versionAndHeaderLen_.value()} * 256 + tos_ + totalLen_.value() +
               id_.value() + fragment_.value() + uint32_t{ttl_.value()} * 256 + protocol_ +
               checksum_.value() + addressSumOf(src_, dst_);
    }

    static constexpr uint16_t reservedBit = 0x8000;
    static constexpr uint16_t dontFragBit = 0x4000;
    static constexpr uint16_t moreFragBit = 0x2000;
    static constexpr uint16_t offsetMask = 0x1fff;
    static constexpr uint16_t flagsMask = 0xe000;
    static constexpr int flagsShift = 13;

    IpVersionAndHeaderLen versionAndHeaderLen_;
    uint8_t tos_ = 0;
    IpTotalLen totalLen_;
    IpId id_;
    IpFragmentOffsetAndFlags fragment_;
    IpTtl ttl_;
    uint8_t protocol_ = 0;
    IpChecksum checksum_;
    IpAddr src_;
    IpAddr dst_;
};
static_assert(isOverlay<IpHdr>(20));

/// The fields on one line, and the computed checksum beside the one in the header, for traces.
/// Reads the 20 bytes of the record only: with options the computed checksum is printed as
/// "unknown".
PAVO_EXPORT std::ostream& operator<<(std::ostream& out, const IpHdr& header);

/// The first two bytes of every option after an IPv4 header, except the two that are one byte long,
/// the end of the list (type 0) and the one that does nothing (type 1):
///
///     | type (1) | length (1) |
class IpHdrOptionCommon {
  public:
    static constexpr std::string_view recordName = "IpHdrOptionCommon";

    /// The copied flag in the top bit, then two bits of class and five of number.
    uint8_t type() const { return type_; }
    void typeIs(uint8_t type) { type_ = type; }
    /// The whole option, these two bytes included.
    uint8_t length() const { return length_; }
    void lengthIs(uint8_t bytes) { length_ = bytes; }

    /// `badIpPayloadLen` unless 2 <= `length()` <= `bytes`.
    PktErrors check(uint32_t bytes) const { return checkLength(sizeof(IpHdrOptionCommon), bytes); }

  protected:
    /// `badIpPayloadLen` unless `length()` is from `least` to `most`.
    PktErrors checkLength(uint32_t least, uint32_t most) const {
        return length_ >= least && length_ <= most ? PktErrors::noError
                                                   : PktErrors::badIpPayloadLen;
    }

  private:
    uint8_t type_ = 0;
    uint8_t length_ = 0;
};
static_assert(isOverlay<IpHdrOptionCommon>(2));

/// The router alert option (RFC 2113, 2.1), by default the one that asks every router to look at
/// the packet:
///
///     | type (1): 148 | length (1): 4 | value (2) |
class IpHdrRouterAlertOption : public IpHdrOptionCommon {
  public:
    static constexpr std::string_view recordName = "IpHdrRouterAlertOption";
    /// Copied into fragments, class 0, number 20.
    static constexpr uint8_t optionType = 0x94;

    IpHdrRouterAlertOption() {
        typeIs(optionType);
        lengthIs(4);
    }

    /// 0 where every router looks at the packet (RFC 2113, 2.1).
    uint16_t value() const { return value_.value(); }
    void valueIs(uint16_t value) { value_.valueIs(value); }

    /// `wrongIpOption` for another type; `badIpPayloadLen` unless 4 <= `length()` <= `bytes`.
    PktErrors check(uint32_t bytes) const {
        return type() == optionType ? checkLength(sizeof(IpHdrRouterAlertOption), bytes)
                                    : PktErrors::wrongIpOption;
    }

  private:
    NetU16 value_;
};
static_assert(isOverlay<IpHdrRouterAlertOption>(4));

class PAVO_EXPORT IpHdrWrapper : public HdrWrapper<IpHdrWrapper, IpHdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::IpHdrWrapper";
};

class PAVO_EXPORT IpHdrOptionCommonWrapper
    : public HdrWrapper<IpHdrOptionCommonWrapper, IpHdrOptionCommon> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::IpHdrOptionCommonWrapper";
};

class PAVO_EXPORT IpHdrRouterAlertOptionWrapper
    : public HdrWrapper<IpHdrRouterAlertOptionWrapper, IpHdrRouterAlertOption> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::IpHdrRouterAlertOptionWrapper";

    /// The option as what it is; `header()` also passes for the common record that it extends.
    IpHdrRouterAlertOption* raHeader() { return header_; }
    const IpHdrRouterAlertOption* raHeader() const { return header_; }
    /// Writes a default router alert over the bytes of the packet, and returns it.
    IpHdrRouterAlertOption* raHeaderInstantiate() {
        *header_ = IpHdrRouterAlertOption();
        return header_;
    }
};

inline Mox::Ptr<IpHdrWrapper> ipHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<IpHdrWrapper>(pkt, offset);
}

inline Mox::Ptr<IpHdrOptionCommonWrapper> ipHdrOptionCommonWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                          uint32_t offset) {
    return Mox::make<IpHdrOptionCommonWrapper>(pkt, offset);
}
inline Mox::Ptr<IpHdrRouterAlertOptionWrapper> ipHdrRouterAlertOptionWrapperFactory(
    const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<IpHdrRouterAlertOptionWrapper>(pkt, offset);
}

}  // namespace Pavo
