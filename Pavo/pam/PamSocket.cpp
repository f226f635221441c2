#include "Pavo/pam/PamSocket.h"

#include <cerrno>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamMux.h"
#include "Pavo/pam/ReadinessSm.h"
#include "Pavo/socket/deferClose.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::PamSocket");

}  // namespace

/// Does for a client of a multiplexer what `PamFdSm` does for a descriptor.
class PamClientSm : public ReadinessSm<PamClientSm, Pam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::PamClientSm"); }

    PamClientSm(const Mox::Ptr<PamMuxPam>& client, Pam* pam)
        : ReadinessSm(Mox::Ptr<Pam>(client)), pam_(pam) {}

    void handleReadable() {
        const Mox::Ptr<PamMuxPam> client(static_cast<PamMuxPam*>(notifier()));
        try {
            pam_->readableCountInc(1);
        } catch (...) {
            client->readTried(false);
            client->readableIs();
            throw;
        }
    }
    void handleWritable() { pam_->writableCountInc(1); }
    void moxDoZombieReactors(bool zombie) {
        if (zombie) {
            detach();
        }
    }

  private:
    Pam* pam_;
};

PamSocket::PamSocket() = default;

PamSocket::~PamSocket() {
    try {
        close();
    } catch (const std::exception& error) {
        MOX_TRACE(facility, 1, "an observer of a closed descriptor has thrown : ", error.what());
    }
}

void PamSocket::clientIs(Mox::Ptr<PamMuxPam> client) {
    client_ = std::move(client);
}

void PamSocket::watchFor(Pam* pam) {
    if (client_ && !clientSm_) {
        const auto machine = Mox::make<PamClientSm>(client_, pam);
        clientSm_ = machine;
        const Mox::Ptr<Pam> hold(pam);
        pam->readableCountInc(1);
        if (clientSm_ == machine) {
            pam->writableCountInc(1);
        }
        return;
    }
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc_;
    if (!fd || fdSm_) {  // An observer of `enabled` may have disabled or reopened the endpoint.
        return;
    }
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(fd, pam);
    if (fileDesc_ == fd) {
        fdSm_ = machine;
    }
}

Mox::Ptr<Mox::FileDescriptor> PamSocket::giveUp() {
    if (const Mox::Ptr<PamClientSm> machine = std::exchange(clientSm_, nullptr)) {
        machine->moxDoZombieReactors(true);
    }
    client_ = nullptr;
    lastReadFailed_ = false;
    if (const Mox::Ptr<PamFdSm> machine = std::exchange(fdSm_, nullptr)) {
        machine->moxDoZombieReactors(true);  // It points to the endpoint, and others may hold it.
    }
    return std::exchange(fileDesc_, nullptr);
}

void PamSocket::close() {
    const Mox::Ptr<Mox::FileDescriptor> fd = giveUp();
    if (!fd || !closesLater_) {
        fd ? fd->close() : void();
        return;
    }
    const int number = fd->descriptor();
    FirstException exception;
    exception.collect([&] { (void)fd->descriptorRelease(); });  // Notifies of the interests.
    number >= 0 ? (void)deferClose(number) : void();
    exception.rethrow();
}

void PamSocket::readEnded(ReadEnd end) {
    const bool failed = end == ReadEnd::failed;
    const bool failedBefore = std::exchange(lastReadFailed_, failed);
    readTried(end == ReadEnd::packets || (failed && !failedBefore));
}

void PamSocket::readTried(bool reportsAgain) {
    if (fileDesc_) {
        fileDesc_->readTried(reportsAgain);
    } else if (client_) {
        client_->readTried(reportsAgain);
    }
}

void PamSocket::readEnded(int error) {
    readEnded(error == 0 ? ReadEnd::packets : error == EAGAIN ? ReadEnd::empty : ReadEnd::failed);
}

void PamSocket::readIsPossibleAgain() {
    if (std::exchange(lastReadFailed_, false)) {
        readTried(true);
    }
}

void waitForRoom(const Mox::Ptr<Mox::FileDescriptor>& fd, const Mox::TraceFacility& trace) {
    try {
        fd->writeMetNoRoom();
    } catch (const Mox::ErrnoException& error) {
        if (fd->notifyOnWritable()) {
            throw;  // From an observer of the interest.
        }
        MOX_TRACE(trace, 1, "cannot wait for room : ", error.what());
    }
}

bool isNoRoom(int error) {
    return error == EAGAIN || error == ENOBUFS;
}

}  // namespace Pavo
