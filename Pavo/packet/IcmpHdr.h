/// @file
/// The header of ICMP messages (RFC 792), and that of echo messages.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Enum.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// Kinds of ICMP message (RFC 792; IANA, "ICMP Type Numbers"). A packet may hold any other byte: it
/// reads as that number, without a name.
enum class IcmpType : uint32_t {
    echoReply = 0,
    destinationUnreachable = 3,
    sourceQuench = 4,
    redirect = 5,
    alternateHostAddress = 6,
    echoRequest = 8,
    routerAdvertisement = 9,
    routerSolicitation = 10,
    timeExceeded = 11,
    parameterProblem = 12,
    timestamp = 13,
    timestampReply = 14,
    informationRequest = 15,
    informationReply = 16,
    addressMaskRequest = 17,
    addressMaskReply = 18,
    traceroute = 30,
    datagramConversionError = 31,
    mobileHostRedirect = 32,
    ipv6WhereAreYou = 33,
    ipv6IAmHere = 34,
    mobileRegistrationRequest = 35,
    mobileRegistrationReply = 36,
    domainNameRequest = 37,
    domainNameReply = 38,
    skip = 39,
    photuris = 40,
    experimentalMobility = 41,
    extendedEchoRequest = 42,
    extendedEchoReply = 43,
    experiment1 = 253,
    experiment2 = 254,
};

/// @throws Mox::RangeException "Invalid IcmpType"
PAVO_EXPORT IcmpType IcmpTypeInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid IcmpType"
PAVO_EXPORT IcmpType IcmpTypeInstance(const Mox::String& name);

// clang-format off
constexpr auto enumDescription(IcmpType) {
    return Mox::enumeration<IcmpType>("Invalid IcmpType", {
        {IcmpType::echoReply, "echoReply"},
        {IcmpType::destinationUnreachable, "destinationUnreachable"},
        {IcmpType::sourceQuench, "sourceQuench"},
        {IcmpType::redirect, "redirect"},
        {IcmpType::alternateHostAddress, "alternateHostAddress"},
        {IcmpType::echoRequest, "echoRequest"},
        {IcmpType::routerAdvertisement, "routerAdvertisement"},
        {IcmpType::routerSolicitation, "routerSolicitation"},
        {IcmpType::timeExceeded, "timeExceeded"},
        {IcmpType::parameterProblem, "parameterProblem"},
        {IcmpType::timestamp, "timestamp"},
        {IcmpType::timestampReply, "timestampReply"},
        {IcmpType::informationRequest, "informationRequest"},
        {IcmpType::informationReply, "informationReply"},
        {IcmpType::addressMaskRequest, "addressMaskRequest"},
        {IcmpType::addressMaskReply, "addressMaskReply"},
        {IcmpType::traceroute, "traceroute"},
        {IcmpType::datagramConversionError, "datagramConversionError"},
        {IcmpType::mobileHostRedirect, "mobileHostRedirect"},
        {IcmpType::ipv6WhereAreYou, "ipv6WhereAreYou"},
        {IcmpType::ipv6IAmHere, "ipv6IAmHere"},
        {IcmpType::mobileRegistrationRequest, "mobileRegistrationRequest"},
        {IcmpType::mobileRegistrationReply, "mobileRegistrationReply"},
        {IcmpType::domainNameRequest, "domainNameRequest"},
        {IcmpType::domainNameReply, "domainNameReply"},
        {IcmpType::skip, "skip"},
        {IcmpType::photuris, "photuris"},
        {IcmpType::experimentalMobility, "experimentalMobility"},
        {IcmpType::extendedEchoRequest, "extendedEchoRequest"},
        {IcmpType::extendedEchoReply, "extendedEchoReply"},
        {IcmpType::experiment1, "experiment1"},
        {IcmpType::experiment2, "experiment2"},
    });
}
// clang-format on

/// The fields that begin every message of ICMP and ICMPv6, whose kinds `Type` names.
///
/// Members: the fields, in host order.
template <class Type>
class IcmpFields {
  public:
    Type type() const { return static_cast<Type>(type_); }
    void typeIs(Type type) { type_ = static_cast<uint8_t>(type); }
    uint8_t code() const { return code_; }
    void codeIs(uint8_t code) { code_ = code; }
    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }

    /// Messages of any type are taken.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    uint8_t type_ = 0;
    uint8_t code_ = 0;
    IpChecksum checksum_;
};

/// The fields that echo messages of both add to their header `Hdr`.
///
/// Members: the fields, in host order.
template <class Hdr>
class IcmpEchoFields : public Hdr {
  public:
    uint16_t id() const { return id_.value(); }
    void idIs(uint16_t id) { id_.valueIs(id); }
    uint16_t sequenceNumber() const { return sequenceNumber_.value(); }
    void sequenceNumberIs(uint16_t number) { sequenceNumber_.valueIs(number); }

  private:
    NetU16 id_;
    NetU16 sequenceNumber_;
};

/// A wrapper with the fields of its header as its own.
///
/// Members: as those of the header.
template <class Self, class Hdr>
class IcmpFieldsWrapper : public HdrWrapper<Self, Hdr> {
  public:
    using HdrWrapper<Self, Hdr>::HdrWrapper;

    auto type() const { return this->header_->type(); }
    void typeIs(decltype(Hdr().type()) type) { this->header_->typeIs(type); }
    uint8_t code() const { return this->header_->code(); }
    void codeIs(uint8_t code) { this->header_->codeIs(code); }
    IpChecksum checksum() const { return this->header_->checksum(); }
    void checksumIs(IpChecksum checksum) { this->header_->checksumIs(checksum); }
};

/// The beginning of every ICMP message:
///
///     | type (1) | code (1) | checksum (2) |
class IcmpHdr : public IcmpFields<IcmpType> {
  public:
    static constexpr std::string_view recordName = "IcmpHdr";

    /// The checksum over the message of `bytes` bytes that begins here, header and checksum field
    /// included: 0 when that is right. To fill the field in, it is zeroed first.
    PAVO_EXPORT IpChecksum computedChecksum(uint16_t bytes) const;
};
static_assert(isOverlay<IcmpHdr>(4));

/// The header of an echo request or reply, before the data that is to come back:
///
///     | type (1) | code (1)       | checksum (2)        |
///     | identifier (2)            | sequence number (2) |
class IcmpEchoHdr : public IcmpEchoFields<IcmpHdr> {
  public:
    static constexpr std::string_view recordName = "IcmpEchoHdr";
};
static_assert(isOverlay<IcmpEchoHdr>(8));

/// Adds what needs the packet to a wrapper of an ICMP header.
template <class Self, class Hdr>
class IcmpHdrWrapperBase : public IcmpFieldsWrapper<Self, Hdr> {
  public:
    using IcmpFieldsWrapper<Self, Hdr>::IcmpFieldsWrapper;

    /// As `IcmpHdr::computedChecksum`. Fatal when the message does not lie wholly in the first
    /// iovec: "( offset_ + bytes ) <= pkt_->frontBytes()".
    IpChecksum computedChecksum(uint16_t bytes) const {
        this->requireFront(bytes, "( offset_ + bytes ) <= pkt_->frontBytes()");
        return this->header_->computedChecksum(bytes);
    }
};

class PAVO_EXPORT IcmpHdrWrapper : public IcmpHdrWrapperBase<IcmpHdrWrapper, IcmpHdr> {
  public:
    using IcmpHdrWrapperBase::IcmpHdrWrapperBase;

    static constexpr const char* typeName = "Pavo::IcmpHdrWrapper";
};

class PAVO_EXPORT IcmpEchoHdrWrapper : public IcmpHdrWrapperBase<IcmpEchoHdrWrapper, IcmpEchoHdr> {
  public:
    using IcmpHdrWrapperBase::IcmpHdrWrapperBase;

    static constexpr const char* typeName = "Pavo::IcmpEchoHdrWrapper";
};

inline Mox::Ptr<IcmpHdrWrapper> icmpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<IcmpHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<IcmpEchoHdrWrapper> icmpEchoHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                              uint32_t offset) {
    return Mox::make<IcmpEchoHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
