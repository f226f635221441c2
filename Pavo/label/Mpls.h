/// @file
/// Label operations: an action and its labels.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include "Mox/Enum.h"
#include "Mox/Lifetime.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/label/BoundedMplsLabelStack.h"
#include "Pavo/label/DynamicMplsLabelStack.h"
#include "Pavo/label/MplsLabel.h"

namespace Pavo {

/// The operation of a forwarding entry on the label stack of a packet.
enum class MplsLabelAction : uint32_t {
    push = 0,
    pop = 1,
    swap = 2,
    forward = 3,
    lookup = 4,
    none = 15,
};

/// @throws Mox::RangeException "Invalid MplsLabelAction"
PAVO_EXPORT MplsLabelAction MplsLabelActionInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid MplsLabelAction"
PAVO_EXPORT MplsLabelAction MplsLabelActionInstance(const Mox::String& name);

// clang-format off
constexpr auto enumDescription(MplsLabelAction) {
    return Mox::enumeration<MplsLabelAction>("Invalid MplsLabelAction", {
        {MplsLabelAction::push, "push"},
        {MplsLabelAction::pop, "pop"},
        {MplsLabelAction::swap, "swap"},
        {MplsLabelAction::forward, "forward"},
        {MplsLabelAction::lookup, "lookup"},
        {MplsLabelAction::none, "none"},
    });
}
// clang-format on

/// The common part of both label operations. `Self` is the operation, and defines its `typeName`
/// and `stackName`, the field that holds its `Stack`.
///
/// Ordered by action, then by flags, then by the stack.
template <class Self, class Stack>
class MplsLabelOperationBase : public Mox::ValueType<Self> {
  public:
    /// The result of a change of the stack.
    using Result = BoundedMplsLabelStackResult;

    /// The operation on the stack; `push` at first.
    constexpr MplsLabelAction operation() const { return operation_; }
    /// @throws Mox::RangeException "Invalid MplsLabelAction" for a number that no action has, as
    /// the constructors do.
    constexpr void operationIs(MplsLabelAction operation) { operation_ = checked(operation); }

    /// The flags as bits: 1 for the control word, 2 for the flow label.
    constexpr uint8_t rawValue() const { return rawValue_; }
    constexpr void rawValueIs(uint8_t rawValue) { rawValue_ = rawValue; }
    /// Whether a control word follows the stack (RFC 4385).
    constexpr bool controlWord() const { return (rawValue_ & controlWordBit) != 0; }
    constexpr void controlWordIs(bool set) { flagIs(controlWordBit, set); }
    /// Whether a flow label is added (RFC 6391).
    constexpr bool addFlowLabel() const { return (rawValue_ & addFlowLabelBit) != 0; }
    constexpr void addFlowLabelIs(bool set) { flagIs(addFlowLabelBit, set); }

    /// The number of ordinary labels.
    uint32_t stackSize() const { return stack_.stackSize(); }
    /// As the stack's `stackSizeIs`, for at most 255 labels.
    /// @throws Mox::RangeException as the stack's; "UnboundedMplsLabelOperation::stackSize < 0 or >
    /// 255 not allowed". The stack is then unchanged.
    void stackSizeIs(uint32_t size) {
        if (!Stack::isBounded && size > 255) {
            Mox::throwRangeException(
                "UnboundedMplsLabelOperation::stackSize < 0 or > 255 not allowed");
        }
        stack_.stackSizeIs(size);
    }

    /// The ordinary label at `index`, 0 on top.
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range"
    MplsLabel labelStack(uint32_t index) const {
        requireLabel(index);
        return stack_.label(index);
    }
    MplsLabel labelStack(MplsStackEntryIndex index) const { return labelStack(index.value()); }
    /// Replaces the ordinary label at `index`, as the stack's `labelIs`.
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range"
    void labelStackIs(uint32_t index, MplsLabel label) {
        requireLabel(index);
        stack_.labelIs(index, label);
    }
    void labelStackIs(MplsStackEntryIndex index, MplsLabel label) {
        labelStackIs(index.value(), label);
    }
    /// The topmost ordinary label.
    /// @throws Mox::RangeException "MplsLabelOperation::topLabel: label stack size 0"
    MplsLabel topLabel() const {
        if (stackSize() == 0) {
            Mox::throwRangeException("MplsLabelOperation::topLabel: label stack size 0");
        }
        return stack_.top();
    }

    /// As the stack's `append` and `prepend`.
    /// @{
    Result appendLabel(MplsLabel label) { return stack_.append(label); }
    Result prependLabel(MplsLabel label) { return stack_.prepend(label); }
    /// @}

    /// As the stack's.
    uint32_t calculatedStackSize() const { return stack_.calculatedStackSize(); }
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range"
    MplsLabel calculatedLabelStack(uint32_t position) const {
        return stack_.calculatedLabel(position);
    }
    /// @throws Mox::RangeException "MplsLabelOperation::labelStack: index out of range" where the
    /// calculated stack is empty.
    MplsLabel calculatedTopLabel() const { return stack_.calculatedTop(); }
    /// As the stack's.
    Result entropyLabelAndIndicatorIs(uint32_t position) {
        return stack_.entropyLabelAndIndicatorIs(position);
    }
    /// As the stack's.
    bool hasEntropyLabel() const { return stack_.hasEntropyLabel(); }

    /// Removes the implicit nulls from the stack of a push or a swap; other actions keep theirs.
    void removeImplicitNullForPushOrSwap() {
        if (operation_ == MplsLabelAction::push || operation_ == MplsLabelAction::swap) {
            stack_.removeImplicitNulls();
        }
    }

    friend auto operator<=>(const MplsLabelOperationBase&, const MplsLabelOperationBase&) = default;

    static constexpr auto description() {
        using Base = MplsLabelOperationBase;
        return Mox::record(Self::typeName,
                           Mox::field<Self, MplsLabelAction>("operation", &Base::operation_),
                           Mox::field<Self, uint8_t>("rawValue", &Base::rawValue_),
                           Mox::field<Self, Stack>(Self::stackName, &Base::stack_));
    }

  protected:
    constexpr MplsLabelOperationBase() = default;
    /// @throws Mox::RangeException "Invalid MplsLabelAction"
    MplsLabelOperationBase(MplsLabelAction operation, uint8_t rawValue, Stack stack)
        : operation_(checked(operation)), rawValue_(rawValue), stack_(std::move(stack)) {}

    /// The stack, to be changed by its own rules.
    const Stack& stack() const MOX_LIFETIME_BOUND { return stack_; }
    Stack& stack() MOX_LIFETIME_BOUND { return stack_; }

  private:
    static constexpr uint8_t controlWordBit = 1;
    static constexpr uint8_t addFlowLabelBit = 2;

    static constexpr MplsLabelAction checked(MplsLabelAction operation) {
        if (Mox::findEnumerator<MplsLabelAction>(static_cast<uint32_t>(operation)) == nullptr) {
            Mox::throwRangeException(Mox::enumTable<MplsLabelAction>.invalidText);
        }
        return operation;
    }
    constexpr void flagIs(uint8_t bit, bool set) {
        rawValue_ = static_cast<uint8_t>(set ? rawValue_ | bit : rawValue_ & ~bit);
    }
    void requireLabel(uint32_t index) const {
        if (index >= stackSize()) {
            Mox::throwRangeException("MplsLabelOperation::labelStack: index out of range");
        }
    }

    MplsLabelAction operation_ = MplsLabelAction::push;
    uint8_t rawValue_ = 0;
    Stack stack_;
};

class SmushResult;

/// An action and a stack of at most 7 labels, with entropy pairs among them.
class MplsLabelOperation
    : public MplsLabelOperationBase<MplsLabelOperation, BoundedMplsLabelStack> {
  public:
    constexpr MplsLabelOperation() = default;
    /// @throws Mox::RangeException "Invalid MplsLabelAction"
    explicit MplsLabelOperation(MplsLabelAction operation, BoundedMplsLabelStack stack = {},
                                uint8_t rawValue = 0)
        : MplsLabelOperationBase(operation, rawValue, stack) {}
    MplsLabelOperation(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit MplsLabelOperation(std::string_view text) { readWhole(text); }
    MplsLabelOperation(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The whole stack, pairs included.
    const BoundedMplsLabelStack& boundedLabelStack() const MOX_LIFETIME_BOUND { return stack(); }
    void boundedLabelStackIs(const BoundedMplsLabelStack& labels) { stack() = labels; }

    /// The ordinary label of that index, the null label past the stack; set as `labelStackIs` does.
    /// @{
    MplsLabel label0() const { return labelOrNull(0); }
    void label0Is(MplsLabel label) { labelStackIs(0, label); }
    MplsLabel label1() const { return labelOrNull(1); }
    void label1Is(MplsLabel label) { labelStackIs(1, label); }
    MplsLabel label2() const { return labelOrNull(2); }
    void label2Is(MplsLabel label) { labelStackIs(2, label); }
    MplsLabel label3() const { return labelOrNull(3); }
    void label3Is(MplsLabel label) { labelStackIs(3, label); }
    MplsLabel label4() const { return labelOrNull(4); }
    void label4Is(MplsLabel label) { labelStackIs(4, label); }
    MplsLabel label5() const { return labelOrNull(5); }
    void label5Is(MplsLabel label) { labelStackIs(5, label); }
    MplsLabel label6() const { return labelOrNull(6); }
    void label6Is(MplsLabel label) { labelStackIs(6, label); }
    /// @}

    /// Folds `other` into this operation: the stack is extended by that of `other`, even where the
    /// result says that the operations cannot be combined; action and flags stay as they are.
    PAVO_EXPORT SmushResult smush(const MplsLabelOperation& other);

    static constexpr const char* typeName = "Pavo::MplsLabelOperation";
    static constexpr const char* stackName = "boundedLabelStack";

  private:
    MplsLabel labelOrNull(uint32_t index) const {
        return index < stackSize() ? stack().label(index) : MplsLabel();
    }
};
static_assert(sizeof(MplsLabelOperation) == 48 && std::is_trivially_copyable_v<MplsLabelOperation>);

/// An action and a stack of any number of labels.
class UnboundedMplsLabelOperation
    : public MplsLabelOperationBase<UnboundedMplsLabelOperation, DynamicMplsLabelStack> {
  public:
    UnboundedMplsLabelOperation() = default;
    /// @throws Mox::RangeException "Invalid MplsLabelAction"
    explicit UnboundedMplsLabelOperation(MplsLabelAction operation,
                                         DynamicMplsLabelStack stack = {}, uint8_t rawValue = 0)
        : MplsLabelOperationBase(operation, rawValue, std::move(stack)) {}
    UnboundedMplsLabelOperation(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit UnboundedMplsLabelOperation(std::string_view text) { readWhole(text); }
    UnboundedMplsLabelOperation(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The whole stack, pairs included.
    const DynamicMplsLabelStack& dynamicLabelStack() const MOX_LIFETIME_BOUND { return stack(); }
    void dynamicLabelStackIs(DynamicMplsLabelStack labels) { stack() = std::move(labels); }

    static constexpr const char* typeName = "Pavo::UnboundedMplsLabelOperation";
    static constexpr const char* stackName = "dynamicLabelStack";
};

/// The same action, flags and labels.
PAVO_EXPORT UnboundedMplsLabelOperation boundedOpToUnboundedOp(const MplsLabelOperation& operation);
/// The same action and flags, and the part of the stack, from the top, that fits.
PAVO_EXPORT MplsLabelOperation unboundedOpToBoundedOp(const UnboundedMplsLabelOperation& operation);

/// Prints, for debugging, "Operation: push Stack Size: 2 MPLS Label Stack: TOP ( 16 17 ) BOTTOM".
/// The size is the number of ordinary labels.
PAVO_EXPORT std::ostream& operator<<(std::ostream& out, const MplsLabelOperation& operation);
PAVO_EXPORT std::ostream& operator<<(std::ostream& out,
                                     const UnboundedMplsLabelOperation& operation);

/// A label and an action in 32 bits: the label in bits 8 to 31, the action in bits 0 to 3; bits 4
/// to 7 are unused.
class MplsLabelAndAction : public Mox::ValueType<MplsLabelAndAction> {
  public:
    constexpr MplsLabelAndAction() = default;
    constexpr explicit MplsLabelAndAction(uint32_t value) : value_(value) {}
    /// The label moves to bits 8 to 31, of which it may need all.
    constexpr MplsLabelAndAction(MplsLabel label, MplsLabelAction action) {
        labelIs(label);
        actionIs(action);
    }
    MplsLabelAndAction(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit MplsLabelAndAction(std::string_view text) { readWhole(text); }
    MplsLabelAndAction(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// In host order.
    constexpr uint32_t value() const { return value_; }
    constexpr void valueIs(uint32_t value) { value_ = value; }

    /// @throws Mox::RangeException `MplsLabel::rangeText` above 0x800000.
    constexpr MplsLabel label() const { return value_ >> labelShift; }
    /// Keeps the low 8 bits.
    constexpr void labelIs(MplsLabel label) {
        value_ = label.value() << labelShift | (value_ & 0xff);
    }
    /// The low 4 bits. No action has the numbers 5 to 14, which a label operation refuses.
    constexpr MplsLabelAction action() const {
        return static_cast<MplsLabelAction>(value_ & actionMask);
    }
    /// Keeps the low 4 bits of the action's number.
    constexpr void actionIs(MplsLabelAction action) {
        value_ = (value_ & ~actionMask) | (static_cast<uint32_t>(action) & actionMask);
    }

    /// A label of 20 bits, and a number of an action below that of `none`.
    constexpr bool isValid() const {
        return value_ <= 0x0fffffff && action() < MplsLabelAction::none;
    }

    friend constexpr auto operator<=>(const MplsLabelAndAction&,
                                      const MplsLabelAndAction&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::MplsLabelAndAction",
                           Mox::field("value", &MplsLabelAndAction::value_));
    }

  private:
    static constexpr uint32_t labelShift = 8;
    static constexpr uint32_t actionMask = 15;

    uint32_t value_ = 0;
};

/// The result of folding one label operation into another.
class SmushResult : public Mox::ValueType<SmushResult> {
  public:
    /// The set of reasons why two operations cannot be combined.
    class SmushError : public Mox::ValueType<SmushError> {
      public:
        constexpr SmushError() = default;
        /// From bits: 1 for the control word, 2 for the operation, 4 for the flow label.
        /// @throws Mox::RangeException "SmushResult::SmushError::value < 0 or > 7 not allowed"
        constexpr explicit SmushError(uint32_t value) { valueIs(value); }
        SmushError(TextIt& it, const TextIt& end) { readText(it, end); }
        explicit SmushError(std::string_view text) { readWhole(text); }
        SmushError(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

        /// The bits.
        constexpr uint32_t value() const {
            return (badControlWord_ ? 1u : 0u) | (badLabelOperation_ ? 2u : 0u) |
                   (badFlowLabel_ ? 4u : 0u);
        }
        /// @throws Mox::RangeException "SmushResult::SmushError::value < 0 or > 7 not allowed"; the
        /// set is then unchanged.
        constexpr void valueIs(uint32_t value) {
            if (value > 7) {
                Mox::throwRangeException("SmushResult::SmushError::value < 0 or > 7 not allowed");
            }
            badControlWord_ = (value & 1) != 0;
            badLabelOperation_ = (value & 2) != 0;
            badFlowLabel_ = (value & 4) != 0;
        }

        /// The operation that was folded in has a control word.
        constexpr bool badControlWord() const { return badControlWord_; }
        constexpr void badControlWordIs(bool bad) { badControlWord_ = bad; }
        /// One of the two operations is not a push.
        constexpr bool badLabelOperation() const { return badLabelOperation_; }
        constexpr void badLabelOperationIs(bool bad) { badLabelOperation_ = bad; }
        /// The operation that was folded in adds a flow label.
        constexpr bool badFlowLabel() const { return badFlowLabel_; }
        constexpr void badFlowLabelIs(bool bad) { badFlowLabel_ = bad; }

        friend constexpr bool operator==(const SmushError& a, const SmushError& b) {
            return a.value() == b.value();
        }
        friend constexpr std::strong_ordering operator<=>(const SmushError& a,
                                                          const SmushError& b) {
            return a.value() <=> b.value();
        }

        static constexpr auto description() {
            return Mox::record("Pavo::SmushResult::SmushError",
                               Mox::field("badControlWord", &SmushError::badControlWord_),
                               Mox::field("badLabelOperation", &SmushError::badLabelOperation_),
                               Mox::field("badFlowLabel", &SmushError::badFlowLabel_));
        }

      private:
        bool badControlWord_ = false;
        bool badLabelOperation_ = false;
        bool badFlowLabel_ = false;
    };

    constexpr SmushResult() = default;
    constexpr SmushResult(SmushError smushError, BoundedMplsLabelStackResult stackResult)
        : smushError_(smushError), stackResult_(stackResult) {}
    SmushResult(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit SmushResult(std::string_view text) { readWhole(text); }
    SmushResult(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Why the operations cannot be combined; empty where they can.
    constexpr SmushError smushError() const { return smushError_; }
    /// How the extension of the stack went.
    constexpr BoundedMplsLabelStackResult stackResult() const { return stackResult_; }

    /// Whether the stack was extended, and the operation that was folded in has neither control
    /// word nor flow label. An operation that is not a push does not matter here.
    constexpr bool success() const {
        return !smushError_.badControlWord() && !smushError_.badFlowLabel() &&
               stackResult_.success();
    }

    friend constexpr auto operator<=>(const SmushResult&, const SmushResult&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::SmushResult", Mox::field("smushError", &SmushResult::smushError_),
                           Mox::field("stackResult", &SmushResult::stackResult_));
    }

  private:
    SmushError smushError_;
    BoundedMplsLabelStackResult stackResult_;
};

}  // namespace Pavo
