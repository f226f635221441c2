// MAC addresses, 64-bit identifiers, and MAC addresses with a mask, as text.

#include "fuzz/ValueOracles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::checkTextAs(fuzz::EthTypes(), data, size);
    return 0;
}
