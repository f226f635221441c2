#include "Pavo/value/NamespaceName.h"

#include "netns/netns.h"

namespace Pavo {

NamespaceName NamespaceName::defaultNamespace() {
    return NamespaceName(DEFAULT_NS);
}

void NamespaceName::valueIs(const Mox::String& value) {
    if (value.bytes() > maxBytes) {
        Mox::throwRangeException(leftoverText);
    }
    value_ = value;
}

const char* NamespaceName::parse(Mox::TextCursor& in) {
    if (in.rest().size() > maxBytes) {
        return leftoverText;
    }
    value_ = Mox::String(in.rest());
    in.atIs(in.end());
    return nullptr;
}

}  // namespace Pavo
