/// @file
/// Numbers of VRFs.
#pragma once

#include <cstdint>

#include "Pavo/base/Ordinal.h"

namespace Pavo {

/// The number that stands for a VRF while the process runs: what agents put into keys and tables in
/// place of the name. `VrfMap` assigns them. The default, 0, is the default VRF.
class VrfId : public Ordinal<VrfId, uint32_t, UINT32_MAX> {
  public:
    using Ordinal::Ordinal;

    /// 0.
    constexpr bool isDefault() const { return value() == 0; }

    static constexpr const char* typeName = "Pavo::VrfId";
    static constexpr const char* rangeText = "VrfId::value < 0 or > 4294967295 not allowed";
};
static_assert(sizeof(VrfId) == 4);

}  // namespace Pavo
