/// @file
/// The GRE header (RFC 2784, RFC 2890), and what a receiver has to refuse.
#pragma once

#include <bit>
#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/NetOrder.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/IpMsg.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// The part of a GRE header that is always there, laid over the bytes of a packet, or free-standing
/// and all zero to build one from:
///
///     | C, 0, K, S (1 bit each), reserved (9 bits), version (3 bits) | protocol (2) |
///     with C: | checksum (2) | reserved (2) |
///     with K: | key (4)                     |
///     with S: | sequence number (4)         |
///
/// Members: the fields, in host order.
class GreHdr {
  public:
    static constexpr std::string_view recordName = "GreHdr";

    /// C, K and S. The words that they stand for follow the record.
    /// @{
    bool hasChecksum() const { return (flags_.value() & checksumBit) != 0; }
    void hasChecksumIs(bool has) { flags_.bitsIs(checksumBit, has ? checksumBit : 0); }
    bool hasKey() const { return (flags_.value() & keyBit) != 0; }
    void hasKeyIs(bool has) { flags_.bitsIs(keyBit, has ? keyBit : 0); }
    bool hasSequenceNumber() const { return (flags_.value() & sequenceBit) != 0; }
    void hasSequenceNumberIs(bool has) { flags_.bitsIs(sequenceBit, has ? sequenceBit : 0); }
    /// @}
    /// 0 to 7.
    uint8_t version() const { return flags_.value() & 7; }
    /// Uses the low 3 bits.
    void versionIs(uint8_t version) { flags_.bitsIs(7, version); }
    /// One of `EthType`.
    uint16_t type() const { return type_.value(); }
    void typeIs(uint16_t type) { type_.valueIs(type); }

    /// This record and the words that follow it: 4 to 16.
    uint32_t headerBytes() const {
        return static_cast<uint32_t>(sizeof(GreHdr)) + wordsBefore(endOfWords) * 4;
    }
    /// The words that follow a header that was checked, 0 without them. A setter needs the flag and
    /// the room.
    /// @{
    IpChecksum checksum() const {
        return IpChecksum(static_cast<uint16_t>(word(checksumBit) >> 16));
    }
    void checksumIs(IpChecksum checksum) { wordIs(checksumBit, uint32_t{checksum.value()} << 16); }
    uint32_t key() const { return word(keyBit); }
    void keyIs(uint32_t key) { wordIs(keyBit, key); }
    uint32_t sequenceNumber() const { return word(sequenceBit); }
    void sequenceNumberIs(uint32_t number) { wordIs(sequenceBit, number); }
    /// @}

    /// `badGreVersion` for another version than 0; `badGreFlags` for a flag that makes the header
    /// unreadable, one of bits 1, 4 and 5 (RFC 2784, 2.3); `badGreLen` where `headerBytes()` is
    /// more than `bytes`.
    PktErrors check(uint32_t bytes) const {
        if (version() != 0) {
            return PktErrors::badGreVersion;
        }
        if ((flags_.value() & refusedBits) != 0) {
            return PktErrors::badGreFlags;
        }
        return headerBytes() <= bytes ? PktErrors::noError : PktErrors::badGreLen;
    }

  private:
    static constexpr uint32_t checksumBit = 0x8000;
    static constexpr uint32_t keyBit = 0x2000;
    static constexpr uint32_t sequenceBit = 0x1000;
    static constexpr uint32_t endOfWords = 0x0800;
    static constexpr uint32_t refusedBits = 0x4c00;

    // The words come in the order of their bits, the highest first.
    uint32_t wordsBefore(uint32_t bit) const {
        const uint32_t words = flags_.value() & (checksumBit | keyBit | sequenceBit);
        return static_cast<uint32_t>(std::popcount(words & ~(bit * 2 - 1)));
    }
    uint8_t* wordAt(uint32_t bit) {
        return reinterpret_cast<uint8_t*>(this + 1 + wordsBefore(bit));
    }
    uint32_t word(uint32_t bit) const {
        const auto* at = reinterpret_cast<const uint8_t*>(this + 1 + wordsBefore(bit));
        return (flags_.value() & bit) != 0 ? loadNet<uint32_t>(at) : 0;
    }
    void wordIs(uint32_t bit, uint32_t value) { storeNet(wordAt(bit), value); }

    NetU16 flags_;
    NetU16 type_;
};
static_assert(isOverlay<GreHdr>(4));

/// Adds nothing to the record.
using GreHdrWrapper = PlainHdrWrapper<GreHdr>;

inline Mox::Ptr<GreHdrWrapper> greHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<GreHdrWrapper>(pkt, offset);
}

/// Checks a tunnelled packet; the payload may reach into the second iovec. The first fault, in this
/// order, is one of
/// - `nonGreProto`: the message is of another protocol
/// - `pktTooShort`: fewer than 4 bytes, or the header does not lie in the first iovec
/// - `badGreVersion`, `badGreFlags`, `badGreLen`: as `GreHdr::check`
/// - `badGreChecksum`: over header and payload, where there is one
PAVO_EXPORT HdrView<GreHdr> checkGre(const IpMsg& msg);

}  // namespace Pavo
