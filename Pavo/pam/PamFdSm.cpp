#include "Pavo/pam/PamFdSm.h"

#include <utility>

#include "Pavo/pam/Pam.h"
#include "Pavo/pam/ReadinessReactor.h"

namespace Pavo {

PamFdSm::PamFdSm(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam) : pam_(pam) {
    if (!fd) {
        return;
    }
    const Mox::Ptr<Pam> hold(pam);  // An observer of the first bump may drop the last reference.
    fileDesc_ = Mox::make<ReadinessReactor<Mox::FileDescriptor, PamFdSm>>(fd, this);
    fd->notifyOnReadableIs(true);
    pam_->readableCountInc(1);
    if (fd->descriptor() >= 0) {
        pam_->writableCountInc(1);
    }
}

PamFdSm::~PamFdSm() = default;

void PamFdSm::hasNotificationActiveIs(bool active) {
    PtrInterface::hasNotificationActiveIs(active);
    if (!fileDesc_) {
        return;
    }
    fileDesc_->hasNotificationActiveIs(active);
    auto* fd = static_cast<Mox::FileDescriptor*>(fileDesc_->notifier());
    if (!active) {
        readsAgain_ = fd->notifyOnReadable();
        fd->notifyOnReadableIs(false);
    } else if (std::exchange(readsAgain_, false) && fd->descriptor() >= 0) {
        fd->notifyOnReadableIs(true);
    }
}

void PamFdSm::zeroReferencesIs(bool zero) {
    if (zero) {
        moxDoZombieReactors(true);
    }
    PtrInterface::zeroReferencesIs(zero);
}

void PamFdSm::moxDoZombieReactors(bool zombie) {
    if (zombie && fileDesc_) {
        fileDesc_->notifierIs(nullptr);
        fileDesc_ = nullptr;
    }
}

void PamFdSm::handleReadable() {
    pam_->readableCountInc(1);
}

void PamFdSm::handleWritable() {
    pam_->writableCountInc(1);
}

Mox::Ptr<PamFdSm> PamFdSmIs(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam) {
    return Mox::make<PamFdSm>(std::move(fd), pam);
}

}  // namespace Pavo
