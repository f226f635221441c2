#include "Pavo/ip/Ip6HdrInclSocketPam.h"

#include <cerrno>
#include <utility>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

namespace {

// The options that say how packets are sent.
constexpr uint32_t txOptions =
    ipFreeBind | ipMulticastLoop | ipNoMulticastLoop | ipTransparent | ipPriority;

}  // namespace

Ip6HdrInclSocketPam::Ip6HdrInclSocketPam(Mox::String name, IpProtocolNumber protocol,
                                         NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs)) {
    batchSenderIs(sendBatch);
}

Ip6HdrInclSocketPam::~Ip6HdrInclSocketPam() = default;

void Ip6HdrInclSocketPam::enabledIsImpl(bool enable) {
    if (!enable) {
        Ip6SocketPam::enabledIsImpl(false);
        return;
    }
    txPamIs();
    const Mox::Ptr<Ip6SocketPam> inner = txPam_;
    try {
        txPamOptionsAre();
        inner->enabledIs(true);
        // From here on, since the first increment of each count is that of this endpoint's own
        // socket.
        roomAgain_ = Mox::Watch<Ip6SocketPam>(inner, Pam::writableCountAttr,
                                              [this] { writableCountInc(1); });
        Ip6SocketPam::enabledIsImpl(true);
    } catch (...) {
        txPamDisable();
        throw;
    }
}

// The inner endpoint is disabled last: an observer that is notified that this one is disabled may
// still send, or reopen it.
void Ip6HdrInclSocketPam::handleCleanup() {
    FirstException exception;
    exception.collect([this] { Ip6SocketPam::handleCleanup(); });
    exception.collect([this] { txPamDisable(); });
    exception.rethrow();
}

// Unless this endpoint has been enabled anew meanwhile.
void Ip6HdrInclSocketPam::txPamDisable() {
    if (txPam_ && !enabled()) {
        roomAgain_ = {};
        const Mox::Ptr<Ip6SocketPam> inner = txPam_;
        inner->enabledIs(false);
    }
}

void Ip6HdrInclSocketPam::optionsIsImpl(uint32_t wanted) {
    try {
        Ip6SocketPam::optionsIsImpl(wanted);
    } catch (...) {
        changeTxPamOptions();  // Some may have changed before the one that failed.
        throw;
    }
    changeTxPamOptions();
}

void Ip6HdrInclSocketPam::changeTxPamOptions() {
    if (!enabled()) {
        return;
    }
    try {
        txPamOptionsAre();
    } catch (...) {
        handleCleanup();
        throw;
    }
}

void Ip6HdrInclSocketPam::txPamOptionsAre() {
    const Mox::Ptr<Ip6SocketPam> inner = txPam_;
    inner->priorityIs(priority());
    inner->optionsIs((options() & txOptions) | ipHdrIncl);
}

void Ip6HdrInclSocketPam::txPamIs() {
    if (!txPam_) {
        txPam_ = ip6SocketPamFactory(name(), IpProtocolNumber::reserved, netNs());
    }
}

void Ip6HdrInclSocketPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled(), "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    // An observer of a count may disable the endpoint, or drop it.
    const Mox::Ptr<Ip6HdrInclSocketPam> hold(this);
    txErrnoIs(0);
    sendEnded(nullptr, sendInner(std::move(pkt)));
}

// Returns 0, or why the packet was not sent, as an `errno`.
int Ip6HdrInclSocketPam::sendInner(Mox::Ptr<Pkt> pkt) {
    const Mox::Ptr<Ip6SocketPam> inner = txPam_;
    tapTx(*pkt, /*isIpHdrWithKernel=*/false);
    inner->txDstIpAddrIs(txDstIpAddr());
    inner->txSrcIpAddrIs(txSrcIpAddr());
    inner->txIfIndexIs(txIfIndex());
    inner->txIfNameIs(txIfName());
    inner->txFlagsIs(txFlags());
    if (!inner->enabled()) {  // An observer has disabled it.
        return EBADF;
    }
    inner->txPktIs(std::move(pkt));
    return inner->txErrno();
}

uint32_t Ip6HdrInclSocketPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    Ip6HdrInclSocketPam& self = *static_cast<Ip6HdrInclSocketPam*>(pam);
    Mox::require(self.enabled(), "enabled()");
    self.txErrnoIs(0);
    const auto send = [&self](const Mox::Ptr<Pkt>& pkt) { return self.sendInner(pkt); };
    return self.sendEnded(nullptr, sendEachPkt(pkts, send));
}

Mox::Ptr<Ip6HdrInclSocketPam> ip6HdrInclSocketPamFactory(Mox::String name,
                                                         IpProtocolNumber protocol,
                                                         NamespaceName netNs) {
    return Mox::make<Ip6HdrInclSocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
