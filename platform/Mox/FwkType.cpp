#include "Mox/FwkType.h"

#include "Mox/ValueType.h"

namespace Mox {

std::optional<String> attributeText(const PtrInterface& object, std::string_view name) {
    const AttributeRecord* const record = object.fwkType()->attribute(name);
    if (record == nullptr || record->print == nullptr) {
        return std::nullopt;
    }
    return printedString([&](TextWriter& out) { record->print(object, out); });
}

}  // namespace Mox
