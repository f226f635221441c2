#include "fuzz/ValueChecks.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Mox/Hash.h"

#include "fuzz/ValueOracles.h"

namespace fuzz {

namespace {

template <class... T>
std::span<const ValueChecks> rowsOf(TypeList<T...>) {
    static const std::array rows = {ValueChecks{T::description().typeName, checkLogs<T>,
                                                checkText<T>, &Mox::genericIf<T>(),
                                                !Mox::HasParse<T>}...};
    return rows;
}

}  // namespace

std::span<const ValueChecks> valueChecks() {
    return rowsOf(ValueTypes());
}

const ValueChecks& takeNamedType(std::string_view* input) {
    const std::size_t newline = std::min(input->find('\n'), input->size());
    const std::string_view name = input->substr(0, newline);
    input->remove_prefix(std::min(newline + 1, input->size()));
    const auto rows = valueChecks();
    const auto named = std::ranges::find(rows, name, &ValueChecks::typeName);
    if (named != rows.end()) {
        return *named;
    }
    Mox::Hash mixer(0);
    for (const char c : name) {
        mixer.mix(static_cast<uint8_t>(c));
    }
    return rows[mixer.result() % rows.size()];
}

}  // namespace fuzz
