// Addresses and prefixes of either family, as text.

#include "fuzz/ValueOracles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::checkTextAs(fuzz::IpGenTypes(), data, size);
    return 0;
}
