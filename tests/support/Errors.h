/// @file
/// What a call threw, as a text to compare.
#pragma once

#include <string>

#include "Mox/Exception.h"

/// The text of the `Mox::RangeException` that `fn` throws, or "" when it throws nothing. Any other
/// exception passes.
template <class Fn>
std::string rangeErrorOf(Fn fn) {
    try {
        fn();
    } catch (const Mox::RangeException& error) {
        return error.what();
    }
    return "";
}
