/// @file
/// Label stacks of fixed size.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/label/MplsLabel.h"
#include "Pavo/label/MplsLabelStackBase.h"

namespace Pavo {

class DynamicMplsLabelStack;

/// Up to 7 ordinary labels; unused places hold the null label.
///
/// Members: those that `MplsLabelStackBase` asks of its labels; they check nothing.
class BoundedMplsLabels {
  public:
    static constexpr bool isBounded = true;
    static constexpr uint32_t maxLabels = 7;

    constexpr uint32_t stackSize() const { return stackSize_; }

    friend constexpr auto operator<=>(const BoundedMplsLabels&, const BoundedMplsLabels&) = default;

  protected:
    static constexpr const char* stackSizeText =
        "BoundedMplsLabelStack::stackSize < 0 or > 7 not allowed";

    constexpr MplsLabel labelAt(uint32_t i) const { return this->*places[i]; }
    constexpr void labelAtIs(uint32_t i, MplsLabel label) { this->*places[i] = label; }
    constexpr void pushBottom(MplsLabel label) { labelAtIs(stackSize_++, label); }
    constexpr void pushTop(MplsLabel label) {
        for (uint32_t i = maxLabels - 1; i != 0; --i) {  // All of them: unused ones are null.
            labelAtIs(i, labelAt(i - 1));
        }
        labelAtIs(0, label);
        ++stackSize_;
    }
    constexpr void erase(uint32_t i) {
        --stackSize_;
        for (; i < stackSize(); ++i) {
            labelAtIs(i, labelAt(i + 1));
        }
        labelAtIs(stackSize(), MplsLabel());
    }

    uint32_t stackSize_ = 0;  // 32 bits, so that `check` gets any number that was read.
    MplsLabel label0_;
    MplsLabel label1_;
    MplsLabel label2_;
    MplsLabel label3_;
    MplsLabel label4_;
    MplsLabel label5_;
    MplsLabel label6_;

  private:
    // The record names its fields one by one, so the labels are no array.
    static constexpr MplsLabel BoundedMplsLabels::*places[maxLabels] = {
        &BoundedMplsLabels::label0_, &BoundedMplsLabels::label1_, &BoundedMplsLabels::label2_,
        &BoundedMplsLabels::label3_, &BoundedMplsLabels::label4_, &BoundedMplsLabels::label5_,
        &BoundedMplsLabels::label6_};
};

/// A stack of at most 7 ordinary labels and 32 calculated ones, as shared tables hold it. Framework
/// text is that of the record, `stringValue()` "TOP ( 16 17 ELI EL ) BOTTOM". No change allocates.
///
/// Values from text or log are checked: `stackSize` ("BoundedMplsLabelStack::stackSize < 0 or > 7
/// not allowed"); the bit maps, whose bits are all within the calculated stack, each in one map
/// only ("Entropy label bit map position index out of range"); the labels, none of which is an
/// entropy marker, and which are null from `stackSize` on (`MplsLabel::rangeText`).
class BoundedMplsLabelStack : public MplsLabelStackBase<BoundedMplsLabelStack, BoundedMplsLabels> {
  public:
    constexpr BoundedMplsLabelStack() = default;
    /// The longest part of the calculated stack, from the top, that fits.
    PAVO_EXPORT explicit BoundedMplsLabelStack(const DynamicMplsLabelStack& stack);
    BoundedMplsLabelStack(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit BoundedMplsLabelStack(std::string_view text) { readWhole(text); }
    BoundedMplsLabelStack(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// As `extend`, but explicit nulls are appended below other labels too.
    Result extendAllowingNonBosExplicitNulls(const BoundedMplsLabelStack& other) {
        return extendBy(other, /*nonBosExplicitNulls=*/true);
    }

    /// Null, or the text of the range error for fields that no stack has.
    PAVO_EXPORT const char* check() const;

    static constexpr const char* labelText = "BoundedMplsLabelStack::label: index out of range";
    static constexpr const char* labelIsText = "BoundedMplsLabelStack::labelIs: index out of range";
    static constexpr const char* labelIsMarkerText =
        "BoundedMplsLabelStack::labelIs: entropy labels are no ordinary labels";
    static constexpr const char* invalidText = "Invalid BoundedMplsLabelStack";
    static constexpr auto description() {
        using Self = BoundedMplsLabelStack;
        return Mox::record(
            "Pavo::BoundedMplsLabelStack", fieldOf("stackSize", &Self::stackSize_),
            fieldOf("label0", &Self::label0_), fieldOf("label1", &Self::label1_),
            fieldOf("label2", &Self::label2_), fieldOf("label3", &Self::label3_),
            fieldOf("label4", &Self::label4_), fieldOf("label5", &Self::label5_),
            fieldOf("label6", &Self::label6_),
            fieldOf("entropyLabelBitMap", &Self::entropyLabelBitMap_),
            fieldOf("entropyLabelIndicatorBitMap", &Self::entropyLabelIndicatorBitMap_));
    }

  private:
    // The members live in bases; the record is of this type.
    template <class Base, class Member>
    static constexpr Mox::Field<BoundedMplsLabelStack, Member> fieldOf(std::string_view name,
                                                                       Member Base::*member) {
        return {name, member};
    }
};
static_assert(sizeof(BoundedMplsLabelStack) == 40 &&
              std::is_trivially_copyable_v<BoundedMplsLabelStack>);

}  // namespace Pavo
