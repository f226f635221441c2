/// @file
/// Label stacks without a bound, and their bytes in shared memory.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "Mox/ValueType.h"
#include "Mox/VectorCodec.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/label/BoundedMplsLabelStack.h"
#include "Pavo/label/MplsLabel.h"

namespace Pavo {

/// Ordinary labels in a sequence that grows.
///
/// Members: those that `MplsLabelStackBase` asks of its labels; they check nothing.
class DynamicMplsLabels {
  public:
    static constexpr bool isBounded = false;
    static constexpr uint32_t maxLabels = ~uint32_t{0};

    uint32_t stackSize() const { return static_cast<uint32_t>(labels_.size()); }

    friend bool operator==(const DynamicMplsLabels&, const DynamicMplsLabels&) = default;
    friend std::strong_ordering operator<=>(const DynamicMplsLabels& a,
                                            const DynamicMplsLabels& b) {
        const auto bySize = a.labels_.size() <=> b.labels_.size();
        return bySize != 0 ? bySize : a.labels_ <=> b.labels_;
    }

  protected:
    MplsLabel labelAt(uint32_t i) const { return labels_[i]; }
    void labelAtIs(uint32_t i, MplsLabel label) { labels_[i] = label; }
    void pushBottom(MplsLabel label) { labels_.push_back(label); }
    void pushTop(MplsLabel label) { labels_.insert(labels_.begin(), label); }
    void erase(uint32_t i) { labels_.erase(labels_.begin() + static_cast<std::ptrdiff_t>(i)); }

    std::vector<MplsLabel> labels_;
};

/// A stack of any number of ordinary labels, with the rules of `BoundedMplsLabelStack` except for
/// the bound: entropy labels are at the first 32 positions only, ordinary labels anywhere.
///
/// Framework text is "DynamicMplsLabelStack(stackSize:2, labels:[16, 17], entropyLabelBitMap:8,
/// entropyLabelIndicatorBitMap:4)", `stringValue()` "TOP ( 16 17 ELI EL ) BOTTOM". Values from
/// text or log are checked as for `BoundedMplsLabelStack`; a `stackSize` that is not the number of
/// labels gives "Invalid DynamicMplsLabelStack".
class DynamicMplsLabelStack : public MplsLabelStackBase<DynamicMplsLabelStack, DynamicMplsLabels> {
  public:
    DynamicMplsLabelStack() = default;
    DynamicMplsLabelStack(const DynamicMplsLabelStack&) = default;
    DynamicMplsLabelStack& operator=(const DynamicMplsLabelStack&) = default;
    /// Leaves `other` empty.
    DynamicMplsLabelStack(DynamicMplsLabelStack&& other) noexcept { *this = std::move(other); }
    /// Exchanges the two, so that both stay values.
    DynamicMplsLabelStack& operator=(DynamicMplsLabelStack&& other) noexcept {
        labels_.swap(other.labels_);
        std::swap(static_cast<EntropyLabelMaps&>(*this), static_cast<EntropyLabelMaps&>(other));
        return *this;
    }
    /// The same labels and pairs.
    PAVO_EXPORT explicit DynamicMplsLabelStack(const BoundedMplsLabelStack& stack);
    DynamicMplsLabelStack(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit DynamicMplsLabelStack(std::string_view text) { readWhole(text); }
    DynamicMplsLabelStack(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The stack in bytes, for shared memory: 32-bit words in network order, at any address. They
    /// are the number of ordinary labels, the bit map of entropy labels, that of indicators, and
    /// the ordinary labels from the top.
    uint32_t serializeLen() const { return headBytes + stackSize() * labelBytes; }
    /// Writes `serializeLen()` bytes.
    PAVO_EXPORT void serialize(uint8_t* to) const;
    /// The number of bytes of the stack that begins at `from`; 0 where `bytes` are too few for it.
    PAVO_EXPORT static uint32_t deserializeLen(const uint8_t* from, uint32_t bytes);
    /// Takes the stack that is serialised in the `bytes` at `from`, all of them.
    /// @throws Mox::RangeException "Invalid DynamicMplsLabelStack" when they are no stack; this one
    /// is then unchanged.
    PAVO_EXPORT void deserialize(const uint8_t* from, uint32_t bytes);

    /// Null, or the text of the range error for fields that no stack has.
    PAVO_EXPORT const char* check() const;

    static constexpr const char* labelText = "DynamicMplsLabelStack::label: index out of range";
    static constexpr const char* labelIsText = "DynamicMplsLabelStack::labelIs: index out of range";
    static constexpr const char* labelIsMarkerText =
        "DynamicMplsLabelStack::labelIs: entropy labels are no ordinary labels";
    static constexpr auto description() {
        using Self = DynamicMplsLabelStack;
        return Mox::record(
            "Pavo::DynamicMplsLabelStack",
            Mox::field<Self, std::vector<MplsLabel>>("labels", &Self::labels_),
            Mox::field<Self, uint32_t>("entropyLabelBitMap", &Self::entropyLabelBitMap_),
            Mox::field<Self, uint32_t>("entropyLabelIndicatorBitMap",
                                       &Self::entropyLabelIndicatorBitMap_));
    }

    PAVO_EXPORT void printStrep(Mox::TextWriter& out) const;
    PAVO_EXPORT const char* parseStrep(Mox::TextCursor& in);

  private:
    static constexpr uint32_t labelBytes = 4;
    static constexpr uint32_t headBytes = 12;
};

}  // namespace Pavo
