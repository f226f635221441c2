#include "Pavo/ip/RawIpPam.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/ip/RawIpFamily.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

RawIpPam::RawIpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs,
                   const RawIpFamily& family)
    : EntityOf(std::move(name), protocol, std::move(netNs)),
      family_(family),
      receiver_(std::make_unique<PktReceiver>(*family.trace, family.className)) {
    tapsWhatItSendsIs(true);
    batchSenderIs(sendBatch);
}

RawIpPam::~RawIpPam() = default;

void RawIpPam::transportIs(std::unique_ptr<IpTransport> transport) {
    Mox::require(!enabled(), "!enabled()");
    transport_ = std::move(transport);
}

int RawIpPam::socket() const {
    return pamSocket().number();
}

SocketSettings RawIpPam::socketSettings() const {
    return {*this,      *family_.trace, &family_.ip(), options(),
            rxFilter(), rxBuf(),        priority(),    txTOS()};
}

void RawIpPam::enabledIsImpl(bool enable) {
    if (!enable) {
        handleCleanup();
        return;
    }
    open();
    start();
}

void RawIpPam::open() {
    if (transport_) {
        transport_->open(family_.ip().addressFamily(), &pamSocket());
        return;
    }
    Mox::require(Mox::EventLoop::current() != nullptr,
                 "EventLoop::current(): enabling needs an event loop on this thread");
    const int fd = socketAt(family_.ip().names().domain, SOCK_RAW, static_cast<int>(protocol()),
                            netNs().value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    configureSocket(family_.options, socketSettings(), fd);
    descriptor->nonBlockingIs(true);
    receiver_->formatIs(family_.ip());
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
    if (transport_) {
        transport_->close();
    }
    FirstException exception;
    exception.collect([this] { fileDescDel(); });
    exception.collect([this] { enabledStore(false); });
    exception.rethrow();
}

void RawIpPam::optionsIsImpl(uint32_t wanted) {
    if (!fileDesc()) {
        optionsStore(wanted);
        return;
    }
    uint32_t reached = options();
    bool closes = false;
    try {
        changeSocketOptions(family_.options, socketSettings(), socket(), wanted, &reached, &closes);
    } catch (...) {
        const Mox::Ptr<Mox::FileDescriptor> refusing = fileDesc();
        FirstException exception;
        exception.collect([] { throw; });
        exception.collect([&] { optionsStore(reached); });
        if (closes && fileDesc() == refusing) {  // An observer may have opened another one.
            exception.collect([this] { handleCleanup(); });
        }
        exception.rethrow();
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
    socketTosIs(socketSettings(), socket());
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
    if (transport_) {
        transport_->membershipIs(ifIndex, group, nullptr, member);
    } else if (group.af() != family_.ip().addressFamily() || fileDesc()) {
        family_.ip().membershipIs(fileDesc() ? socket() : -1, ifIndex, group, member);
    }
}

}  // namespace Pavo
