// Attribute logs of all value types: any value that bytes can be read as, and the order of three.
// The first line names the type.

#include "fuzz/ValueOracles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::withNamedType(
        fuzz::ValueTypes(), fuzz::asText(data, size),
        []<class T>(std::type_identity<T>, std::string_view log) { fuzz::checkLogs<T>(log); });
    return 0;
}
