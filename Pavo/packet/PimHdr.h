/// @file
/// The headers of PIM messages (RFC 7761, 4.9), and what a receiver has to refuse.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/IpMsg.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// Kinds of PIM message (RFC 7761, 4.9; RFC 3973, 4.7).
///
/// Members: the numbers of the type field.
struct PimType {
    static constexpr uint8_t hello = 0;
    static constexpr uint8_t registerMsg = 1;
    static constexpr uint8_t registerStop = 2;
    static constexpr uint8_t joinPrune = 3;
    static constexpr uint8_t bootstrap = 4;
    static constexpr uint8_t assertMsg = 5;
    static constexpr uint8_t graft = 6;
    static constexpr uint8_t graftAck = 7;
    static constexpr uint8_t candidateRp = 8;
};

/// The beginning of every PIM message, laid over the bytes of a packet, or free-standing to build
/// one from: then of version 2, and all else zero.
///
///     | version (4 bits), type (4 bits) | reserved (1) | checksum (2) |
///
/// Members: the fields, in host order.
class PimHdr {
  public:
    static constexpr std::string_view recordName = "PimHdr";

    /// 0 to 15.
    uint8_t version() const { return static_cast<uint8_t>(versionAndType_ >> 4); }
    /// Uses the low 4 bits.
    void versionIs(uint8_t version) {
        versionAndType_ = static_cast<uint8_t>(version << 4 | type());
    }
    /// One of `PimType`, or another number up to 15.
    uint8_t type() const { return versionAndType_ & 0xf; }
    /// Uses the low 4 bits.
    void typeIs(uint8_t type) {
        versionAndType_ = static_cast<uint8_t>((versionAndType_ & 0xf0) | (type & 0xf));
    }
    /// Zero, or flags of the type (RFC 8736).
    uint8_t reserved() const { return reserved_; }
    void reservedIs(uint8_t bits) { reserved_ = bits; }
    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }

    /// `badPimVersion` for another version than 2; `badPimLen` for a register message of fewer than
    /// 8 bytes.
    PktErrors check(uint32_t bytes) const {
        if (version() != 2) {
            return PktErrors::badPimVersion;
        }
        return type() == PimType::registerMsg && bytes < 8 ? PktErrors::badPimLen
                                                           : PktErrors::noError;
    }

  private:
    uint8_t versionAndType_ = 0x20;
    uint8_t reserved_ = 0;
    IpChecksum checksum_;
};
static_assert(isOverlay<PimHdr>(4));

/// A register message, before the packet that it carries (RFC 7761, 4.9.3):
///
///     | as PimHdr (4) |
///     | B (1 bit), N (1 bit), reserved (30 bits) |
///
/// Members: the fields, in host order.
class PimRegisterHdr : public PimHdr {
  public:
    static constexpr std::string_view recordName = "PimRegisterHdr";

    PimRegisterHdr() { typeIs(PimType::registerMsg); }

    /// From a border router (B).
    bool border() const { return (flags_.value() & borderBit) != 0; }
    void borderIs(bool border) { flags_.bitsIs(borderBit, border ? borderBit : 0); }
    /// A probe without a packet to forward (N).
    bool nullRegister() const { return (flags_.value() & nullBit) != 0; }
    void nullRegisterIs(bool isNull) { flags_.bitsIs(nullBit, isNull ? nullBit : 0); }

  private:
    static constexpr uint32_t borderBit = 0x80000000;
    static constexpr uint32_t nullBit = 0x40000000;

    NetU32 flags_;
};
static_assert(isOverlay<PimRegisterHdr>(8));

/// Adds nothing to the record.
/// @{
using PimHdrWrapper = PlainHdrWrapper<PimHdr>;
using PimRegisterHdrWrapper = PlainHdrWrapper<PimRegisterHdr>;
/// @}

inline Mox::Ptr<PimHdrWrapper> pimHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<PimHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<PimRegisterHdrWrapper> pimRegisterHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                    uint32_t offset) {
    return Mox::make<PimRegisterHdrWrapper>(pkt, offset);
}

/// Checks a message; its payload may reach into the second iovec. The first fault, in this order,
/// is one of
/// - `nonPimProto`: the message is of another protocol
/// - `pktTooShort`: the message has fewer than 4 bytes, or its header does not lie in the first
///   iovec
/// - `badPimVersion`, `badPimLen`: as `PimHdr::check`
/// - `badPimChecksum`: over the whole message, and over IPv6 the pseudo header too. In a register
///   message a sum over its first 8 bytes alone is good as well (RFC 7761, 4.9).
///
/// Types are not checked: a receiver ignores those that it does not know.
PAVO_EXPORT HdrView<PimHdr> checkPim(const IpMsg& msg);

}  // namespace Pavo
