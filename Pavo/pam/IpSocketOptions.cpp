#include "Pavo/pam/IpSocketOptions.h"

#include <string>

namespace Pavo {

Mox::String ipSocketOptionsText(uint32_t options) {
    if (options == none) {
        return stringValue(none);
    }
    std::string text;
    for (const auto& each : Mox::enumTable<IpSocketOptions>.members) {
        if ((options & each.value) != 0) {
            text.append(text.empty() ? "" : "|").append(each.name);
            options &= ~uint32_t{each.value};
        }
    }
    if (options != 0) {
        text.append(text.empty() ? "" : "|").append(std::to_string(options));
    }
    return Mox::String(text);
}

}  // namespace Pavo
