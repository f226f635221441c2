#include "Pavo/pam/PamFdSm.h"

#include <utility>

#include "Pavo/pam/Pam.h"

namespace Pavo {

PamFdSm::PamFdSm(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam) : ReadinessSm(fd), pam_(pam) {
    if (!fd) {
        return;
    }
    const Mox::Ptr<Pam> hold(pam);  // An observer of the first count may drop the last reference.
    fd->notifyOnReadableIs(true);
    pam_->readableCountInc(1);
    if (fd->descriptor() >= 0) {
        pam_->writableCountInc(1);
    }
}

PamFdSm::~PamFdSm() = default;

void PamFdSm::hasNotificationActiveIs(bool active) {
    PtrInterface::hasNotificationActiveIs(active);
    if (!isAttached()) {
        return;
    }
    reactorActiveIs(active);
    const Mox::Ptr<Mox::FileDescriptor> fd(notifier());
    if (!active) {
        readsAgain_ = fd->notifyOnReadable();
        fd->notifyOnReadableIs(false);
    } else if (std::exchange(readsAgain_, false) && fd->descriptor() >= 0) {
        fd->notifyOnReadableIs(true);
    }
}

void PamFdSm::moxDoZombieReactors(bool zombie) {
    if (zombie) {
        detach();
    }
}

// Where an observer throws, those after it are not notified: another report reaches them.
void PamFdSm::handleReadable() {
    const Mox::Ptr<Mox::FileDescriptor> fd(notifier());
    try {
        pam_->readableCountInc(1);
    } catch (...) {
        fd->readTried(true);
        throw;
    }
}

void PamFdSm::handleWritable() {
    pam_->writableCountInc(1);
}

Mox::Ptr<PamFdSm> PamFdSmIs(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam) {
    return Mox::make<PamFdSm>(std::move(fd), pam);
}

}  // namespace Pavo
