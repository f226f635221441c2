#include "Pavo/label/DynamicMplsLabelStack.h"

#include <string_view>

#include "Pavo/base/NetOrder.h"

namespace Pavo {

DynamicMplsLabelStack::DynamicMplsLabelStack(const BoundedMplsLabelStack& stack) {
    for (uint32_t i = 0; i < stack.stackSize(); ++i) {
        pushBottom(stack.label(i));
    }
    entropyLabelBitMap_ = stack.entropyLabelBitMap();
    entropyLabelIndicatorBitMap_ = stack.entropyLabelIndicatorBitMap();
}

void DynamicMplsLabelStack::serialize(uint8_t* to) const {
    storeNet(to, stackSize());
    storeNet(to + 4, entropyLabelBitMap_);
    storeNet(to + 8, entropyLabelIndicatorBitMap_);
    to += headBytes;
    for (const MplsLabel label : labels_) {
        storeNet(to, label.value());
        to += labelBytes;
    }
}

uint32_t DynamicMplsLabelStack::deserializeLen(const uint8_t* from, uint32_t bytes) {
    if (bytes < headBytes) {
        return 0;
    }
    const auto labels = loadNet<uint32_t>(from);
    return labels <= (bytes - headBytes) / labelBytes ? headBytes + labels * labelBytes : 0;
}

void DynamicMplsLabelStack::deserialize(const uint8_t* from, uint32_t bytes) {
    const uint32_t length = deserializeLen(from, bytes);
    if (length == 0 || length != bytes) {
        Mox::throwRangeException(invalidText);
    }
    DynamicMplsLabelStack fresh;
    fresh.entropyLabelBitMap_ = loadNet<uint32_t>(from + 4);
    fresh.entropyLabelIndicatorBitMap_ = loadNet<uint32_t>(from + 8);
    fresh.labels_.reserve((bytes - headBytes) / labelBytes);
    for (uint32_t at = headBytes; at < bytes; at += labelBytes) {
        const auto label = loadNet<uint32_t>(from + at);
        if (label > MplsLabel::luWithdrawLabelValue) {
            Mox::throwRangeException(invalidText);
        }
        fresh.labels_.push_back(label);
    }
    if (fresh.check() != nullptr) {
        Mox::throwRangeException(invalidText);
    }
    *this = std::move(fresh);
}

const char* DynamicMplsLabelStack::check() const {
    return checkEntries();
}

void DynamicMplsLabelStack::printStrep(Mox::TextWriter& out) const {
    out.text("DynamicMplsLabelStack(stackSize:");
    out.decimal(stackSize());
    out.text(", labels:");
    Mox::Codec<std::vector<MplsLabel>>::print(out, labels_);
    out.text(", entropyLabelBitMap:");
    out.decimal(entropyLabelBitMap_);
    out.text(", entropyLabelIndicatorBitMap:");
    out.decimal(entropyLabelIndicatorBitMap_);
    out.put(')');
}

const char* DynamicMplsLabelStack::parseStrep(Mox::TextCursor& in) {
    using namespace std::string_view_literals;
    constexpr uint32_t most = MplsLabel::luWithdrawLabelValue;
    uint32_t size = 0;
    if (!in.take("DynamicMplsLabelStack(stackSize:"sv) || !in.decimal(&size) ||
        !in.take(", labels:["sv)) {
        return invalidText;
    }
    while (!in.take(']')) {
        uint32_t label = 0;
        if (!labels_.empty() && !in.take(", "sv)) {
            return invalidText;
        }
        if (const char* error = parseUpTo(in, most, &label, MplsLabel::rangeText, invalidText)) {
            return error;
        }
        labels_.push_back(label);
    }
    const bool isRest = in.take(", entropyLabelBitMap:"sv) && in.decimal(&entropyLabelBitMap_) &&
                        in.take(", entropyLabelIndicatorBitMap:"sv) &&
                        in.decimal(&entropyLabelIndicatorBitMap_) && in.take(')');
    return isRest && size == stackSize() ? check() : invalidText;
}

}  // namespace Pavo
