// Small header fields, network-order fields and names, as text. The first line names the type.

#include "fuzz/ValueOracles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::withNamedType(
        fuzz::joined(fuzz::FieldTypes(), fuzz::TransportTypes()), fuzz::asText(data, size),
        []<class T>(std::type_identity<T>, std::string_view text) { fuzz::checkText<T>(text); });
    return 0;
}
