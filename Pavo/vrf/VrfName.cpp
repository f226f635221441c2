#include "Pavo/vrf/VrfName.h"

#include <algorithm>

namespace Pavo {

void VrfName::valueIs(const Mox::String& value) {
    if (const char* error = errorOf(value)) {
        Mox::throwRangeException(error);
    }
    value_ = value;
}

const char* VrfName::parse(Mox::TextCursor& in) {
    if (const char* error = errorOf(in.rest())) {
        return error;
    }
    value_ = Mox::String(in.rest());
    in.atIs(in.end());
    return nullptr;
}

const char* VrfName::errorOf(std::string_view value) {
    if (value.empty() || value.size() > maxBytes) {
        return "VrfName::value::bytes < 1 or > 255 not allowed";
    }
    const auto isRefused = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= ' ' || byte == 0x7f;
    };
    return std::any_of(value.begin(), value.end(), isRefused) ? invalidText : nullptr;
}

}  // namespace Pavo
