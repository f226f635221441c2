#include "Pavo/label/Mpls.h"

#include <ostream>

namespace Pavo {

namespace {

template <class Operation>
std::ostream& printParts(std::ostream& out, const Operation& operation,
                         const Mox::String& labelStack) {
    return out << "Operation: " << operation.operation() << " Stack Size: " << operation.stackSize()
               << " MPLS Label Stack: " << labelStack;
}

}  // namespace

MplsLabelAction MplsLabelActionInstance(uint32_t value) {
    return Mox::enumValue<MplsLabelAction>(value);
}

MplsLabelAction MplsLabelActionInstance(const Mox::String& name) {
    return Mox::enumValue<MplsLabelAction>(name);
}

SmushResult MplsLabelOperation::smush(const MplsLabelOperation& other) {
    SmushResult::SmushError error;
    error.badLabelOperationIs(operation() != MplsLabelAction::push ||
                              other.operation() != MplsLabelAction::push);
    error.badControlWordIs(other.controlWord());
    error.badFlowLabelIs(other.addFlowLabel());
    return {error, stack().extend(other.stack())};
}

UnboundedMplsLabelOperation boundedOpToUnboundedOp(const MplsLabelOperation& operation) {
    return UnboundedMplsLabelOperation(operation.operation(),
                                       DynamicMplsLabelStack(operation.boundedLabelStack()),
                                       operation.rawValue());
}

MplsLabelOperation unboundedOpToBoundedOp(const UnboundedMplsLabelOperation& operation) {
    return MplsLabelOperation(operation.operation(),
                              BoundedMplsLabelStack(operation.dynamicLabelStack()),
                              operation.rawValue());
}

std::ostream& operator<<(std::ostream& out, const MplsLabelOperation& operation) {
    return printParts(out, operation, operation.boundedLabelStack().stringValue());
}

std::ostream& operator<<(std::ostream& out, const UnboundedMplsLabelOperation& operation) {
    return printParts(out, operation, operation.dynamicLabelStack().stringValue());
}

}  // namespace Pavo
