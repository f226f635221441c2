/// @file
/// Where entropy labels stand in a label stack.
#pragma once

#include <bit>
#include <compare>
#include <cstdint>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

namespace Pavo {

/// The positions of entropy labels and of their indicators (RFC 6790) in a calculated stack, which
/// is the stack as it is sent, position 0 on top. They are recorded as pairs, the indicator at a
/// position and its label at the next; only `deleteBitFromEntropyLabelAndIndicatorBitMaps` leaves
/// one without the other. All other positions belong to ordinary labels.
class EntropyLabelMaps {
  public:
    /// Positions that the maps cover.
    static constexpr uint32_t mapBits = 32;
    static constexpr const char* positionText = "Entropy label bit map position index out of range";

    /// Bit i is set where an entropy label is at position i.
    constexpr uint32_t entropyLabelBitMap() const { return entropyLabelBitMap_; }
    /// Bit i is set where an entropy label indicator is at position i.
    constexpr uint32_t entropyLabelIndicatorBitMap() const { return entropyLabelIndicatorBitMap_; }

    /// Either map has a bit set.
    constexpr bool hasEntropyLabel() const { return bothMaps() != 0; }
    /// Both of each pair count.
    constexpr uint32_t numEntropyLabelsAndIndicators() const {
        return hasEntropyLabel() ? bitCount(bothMaps()) : 0;
    }
    /// The number of ordinary labels above `position`, which may be past the stack, as if ordinary
    /// labels followed there.
    constexpr uint32_t numNormalLabelsAtIndex(uint32_t position) const {
        return position - bitCount(bothMaps() & bitsBelow(position));
    }
    /// The position of the topmost ordinary label, or where it would stand; 32 when the maps are
    /// full.
    constexpr uint32_t getLowestNonEntropyLabelBit() const {
        return static_cast<uint32_t>(std::countr_one(bothMaps()));
    }

    /// Takes position `index` out of both maps; the positions below it in the stack move up by one.
    /// Labels stay as they are, and so does the other half of a pair. Fatal from 32 on: "Deleting
    /// bits above the bit map size".
    void deleteBitFromEntropyLabelAndIndicatorBitMaps(uint32_t index) {
        Mox::require(index < mapBits, "Deleting bits above the bit map size");
        const uint32_t kept = bitsBelow(index);
        for (uint32_t* map : {&entropyLabelBitMap_, &entropyLabelIndicatorBitMap_}) {
            *map = (*map & kept) | (*map >> 1 & ~kept);
        }
    }

    friend constexpr auto operator<=>(const EntropyLabelMaps&, const EntropyLabelMaps&) = default;

  protected:
    /// The bits below bit `i`; all of them from 32 on.
    static constexpr uint32_t bitsBelow(uint32_t i) {
        return i < mapBits ? (uint32_t{1} << i) - 1 : ~uint32_t{0};
    }
    /// The number of bits set. `std::popcount` is a call of the library on these targets.
    static constexpr uint32_t bitCount(uint32_t map) {
        map -= map >> 1 & 0x55555555;
        map = (map & 0x33333333) + (map >> 2 & 0x33333333);
        return ((map + (map >> 4)) & 0x0f0f0f0f) * 0x01010101 >> 24;
    }
    /// A bit for each position that is no ordinary label's.
    constexpr uint32_t bothMaps() const {
        return entropyLabelBitMap_ | entropyLabelIndicatorBitMap_;
    }
    /// False from position 32 on.
    constexpr bool isEntropyLabelAt(uint32_t position) const {
        return position < mapBits && (entropyLabelBitMap_ >> position & 1) != 0;
    }
    /// False from position 32 on.
    constexpr bool isIndicatorAt(uint32_t position) const {
        return position < mapBits && (entropyLabelIndicatorBitMap_ >> position & 1) != 0;
    }
    /// Bit 31 of either map is set.
    constexpr bool isLastPositionUsed() const { return bothMaps() >> (mapBits - 1) != 0; }

    /// Makes room for a label on top. The last position must be unused.
    constexpr void moveDownByOne() {
        entropyLabelBitMap_ <<= 1;
        entropyLabelIndicatorBitMap_ <<= 1;
    }
    /// Inserts a pair at `position`, at most 30. From there on, the last two positions must be
    /// unused.
    constexpr void insertPair(uint32_t position) {
        const uint32_t kept = bitsBelow(position);
        entropyLabelBitMap_ = (entropyLabelBitMap_ & kept) | (entropyLabelBitMap_ & ~kept) << 2 |
                              uint32_t{2} << position;
        entropyLabelIndicatorBitMap_ = (entropyLabelIndicatorBitMap_ & kept) |
                                       (entropyLabelIndicatorBitMap_ & ~kept) << 2 |
                                       uint32_t{1} << position;
    }

    /// Whether no position is in both maps, and all are within a stack that has `labels` ordinary
    /// labels.
    constexpr bool areWithin(uint32_t labels) const {
        return (entropyLabelBitMap_ & entropyLabelIndicatorBitMap_) == 0 &&
               (bothMaps() & ~bitsBelow(labels + numEntropyLabelsAndIndicators())) == 0;
    }

    uint32_t entropyLabelBitMap_ = 0;
    uint32_t entropyLabelIndicatorBitMap_ = 0;
};

}  // namespace Pavo
