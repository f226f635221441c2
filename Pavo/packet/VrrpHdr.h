/// @file
/// VRRP advertisements of version 2 (RFC 3768) and 3 (RFC 5798), and what a receiver has to refuse.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/IpMsg.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// The fixed part of an advertisement, laid over the bytes of a packet, or free-standing to build
/// one from: then of version 3, and all else zero but the type.
///
///     | version, type: 1 (4 bits each) | virtual router (1) | priority (1) | addresses (1) |
///
///     version 2: | authentication type (1) | interval in seconds (1) | checksum (2) |
///
///     version 3: | reserved (4 bits) | interval in 1/100 s (12 bits) | checksum (2) |
///
/// The addresses follow, and in version 2 after them eight bytes of authentication data.
///
/// Members: the fields, in host order.
class VrrpHdr {
  public:
    static constexpr std::string_view recordName = "VrrpHdr";
    /// The only type.
    static constexpr uint8_t advertisement = 1;
    /// Bytes of authentication data in version 2.
    static constexpr uint32_t authBytes = 8;

    /// 0 to 15.
    uint8_t version() const { return static_cast<uint8_t>(versionAndType_ >> 4); }
    /// Uses the low 4 bits.
    void versionIs(uint8_t version) {
        versionAndType_ = static_cast<uint8_t>(version << 4 | type());
    }
    /// 0 to 15.
    uint8_t type() const { return versionAndType_ & 0xf; }
    /// Uses the low 4 bits.
    void typeIs(uint8_t type) {
        versionAndType_ = static_cast<uint8_t>((versionAndType_ & 0xf0) | (type & 0xf));
    }
    /// The identifier of the virtual router.
    uint8_t vrid() const { return vrid_; }
    void vridIs(uint8_t vrid) { vrid_ = vrid; }
    /// 255 of the owner of the addresses; 0 where the master stops.
    uint8_t priority() const { return priority_; }
    void priorityIs(uint8_t priority) { priority_ = priority; }
    /// The number of addresses.
    uint8_t addressCount() const { return addressCount_; }
    void addressCountIs(uint8_t count) { addressCount_ = count; }

    /// Version 2.
    /// @{
    uint8_t authType() const { return static_cast<uint8_t>(interval_.value() >> 8); }
    void authTypeIs(uint8_t type) { interval_.bitsIs(0xff00, uint32_t{type} << 8); }
    uint8_t intervalSeconds() const { return static_cast<uint8_t>(interval_.value()); }
    void intervalSecondsIs(uint8_t seconds) { interval_.bitsIs(0xff, seconds); }
    /// @}
    /// Version 3.
    /// @{
    uint8_t reserved() const { return static_cast<uint8_t>(interval_.value() >> 12); }
    /// Uses the low 4 bits.
    void reservedIs(uint8_t bits) { interval_.bitsIs(0xf000, uint32_t{bits} << 12); }
    /// 0 to 4095.
    uint16_t intervalCentiseconds() const { return interval_.value() & 0xfff; }
    /// Uses the low 12 bits.
    void intervalCentisecondsIs(uint16_t centiseconds) { interval_.bitsIs(0xfff, centiseconds); }
    /// @}

    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }

    /// The addresses after the header, of an advertisement that was checked.
    /// @{
    std::span<const IpAddr> addresses() const MOX_LIFETIME_BOUND {
        return {reinterpret_cast<const IpAddr*>(this + 1), addressCount_};
    }
    std::span<const Ip6Addr> addresses6() const MOX_LIFETIME_BOUND {
        return {reinterpret_cast<const Ip6Addr*>(this + 1), addressCount_};
    }
    /// @}
    /// Header, addresses of `addressBytes` bytes each, and authentication data.
    uint32_t totalBytes(uint32_t addressBytes) const {
        return static_cast<uint32_t>(sizeof(VrrpHdr)) + addressCount_ * addressBytes +
               (version() == 2 ? authBytes : 0);
    }

    /// `badVrrpVersion` for a version other than 2 and 3, `badVrrpType` for another type than
    /// `advertisement`; `badVrrpLen` where there is no address, or fewer than `bytes` bytes hold
    /// IPv4 addresses and the authentication data.
    PktErrors check(uint32_t bytes) const {
        if (version() != 2 && version() != 3) {
            return PktErrors::badVrrpVersion;
        }
        if (type() != advertisement) {
            return PktErrors::badVrrpType;
        }
        const bool fits = addressCount_ != 0 && totalBytes(sizeof(IpAddr)) <= bytes;
        return fits ? PktErrors::noError : PktErrors::badVrrpLen;
    }

  private:
    uint8_t versionAndType_ = 0x30 | advertisement;
    uint8_t vrid_ = 0;
    uint8_t priority_ = 0;
    uint8_t addressCount_ = 0;
    NetU16 interval_;
    IpChecksum checksum_;
};
static_assert(isOverlay<VrrpHdr>(8));

/// Adds nothing to the record.
using VrrpHdrWrapper = PlainHdrWrapper<VrrpHdr>;

inline Mox::Ptr<VrrpHdrWrapper> vrrpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<VrrpHdrWrapper>(pkt, offset);
}

/// The bytes that the checksum of version 3 covers over IPv4. Agents of both kinds exist. Over IPv6
/// it always covers the pseudo header, in version 2 never.
enum class VrrpSum {
    pseudoHdr,  ///< The pseudo header too (RFC 5798, 5.2.8).
    message,    ///< The message alone, as in version 2.
    either,     ///< Both are taken.
};

/// Checks an advertisement (RFC 3768, 7.1; RFC 5798, 7.1). The first fault, in this order, is one
/// of
/// - `nonVrrpProto`: the message is of another protocol
/// - `nonOnLink`: the TTL or hop limit is not 255
/// - `nonVrrpDstAddr`: the destination is not the group of VRRP routers
/// - `pktTooShort`: the message has fewer than 8 bytes, or does not lie wholly in the first iovec
/// - `badVrrpVersion`, `badVrrpType`, `badVrrpLen`: as `VrrpHdr::check`
/// - over IPv6, `badVrrpVersion` for version 2, and `badVrrpLen` for the addresses of that family
/// - `badVrrpChecksum`
/// - `badVrrpAuth`: an authentication type other than 0, in version 2
/// - `badVrrpLinkLocal`: over IPv6 the source or the first address is not link-local
///
/// Whether the virtual router is one of the agent's, the agent knows.
PAVO_EXPORT HdrView<VrrpHdr> checkVrrp(const IpMsg& msg, VrrpSum sum = VrrpSum::pseudoHdr);

/// The MAC of a virtual router: 00:00:5e:00:01:`vrid`, over IPv6 00:00:5e:00:02:`vrid` (RFC 5798,
/// 7.3).
PAVO_EXPORT EthAddr vrrpMac(AddressFamily family, uint8_t vrid);
/// Whether a frame comes from the virtual router of its advertisement: `nonVrrpMac` where its
/// source is no MAC of a virtual router of the family, `vrrpVridMacMismatch` where it is another's.
PAVO_EXPORT PktErrors checkVrrpMac(const EthHdr& eth, AddressFamily family, uint8_t vrid);

}  // namespace Pavo
