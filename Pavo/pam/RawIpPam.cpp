#include "Pavo/pam/RawIpPam.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/pam/McastGroup.h"
#include "Pavo/pam/RawIpFamily.h"
#include "Pavo/pam/RawIpOptions.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

int RawIpPam::socket() const {
    return fileDesc()->descriptor();
}

void RawIpPam::enabledIsImpl(bool enable) {
    if (!enable) {
        handleCleanup();
        return;
    }
    open();
    start();
}

void RawIpPam::applyOption(const RawIpOption& option, int fd, bool on, bool isEnabling) const {
    option.apply({family_, option, *this, fd, on, isEnabling});
}

void RawIpPam::open() {
    Mox::require(Mox::EventLoop::current() != nullptr,
                 "EventLoop::current(): enabling needs an event loop on this thread");
    const int fd =
        socketAt(family_.domain, SOCK_RAW, static_cast<int>(protocol()), netNs().value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    for (const RawIpOption& each : family_.options) {
        if (each.bit == none || (options() & each.bit) != 0) {
            applyOption(each, fd, /*on=*/true, /*isEnabling=*/true);
        }
    }
    descriptor->nonBlockingIs(true);
    socketDrops_ = 0;
    fileDescIs(descriptor);
}

void RawIpPam::start() {
    try {
        // Before the machine first increments the counts, on which agents read and write.
        enabledStore(true);
        fdSmIs();
    } catch (...) {
        handleCleanup();
        throw;
    }
}

void RawIpPam::handleCleanup() {
    fileDescDel();
    enabledStore(false);
}

// One bit after the other, so that after a failure `options` describes the socket.
void RawIpPam::optionsIsImpl(uint32_t wanted) {
    if (!fileDesc()) {
        optionsStore(wanted);
        return;
    }
    uint32_t reached = options();
    for (const RawIpOption& each : family_.options) {
        if (((wanted ^ reached) & each.bit) == 0) {
            continue;
        }
        try {
            applyOption(each, socket(), (wanted & each.bit) != 0, /*isEnabling=*/false);
        } catch (...) {
            optionsStore(reached);
            if (each.closesOnFailure) {
                handleCleanup();
            }
            throw;
        }
        reached ^= each.bit;
    }
    optionsStore(wanted);
}

void RawIpPam::handleTxTOS() {
    if (fileDesc()) {
        handleTxTos();
    }
}

void RawIpPam::handleTxTTL() {
    if (fileDesc()) {
        handleTxTtl();
    }
}

void RawIpPam::handleTxTos() const {
    family_.tosIs(socket(), txTOS().value());
    if ((options() & ipPriority) != 0) {
        socketPriorityIs(family_, socket(), priority());
    }
}

void RawIpPam::handleTxTtl() const {
    family_.ttlIs(socket(), txTTL() == IpTtl() ? -1 : int{txTTL().value()});
}

void RawIpPam::ipPktOptionIs(IpPktOption option, bool wanted) {
    const Mox::Set<IpPktOption> before = ipPktOptions_;
    if (wanted ? !ipPktOptions_.add(option) : !ipPktOptions_.del(option)) {
        return;
    }
    try {
        setIpPktOptions();
    } catch (...) {
        ipPktOptions_ = before;
        throw;
    }
    notify(ipPktOptionAttr, option);
}

void RawIpPam::ipPktOptionDelAll() {
    ipPktOptionDel(ipPktRouterAlert);
}

void RawIpPam::setIpPktOptions() {
    if (fileDesc()) {
        family_.routerAlertIs(socket(), ipPktOption(ipPktRouterAlert));
    }
}

void RawIpPam::doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group) {
    Mox::require(enabled(), "enabled()");
    membershipIs(ifIndex, group, true);
}

void RawIpPam::doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group) {
    Mox::require(enabled(), "enabled()");
    membershipIs(ifIndex, group, false);
}

void RawIpPam::membershipIs(uint32_t ifIndex, const IpGenAddr& group, bool member) {
    const char* failure = member ? family_.joinFailure : family_.leaveFailure;
    if (group.af() != family_.addressFamily) {
        throw Mox::ErrnoException(EAFNOSUPPORT, failure);
    }
    if (!fileDesc()) {
        return;
    }
    const int result = group.af() == ipv4
                           ? doJoinLeaveMcastGroup(socket(), ifIndex, group.v4Addr(), member)
                           : doJoinLeaveMcastGroup(socket(), ifIndex, group.v6Addr(), member);
    if (result < 0) {
        Mox::throwErrnoException(failure);
    }
}

}  // namespace Pavo
