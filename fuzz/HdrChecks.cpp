// Control messages and tunnels, beside plain checks of the bytes.

#include "fuzz/HdrChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint8_t split = input.u8();
    const std::string bytes(input.rest());
    (void)fuzz::checkIpMsg(split % 2 == 0 ? bytes : fuzz::repaired(bytes), split / 2);
    fuzz::checkRecords(bytes, split / 2);
    return 0;
}
