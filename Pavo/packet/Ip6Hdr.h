/// @file
/// The IPv6 header, its hop-by-hop options, and the way over extension headers (RFC 8200).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

#include "Mox/Enum.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/Ip6Addr.h"

namespace Pavo {

/// The first four bytes of the header: the version in bits 28 to 31, the traffic class in bits 20
/// to 27, the flow label in bits 0 to 19.
class IpVersionTrafficClassAndFlowLabel
    : public NetField<IpVersionTrafficClassAndFlowLabel, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::IpVersionTrafficClassAndFlowLabel";
};

/// An IPv6 header, laid over the bytes of a packet, or free-standing and all zero to build one
/// from:
///
///     | version (4 bits), traffic class (8 bits), flow label (20 bits) |
///     | payload length (2)        | next header (1) | hop limit (1)    |
///     | source (16)                                                    |
///     | destination (16)                                               |
///
/// Numbers are in host order. A setter changes the bits of its field only.
///
/// Members: the fields of the drawing.
class Ip6Hdr {
  public:
    static constexpr std::string_view recordName = "Ip6Hdr";

    IpVersion version() const { return first_.value() >> versionShift; }
    void versionIs(IpVersion version) {
        first_.bitsIs(~0u << versionShift, uint32_t{version.value()} << versionShift);
    }
    IpTrafficClass trafficClass() const { return first_.value() >> trafficClassShift & 0xff; }
    void trafficClassIs(IpTrafficClass trafficClass) {
        first_.bitsIs(0xffu << trafficClassShift,
                      uint32_t{trafficClass.value()} << trafficClassShift);
    }
    IpFlowLabel flowLabel() const { return first_.value() & IpFlowLabel::max; }
    void flowLabelIs(IpFlowLabel label) { first_.bitsIs(IpFlowLabel::max, label.value()); }

    /// The length after these 40 bytes, extension headers included.
    uint16_t payloadLen() const { return payloadLen_.value(); }
    void payloadLenIs(uint16_t bytes) { payloadLen_.valueIs(bytes); }

    /// The next header byte as it is.
    uint8_t nextHeader() const { return nextHeader_; }
    void nextHeaderIs(uint8_t nextHeader) { nextHeader_ = nextHeader; }
    /// The next header byte as a number; 255 for one that is not assigned.
    IpProtocolNumber nextHeaderNumber() const { return protocolNumFromByte(nextHeader_); }
    /// The same, under the name that it has in `IpHdr`.
    IpProtocolNumber protocolNum() const { return nextHeaderNumber(); }
    void protocolNumIs(IpProtocolNumber number) { nextHeader_ = static_cast<uint8_t>(number); }

    uint8_t hopLimit() const { return hopLimit_; }
    void hopLimitIs(uint8_t hops) { hopLimit_ = hops; }

    Ip6Addr src() const { return src_; }
    void srcIs(const Ip6Addr& src) { src_ = src; }
    Ip6Addr dst() const { return dst_; }
    void dstIs(const Ip6Addr& dst) { dst_ = dst; }

    /// `nonIp6Hdr` for another version than 6; `badIp6PayloadLen` where header and payload are
    /// longer than `bytes`.
    PktErrors check(uint32_t bytes) const {
        if (version() != IpVersion(6)) {
            return PktErrors::nonIp6Hdr;
        }
        return payloadLen() <= bytes - sizeof(Ip6Hdr) ? PktErrors::noError
                                                      : PktErrors::badIp6PayloadLen;
    }

  private:
    static constexpr int versionShift = 28;
    static constexpr int trafficClassShift = 20;

    IpVersionTrafficClassAndFlowLabel first_;
    NetU16 payloadLen_;
    uint8_t nextHeader_ = 0;
    uint8_t hopLimit_ = 0;
    Ip6Addr src_;
    Ip6Addr dst_;
};
static_assert(isOverlay<IpVersionTrafficClassAndFlowLabel>(4) && isOverlay<Ip6Hdr>(40));

/// The fields on one line, for traces.
PAVO_EXPORT std::ostream& operator<<(std::ostream& out, const Ip6Hdr& header);

/// Finds the header with the number `proto` after the IPv6 header and its extension headers, and
/// sets `*out` to its first byte. Hop-by-hop options (0), routing (43), fragment (44) and
/// destination options (60) are passed over; the search ends at any other header, at the end of the
/// payload, and at the end of the `len` bytes that may be read from `hdr` on. An extension header
/// must begin before that end; the header after it may begin there, since nothing of the header
/// that is found is read.
/// @return 0, or -1 with `*out` unchanged
PAVO_EXPORT int getNextProtoHdr(Ip6Hdr* hdr, uint32_t proto, char** out, uint32_t len);

/// Kinds of option in hop-by-hop and destination headers (IANA, "Destination Options and Hop-by-Hop
/// Options"). The top two bits say what a node does that does not know the option, the third that
/// it may change on the way.
enum class Ip6HdrOptionType : uint32_t {
    pad1 = 0x00,
    padN = 0x01,
    tunnelEncapsulationLimit = 0x04,
    routerAlert = 0x05,
    calipso = 0x07,
    smfDpd = 0x08,
    performanceMetrics = 0x0f,
    rpl = 0x23,
    quickStart = 0x26,
    minimumPathMtu = 0x30,
    mpl = 0x6d,
    ilnpNonce = 0x8b,
    lineIdentification = 0x8c,
    jumboPayload = 0xc2,
    homeAddress = 0xc9,
    ipDff = 0xee,
};

/// @throws Mox::RangeException "Invalid Ip6HdrOptionType"
PAVO_EXPORT Ip6HdrOptionType Ip6HdrOptionTypeInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid Ip6HdrOptionType"
PAVO_EXPORT Ip6HdrOptionType Ip6HdrOptionTypeInstance(const Mox::String& name);

// clang-format off
constexpr auto enumDescription(Ip6HdrOptionType) {
    return Mox::enumeration<Ip6HdrOptionType>("Invalid Ip6HdrOptionType", {
        {Ip6HdrOptionType::pad1, "pad1"},
        {Ip6HdrOptionType::padN, "padN"},
        {Ip6HdrOptionType::tunnelEncapsulationLimit, "tunnelEncapsulationLimit"},
        {Ip6HdrOptionType::routerAlert, "routerAlert"},
        {Ip6HdrOptionType::calipso, "calipso"},
        {Ip6HdrOptionType::smfDpd, "smfDpd"},
        {Ip6HdrOptionType::performanceMetrics, "performanceMetrics"},
        {Ip6HdrOptionType::rpl, "rpl"},
        {Ip6HdrOptionType::quickStart, "quickStart"},
        {Ip6HdrOptionType::minimumPathMtu, "minimumPathMtu"},
        {Ip6HdrOptionType::mpl, "mpl"},
        {Ip6HdrOptionType::ilnpNonce, "ilnpNonce"},
        {Ip6HdrOptionType::lineIdentification, "lineIdentification"},
        {Ip6HdrOptionType::jumboPayload, "jumboPayload"},
        {Ip6HdrOptionType::homeAddress, "homeAddress"},
        {Ip6HdrOptionType::ipDff, "ipDff"},
    });
}
// clang-format on

/// The beginning of an extension header that holds options:
///
///     | next header (1) | length (1) |
class Ip6HdrOptionCommon {
  public:
    static constexpr std::string_view recordName = "Ip6HdrOptionCommon";

    /// The number of the header after this one, as it is.
    uint8_t nextHdrNum() const { return nextHdrNum_; }
    void nextHdrNumIs(uint8_t number) { nextHdrNum_ = number; }
    /// The length of the extension header in units of 8 bytes, without the first 8.
    uint8_t hdrExtLen() const { return hdrExtLen_; }
    void hdrExtLenIs(uint8_t units) { hdrExtLen_ = units; }
    /// The length of the extension header in bytes: 8 to 2048.
    uint16_t headerBytes() const { return static_cast<uint16_t>(hdrExtLen_ * 8 + 8); }

    /// `badIp6PayloadLen` where `headerBytes()` is more than `bytes`.
    PktErrors check(uint32_t bytes) const {
        return headerBytes() <= bytes ? PktErrors::noError : PktErrors::badIp6PayloadLen;
    }

  private:
    uint8_t nextHdrNum_ = 0;
    uint8_t hdrExtLen_ = 0;
};
static_assert(isOverlay<Ip6HdrOptionCommon>(2));

/// One byte of padding: an option that is its type, 0, and nothing more (RFC 8200, 4.2).
class Ip6HdrPad1 {
  public:
    static constexpr std::string_view recordName = "Ip6HdrPad1";

    /// As it is in the packet; see `Ip6HdrOptionType`.
    uint8_t optionType() const { return optionType_; }

    /// Any byte is the type of an option.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    uint8_t optionType_ = static_cast<uint8_t>(Ip6HdrOptionType::pad1);
};
static_assert(isOverlay<Ip6HdrPad1>(1));

/// Two bytes of padding or more (RFC 8200, 4.2). The record is the two; the zeros lie after it:
///
///     | type (1): 1 | length (1) | that many zeros |
class Ip6HdrPadN {
  public:
    static constexpr std::string_view recordName = "Ip6HdrPadN";

    /// As it is in the packet; see `Ip6HdrOptionType`.
    uint8_t optionType() const { return optionType_; }
    /// The number of zeros.
    uint8_t optionLen() const { return optionLen_; }
    /// Changes the length only: `Ip6HdrPadNWrapper::paddingIs` writes the zeros too.
    void optionLenIs(uint8_t zeros) { optionLen_ = zeros; }

    /// `badIp6PayloadLen` where record and zeros are longer than `bytes`.
    PktErrors check(uint32_t bytes) const {
        return optionLen_ <= bytes - sizeof(Ip6HdrPadN) ? PktErrors::noError
                                                        : PktErrors::badIp6PayloadLen;
    }

  private:
    uint8_t optionType_ = static_cast<uint8_t>(Ip6HdrOptionType::padN);
    uint8_t optionLen_ = 0;
};
static_assert(isOverlay<Ip6HdrPadN>(2));

/// A hop-by-hop header as far as the router alert option that comes first in it (RFC 2711, 2.1).
/// Two bytes of padding make it whole:
///
///     | next header (1) | length (1) | type (1): 5 | data length (1): 2 | value (2) |
class Ip6HdrRouterAlertOption : public Ip6HdrOptionCommon {
  public:
    static constexpr std::string_view recordName = "Ip6HdrRouterAlertOption";

    /// As it is in the packet; see `Ip6HdrOptionType`.
    uint8_t optionType() const { return optionType_; }
    /// The length of what follows, in bytes.
    uint8_t optionLen() const { return optionLen_; }
    /// What the packet contains: 0 for multicast listener discovery.
    uint16_t value() const { return value_.value(); }
    void valueIs(uint16_t value) { value_.valueIs(value); }

    /// `badIp6PayloadLen` where `headerBytes()` is more than `bytes`; `wrongIp6Option` for another
    /// type or data length.
    PktErrors check(uint32_t bytes) const {
        const Ip6HdrRouterAlertOption usual;
        const bool isAlert = optionType_ == usual.optionType_ && optionLen_ == usual.optionLen_;
        const PktErrors error = Ip6HdrOptionCommon::check(bytes);
        return error != PktErrors::noError || isAlert ? error : PktErrors::wrongIp6Option;
    }

  private:
    uint8_t optionType_ = static_cast<uint8_t>(Ip6HdrOptionType::routerAlert);
    uint8_t optionLen_ = 2;
    NetU16 value_;
};
static_assert(isOverlay<Ip6HdrRouterAlertOption>(6));

class PAVO_EXPORT Ip6HdrWrapper : public HdrWrapper<Ip6HdrWrapper, Ip6Hdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::Ip6HdrWrapper";
};

class PAVO_EXPORT Ip6HdrOptionCommonWrapper
    : public HdrWrapper<Ip6HdrOptionCommonWrapper, Ip6HdrOptionCommon> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::Ip6HdrOptionCommonWrapper";
};

class PAVO_EXPORT Ip6HdrPad1Wrapper : public HdrWrapper<Ip6HdrPad1Wrapper, Ip6HdrPad1> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::Ip6HdrPad1Wrapper";
};

class PAVO_EXPORT Ip6HdrPadNWrapper : public HdrWrapper<Ip6HdrPadNWrapper, Ip6HdrPadN> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::Ip6HdrPadNWrapper";

    /// Writes a whole option with this many zeros. Fatal when it does not lie wholly in the first
    /// iovec: "( offset_ + sizeof( Ip6HdrPadN ) + zeros ) <= pkt_->frontBytes()".
    PAVO_EXPORT void paddingIs(uint8_t zeros);
};

class PAVO_EXPORT Ip6HdrRouterAlertOptionWrapper
    : public HdrWrapper<Ip6HdrRouterAlertOptionWrapper, Ip6HdrRouterAlertOption> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::Ip6HdrRouterAlertOptionWrapper";

    /// The option as what it is; `header()` also passes for the common record that it extends.
    Ip6HdrRouterAlertOption* raHeader() { return header_; }
    const Ip6HdrRouterAlertOption* raHeader() const { return header_; }
    /// Writes a default router alert over the bytes of the packet, and returns it.
    Ip6HdrRouterAlertOption* raHeaderInstantiate() {
        *header_ = Ip6HdrRouterAlertOption();
        return header_;
    }
};

inline Mox::Ptr<Ip6HdrWrapper> ip6HdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<Ip6HdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Ip6HdrOptionCommonWrapper> ip6HdrOptionCommonWrapperFactory(
    const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<Ip6HdrOptionCommonWrapper>(pkt, offset);
}
inline Mox::Ptr<Ip6HdrPad1Wrapper> ip6HdrPad1WrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<Ip6HdrPad1Wrapper>(pkt, offset);
}
inline Mox::Ptr<Ip6HdrPadNWrapper> ip6HdrPadNWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<Ip6HdrPadNWrapper>(pkt, offset);
}
inline Mox::Ptr<Ip6HdrRouterAlertOptionWrapper> ip6HdrRouterAlertOptionWrapperFactory(
    const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<Ip6HdrRouterAlertOptionWrapper>(pkt, offset);
}

}  // namespace Pavo
