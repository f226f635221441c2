/// @file
/// The control word of pseudowires (RFC 4385, 3), between the label stack and what is tunnelled.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// A control word, laid over the bytes of a packet, or free-standing and all zero to build one
/// from:
///
///     | 0 (4 bits), flags (4 bits), FRG (2 bits), length (6 bits) | sequence number (2) |
///
/// The first four bits keep routers from taking what follows the labels for an IP packet. Whether a
/// pseudowire has control words, its two ends have agreed.
///
/// Members: the fields, in host order.
class PwControlWord {
  public:
    static constexpr std::string_view recordName = "PwControlWord";
    /// Below this, `length()` is that of control word and payload; else it is 0.
    static constexpr uint32_t minFrameBytes = 64;

    /// The first four bits: 0, or 1 for the header of an associated channel.
    uint8_t nibble() const { return static_cast<uint8_t>(word_.value() >> 12); }
    /// Uses the low 4 bits.
    void nibbleIs(uint8_t nibble) { word_.bitsIs(0xf000, uint32_t{nibble} << 12); }
    /// 0 to 15. Their meaning depends on the kind of pseudowire.
    uint8_t flags() const { return word_.value() >> 8 & 0xf; }
    /// Uses the low 4 bits.
    void flagsIs(uint8_t flags) { word_.bitsIs(0x0f00, uint32_t{flags} << 8); }
    /// Whether this is the first, the last or another part of a payload (RFC 4623), 0 to 3.
    uint8_t fragmentation() const { return word_.value() >> 6 & 3; }
    /// Uses the low 2 bits.
    void fragmentationIs(uint8_t bits) { word_.bitsIs(0x00c0, uint32_t{bits} << 6); }
    /// In bytes; 0 where that is 64 or more. What follows is padding of the link.
    uint8_t length() const { return word_.value() & 0x3f; }
    /// Uses the low 6 bits.
    void lengthIs(uint8_t bytes) { word_.bitsIs(0x003f, bytes); }
    /// 0 where packets are not numbered.
    uint16_t sequenceNumber() const { return sequenceNumber_.value(); }
    void sequenceNumberIs(uint16_t number) { sequenceNumber_.valueIs(number); }

    /// Of `bytes` bytes from the control word on, those of the payload.
    uint32_t payloadBytes(uint32_t bytes) const {
        return (length() == 0 ? bytes : length()) - static_cast<uint32_t>(sizeof(PwControlWord));
    }

    /// `nonPwControlWord` where the first four bits are not 0; `badPwLen` unless `length()` is 0 or
    /// from 4 to `bytes`.
    PktErrors check(uint32_t bytes) const {
        if (nibble() != 0) {
            return PktErrors::nonPwControlWord;
        }
        const bool fits = length() == 0 || (length() >= sizeof(PwControlWord) && length() <= bytes);
        return fits ? PktErrors::noError : PktErrors::badPwLen;
    }

  private:
    NetU16 word_;
    NetU16 sequenceNumber_;
};
static_assert(isOverlay<PwControlWord>(4));

/// Adds nothing to the record.
using PwControlWordWrapper = PlainHdrWrapper<PwControlWord>;

inline Mox::Ptr<PwControlWordWrapper> pwControlWordWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                  uint32_t offset) {
    return Mox::make<PwControlWordWrapper>(pkt, offset);
}

}  // namespace Pavo
