/// @file
/// The messages of neighbour discovery (RFC 4861) and their options, and what a receiver has to
/// refuse.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/Icmp6Hdr.h"
#include "Pavo/packet/IpMsg.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/Ip6Addr.h"

namespace Pavo {

/// A router solicitation (RFC 4861, 4.1):
///
///     | type (1): 133 | code (1) | checksum (2) |
///     | reserved (4)                            |
class Icmp6RsHdr : public Icmp6Hdr {
  public:
    static constexpr std::string_view recordName = "Icmp6RsHdr";

    Icmp6RsHdr() { typeIs(Icmp6Type::routerSolicitation); }

  private:
    NetU32 reserved_;
};
static_assert(isOverlay<Icmp6RsHdr>(8));

/// A router advertisement (RFC 4861, 4.2; RFC 4191, 2.2):
///
///     | type (1): 134 | code (1) | checksum (2) |
///     | hop limit (1) | M (1 bit), O (1 bit), H (1 bit), preference (2 bits) | lifetime (2) |
///     | reachable time (4)                      |
///     | retransmission timer (4)                |
///
/// Members: the fields, in host order.
class Icmp6RaHdr : public Icmp6Hdr {
  public:
    static constexpr std::string_view recordName = "Icmp6RaHdr";

    Icmp6RaHdr() { typeIs(Icmp6Type::routerAdvertisement); }

    /// For packets that hosts send; 0 for none in particular.
    uint8_t hopLimit() const { return hopLimit_; }
    void hopLimitIs(uint8_t hops) { hopLimit_ = hops; }
    /// Addresses are had from DHCPv6 (M).
    bool managed() const { return (flags_.value() & 0x80) != 0; }
    void managedIs(bool managed) { flags_.bitsIs(0x80, managed ? 0x80 : 0); }
    /// Other information is had from DHCPv6 (O).
    bool otherConfig() const { return (flags_.value() & 0x40) != 0; }
    void otherConfigIs(bool other) { flags_.bitsIs(0x40, other ? 0x40 : 0); }
    /// The router's preference: 0 is medium, 1 high, 3 low.
    uint8_t preference() const { return static_cast<uint8_t>(flags_.value() >> 3 & 3); }
    /// Uses the low 2 bits.
    void preferenceIs(uint8_t preference) { flags_.bitsIs(0x18, uint32_t{preference} << 3); }
    /// 0 for a router that is none by default.
    uint16_t lifetimeSeconds() const { return lifetime_.value(); }
    void lifetimeSecondsIs(uint16_t seconds) { lifetime_.valueIs(seconds); }
    /// In milliseconds; 0 for none in particular.
    uint32_t reachableMs() const { return reachable_.value(); }
    void reachableMsIs(uint32_t ms) { reachable_.valueIs(ms); }
    /// In milliseconds; 0 for none in particular.
    uint32_t retransMs() const { return retrans_.value(); }
    void retransMsIs(uint32_t ms) { retrans_.valueIs(ms); }

  private:
    uint8_t hopLimit_ = 0;
    NetU8 flags_;
    NetU16 lifetime_;
    NetU32 reachable_;
    NetU32 retrans_;
};
static_assert(isOverlay<Icmp6RaHdr>(16));

/// The common part of neighbour messages: four bytes of flags, and the target.
///
/// Members: the fields, in host order.
class Icmp6TargetFields : public Icmp6Hdr {
  public:
    Ip6Addr target() const { return target_; }
    void targetIs(const Ip6Addr& target) { target_ = target; }

  protected:
    /// Uses the one bit.
    bool flag(uint32_t bit) const { return (flags_.value() & bit) != 0; }
    void flagIs(uint32_t bit, bool isSet) { flags_.bitsIs(bit, isSet ? bit : 0); }

  private:
    NetU32 flags_;
    Ip6Addr target_;
};

/// A neighbour solicitation (RFC 4861, 4.3):
///
///     | type (1): 135 | code (1) | checksum (2) |
///     | reserved (4)                            |
///     | target (16)                             |
class Icmp6NsHdr : public Icmp6TargetFields {
  public:
    static constexpr std::string_view recordName = "Icmp6NsHdr";

    Icmp6NsHdr() { typeIs(Icmp6Type::neighborSolicitation); }
};
static_assert(isOverlay<Icmp6NsHdr>(24));

/// A neighbour advertisement (RFC 4861, 4.4):
///
///     | type (1): 136 | code (1) | checksum (2)                 |
///     | R (1 bit), S (1 bit), O (1 bit), reserved (29 bits)     |
///     | target (16)                                             |
///
/// Members: the fields, in host order.
class Icmp6NaHdr : public Icmp6TargetFields {
  public:
    static constexpr std::string_view recordName = "Icmp6NaHdr";

    Icmp6NaHdr() { typeIs(Icmp6Type::neighborAdvertisement); }

    /// The sender is a router (R).
    bool router() const { return flag(0x80000000); }
    void routerIs(bool router) { flagIs(0x80000000, router); }
    /// It answers a solicitation (S).
    bool solicited() const { return flag(0x40000000); }
    void solicitedIs(bool solicited) { flagIs(0x40000000, solicited); }
    /// It replaces what is known (O).
    bool overriding() const { return flag(0x20000000); }
    void overridingIs(bool overriding) { flagIs(0x20000000, overriding); }
};
static_assert(isOverlay<Icmp6NaHdr>(24));

/// A redirect (RFC 4861, 4.5):
///
///     | type (1): 137 | code (1) | checksum (2) |
///     | reserved (4)                            |
///     | target (16)                             |
///     | destination (16)                        |
///
/// Members: the fields, in host order.
class Icmp6RedirectHdr : public Icmp6TargetFields {
  public:
    static constexpr std::string_view recordName = "Icmp6RedirectHdr";

    Icmp6RedirectHdr() { typeIs(Icmp6Type::redirect); }

    Ip6Addr destination() const { return destination_; }
    void destinationIs(const Ip6Addr& destination) { destination_ = destination; }

  private:
    Ip6Addr destination_;
};
static_assert(isOverlay<Icmp6RedirectHdr>(40));

/// Kinds of option (RFC 4861, 4.6).
///
/// Members: the numbers of the type field.
struct NdOptionType {
    static constexpr uint8_t sourceLinkAddr = 1;
    static constexpr uint8_t targetLinkAddr = 2;
    static constexpr uint8_t prefix = 3;
    static constexpr uint8_t redirectedHdr = 4;
    static constexpr uint8_t mtu = 5;
};

/// The beginning of every option:
///
///     | type (1) | length in units of 8 bytes (1) |
///
/// Members: the fields, in host order.
class NdOptionHdr {
  public:
    static constexpr std::string_view recordName = "NdOptionHdr";

    /// One of `NdOptionType`; others are ignored.
    uint8_t type() const { return type_; }
    void typeIs(uint8_t type) { type_ = type; }
    /// The whole option, these two bytes included: in units of 8 bytes, and in bytes.
    /// @{
    uint8_t len() const { return len_; }
    void lenIs(uint8_t units) { len_ = units; }
    uint32_t totalBytes() const { return len_ * 8u; }
    /// @}

    /// `icmp6OptLenZero`, or `icmp6OptLenExceedPayloadLen` where `totalBytes()` is more than
    /// `bytes`.
    PktErrors check(uint32_t bytes) const {
        if (len_ == 0) {
            return PktErrors::icmp6OptLenZero;
        }
        return totalBytes() <= bytes ? PktErrors::noError : PktErrors::icmp6OptLenExceedPayloadLen;
    }

  private:
    uint8_t type_ = 0;
    uint8_t len_ = 0;
};
static_assert(isOverlay<NdOptionHdr>(2));

/// The MAC of the sender or of the target, on Ethernet (RFC 2464, 6):
///
///     | type (1): 1 or 2 | length (1): 1 | MAC (6) |
///
/// Members: the fields, in host order.
class NdLinkAddrOption : public NdOptionHdr {
  public:
    static constexpr std::string_view recordName = "NdLinkAddrOption";

    NdLinkAddrOption() {
        typeIs(NdOptionType::sourceLinkAddr);
        lenIs(1);
    }

    EthAddr mac() const { return mac_; }
    void macIs(EthAddr mac) { mac_ = mac; }

  private:
    EthAddr mac_;
};
static_assert(isOverlay<NdLinkAddrOption>(8));

/// A prefix of the link (RFC 4861, 4.6.2):
///
///     | type (1): 3 | length (1): 4 | prefix length (1) | L, A (1 bit each), reserved (6 bits) |
///     | valid lifetime (4)     |
///     | preferred lifetime (4) |
///     | reserved (4)           |
///     | prefix (16)            |
///
/// Members: the fields, in host order.
class NdPrefixOption : public NdOptionHdr {
  public:
    static constexpr std::string_view recordName = "NdPrefixOption";

    NdPrefixOption() {
        typeIs(NdOptionType::prefix);
        lenIs(4);
    }

    /// In bits. A packet may hold more than 128.
    uint8_t prefixLen() const { return prefixLen_; }
    void prefixLenIs(uint8_t bits) { prefixLen_ = bits; }
    /// Addresses with the prefix are on the link (L).
    bool onLink() const { return (flags_.value() & 0x80) != 0; }
    void onLinkIs(bool onLink) { flags_.bitsIs(0x80, onLink ? 0x80 : 0); }
    /// Hosts make addresses with the prefix (A).
    bool autonomous() const { return (flags_.value() & 0x40) != 0; }
    void autonomousIs(bool autonomous) { flags_.bitsIs(0x40, autonomous ? 0x40 : 0); }
    /// 0xffffffff is for ever.
    uint32_t validSeconds() const { return valid_.value(); }
    void validSecondsIs(uint32_t seconds) { valid_.valueIs(seconds); }
    /// 0xffffffff is for ever.
    uint32_t preferredSeconds() const { return preferred_.value(); }
    void preferredSecondsIs(uint32_t seconds) { preferred_.valueIs(seconds); }
    Ip6Addr prefix() const { return prefix_; }
    void prefixIs(const Ip6Addr& prefix) { prefix_ = prefix; }

    /// As `NdOptionHdr::check`; `icmp6OptLenExceedPayloadLen` for an option of fewer than 32 bytes
    /// too.
    PktErrors check(uint32_t bytes) const {
        const PktErrors error = NdOptionHdr::check(bytes);
        return error == PktErrors::noError && totalBytes() < sizeof(NdPrefixOption)
                   ? PktErrors::icmp6OptLenExceedPayloadLen
                   : error;
    }

  private:
    uint8_t prefixLen_ = 0;
    NetU8 flags_;
    NetU32 valid_;
    NetU32 preferred_;
    NetU32 reserved_;
    Ip6Addr prefix_;
};
static_assert(isOverlay<NdPrefixOption>(32));

/// The MTU of the link (RFC 4861, 4.6.4):
///
///     | type (1): 5 | length (1): 1 | reserved (2) |
///     | MTU (4)                                    |
class NdMtuOption : public NdOptionHdr {
  public:
    static constexpr std::string_view recordName = "NdMtuOption";

    NdMtuOption() {
        typeIs(NdOptionType::mtu);
        lenIs(1);
    }

    /// In bytes.
    uint32_t mtu() const { return mtu_.value(); }
    void mtuIs(uint32_t bytes) { mtu_.valueIs(bytes); }

  private:
    NetU16 reserved_;
    NetU32 mtu_;
};
static_assert(isOverlay<NdMtuOption>(8));

/// A wrapper of a message of neighbour discovery, with the fields that all ICMPv6 messages have.
template <class Hdr>
class PAVO_EXPORT Icmp6NdHdrWrapper : public Icmp6HdrWrapperBase<Icmp6NdHdrWrapper<Hdr>, Hdr> {
  public:
    using Icmp6HdrWrapperBase<Icmp6NdHdrWrapper<Hdr>, Hdr>::Icmp6HdrWrapperBase;

    static constexpr const char* typeName = wrapperName<Hdr>.data();
};
/// The wrapper of each message.
/// @{
using Icmp6RsHdrWrapper = Icmp6NdHdrWrapper<Icmp6RsHdr>;
using Icmp6RaHdrWrapper = Icmp6NdHdrWrapper<Icmp6RaHdr>;
using Icmp6NsHdrWrapper = Icmp6NdHdrWrapper<Icmp6NsHdr>;
using Icmp6NaHdrWrapper = Icmp6NdHdrWrapper<Icmp6NaHdr>;
using Icmp6RedirectHdrWrapper = Icmp6NdHdrWrapper<Icmp6RedirectHdr>;
/// @}

inline Mox::Ptr<Icmp6RsHdrWrapper> icmp6RsHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<Icmp6RsHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Icmp6RaHdrWrapper> icmp6RaHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<Icmp6RaHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Icmp6NsHdrWrapper> icmp6NsHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<Icmp6NsHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Icmp6NaHdrWrapper> icmp6NaHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<Icmp6NaHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Icmp6RedirectHdrWrapper> icmp6RedirectHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                        uint32_t offset) {
    return Mox::make<Icmp6RedirectHdrWrapper>(pkt, offset);
}

/// The options of a message that `checkNd` has found good, one after the other:
///
///     for (NdOptionWalk walk(msg); const HdrView<NdOptionHdr> option = walk.option();
///          walk.next()) {
///         if (option->type() == NdOptionType::mtu) {
///             const auto mtu = walk.as<NdMtuOption>();
class NdOptionWalk {
  public:
    /// Begins at the first option after the header that the type of the message has. Other types
    /// have no options.
    PAVO_EXPORT explicit NdOptionWalk(const IpMsg& msg MOX_LIFETIME_BOUND);

    /// The present option. Null after the last one, and where its length is wrong.
    HdrView<NdOptionHdr> option() const { return as<NdOptionHdr>(); }
    /// The present option as what it is; null where it is too short for that.
    template <class Option>
    HdrView<Option> as() const {
        return msg_->hdr<Option>(at_);
    }
    /// Goes on to the option after the present one. Nothing changes after the last.
    void next() {
        if (const HdrView<NdOptionHdr> present = option()) {
            at_ += present->totalBytes();
        }
    }
    /// `noError` where the options end with the message, else what is wrong with the present one:
    /// `icmp6OptLenZero` or `icmp6OptLenExceedPayloadLen`.
    PAVO_EXPORT PktErrors error() const;

  private:
    const IpMsg* msg_;
    uint32_t at_;
};

/// Checks a message of neighbour discovery. The first fault, in this order, is one of
/// - `nextHdrIsNotIcmp6`: the message is of another protocol, or not over IPv6
/// - `nonOnLink`: the hop limit is not 255
/// - `icmp6PayloadLenTooShortForHdr`: the message has fewer than 4 bytes
/// - `pktTooShort`: the message does not lie wholly in the first iovec
/// - `icmp6TypeNotSupported`: not one of the five types
/// - `icmp6PayloadLenTooShortForHdr`: the message is shorter than the header of its type
/// - `badIcmp6Code`: the code is not 0
/// - `badIcmp6Checksum`
/// - `icmp6OptLenZero`, `icmp6OptLenExceedPayloadLen`: of an option, known or not
/// - what the type demands:
///   - router solicitation (6.1.1): `unspecSrcAddrSrcLinkLayerAddr`
///   - router advertisement (6.1.2): `nonLinkLocalSrc`
///   - neighbour solicitation (7.1.1): `icmp6NsTgtMcast`,
///     `unspecifiedSrcAddrAndNotSolicitedNodeDst`, `unspecSrcAddrSrcLinkLayerAddr`; and
///     `noSrcLinkLayerOptInMcastNs` where it goes to a group without the MAC that it must have
///     (4.3)
///   - neighbour advertisement (7.1.2): `icmp6NaTgtMcast`, `icmp6McastDstIpAndNonZeroSolicitation`
///   - redirect (8.1): `nonLinkLocalSrc`, `icmp6RedirectDstMcast`, and `icmp6RedirectTgt` for a
///     target that is neither link-local nor the destination
///
/// The numbers are sections of RFC 4861. Whether a redirect comes from the present router, the
/// agent knows.
PAVO_EXPORT HdrView<Icmp6Hdr> checkNd(const IpMsg& msg);
/// The same for a neighbour solicitation: `notIcmp6NsType` for another message that is good.
PAVO_EXPORT HdrView<Icmp6NsHdr> checkNs(const IpMsg& msg);
/// The same for a neighbour advertisement: `notIcmp6NaType` for another message that is good.
PAVO_EXPORT HdrView<Icmp6NaHdr> checkNa(const IpMsg& msg);

}  // namespace Pavo
