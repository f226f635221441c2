// Autonomous systems and route distinguishers, as text.

#include "fuzz/ValueOracles.h"

namespace {

using Pavo::RouteDistinguisher;

// `stringValueIs` reads records and printed forms; a printed form gives itself again.
void checkDistinguisher(std::string_view text) {
    RouteDistinguisher value;
    const std::string error = fuzz::rangeErrorOf([&] { value.stringValueIs(Mox::String(text)); });
    const auto record = Mox::tryParse<RouteDistinguisher>(text);
    Mox::require(!record || *record == value, "a record is one here too");
    if (!error.empty()) {
        Mox::require(value == RouteDistinguisher(), "a failure changes nothing");
        return;
    }
    fuzz::checkValue(value);
    for (const bool asdot : {false, true}) {
        const Mox::String printed = value.displayString(asdot);
        RouteDistinguisher again;
        again.stringValueIs(printed);
        Mox::require(again.displayString(asdot) == printed, "text, value, text");
        // Small administrators of type 2 become those of type 0; a record may say anything.
        const bool loses = value.valid() && value.rdType() == RouteDistinguisher::type2 &&
                           value.type2Administrator().value() <= 65535;
        Mox::require(loses || record || again == value, "value, text, value");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::asText(data, size);
    fuzz::checkText<Pavo::AutonomousSystem>(text);
    checkDistinguisher(text);
    return 0;
}
