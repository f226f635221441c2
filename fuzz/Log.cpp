// Attribute logs of all value types: any value that bytes can be read as, and the order of three.
// The first line names the type.

#include "fuzz/ValueChecks.h"
#include "fuzz/ValueOracles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::string_view log = fuzz::asText(data, size);
    fuzz::takeNamedType(&log).logs(log);
    return 0;
}
