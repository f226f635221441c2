/// @file
/// The laws of every value type in a table, so that they are compiled once for all that check them.
#pragma once

#include <span>
#include <string_view>

#include "Mox/GenericIf.h"

namespace fuzz {

struct ValueChecks {
    std::string_view typeName;
    /// What must hold for the values that a log can be read as, and for the order of three.
    void (*logs)(std::string_view log);
    /// What must hold for a text.
    void (*text)(std::string_view text);
    const Mox::GenericIf* about;
    bool isRecord;
};

/// A row for each of `ValueTypes`, in their order.
std::span<const ValueChecks> valueChecks();

/// Takes the first line, which names a type, off `input`. An unknown name chooses a type too, by
/// its hash, so that every type is reached.
const ValueChecks& takeNamedType(std::string_view* input);

}  // namespace fuzz
