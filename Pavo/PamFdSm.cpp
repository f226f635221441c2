#include "Pavo/PamFdSm.h"

#include <utility>

#include "Pavo/Pam.h"

namespace Pavo {

constinit const Mox::FwkType PamFdSm::type{"Pavo::PamFdSm", nullptr, {}};

class PamFdSm::FileDescReactor : public Mox::Notifiee {
  public:
    FileDescReactor(const Mox::Ptr<Mox::FileDescriptor>& fd, PamFdSm* machine)
        : Notifiee(
              fd, {Mox::FileDescriptor::readableCountAttr, Mox::FileDescriptor::writableCountAttr}),
          machine_(machine) {}

    Mox::FileDescriptor* fd() const { return static_cast<Mox::FileDescriptor*>(notifier()); }

    void handleChange(const Mox::Change& change) override {
        const Mox::Ptr<PamFdSm> hold(machine_);  // The agent may drop the PAM, and so the machine.
        if (change.is(Mox::FileDescriptor::readableCountAttr)) {
            hold->handleReadable();
        } else {
            hold->handleWritable();
        }
    }

  private:
    PamFdSm* machine_;
};

PamFdSm::PamFdSm(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam) : pam_(pam) {
    if (!fd) {
        return;
    }
    const Mox::Ptr<Pam> hold(pam);  // An observer of the first bump may drop the last reference.
    fileDesc_ = Mox::make<FileDescReactor>(fd, this);
    fd->notifyOnReadableIs(true);
    pam_->readableCountInc(1);
    if (fd->descriptor() >= 0) {
        pam_->writableCountInc(1);
    }
}

PamFdSm::~PamFdSm() = default;

const Mox::FwkType* PamFdSm::fwkType() const {
    return &type;
}

void PamFdSm::hasNotificationActiveIs(bool active) {
    PtrInterface::hasNotificationActiveIs(active);
    if (!fileDesc_) {
        return;
    }
    fileDesc_->hasNotificationActiveIs(active);
    Mox::FileDescriptor* fd = fileDesc_->fd();
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
