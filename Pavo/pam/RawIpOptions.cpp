#include "Pavo/pam/RawIpOptions.h"

#include <linux/filter.h>

#include <cerrno>
#include <memory>
#include <new>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/pam/RawIpFamily.h"

namespace Pavo {

void socketOptionIs(int fd, int level, int option, const void* value, uint32_t bytes,
                    const char* failure) {
    if (setsockopt(fd, level, option, value, bytes) < 0) {
        Mox::throwErrnoException(failure);
    }
}

void socketPriorityIs(const RawIpFamily& family, int fd, uint32_t priority) {
    MOX_TRACE(*family.trace, 9, "Socket priority is ", priority);
    socketOptionIs(fd, SOL_SOCKET, SO_PRIORITY, priority, "setsockopt(SO_PRIORITY)");
}

namespace {

void switchIs(const RawIpOptionChange& change, bool on) {
    const RawIpOption& option = change.option;
    socketOptionIs(change.fd, option.level, option.number, int{on}, option.failure);
}

void attachFilter(const RawIpOptionChange& change) {
    static_assert(sizeof(IpFilter) == sizeof(sock_filter));
    const Mox::Array<IpFilter>& filter = change.pam.rxFilter();
    const uint32_t count = filter.members();
    if (count == 0) {
        throw Mox::ErrnoException(EINVAL,
                                  "SO_ATTACH_FILTER option must be supplied with a valid filter");
    }
    const std::unique_ptr<sock_filter[]> copy(new (std::nothrow) sock_filter[count]);
    if (!copy) {
        throw Mox::ErrnoException(ENOMEM, "malloc failed. Out of memory");
    }
    MOX_TRACE(*change.family.trace, 9, "Filter is: ");
    for (uint32_t i = 0; i < count; ++i) {
        const IpFilter& each = filter.at(i);
        copy[i] = {each.code(), each.jt(), each.jf(), each.k()};
        MOX_TRACE(*change.family.trace, 9, "Filter[", i, "] ", each);
    }
    const sock_fprog image{static_cast<unsigned short>(count), copy.get()};
    socketOptionIs(change.fd, SOL_SOCKET, SO_ATTACH_FILTER, image, "setsockopt(SO_ATTACH_FILTER)");
}

}  // namespace

void RawIpOptionSteps::plain(const Change& change) {
    switchIs(change, change.on);
}

void RawIpOptionSteps::multicastLoop(const Change& change) {
    switchIs(change, change.on && (change.pam.options() & ipNoMulticastLoop) == 0);
}

void RawIpOptionSteps::noMulticastLoop(const Change& change) {
    switchIs(change, !change.on);
}

void RawIpOptionSteps::filter(const Change& change) {
    if (change.on) {
        attachFilter(change);
    } else {
        socketOptionIs(change.fd, SOL_SOCKET, SO_DETACH_FILTER, 0, "setsockopt(SO_DETACH_FILTER)");
    }
}

// Agents know each of these texts, also the one with another spelling.
void RawIpOptionSteps::rcvBuf(const Change& change) {
    const bool isLaterChange = change.on && !change.isEnabling;
    socketOptionIs(change.fd, SOL_SOCKET, SO_RCVBUFFORCE, change.on ? change.pam.rxBuf() : 0,
                   isLaterChange ? "setsockopt(SO_RCVBUFFIRCE)" : "setsockopt(SO_RCVBUFFORCE)");
}

void RawIpOptionSteps::tos(const Change& change) {
    if (change.pam.txTOS() != IpDscp()) {
        MOX_TRACE(*change.family.trace, 9, "TOS=", change.pam.txTOS());
        change.family.tosIs(change.fd, change.pam.txTOS().value());
    }
}

void RawIpOptionSteps::ttl(const Change& change) {
    if (change.pam.txTTL() != IpTtl()) {
        change.family.ttlIs(change.fd, change.pam.txTTL().value());
    }
}

void RawIpOptionSteps::priority(const Change& change) {
    socketPriorityIs(change.family, change.fd, change.on ? change.pam.priority() : 0);
}

void RawIpOptionSteps::pktOptions(const Change& change) {
    if (change.pam.ipPktOption(ipPktRouterAlert)) {
        change.family.routerAlertIs(change.fd, true);
    }
}

}  // namespace Pavo
