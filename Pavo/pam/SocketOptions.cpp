#include "Pavo/pam/SocketOptions.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "Mox/Exception.h"

namespace Pavo {

void configureSocket(SocketOptionTable table, const SocketSettings& settings, int fd) {
    for (const SocketOption& each : table) {
        if (each.bit == none || (settings.options & each.bit) != 0) {
            each.apply({settings, each, fd, /*on=*/true, /*isEnabling=*/true});
        }
    }
}

void changeSocketOptions(SocketOptionTable table, const SocketSettings& settings, int fd,
                         uint32_t wanted, uint32_t* reached, bool* closes) {
    for (const SocketOption& each : table) {
        if (((wanted ^ *reached) & each.bit) != 0) {
            *closes = each.closesOnFailure;
            each.apply({settings, each, fd, (wanted & each.bit) != 0, /*isEnabling=*/false});
            *reached ^= each.bit;
        }
    }
    *reached = wanted;  // With the bits that this kind of socket has no option for.
}

void socketOptionIs(int fd, int level, int option, const void* value, uint32_t bytes,
                    const char* failure) {
    if (setsockopt(fd, level, option, value, bytes) < 0) {
        Mox::throwErrnoException(failure);
    }
}

void socketPriorityIs(const Mox::TraceFacility& trace, int fd, uint32_t priority) {
    MOX_TRACE(trace, 9, "Socket priority is ", priority);
    socketOptionIs(fd, SOL_SOCKET, SO_PRIORITY, priority, "setsockopt(SO_PRIORITY)");
}

void attachSocketFilter(const Mox::TraceFacility& trace, int fd, std::span<const sock_filter> first,
                        const Mox::Array<IpFilter>& filter) {
    static_assert(sizeof(IpFilter) == sizeof(sock_filter));
    const std::size_t count = first.size() + filter.members();
    if (count == 0) {
        throw Mox::ErrnoException(EINVAL, noFilterText);
    }
    if (count > BPF_MAXINSNS) {
        throw Mox::ErrnoException(EINVAL, "setsockopt(SO_ATTACH_FILTER)");
    }
    const std::unique_ptr<sock_filter[]> program(new (std::nothrow) sock_filter[count]);
    if (!program) {
        throw Mox::ErrnoException(ENOMEM, "malloc failed. Out of memory");
    }
    sock_filter* next = std::copy(first.begin(), first.end(), program.get());
    MOX_TRACE(trace, 9, "Filter is: ");
    for (uint32_t i = 0; i < filter.members(); ++i) {
        const IpFilter& each = filter.at(i);
        *next++ = {each.code(), each.jt(), each.jf(), each.k()};
        MOX_TRACE(trace, 9, "Filter[", i, "] ", each);
    }
    const sock_fprog image{static_cast<unsigned short>(count), program.get()};
    socketOptionIs(fd, SOL_SOCKET, SO_ATTACH_FILTER, image, "setsockopt(SO_ATTACH_FILTER)");
}

int interfaceIndexAt(int fd, const Mox::String& name) {
    ifreq request{};
    if (name.bytes() >= sizeof(request.ifr_name)) {
        errno = ENODEV;
        return -1;
    }
    std::memcpy(request.ifr_name, name.data(), name.bytes());
    return ioctl(fd, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

namespace {

void switchIs(const SocketOptionChange& change, bool on) {
    const SocketOption& option = change.option;
    socketOptionIs(change.fd, option.level, option.number, int{on}, option.failure);
}

}  // namespace

void SocketOptionSteps::plain(const Change& change) {
    switchIs(change, change.on);
}

void SocketOptionSteps::multicastLoop(const Change& change) {
    switchIs(change, change.on && (change.settings.options & ipNoMulticastLoop) == 0);
}

void SocketOptionSteps::noMulticastLoop(const Change& change) {
    switchIs(change, !change.on);
}

void SocketOptionSteps::filter(const Change& change) {
    if (change.on) {
        attachSocketFilter(change.settings.trace, change.fd, {}, change.settings.rxFilter);
    } else {
        socketOptionIs(change.fd, SOL_SOCKET, SO_DETACH_FILTER, 0, "setsockopt(SO_DETACH_FILTER)");
    }
}

// Agents know each of these texts, also the one with another spelling.
void SocketOptionSteps::rcvBuf(const Change& change) {
    const bool isLaterChange = change.on && !change.isEnabling;
    socketOptionIs(change.fd, SOL_SOCKET, SO_RCVBUFFORCE, change.on ? change.settings.rxBuf : 0,
                   isLaterChange ? "setsockopt(SO_RCVBUFFIRCE)" : "setsockopt(SO_RCVBUFFORCE)");
}

void SocketOptionSteps::priority(const Change& change) {
    socketPriorityIs(change.settings.trace, change.fd, change.on ? change.settings.priority : 0);
}

}  // namespace Pavo
