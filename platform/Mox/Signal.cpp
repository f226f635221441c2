#include "Mox/Signal.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

namespace Mox {

namespace {

thread_local Signal* signals[NSIG] = {};

sigset_t setOf(int number) {
    sigset_t set;
    sigemptyset(&set);
    // The kernel would silently leave these two out of the set.
    if (number == SIGKILL || number == SIGSTOP || sigaddset(&set, number) < 0) {
        throw ErrnoException(EINVAL, "signal");
    }
    return set;
}

int openSignalFd(int number) {
    const sigset_t set = setOf(number);
    const int fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) {
        throwErrnoException("signalfd");
    }
    return fd;
}

}  // namespace

Signal::Signal(int number)
    : number_(number),
      fd_(fileDescriptorFactory(openSignalFd(number))),
      readable_(fd_, FileDescriptor::readableCountAttr, [this] { handleReadable(); }) {
    require(signals[number] == nullptr, "!signals[ number ]");
    fd_->notifyOnReadableIs(true);
    const sigset_t set = setOf(number);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &set, &before);
    wasBlocked_ = sigismember(&before, number) == 1;
    signals[number] = this;
}

// Here and not in the destructor, which waits while an observer of this object is called:
// `signalFactory` may be called again before that.
void Signal::zeroReferencesIs(bool zero) {
    if (zero) {
        require(signals[number_] == this, "signals[ number ] == this");
        signals[number_] = nullptr;
        fd_->close();
        if (!wasBlocked_) {
            const sigset_t set = setOf(number_);
            pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        }
    }
    Entity::zeroReferencesIs(zero);
}

String Signal::name() const {
    return String("signal ") + std::string_view(std::to_string(number_));
}

// One signal a report: the loop reports again as long as more are there.
void Signal::handleReadable() {
    signalfd_siginfo info;
    const bool got = read(fd_->descriptor(), &info, sizeof info) == sizeof info;
    fd_->readTried(got || errno != EAGAIN);
    if (got) {
        attributeInc(count_, 1, countAttr);
    }
}

Ptr<Signal> signalFactory(int number) {
    Signal* existing = number > 0 && number < NSIG ? signals[number] : nullptr;
    if (existing == nullptr) {
        return make<Signal>(number);
    }
    existing->fd_->notifyOnReadableIs(true);  // Its loop may have ended, and another one begun.
    return existing;
}

}  // namespace Mox
