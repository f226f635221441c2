// Label stacks as they lie in shared memory: bytes of any kind.

#include <cstring>
#include <memory>

#include "Pavo/DynamicMplsLabelStack.h"

#include "fuzz/ValueOracles.h"

namespace {

using Pavo::BoundedMplsLabelStack;
using Pavo::DynamicMplsLabelStack;
using Pavo::MplsLabel;

// What the calculated stack says of every position is what the words say.
void checkEntries(const DynamicMplsLabelStack& stack) {
    uint32_t labels = 0;
    for (uint32_t i = 0; i < stack.calculatedStackSize(); ++i) {
        const uint32_t bit = i < 32 ? uint32_t{1} << i : 0;
        const uint32_t label = stack.calculatedLabel(i).value();
        const bool isEntropyLabel = label == MplsLabel::entropyLabelValue;
        const bool isIndicator = label == MplsLabel::entropyLabelIndicatorValue;
        Mox::require(isEntropyLabel == ((stack.entropyLabelBitMap() & bit) != 0), "a label's bit");
        Mox::require(isIndicator == ((stack.entropyLabelIndicatorBitMap() & bit) != 0),
                     "an indicator's bit");
        if (!isEntropyLabel && !isIndicator) {
            Mox::require(stack.label(labels++).value() == label, "an ordinary label");
        }
    }
    Mox::require(labels == stack.stackSize(), "all ordinary labels");
}

// The part that fits is the beginning of the whole.
void checkBounded(const DynamicMplsLabelStack& stack) {
    const BoundedMplsLabelStack bounded(stack);
    fuzz::checkValue(bounded);
    for (uint32_t i = 0; i < bounded.calculatedStackSize(); ++i) {
        Mox::require(bounded.calculatedLabel(i) == stack.calculatedLabel(i), "from the top");
    }
    const bool isWhole = bounded.calculatedStackSize() == stack.calculatedStackSize();
    const bool isFull = bounded.stackSize() == 7 || bounded.calculatedStackSize() > 30;
    Mox::require(isWhole || isFull, "as much as fits");
    Mox::require((DynamicMplsLabelStack(bounded) == stack) == isWhole, "there and back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto bytes = static_cast<uint32_t>(size);
    const uint32_t length = DynamicMplsLabelStack::deserializeLen(data, bytes);
    Mox::require(length <= bytes, "a stack lies within the bytes");

    DynamicMplsLabelStack stack;
    (void)stack.append(16);
    const DynamicMplsLabelStack before = stack;
    const std::string error = fuzz::rangeErrorOf([&] { stack.deserialize(data, bytes); });
    if (!error.empty()) {
        Mox::require(error == "Invalid DynamicMplsLabelStack", "the type's own text");
        Mox::require(stack == before, "a failure changes nothing");
        return 0;
    }
    Mox::require(length == bytes && stack.serializeLen() == bytes, "all the bytes");
    const std::unique_ptr<uint8_t[]> again(new uint8_t[bytes]);
    stack.serialize(again.get());
    Mox::require(std::memcmp(again.get(), data, bytes) == 0, "bytes, stack, bytes");
    checkEntries(stack);
    checkBounded(stack);
    fuzz::checkValue(stack);
    return 0;
}
