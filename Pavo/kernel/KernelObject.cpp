#include "Pavo/kernel/KernelObject.h"

#include "Pavo/base/FirstException.h"

namespace Pavo {

void KernelObject::announce(uint64_t changed,
                            std::initializer_list<const Mox::AttributeBase*> attributes) {
    FirstException exception;
    for (const Mox::AttributeBase* const each : attributes) {
        if ((changed >> each->number & 1) != 0) {
            exception.collect([&] { notifieeList()->notify({*each, nullptr}); });
        }
    }
    exception.rethrow();
}

}  // namespace Pavo
