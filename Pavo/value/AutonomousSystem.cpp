#include "Pavo/value/AutonomousSystem.h"

namespace Pavo {

const char* AutonomousSystem::parseText(Mox::TextCursor& in) {
    uint32_t low = 0;
    if (!in.decimal(&value_)) {
        return invalidText;
    }
    if (!in.take('.')) {
        return nullptr;
    }
    if (!in.decimal(&low) || value_ > 0xffff || low > 0xffff) {
        return invalidText;
    }
    value_ = value_ << 16 | low;
    return nullptr;
}

Mox::String AutonomousSystem::displayString(bool asdot) const {
    return Mox::printedString([&](Mox::TextWriter& out) { printDisplay(out, asdot); });
}

void AutonomousSystem::printDisplay(Mox::TextWriter& out, bool asdot) const {
    if (!asdot || value_ <= 65535) {
        out.decimal(value_);
        return;
    }
    out.decimal(value_ >> 16);
    out.put('.');
    out.decimal(value_ & 0xffff);
}

}  // namespace Pavo
