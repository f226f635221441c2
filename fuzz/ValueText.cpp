// The text of any value type, small fields and names among them. The first line names the type.

#include "fuzz/ValueChecks.h"
#include "fuzz/ValueOracles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::string_view text = fuzz::asText(data, size);
    fuzz::takeNamedType(&text).text(text);
    return 0;
}
