#include "Pavo/value/AutonomousSystem.h"

namespace Pavo {

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
