/// @file
/// The framework's record of a class.
#pragma once

#include <cstdint>
#include <span>

namespace Mox {

/// What observers name an attribute by: a small number, unique in the chain of an entity's classes,
/// and the attribute's name.
struct AttributeBase {
    uint8_t number;
    const char* name;
};

/// A class's qualified name, its base's record, and the attributes it adds.
struct FwkType {
    const char* name;
    const FwkType* base;
    std::span<const AttributeBase* const> attributes;
};

}  // namespace Mox
