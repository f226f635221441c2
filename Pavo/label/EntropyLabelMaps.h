/// @file
/// Where entropy labels stand in a label stack.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstdint>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

namespace Pavo {

/// The positions of entropy labels and of their indicators (RFC 6790) in a calculated stack, which
/// is the stack as it goes on the wire, position 0 on top. The two are recorded as pairs: the
/// indicator at a position, its label at the next. All other positions belong to ordinary labels.
class EntropyLabelMaps {
  public:
    /// Positions that the maps cover.
    static constexpr uint32_t mapBits = 32;
    static constexpr const char* positionText = "Entropy label bit map position index out of range";

    /// Bit i is set where an entropy label stands at position i.
    constexpr uint32_t entropyLabelBitMap() const { return entropyLabelBitMap_; }
    /// Bit i is set where an entropy label indicator stands at position i.
    constexpr uint32_t entropyLabelIndicatorBitMap() const { return entropyLabelIndicatorBitMap_; }

    constexpr bool hasEntropyLabel() const { return bothMaps() != 0; }
    constexpr uint32_t numEntropyLabelsAndIndicators() const {
        return hasEntropyLabel() ? bitCount(bothMaps()) : 0;
    }
    /// The ordinary labels above `position`, which may be any number; past the stack, the labels
    /// that a stack going on there would have.
    constexpr uint32_t numNormalLabelsAtIndex(uint32_t position) const {
        return position - bitCount(bothMaps() & bitsBelow(position));
    }
    /// The position of the topmost ordinary label, or where it would stand; 32 when the maps are
    /// full.
    constexpr uint32_t getLowestNonEntropyLabelBit() const {
        return static_cast<uint32_t>(std::countr_one(bothMaps()));
    }

    /// Takes position `index` out of both maps; the positions below it in the stack move up by one.
    /// Labels stay as they are. Fatal from 32 on: "Deleting bits above the bit map size".
    void deleteBitFromEntropyLabelAndIndicatorBitMaps(uint32_t index) {
        Mox::require(index < mapBits, "Deleting bits above the bit map size");
        const uint32_t kept = bitsBelow(index);
        for (uint32_t* map : {&entropyLabelBitMap_, &entropyLabelIndicatorBitMap_}) {
            *map = (*map & kept) | (*map >> 1 & ~kept);
        }
    }

    friend constexpr auto operator<=>(const EntropyLabelMaps&, const EntropyLabelMaps&) = default;

  protected:
    /// Of bits below the i-th; all from i = 32 on.
    static constexpr uint32_t bitsBelow(uint32_t i) {
        return i < mapBits ? (uint32_t{1} << i) - 1 : ~uint32_t{0};
    }
    constexpr uint32_t bothMaps() const {
        return entropyLabelBitMap_ | entropyLabelIndicatorBitMap_;
    }
    constexpr bool isEntropyLabelAt(uint32_t position) const {
        return position < mapBits && (entropyLabelBitMap_ >> position & 1) != 0;
    }
    constexpr bool isIndicatorAt(uint32_t position) const {
        return position < mapBits && (entropyLabelIndicatorBitMap_ >> position & 1) != 0;
    }
    /// Whether something stands at one of the last `count` positions, 1 to 31, that the maps cover.
    constexpr bool isUsedAtLast(uint32_t count) const {
        return bothMaps() >> (mapBits - count) != 0;
    }

    /// Makes room for a label on top. Nothing may be in the last position.
    constexpr void moveDownByOne() {
        entropyLabelBitMap_ <<= 1;
        entropyLabelIndicatorBitMap_ <<= 1;
    }
    /// Puts a pair at `position`, at most 30, in front of what stands there. Nothing may be in the
    /// last two positions, unless above `position`.
    constexpr void insertPair(uint32_t position) {
        const uint32_t kept = bitsBelow(position);
        entropyLabelBitMap_ = (entropyLabelBitMap_ & kept) | (entropyLabelBitMap_ & ~kept) << 2 |
                              uint32_t{2} << position;
        entropyLabelIndicatorBitMap_ = (entropyLabelIndicatorBitMap_ & kept) |
                                       (entropyLabelIndicatorBitMap_ & ~kept) << 2 |
                                       uint32_t{1} << position;
    }

    /// Whether the maps hold whole pairs only, all of them within `labels` ordinary labels and the
    /// pairs themselves.
    constexpr bool arePairsAmong(uint32_t labels) const {
        const bool whole = entropyLabelBitMap_ == entropyLabelIndicatorBitMap_ << 1 &&
                           entropyLabelIndicatorBitMap_ >> (mapBits - 1) == 0 &&
                           (entropyLabelBitMap_ & entropyLabelIndicatorBitMap_) == 0;
        const uint32_t size = labels + numEntropyLabelsAndIndicators();
        return whole && (bothMaps() & ~bitsBelow(size)) == 0;
    }

    uint32_t entropyLabelBitMap_ = 0;
    uint32_t entropyLabelIndicatorBitMap_ = 0;

  private:
    /// The bits of every byte, counted: std::popcount is a call where it is no instruction.
    static constexpr auto bitCounts = [] {
        std::array<uint8_t, 256> counts{};
        for (uint32_t byte = 0; byte < counts.size(); ++byte) {
            counts[byte] = static_cast<uint8_t>(std::popcount(byte));
        }
        return counts;
    }();
    static constexpr uint32_t bitCount(uint32_t map) {
        const uint32_t low = bitCounts[map & 0xff] + uint32_t{bitCounts[map >> 8 & 0xff]};
        if (map >> 16 == 0) {
            return low;
        }
        return low + bitCounts[map >> 16 & 0xff] + bitCounts[map >> 24];
    }
};

}  // namespace Pavo
