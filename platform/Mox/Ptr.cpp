#include "Mox/Ptr.h"

#include "Mox/FwkType.h"

namespace Mox {

constinit bool Detail::threadSafePointers = false;
constinit std::atomic<uint32_t> Detail::liveObjects = 0;

namespace {

// Far above any real count: a reference that comes and goes while the object dies must not bring
// the count to zero a second time.
constexpr uint32_t dying = 1u << 30;

}  // namespace

NotifieeList* PtrInterface::notifieeList() {
    return nullptr;
}

void PtrInterface::hasNotificationActiveIs(bool active) {
    notificationActive_ = active;
}

void PtrInterface::zeroReferencesIs(bool zero) {
    if (zero) {
        delete this;
    }
}

const FwkType* PtrInterface::fwkType() const {
    static constexpr FwkType record{"Mox::PtrInterface", nullptr, {}};
    return &record;
}

void PtrInterface::lastReferenceGone() const {
    references_ = dying;
    auto* self = const_cast<PtrInterface*>(this);
    self->notificationActive_ = false;  // An observer hears nothing of what its members do last.
    self->zeroReferencesIs(true);
}

}  // namespace Mox
