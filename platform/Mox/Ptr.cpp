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
    return &fwkTypeOf<PtrInterface>();
}

void PtrInterface::lastReferenceGone() const {
    references_.store(dying, std::memory_order_relaxed);
    auto* self = const_cast<PtrInterface*>(this);
    self->notificationActive_ = false;  // What its members do last does not notify an observer.
    self->zeroReferencesIs(true);
}

}  // namespace Mox
