#include "Pavo/link/TapFdPam.h"

#include <cerrno>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/socket/deferClose.h"

namespace Pavo {

TapFdPam::TapFdPam(Mox::String name) : EntityOf(std::move(name)) {}

TapFdPam::~TapFdPam() {
    tapDel();
}

void TapFdPam::tapFdIs(int fd) {
    if (!tap_ || tap_->descriptor() != fd) {
        tapDel();
        tap_ = Mox::fileDescriptorFactory(fd);
    }
}

// A device is never closed on the thread of the loop.
void TapFdPam::tapDel() {
    const Mox::Ptr<Mox::FileDescriptor> tap = std::exchange(tap_, nullptr);
    if (tap && tap->descriptor() >= 0) {
        (void)deferClose(tap->descriptorRelease());
    }
}

Mox::Ptr<Mox::FileDescriptor> TapFdPam::newTap() {
    if (!tap_) {
        throw Mox::ErrnoException(EBADF, "tapFd");
    }
    return std::exchange(tap_, nullptr);
}

void TapFdPam::handleTapGone() {}

Mox::Ptr<TapFdPam> tapFdPamFactory(Mox::String name, int tapFd) {
    const Mox::Ptr<TapFdPam> pam = Mox::make<TapFdPam>(std::move(name));
    pam->tapFdIs(tapFd);
    return pam;
}

}  // namespace Pavo
