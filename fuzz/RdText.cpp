// Autonomous systems and route distinguishers, as text.

#include <optional>

#include "fuzz/ValueOracles.h"

namespace {

using Pavo::RouteDistinguisher;

// The value of a record or of a printed form, which `stringValueIs` and `tryParse` read alike.
template <class T>
std::optional<T> valueOf(std::string_view text) {
    T value;
    const std::string error = fuzz::rangeErrorOf([&] { value.stringValueIs(Mox::String(text)); });
    const auto parsed = Mox::tryParse<T>(text);
    Mox::require(parsed.has_value() == error.empty(), "the same texts");
    Mox::require(value == parsed.value_or(T()), "the same value, and no change on failure");
    if (parsed) {
        fuzz::checkValue(value);
    }
    return parsed;
}

// A printed form gives itself again.
void checkDistinguisher(std::string_view text) {
    const auto value = valueOf<RouteDistinguisher>(text);
    if (!value) {
        return;
    }
    for (const bool asdot : {false, true}) {
        const Mox::String printed = value->displayString(asdot);
        RouteDistinguisher again;
        again.stringValueIs(printed);
        Mox::require(again.displayString(asdot) == printed, "text, value, text");
        // Small administrators of type 2 become those of type 0; a record may say anything.
        const bool loses = value->valid() && value->rdType() == RouteDistinguisher::type2 &&
                           value->type2Administrator().value() <= 65535;
        Mox::require(loses || text.starts_with("Value(") || again == *value, "value, text, value");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::asText(data, size);
    if (const auto number = valueOf<Pavo::AutonomousSystem>(text)) {
        for (const bool asdot : {false, true}) {
            const Mox::String printed = number->displayString(asdot);
            Mox::require(Mox::fromText<Pavo::AutonomousSystem>(printed) == *number, "a number");
        }
    }
    checkDistinguisher(text);
    return 0;
}
