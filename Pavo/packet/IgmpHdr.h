/// @file
/// IGMP messages of version 1 (RFC 1112), 2 (RFC 2236) and 3 (RFC 3376), and what a receiver has to
/// refuse.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/IpMsg.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// Kinds of IGMP message (RFC 3376, 4).
///
/// Members: the numbers of the type field.
struct IgmpType {
    static constexpr uint8_t query = 0x11;
    static constexpr uint8_t report1 = 0x12;
    static constexpr uint8_t report2 = 0x16;
    static constexpr uint8_t leave = 0x17;
    static constexpr uint8_t report3 = 0x22;
};

/// Kinds of group record (RFC 3376, 4.2.12).
///
/// Members: the numbers of the type field.
struct IgmpRecordType {
    static constexpr uint8_t isInclude = 1;
    static constexpr uint8_t isExclude = 2;
    static constexpr uint8_t toInclude = 3;
    static constexpr uint8_t toExclude = 4;
    static constexpr uint8_t allowSources = 5;
    static constexpr uint8_t blockSources = 6;
};

/// The beginning of every IGMP message; all of it in versions 1 and 2:
///
///     | type (1) | response code (1) | checksum (2) |
///     | group (4)                                   |
///
/// In a report of version 3 the second byte is reserved, and the last four are those of
/// `Igmp3ReportHdr`.
///
/// Members: the fields, in host order.
class IgmpHdr {
  public:
    static constexpr std::string_view recordName = "IgmpHdr";

    /// One of `IgmpType`.
    uint8_t type() const { return type_; }
    void typeIs(uint8_t type) { type_ = type; }
    /// The longest time to a response as it is sent; `igmpCodeValue` is that time in tenths of a
    /// second. 0 in version 1, where it is always 10 s.
    uint8_t maxRespCode() const { return maxRespCode_; }
    void maxRespCodeIs(uint8_t code) { maxRespCode_ = code; }
    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }
    /// 0.0.0.0 in a general query.
    IpAddr group() const { return group_; }
    void groupIs(IpAddr group) { group_ = group; }

    /// `noError`: what follows depends on type and length; see `checkIgmp`.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    uint8_t type_ = 0;
    uint8_t maxRespCode_ = 0;
    IpChecksum checksum_;
    IpAddr group_;
};
static_assert(isOverlay<IgmpHdr>(8));

/// A query of version 3, before its sources:
///
///     | as IgmpHdr (8) |
///     | reserved (4 bits), S (1 bit), QRV (3 bits) | QQIC (1) | number of sources (2) |
///
/// Members: the fields, in host order.
class Igmp3QueryHdr : public IgmpHdr {
  public:
    static constexpr std::string_view recordName = "Igmp3QueryHdr";

    /// Routers do not reset their timers (S).
    bool suppress() const { return (flags_ & suppressBit) != 0; }
    void suppressIs(bool suppress) {
        flags_ = static_cast<uint8_t>((flags_ & ~suppressBit) | (suppress ? suppressBit : 0));
    }
    /// The querier's robustness variable (QRV), 0 to 7; 0 for more than 7.
    uint8_t robustness() const { return flags_ & 7; }
    /// Uses the low 3 bits.
    void robustnessIs(uint8_t robustness) {
        flags_ = static_cast<uint8_t>((flags_ & ~7) | (robustness & 7));
    }
    /// The querier's interval as it is sent; `igmpCodeValue` is that interval in seconds.
    uint8_t intervalCode() const { return intervalCode_; }
    void intervalCodeIs(uint8_t code) { intervalCode_ = code; }
    uint16_t sourceCount() const { return sourceCount_.value(); }
    void sourceCountIs(uint16_t count) { sourceCount_.valueIs(count); }
    /// The sources after the header, of a query that was checked.
    std::span<const IpAddr> sources() const MOX_LIFETIME_BOUND {
        return {reinterpret_cast<const IpAddr*>(this + 1), sourceCount()};
    }

    /// `badIgmpLen` where the sources need more than `bytes`.
    PktErrors check(uint32_t bytes) const {
        return sizeof(Igmp3QueryHdr) + sourceCount() * sizeof(IpAddr) <= bytes
                   ? PktErrors::noError
                   : PktErrors::badIgmpLen;
    }

  private:
    static constexpr uint8_t suppressBit = 8;

    uint8_t flags_ = 0;
    uint8_t intervalCode_ = 0;
    NetU16 sourceCount_;
};
static_assert(isOverlay<Igmp3QueryHdr>(12));

/// A report of version 3, before its group records:
///
///     | type (1) | reserved (1) | checksum (2)          |
///     | reserved (2)            | number of records (2) |
///
/// Members: the fields, in host order.
class Igmp3ReportHdr {
  public:
    static constexpr std::string_view recordName = "Igmp3ReportHdr";

    uint8_t type() const { return type_; }
    void typeIs(uint8_t type) { type_ = type; }
    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }
    uint16_t recordCount() const { return recordCount_.value(); }
    void recordCountIs(uint16_t count) { recordCount_.valueIs(count); }

    /// `noError`: the records are checked one by one.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    uint8_t type_ = IgmpType::report3;
    NetU8 reserved_;
    IpChecksum checksum_;
    NetU16 reserved2_;
    NetU16 recordCount_;
};
static_assert(isOverlay<Igmp3ReportHdr>(8));

/// A group record in a report of version 3. The next one begins `totalBytes()` bytes further on:
///
///     | type (1) | auxiliary words (1) | number of sources (2) |
///     | group (4)                                              |
///     | sources (4 each) | auxiliary data (4 each)             |
///
/// Members: the fields, in host order.
class IgmpRecordHdr {
  public:
    static constexpr std::string_view recordName = "IgmpRecordHdr";

    /// One of `IgmpRecordType`; others are ignored (RFC 3376, 4.2.12).
    uint8_t type() const { return type_; }
    void typeIs(uint8_t type) { type_ = type; }
    /// 4 bytes each.
    uint8_t auxWords() const { return auxWords_; }
    void auxWordsIs(uint8_t words) { auxWords_ = words; }
    uint16_t sourceCount() const { return sourceCount_.value(); }
    void sourceCountIs(uint16_t count) { sourceCount_.valueIs(count); }
    IpAddr group() const { return group_; }
    void groupIs(IpAddr group) { group_ = group; }
    /// The sources after the header, of a record that was checked.
    std::span<const IpAddr> sources() const MOX_LIFETIME_BOUND {
        return {reinterpret_cast<const IpAddr*>(this + 1), sourceCount()};
    }
    /// Header, sources and auxiliary data.
    uint32_t totalBytes() const {
        return static_cast<uint32_t>(sizeof(IgmpRecordHdr)) + (sourceCount() + auxWords_) * 4u;
    }

    /// `badIgmpLen` where `totalBytes()` is more than `bytes`.
    PktErrors check(uint32_t bytes) const {
        return totalBytes() <= bytes ? PktErrors::noError : PktErrors::badIgmpLen;
    }

  private:
    uint8_t type_ = 0;
    uint8_t auxWords_ = 0;
    NetU16 sourceCount_;
    IpAddr group_;
};
static_assert(isOverlay<IgmpRecordHdr>(8));

/// Adds nothing to the record.
/// @{
using IgmpHdrWrapper = PlainHdrWrapper<IgmpHdr>;
using Igmp3QueryHdrWrapper = PlainHdrWrapper<Igmp3QueryHdr>;
using Igmp3ReportHdrWrapper = PlainHdrWrapper<Igmp3ReportHdr>;
using IgmpRecordHdrWrapper = PlainHdrWrapper<IgmpRecordHdr>;
/// @}

inline Mox::Ptr<IgmpHdrWrapper> igmpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<IgmpHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Igmp3QueryHdrWrapper> igmp3QueryHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                  uint32_t offset) {
    return Mox::make<Igmp3QueryHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Igmp3ReportHdrWrapper> igmp3ReportHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                    uint32_t offset) {
    return Mox::make<Igmp3ReportHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<IgmpRecordHdrWrapper> igmpRecordHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                  uint32_t offset) {
    return Mox::make<IgmpRecordHdrWrapper>(pkt, offset);
}

/// The number that a response or interval code of version 3 stands for: itself below 128, else
/// (16 + the low 4 bits) shifted left by 3 and the 3 bits before them (RFC 3376, 4.1.1).
constexpr uint32_t igmpCodeValue(uint8_t code) {
    return code < 128 ? code : (16u | (code & 0xfu)) << ((code >> 4 & 7u) + 3);
}

/// Checks a message. The first fault, in this order, is one of
/// - `nonIgmpProto`: the message is of another protocol, or over IPv6
/// - `pktTooShort`: the message has fewer than 8 bytes, or does not lie wholly in the first iovec
/// - `badIgmpChecksum`: over the whole message
/// - `badIgmpType`: the type is not one of `IgmpType`
/// - `badIgmpLen`: a query of 9 to 11 bytes, or sources or group records that go past the end
/// - `badIgmpGroup`: a group that is not multicast; it may be 0.0.0.0 in a query
///
/// A query of 8 bytes is of version 2, or of version 1 where its response code is 0; a longer one
/// is a `msg.hdr<Igmp3QueryHdr>()`. The records of a `msg.hdr<Igmp3ReportHdr>()` are a
/// `msg.hdr<IgmpRecordHdr>(at)` each, from `at` = 8 on.
PAVO_EXPORT HdrView<IgmpHdr> checkIgmp(const IpMsg& msg);

}  // namespace Pavo
