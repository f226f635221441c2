#include "Pavo/label/BoundedMplsLabelStack.h"

#include <algorithm>

#include "Pavo/label/DynamicMplsLabelStack.h"

namespace Pavo {

BoundedMplsLabelStack::BoundedMplsLabelStack(const DynamicMplsLabelStack& stack) {
    const uint32_t most = std::min(stack.calculatedStackSize(), mapBits);
    uint32_t position = 0;
    for (; position < most; ++position) {
        const MplsLabel label = stack.calculatedLabel(position);
        if (label.isEntropyMarker()) {
            continue;
        }
        if (stackSize() == maxLabels) {
            break;
        }
        pushBottom(label);
    }
    entropyLabelBitMap_ = stack.entropyLabelBitMap() & bitsBelow(position);
    entropyLabelIndicatorBitMap_ = stack.entropyLabelIndicatorBitMap() & bitsBelow(position);
}

const char* BoundedMplsLabelStack::check() const {
    if (stackSize() > maxLabels) {
        return stackSizeText;
    }
    if (const char* error = checkEntries()) {
        return error;
    }
    for (uint32_t i = stackSize(); i < maxLabels; ++i) {
        if (labelAt(i) != MplsLabel()) {
            return MplsLabel::rangeText;
        }
    }
    return nullptr;
}

}  // namespace Pavo
