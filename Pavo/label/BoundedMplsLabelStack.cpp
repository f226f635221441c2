#include "Pavo/label/BoundedMplsLabelStack.h"

#include "Pavo/label/DynamicMplsLabelStack.h"

namespace Pavo {

BoundedMplsLabelStack::BoundedMplsLabelStack(const DynamicMplsLabelStack& stack) {
    // What `stack` holds keeps its place, whatever the rules of appending say. Of a pair, the
    // indicator stands for both: where it fits, so does its label.
    bool fits = true;
    for (uint32_t position = 0; fits && position < stack.calculatedStackSize(); ++position) {
        const MplsLabel label = stack.calculatedLabel(position);
        if (label.value() == MplsLabel::entropyLabelIndicatorValue) {
            fits = appendPair();
        } else if (!label.isEntropyMarker()) {
            fits = stackSize() < maxLabels && calculatedStackSize() < mapBits;
            if (fits) {
                pushBottom(label);
            }
        }
    }
}

const char* BoundedMplsLabelStack::check() const {
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
