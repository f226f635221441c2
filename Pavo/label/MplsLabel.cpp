#include "Pavo/label/MplsLabel.h"

#include <string_view>

namespace Pavo {

namespace {

struct NamedLabel {
    uint32_t value;
    std::string_view name;
};

constexpr NamedLabel reservedLabels[] = {
    {MplsLabel::explicitNullIpv4Value, "exp-null-v4"},
    {MplsLabel::routerAlertValue, "router-alert"},
    {MplsLabel::explicitNullIpv6Value, "exp-null-v6"},
    {MplsLabel::implicitNullValue, "imp-null"},
    {MplsLabel::entropyLabelIndicatorValue, "entropy-indicator"},
};

constexpr NamedLabel markers[] = {
    {MplsLabel::nullValue, "N/A"},
    {MplsLabel::anyLabelValue, "(any)"},
    {MplsLabel::entropyLabelValue, "(entropy)"},
    {MplsLabel::luWithdrawLabelValue, "(lu-withdraw)"},
};

}  // namespace

const char* parseUpTo(Mox::TextCursor& in, uint32_t most, uint32_t* value, const char* rangeText,
                      const char* invalid) {
    if (!in.atDigit()) {
        return invalid;
    }
    Mox::TextCursor ahead = in;
    uint32_t number = 0;
    // After a digit, no number means that it is too large for 32 bits.
    if (!ahead.decimal(&number) || number > most) {
        return rangeText;
    }
    *value = number;
    in = ahead;
    return nullptr;
}

const char* MplsLabel::parseStrep(Mox::TextCursor& in) {
    if (!in.take(std::string_view("Value('Pavo::MplsLabel', ** {'value': "))) {
        return invalidText;
    }
    const char* error = parseUpTo(in, luWithdrawLabelValue, &value_, rangeText, invalidText);
    return error != nullptr || in.take(std::string_view("})")) ? error : invalidText;
}

Mox::String MplsLabel::prettyString() const {
    return Mox::printedString([this](Mox::TextWriter& out) { printPretty(out); });
}

void MplsLabel::printPretty(Mox::TextWriter& out) const {
    for (const auto& [marker, name] : markers) {
        if (value() == marker) {
            out.text(name);
            return;
        }
    }
    for (const auto& [reserved, name] : reservedLabels) {
        if (value() == reserved) {
            out.text(name);
            out.put('(');
            out.decimal(reserved);
            out.put(')');
            return;
        }
    }
    out.decimal(value());
}

const char* MplsStackEntryIndex::parse(Mox::TextCursor& in) {
    uint32_t number = value();
    const char* error = parseUpTo(in, max, &number, rangeText, invalidText);
    valueIs(number);
    return error;
}

}  // namespace Pavo
