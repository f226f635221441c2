#include "Pavo/value/NamespaceName.h"

#include "netns/netns.h"

namespace Pavo {

NamespaceName NamespaceName::defaultNamespace() {
    return NamespaceName(DEFAULT_NS);
}

void NamespaceName::valueIs(const Mox::String& value) {
    if (const char* error = errorOf(value)) {
        Mox::throwRangeException(error);
    }
    value_ = value;
}

const char* NamespaceName::parse(Mox::TextCursor& in) {
    if (const char* error = errorOf(in.rest())) {
        return error;
    }
    value_ = Mox::String(in.rest());
    in.atIs(in.end());
    return nullptr;
}

const char* NamespaceName::errorOf(std::string_view value) {
    if (value.size() > maxBytes) {
        return "NamespaceName::value::bytes > 150 not allowed";
    }
    return value.find('\0') != value.npos ? invalidText : nullptr;
}

}  // namespace Pavo
