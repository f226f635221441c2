#include "Pavo/kernel/ScopedNetNs.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

#include "Pavo/kernel/NsUtils.h"

namespace Pavo {

// Not PROC_SELF_NS_NET_FILE, which off the main thread is another thread's namespace.
NetNsReturn::NetNsReturn() : fd_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {}

NetNsReturn::~NetNsReturn() {
    Mox::require(!isArmed_ || goBack(), "setns( curr_netns_fd, 0x40000000 ) == 0");
    Mox::require(!isOpen() || close(fd_) == 0, "close( curr_netns_fd ) == 0");
}

bool NetNsReturn::goBack() {
    isArmed_ = setns(fd_, CLONE_NEWNET) != 0;
    return !isArmed_;
}

ScopedNetNs::ScopedNetNs(const char* name) {
    if (!wayBack_.isOpen()) {
        Mox::throwErrnoException("Cannot open /proc/self/ns/net");
    }
    if (setNsByName(name) != 0) {
        const int error = errno;
        throw Mox::ErrnoException(
            error, Mox::String("Cannot setns to ") + (name == nullptr ? DEFAULT_NS : name));
    }
    wayBack_.arm();
}

}  // namespace Pavo
