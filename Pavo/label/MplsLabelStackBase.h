/// @file
/// The results of changing a label stack, and the rules that all stacks of ordinary and entropy
/// labels share.
#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <type_traits>

#include "Mox/Enum.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/label/EntropyLabelMaps.h"
#include "Pavo/label/MplsLabel.h"

namespace Pavo {

/// How a change of a stack went, from good to bad: up to `labelIgnored` it succeeded.
enum class BoundedMplsLabelStackError : uint32_t {
    success = 0,
    noError = success,
    noOp = 1,
    /// The label changes nothing where it would come to stand, or replaces an implicit null.
    labelIgnored = 2,
    tooFewLabels = 3,
    entropyLabelBitMapFull = 4,
    stackFull = 5,
    invalidEntropyLabelPosition = 6,
    largeIndex = invalidEntropyLabelPosition,
    stackError = 7,
    other = stackError,
};

/// @throws Mox::RangeException "Invalid BoundedMplsLabelStackError"
PAVO_EXPORT BoundedMplsLabelStackError BoundedMplsLabelStackErrorInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid BoundedMplsLabelStackError"
PAVO_EXPORT BoundedMplsLabelStackError BoundedMplsLabelStackErrorInstance(const Mox::String& name);

// clang-format off
constexpr auto enumDescription(BoundedMplsLabelStackError) {
    using Error = BoundedMplsLabelStackError;
    return Mox::enumeration<Error>("Invalid BoundedMplsLabelStackError", {
        {Error::success, "success"},
        {Error::noError, "noError"},
        {Error::noOp, "noOp"},
        {Error::labelIgnored, "labelIgnored"},
        {Error::tooFewLabels, "tooFewLabels"},
        {Error::entropyLabelBitMapFull, "entropyLabelBitMapFull"},
        {Error::stackFull, "stackFull"},
        {Error::invalidEntropyLabelPosition, "invalidEntropyLabelPosition"},
        {Error::largeIndex, "largeIndex"},
        {Error::stackError, "stackError"},
        {Error::other, "other"},
    });
}
// clang-format on

/// The result of one change of a stack, or the worst of several.
class BoundedMplsLabelStackResult : public Mox::ValueType<BoundedMplsLabelStackResult> {
  public:
    using Error = BoundedMplsLabelStackError;

    constexpr BoundedMplsLabelStackResult() = default;
    constexpr BoundedMplsLabelStackResult(Error error) : error_(error) {}
    BoundedMplsLabelStackResult(TextIt& it, const TextIt& end) { readText(it, end); }
    BoundedMplsLabelStackResult(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    constexpr Error error() const { return error_; }
    constexpr void errorIs(Error error) { error_ = error; }

    constexpr bool success() const { return error_ <= Error::labelIgnored; }
    /// Keeps the worse of the two.
    constexpr void combine(Error error) { error_ = error > error_ ? error : error_; }
    constexpr void combine(BoundedMplsLabelStackResult result) { combine(result.error_); }

    friend constexpr auto operator<=>(const BoundedMplsLabelStackResult&,
                                      const BoundedMplsLabelStackResult&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::BoundedMplsLabelStackResult",
                           Mox::field("error", &BoundedMplsLabelStackResult::error_));
    }

  private:
    Error error_ = Error::success;
};
static_assert(sizeof(BoundedMplsLabelStackResult) == 4);

/// The stack as it goes on the wire: "TOP ( 16 17 ELI EL ) BOTTOM", or bare entries with blanks
/// between them.
enum class MplsStackText { topToBottom, numbers, prettyLabels };

/// What all label stacks share: the rules of changing one, and the calculated stack, the list from
/// the top of ordinary labels and of pairs of an entropy label indicator and its entropy label.
///
/// `Self` is the stack, and names the texts `labelText`, `labelIsText` and `labelIsMarkerText`.
/// `Labels` holds its ordinary labels, 0 on top, and has `maxLabels`, `isBounded`, `stackSize()`,
/// `labelAt(i)`, `labelAtIs(i, label)`, `pushBottom(label)`, `pushTop(label)` and `erase(i)`, which
/// check nothing; a bounded one also names its `stackSizeText`.
///
/// Ordered by the number of ordinary labels, then by these from the top, then by the bit maps.
template <class Self, class Labels>
class MplsLabelStackBase : public Mox::ValueType<Self>, public Labels, public EntropyLabelMaps {
  public:
    using Error = BoundedMplsLabelStackError;
    using Result = BoundedMplsLabelStackResult;

    using Labels::stackSize;

    /// The number of ordinary labels. Growing adds null labels at the bottom; shrinking takes the
    /// lowest ones out of the calculated stack, and no pairs.
    /// @throws Mox::RangeException past what the stack holds; the stack is then unchanged.
    void stackSizeIs(uint32_t size);

    /// The ordinary label at `index`, 0 on top.
    /// @throws Mox::RangeException "<type>::label: index out of range"
    MplsLabel label(uint32_t index) const {
        if (index >= stackSize()) {
            Mox::throwRangeException(Self::labelText);
        }
        return this->labelAt(index);
    }
    /// Replaces the ordinary label at `index`, with any but the entropy markers.
    /// @throws Mox::RangeException "<type>::labelIs: index out of range", or "<type>::labelIs:
    /// entropy labels are no ordinary labels"; the stack is then unchanged.
    void labelIs(uint32_t index, MplsLabel label) {
        if (index >= stackSize()) {
            Mox::throwRangeException(Self::labelIsText);
        }
        if (label.isEntropyMarker()) {
            Mox::throwRangeException(Self::labelIsMarkerText);
        }
        this->labelAtIs(index, label);
    }
    /// The topmost ordinary label; the null label where there is none.
    MplsLabel top() const { return stackSize() == 0 ? MplsLabel() : this->labelAt(0); }

    /// Ordinary labels, entropy labels and indicators.
    uint32_t calculatedStackSize() const { return stackSize() + numEntropyLabelsAndIndicators(); }
    /// What stands at `position` of the calculated stack: an ordinary label,
    /// `entropyLabelIndicatorValue` or `entropyLabelValue`.
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range"
    MplsLabel calculatedLabel(uint32_t position) const {
        if (!hasEntropyLabel()) [[likely]] {
            return ordinaryLabel(position);
        }
        if (isEntropyLabelAt(position)) {
            return MplsLabel::entropyLabelValue;
        }
        if (isIndicatorAt(position)) {
            return MplsLabel::entropyLabelIndicatorValue;
        }
        return ordinaryLabel(numNormalLabelsAtIndex(position));
    }
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range" where the
    /// calculated stack is empty.
    MplsLabel calculatedTop() const { return calculatedLabel(0); }
    /// Whether the calculated stack has any entry.
    explicit operator bool() const { return stackSize() != 0 || hasEntropyLabel(); }

    /// Puts a label at the bottom. `labelIgnored`, and no change, for
    /// - the entropy markers,
    /// - router alert (1) on a stack without ordinary labels or with an implicit null (3) alone,
    /// - an implicit null on any other, and explicit nulls (0, 2) unless the stack has none.
    ///
    /// Where the one ordinary label is an implicit null, any other label takes its place in the
    /// stack, at the bottom of the list; that too is `labelIgnored`. `stackFull` and
    /// `entropyLabelBitMapFull`, without change, where there is no room.
    Result append(MplsLabel label) {
        if (!isPlainAppend(label)) [[unlikely]] {
            return label.isEntropyMarker() ? Result(Error::labelIgnored)
                                           : appendSpecial(label, /*nonBosExplicitNulls=*/false);
        }
        this->pushBottom(label);
        return Error::success;
    }
    /// The same at the top: labels that are there, and pairs, move down. Router alert is ignored on
    /// a stack without ordinary labels only.
    Result prepend(MplsLabel label);
    /// Appends the calculated labels of `other` from the top, pairs as pairs, goes on where one
    /// cannot be had, and returns the worst result.
    template <class OtherSelf, class OtherLabels>
    Result extend(const MplsLabelStackBase<OtherSelf, OtherLabels>& other) {
        return extendBy(other, /*nonBosExplicitNulls=*/false);
    }

    /// Puts an indicator and an entropy label into the calculated stack, at `position` and the
    /// next; what stands there moves down. `entropyLabelBitMapFull` where there is no room for two,
    /// `invalidEntropyLabelPosition` past the stack or between an indicator and its label; nothing
    /// changes then.
    /// @throws Mox::RangeException "Entropy label bit map position index out of range" past 30.
    Result entropyLabelAndIndicatorIs(uint32_t position);

    /// Takes implicit nulls out of the calculated stack.
    void removeImplicitNulls();

    /// "TOP ( 16 17 ELI EL ) BOTTOM" is what `stringValue()` gives.
    void print(Mox::TextWriter& out) const { printAs(out, MplsStackText::topToBottom); }
    /// Labels as numbers, "EL" and "ELI", with blanks between them.
    Mox::String cliString() const { return textAs(MplsStackText::numbers); }
    /// The same with labels as `MplsLabel::prettyString()` has them.
    Mox::String cliShowString() const { return textAs(MplsStackText::prettyLabels); }

    friend auto operator<=>(const MplsLabelStackBase&, const MplsLabelStackBase&) = default;

  protected:
    template <class, class>
    friend class MplsLabelStackBase;

    /// Calls `visit(label)` for each calculated label from the top until it returns false.
    template <class Visit>
    void forEachEntry(Visit visit) const;

    template <class OtherSelf, class OtherLabels>
    Result extendBy(const MplsLabelStackBase<OtherSelf, OtherLabels>& other,
                    bool nonBosExplicitNulls);

    /// Appends a label, or a pair for `entropyLabelValue`.
    /// @throws Mox::RangeException "Can't append the entropy label indicator"
    Result appendEntry(MplsLabel label, bool nonBosExplicitNulls) {
        if (!isPlainAppend(label)) [[unlikely]] {
            return appendSpecial(label, nonBosExplicitNulls);
        }
        this->pushBottom(label);
        return Error::success;
    }
    /// A pair at the bottom. False where the maps have no room for it.
    bool appendPair();

    /// Null, or the text of the range error for maps that do not fit the labels, and for labels
    /// that stacks do not hold.
    const char* checkEntries() const;

  private:
    [[noreturn]] static void throwPositionError() {
        Mox::throwRangeException("MplsLabelOperation::labelStack: index out of range");
    }
    MplsLabel ordinaryLabel(uint32_t index) const {
        if (index >= stackSize()) {
            throwPositionError();
        }
        return this->labelAt(index);
    }
    /// Whether a label goes to the bottom under any circumstances but where `append` has to look
    /// closer: a test that most labels pass.
    bool isPlainAppend(MplsLabel label) const {
        // With the last 8 positions free, and fewer than 7 labels, fewer than 32 are taken.
        const bool hasRoom =
            stackSize() < Labels::maxLabels && !(Labels::isBounded && isUsedAtLast(8));
        return label.value() > MplsLabel::entropyLabelIndicatorValue &&
               label.value() != MplsLabel::entropyLabelValue && !top().isImplicitNull() && hasRoom;
    }
    bool isImplicitNullAlone() const {
        return stackSize() == 1 && this->labelAt(0).isImplicitNull();
    }
    /// Whether a label would mean nothing at either end of this stack.
    bool isIgnored(MplsLabel label, bool nonBosExplicitNulls) const {
        if (stackSize() == 0) {
            return label.value() == MplsLabel::routerAlertValue;
        }
        return label.isImplicitNull() || (label.isExplicitNull() && !nonBosExplicitNulls);
    }
    Result appendSpecial(MplsLabel label, bool nonBosExplicitNulls);
    Result replaceImplicitNull(MplsLabel label, bool atTop);
    /// Takes an ordinary label out of the calculated stack.
    void removeLabel(uint32_t index);
    void deletePosition(uint32_t position);
    /// The position of the ordinary label `index`; 32 or more for any that the maps do not cover.
    uint32_t positionOf(uint32_t index) const;

    void printAs(Mox::TextWriter& out, MplsStackText form) const;
    Mox::String textAs(MplsStackText form) const {
        return Mox::printedString([this, form](Mox::TextWriter& out) { printAs(out, form); });
    }
};

template <class Self, class Labels>
void MplsLabelStackBase<Self, Labels>::stackSizeIs(uint32_t size) {
    if constexpr (Labels::isBounded) {
        if (size > Labels::maxLabels) {
            Mox::throwRangeException(Labels::stackSizeText);
        }
        if (size + numEntropyLabelsAndIndicators() > mapBits && size > stackSize()) {
            Mox::throwRangeException(positionText);
        }
    }
    while (stackSize() > size) {
        removeLabel(stackSize() - 1);
    }
    while (stackSize() < size) {
        this->pushBottom(MplsLabel());
    }
}

template <class Self, class Labels>
BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::appendSpecial(
    MplsLabel label, bool nonBosExplicitNulls) {
    if (label.value() == MplsLabel::entropyLabelIndicatorValue) {
        Mox::throwRangeException("Can't append the entropy label indicator");
    }
    if (label.value() == MplsLabel::entropyLabelValue) {
        return appendPair() ? Error::success : Error::entropyLabelBitMapFull;
    }
    if (isImplicitNullAlone()) {
        return replaceImplicitNull(label, /*atTop=*/false);
    }
    if (isIgnored(label, nonBosExplicitNulls)) {
        return Error::labelIgnored;
    }
    if (stackSize() == Labels::maxLabels) {
        return Error::stackFull;
    }
    if (Labels::isBounded && calculatedStackSize() >= mapBits) {
        return Error::entropyLabelBitMapFull;
    }
    this->pushBottom(label);
    return Error::success;
}

template <class Self, class Labels>
inline BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::prepend(MplsLabel label) {
    if (label.isEntropyMarker()) {
        return Error::labelIgnored;
    }
    if (isImplicitNullAlone()) {
        return replaceImplicitNull(label, /*atTop=*/true);
    }
    if (isIgnored(label, /*nonBosExplicitNulls=*/false)) {
        return Error::labelIgnored;
    }
    if (stackSize() == Labels::maxLabels) {
        return Error::stackFull;
    }
    if (!hasEntropyLabel()) {
        this->pushTop(label);
        return Error::success;
    }
    // With the last 8 positions free, fewer than 7 labels leave room.
    const bool isFull = Labels::isBounded && isUsedAtLast(8) && calculatedStackSize() >= mapBits;
    if (isFull || isUsedAtLast(1)) {
        return Error::entropyLabelBitMapFull;
    }
    this->pushTop(label);  // First, since it may find no memory.
    moveDownByOne();
    return Error::success;
}

template <class Self, class Labels>
BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::replaceImplicitNull(MplsLabel label,
                                                                                  bool atTop) {
    if (label.value() == MplsLabel::routerAlertValue || label.isImplicitNull()) {
        return Error::labelIgnored;
    }
    const uint32_t position = getLowestNonEntropyLabelBit();
    if (atTop && position >= mapBits) {
        return Error::entropyLabelBitMapFull;
    }
    deletePosition(position);
    if (atTop) {
        moveDownByOne();
    }
    this->labelAtIs(0, label);
    return Error::labelIgnored;
}

template <class Self, class Labels>
inline bool MplsLabelStackBase<Self, Labels>::appendPair() {
    const uint32_t size = calculatedStackSize();
    if (size > mapBits - 2) {
        return false;
    }
    insertPair(size);
    return true;
}

template <class Self, class Labels>
template <class Visit>
inline void MplsLabelStackBase<Self, Labels>::forEachEntry(Visit visit) const {
    const uint32_t labels = stackSize();
    if (!hasEntropyLabel()) {
        for (uint32_t i = 0; i < labels && visit(this->labelAt(i)); ++i) {
        }
        return;
    }
    uint32_t entropyLabels = entropyLabelBitMap_;
    uint32_t indicators = entropyLabelIndicatorBitMap_;
    for (uint32_t i = 0; i < labels || (entropyLabels | indicators) != 0;) {
        MplsLabel label = MplsLabel::entropyLabelIndicatorValue;
        if ((entropyLabels & 1) != 0) {
            label = MplsLabel::entropyLabelValue;
        } else if ((indicators & 1) == 0) {
            label = this->labelAt(i++);
        }
        if (!visit(label)) {
            return;
        }
        entropyLabels >>= 1;
        indicators >>= 1;
    }
}

template <class Self, class Labels>
template <class OtherSelf, class OtherLabels>
inline BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::extendBy(
    const MplsLabelStackBase<OtherSelf, OtherLabels>& other, bool nonBosExplicitNulls) {
    if constexpr (std::is_same_v<Self, OtherSelf>) {
        if (this == &other) {
            const MplsLabelStackBase copy = other;
            return extendBy(copy, nonBosExplicitNulls);
        }
    }
    Result result;
    other.forEachEntry([&](MplsLabel label) {
        if (label.value() != MplsLabel::entropyLabelIndicatorValue) {
            result.combine(appendEntry(label, nonBosExplicitNulls));
        }
        return true;
    });
    return result;
}

template <class Self, class Labels>
BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::entropyLabelAndIndicatorIs(
    uint32_t position) {
    if (position > mapBits - 2) {
        Mox::throwRangeException(positionText);
    }
    const uint32_t size = calculatedStackSize();
    // Where ordinary labels go on past the maps, only what the maps hold has to have room.
    const bool isFull = Labels::isBounded
                            ? size > mapBits - 2
                            : (bothMaps() & ~bitsBelow(position)) >> (mapBits - 2) != 0;
    if (isFull) {
        return Error::entropyLabelBitMapFull;
    }
    if (position > size || isEntropyLabelAt(position)) {
        return Error::invalidEntropyLabelPosition;
    }
    insertPair(position);
    return Error::success;
}

template <class Self, class Labels>
void MplsLabelStackBase<Self, Labels>::removeImplicitNulls() {
    for (uint32_t i = stackSize(); i-- != 0;) {
        if (this->labelAt(i).isImplicitNull()) {
            removeLabel(i);
        }
    }
}

template <class Self, class Labels>
void MplsLabelStackBase<Self, Labels>::removeLabel(uint32_t index) {
    deletePosition(positionOf(index));
    this->erase(index);
}

template <class Self, class Labels>
void MplsLabelStackBase<Self, Labels>::deletePosition(uint32_t position) {
    if (position < mapBits) {
        deleteBitFromEntropyLabelAndIndicatorBitMaps(position);
    }
}

template <class Self, class Labels>
uint32_t MplsLabelStackBase<Self, Labels>::positionOf(uint32_t index) const {
    uint32_t ordinary = ~bothMaps();
    for (; index != 0 && ordinary != 0; --index) {
        ordinary &= ordinary - 1;
    }
    return static_cast<uint32_t>(std::countr_zero(ordinary));
}

template <class Self, class Labels>
const char* MplsLabelStackBase<Self, Labels>::checkEntries() const {
    if (!arePairsAmong(stackSize()) || (Labels::isBounded && calculatedStackSize() > mapBits)) {
        return positionText;
    }
    for (uint32_t i = 0; i < stackSize(); ++i) {
        if (this->labelAt(i).isEntropyMarker()) {
            return MplsLabel::rangeText;
        }
    }
    return nullptr;
}

template <class Self, class Labels>
void MplsLabelStackBase<Self, Labels>::printAs(Mox::TextWriter& out, MplsStackText form) const {
    const bool isFramed = form == MplsStackText::topToBottom;
    bool first = true;
    out.text(isFramed ? "TOP ( " : "");
    forEachEntry([&](MplsLabel label) {
        out.text(first || isFramed ? "" : " ");
        first = false;
        if (label.value() == MplsLabel::entropyLabelValue) {
            out.text("EL");
        } else if (label.value() == MplsLabel::entropyLabelIndicatorValue) {
            out.text("ELI");
        } else if (form == MplsStackText::prettyLabels) {
            label.printPretty(out);
        } else {
            label.print(out);
        }
        out.text(isFramed ? " " : "");
        return true;
    });
    out.text(isFramed ? ") BOTTOM" : "");
}

}  // namespace Pavo
