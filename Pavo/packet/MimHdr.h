/// @file
/// The I-TAG of provider backbone bridges (IEEE 802.1Q-2018, 9.7), before the customer's frame.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// What follows a type field of 0x88e7, before the Ethernet header of the customer's frame; laid
/// over the bytes of a packet, or free-standing and all zero to build one from:
///
///     | priority (3 bits), drop eligible, UCA, Res1 (1 bit each), Res2 (2 bits) | service (3) |
///
/// Members: the fields, in host order.
class MimHdr {
  public:
    static constexpr std::string_view recordName = "MimHdr";
    /// The largest service identifier.
    static constexpr uint32_t maxServiceId = 0xffffff;

    /// 0 to 7.
    uint8_t priority() const { return static_cast<uint8_t>(tag_.value() >> 29); }
    /// Uses the low 3 bits.
    void priorityIs(uint8_t priority) { tag_.bitsIs(0xe0000000, uint32_t{priority} << 29); }
    bool dropEligible() const { return (tag_.value() & dropEligibleBit) != 0; }
    void dropEligibleIs(bool eligible) {
        tag_.bitsIs(dropEligibleBit, eligible ? dropEligibleBit : 0);
    }
    /// UCA; frames of customers leave it clear.
    bool uca() const { return (tag_.value() & ucaBit) != 0; }
    void ucaIs(bool uca) { tag_.bitsIs(ucaBit, uca ? ucaBit : 0); }
    /// The service identifier (I-SID), 0 to `maxServiceId`.
    uint32_t serviceId() const { return tag_.value() & maxServiceId; }
    /// Uses the low 24 bits.
    void serviceIdIs(uint32_t id) { tag_.bitsIs(maxServiceId, id); }

    /// `badMimReserved` where Res2 is not 0; Res1 is ignored.
    PktErrors check(uint32_t) const {
        return (tag_.value() & 0x03000000) == 0 ? PktErrors::noError : PktErrors::badMimReserved;
    }

  private:
    static constexpr uint32_t dropEligibleBit = 0x10000000;
    static constexpr uint32_t ucaBit = 0x08000000;

    NetU32 tag_;
};
static_assert(isOverlay<MimHdr>(4));

/// Adds nothing to the record.
using MimHdrWrapper = PlainHdrWrapper<MimHdr>;

inline Mox::Ptr<MimHdrWrapper> mimHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<MimHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
