#include "Pavo/pam/PamSocket.h"

#include <cerrno>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/pam/Pam.h"

namespace Pavo {

void PamSocket::watchFor(Pam* pam) {
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc_;
    if (!fd || fdSm_) {  // An observer of `enabled` may have disabled or reopened the endpoint.
        return;
    }
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(fd, pam);
    if (fileDesc_ == fd) {
        fdSm_ = machine;
    }
}

void PamSocket::close() {
    if (const Mox::Ptr<PamFdSm> machine = std::exchange(fdSm_, nullptr)) {
        machine->moxDoZombieReactors(true);  // It points to the endpoint, and others may hold it.
    }
    if (const Mox::Ptr<Mox::FileDescriptor> fd = std::exchange(fileDesc_, nullptr)) {
        fd->close();
    }
}

void PamSocket::readEnded(ReadEnd end) {
    const bool failed = end == ReadEnd::failed;
    const bool failedBefore = std::exchange(lastReadFailed_, failed);
    if (fileDesc_) {
        fileDesc_->readTried(end == ReadEnd::packets || (failed && !failedBefore));
    }
}

void PamSocket::readEnded(int error) {
    readEnded(error == 0 ? ReadEnd::packets : error == EAGAIN ? ReadEnd::empty : ReadEnd::failed);
}

void PamSocket::readIsPossibleAgain() {
    if (fileDesc_ && std::exchange(lastReadFailed_, false)) {
        fileDesc_->readTried(true);
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
