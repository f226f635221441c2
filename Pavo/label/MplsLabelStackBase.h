/// @file
/// The results of changing a label stack, and the rules that all stacks of ordinary and entropy
/// labels share.
#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <string_view>

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
    /// The label has no meaning at that end of the stack, or it replaces an implicit null.
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
class [[nodiscard]] BoundedMplsLabelStackResult
    : public Mox::ValueType<BoundedMplsLabelStackResult> {
  public:
    using Error = BoundedMplsLabelStackError;

    constexpr BoundedMplsLabelStackResult() = default;
    constexpr BoundedMplsLabelStackResult(Error error) : error_(error) {}
    BoundedMplsLabelStackResult(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit BoundedMplsLabelStackResult(std::string_view text) { readWhole(text); }
    BoundedMplsLabelStackResult(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The exact outcome.
    constexpr Error error() const { return error_; }
    constexpr void errorIs(Error error) { error_ = error; }
    /// Nothing was refused; a label may have been ignored.
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

/// The text of a calculated stack: "TOP ( 16 17 ELI EL ) BOTTOM", or the entries alone with blanks
/// between them, as numbers or as `MplsLabel::prettyString()`.
enum class MplsStackText { topToBottom, numbers, prettyLabels };

/// The common part of all label stacks: the rules of changing one, and the calculated stack, which
/// is the list from the top of ordinary labels and of pairs of an entropy label indicator and its
/// entropy label.
///
/// `Self` is the stack, and defines the texts `labelText`, `labelIsText` and `labelIsMarkerText`.
/// `Labels` holds its ordinary labels, 0 on top, and has `maxLabels`, `isBounded`, `stackSize()`,
/// `labelAt(i)`, `labelAtIs(i, label)`, `pushBottom(label)`, `pushTop(label)` and `erase(i)`, which
/// check nothing; a bounded one also defines its `stackSizeText`.
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
    /// @throws Mox::RangeException "BoundedMplsLabelStack::stackSize < 0 or > 7 not allowed", and
    /// "Entropy label bit map position index out of range" where a bounded stack would have more
    /// than 32 entries; the stack is then unchanged.
    void stackSizeIs(uint32_t size);

    /// The ordinary label at `index`, 0 on top.
    /// @throws Mox::RangeException "<type>::label: index out of range"
    MplsLabel label(uint32_t index) const {
        if (index >= stackSize()) {
            Mox::throwRangeException(Self::labelText);
        }
        return this->labelAt(index);
    }
    /// Replaces the ordinary label at `index`, by any but the entropy markers.
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
    /// The entry at `position` of the calculated stack: an ordinary label,
    /// `MplsLabel::entropyLabelIndicator` or `MplsLabel::entropyLabel`.
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range"
    MplsLabel calculatedLabel(uint32_t position) const {
        if (!hasEntropyLabel()) [[likely]] {
            return ordinaryLabel(position);
        }
        if (isEntropyLabelAt(position)) {
            return MplsLabel::entropyLabel;
        }
        if (isIndicatorAt(position)) {
            return MplsLabel::entropyLabelIndicator;
        }
        return ordinaryLabel(numNormalLabelsAtIndex(position));
    }
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range" where the
    /// calculated stack is empty.
    MplsLabel calculatedTop() const { return calculatedLabel(0); }
    /// Whether the calculated stack has any entry.
    explicit operator bool() const { return stackSize() != 0 || hasEntropyLabel(); }

    /// Puts a label at the bottom. The result is `labelIgnored`, without change, for
    /// - the entropy markers,
    /// - router alert (1) on a stack without ordinary labels or with an implicit null (3) alone,
    /// - an implicit null on a stack with ordinary labels, and explicit nulls (0, 2) on one whose
    ///   labels are not an implicit null alone.
    ///
    /// Where the one ordinary label is an implicit null, any other label replaces it, at the bottom
    /// of the calculated stack; that too is `labelIgnored`. Without room the result is `stackFull`
    /// or `entropyLabelBitMapFull`, without change.
    Result append(MplsLabel label) {
        return label.isEntropyMarker() ? Result(Error::labelIgnored)
                                       : appendEntry(label, /*nonBosExplicitNulls=*/false);
    }
    /// The same at the top; labels and pairs that are there move down.
    Result prepend(MplsLabel label);
    /// Appends the calculated labels of `other` from the top, pairs as pairs, continues after one
    /// that has no room, and returns the worst result.
    template <class OtherSelf, class OtherLabels>
    Result extend(const MplsLabelStackBase<OtherSelf, OtherLabels>& other) {
        return extendBy(other, /*nonBosExplicitNulls=*/false);
    }

    /// Inserts an indicator and an entropy label into the calculated stack, at `position` and the
    /// next; the entries there move down. The result is `entropyLabelBitMapFull` without room for
    /// two, `invalidEntropyLabelPosition` past the stack or directly above an entropy label; the
    /// stack is then unchanged.
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
    /// As `extend`; the flag also appends explicit nulls below other labels.
    template <class OtherSelf, class OtherLabels>
    BoundedMplsLabelStackResult extendBy(const MplsLabelStackBase<OtherSelf, OtherLabels>& other,
                                         bool nonBosExplicitNulls);

    /// Appends a label, or a pair for `MplsLabel::entropyLabel`.
    /// @throws Mox::RangeException "Can't append the entropy label indicator"
    Result appendEntry(MplsLabel label, bool nonBosExplicitNulls);

    /// Null, or the text of the range error for maps that do not fit the labels, and for entropy
    /// markers among these.
    const char* checkEntries() const;

  private:
    MplsLabel ordinaryLabel(uint32_t index) const {
        if (index >= stackSize()) {
            Mox::throwRangeException("MplsLabelOperation::labelStack: index out of range");
        }
        return this->labelAt(index);
    }
    bool isImplicitNullAlone() const {
        return stackSize() == 1 && this->labelAt(0).isImplicitNull();
    }
    /// Whether a label has no meaning at either end of this stack.
    bool isIgnored(MplsLabel label, bool nonBosExplicitNulls) const {
        if (stackSize() == 0) {
            return label == MplsLabel::routerAlert;
        }
        return label.isImplicitNull() || (label.isExplicitNull() && !nonBosExplicitNulls);
    }
    /// Whether one more ordinary label has room at the bottom: `success`, or the reason why not.
    Error roomError() const {
        if (stackSize() == Labels::maxLabels) {
            return Error::stackFull;
        }
        const bool isFull = Labels::isBounded && calculatedStackSize() >= mapBits;
        return isFull ? Error::entropyLabelBitMapFull : Error::success;
    }
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
inline BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::appendEntry(
    MplsLabel label, bool nonBosExplicitNulls) {
    if (label == MplsLabel::entropyLabelIndicator) {
        Mox::throwRangeException("Can't append the entropy label indicator");
    }
    if (label == MplsLabel::entropyLabel) {
        const uint32_t size = calculatedStackSize();
        if (size > mapBits - 2) {
            return Error::entropyLabelBitMapFull;
        }
        insertPair(size);
        return Error::success;
    }
    if (isImplicitNullAlone()) {
        return replaceImplicitNull(label, /*atTop=*/false);
    }
    if (isIgnored(label, nonBosExplicitNulls)) {
        return Error::labelIgnored;
    }
    const Error error = roomError();
    if (error == Error::success) {
        this->pushBottom(label);
    }
    return error;
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
    const Error error = roomError();
    if (error != Error::success) {
        return error;
    }
    if (isLastPositionUsed()) {
        return Error::entropyLabelBitMapFull;
    }
    this->pushTop(label);  // First, since there may be no memory for it.
    moveDownByOne();
    return Error::success;
}

template <class Self, class Labels>
BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::replaceImplicitNull(MplsLabel label,
                                                                                  bool atTop) {
    if (label == MplsLabel::routerAlert || label.isImplicitNull()) {
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
template <class OtherSelf, class OtherLabels>
BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::extendBy(
    const MplsLabelStackBase<OtherSelf, OtherLabels>& other, bool nonBosExplicitNulls) {
    Result result;
    // Read once, since `other` may be this stack.
    const uint32_t size = other.calculatedStackSize();
    for (uint32_t position = 0; position < size; ++position) {
        const MplsLabel label = other.calculatedLabel(position);
        if (label != MplsLabel::entropyLabelIndicator) {
            result.combine(appendEntry(label, nonBosExplicitNulls));
        }
    }
    return result;
}

template <class Self, class Labels>
BoundedMplsLabelStackResult MplsLabelStackBase<Self, Labels>::entropyLabelAndIndicatorIs(
    uint32_t position) {
    if (position > mapBits - 2) {
        Mox::throwRangeException(positionText);
    }
    const uint32_t size = calculatedStackSize();
    // In an unbounded stack, only entropy labels and indicators have to stay within the maps.
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
    if (!areWithin(stackSize()) || (Labels::isBounded && calculatedStackSize() > mapBits)) {
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
    out.text(isFramed ? "TOP ( " : "");
    for (uint32_t position = 0; position < calculatedStackSize(); ++position) {
        const MplsLabel label = calculatedLabel(position);
        out.text(position == 0 || isFramed ? "" : " ");
        if (label == MplsLabel::entropyLabel) {
            out.text("EL");
        } else if (label == MplsLabel::entropyLabelIndicator) {
            out.text("ELI");
        } else if (form == MplsStackText::prettyLabels) {
            label.printPretty(out);
        } else {
            label.print(out);
        }
        out.text(isFramed ? " " : "");
    }
    out.text(isFramed ? ") BOTTOM" : "");
}

}  // namespace Pavo
