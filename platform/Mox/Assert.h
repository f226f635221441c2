/// @file
/// Assertions, always on, also in release builds.
#pragma once

#include "Mox/Export.h"

namespace Mox {

/// Writes `text`, `file` and `line` to standard error, and to the trace where the facility
/// "Mox::Assert" has level 0 on, then aborts.
[[noreturn]] MOX_EXPORT void assertionFailed(const char* text, const char* file, int line);

/// Stops the process when `ok` is false. The text is an argument of its own, since texts of
/// assertions are interface and a formatter would change a condition that the preprocessor quotes.
inline void require(bool ok, const char* text, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
    if (__builtin_expect(!ok, 0)) {
        assertionFailed(text, file, line);
    }
}

}  // namespace Mox
