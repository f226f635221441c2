#include "Pavo/link/TapFdPam.h"

#include <cerrno>
#include <utility>

#include "Mox/Exception.h"

namespace Pavo {

TapFdPam::TapFdPam(Mox::String name) : EntityOf(std::move(name)) {}

TapFdPam::~TapFdPam() = default;

void TapFdPam::tapFdIs(int fd) {
    tap_ = nullptr;
    tap_ = Mox::fileDescriptorFactory(fd);
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
