#include "Mox/Assert.h"

#include <cstdio>
#include <cstdlib>

#include "Mox/Trace.h"

namespace Mox {

namespace {
TraceFacility facility("Mox::Assert");
}

void assertionFailed(const char* text, const char* file, int line) {
    std::fprintf(stderr, "assertion failed: %s, %s:%d\n", text, file, line);
    MOX_TRACE(facility, 0, "assertion failed: ", text, ", ", file, ":", line);
    std::abort();
}

}  // namespace Mox
