#include "Pavo/ip/Ip6Pam.h"

#include <algorithm>
#include <utility>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"

namespace Pavo {

namespace {

constexpr uint32_t reported = ipPktInfo | ipRecvTOS | ipRecvTTL;

IpProtocolNumber protocolOf(Ip6Pam::Mode mode) {
    switch (mode) {
        case Ip6Pam::Mode::icmp6:
            return IpProtocolNumber::ipv6Icmp;
        case Ip6Pam::Mode::vrrp:
            return IpProtocolNumber::vrrp;
        default:
            return IpProtocolNumber::ipv6NoNxt;
    }
}

}  // namespace

Ip6Pam::Ip6Pam(Mox::String name, Mode mode, NamespaceName netNs)
    : EntityOf(std::move(name), protocolOf(mode), std::move(netNs)), mode_(mode) {
    optionsStore(reported);
    if (mode == Mode::test) {
        batchSenderIs(nullptr);
    }
}

Ip6Pam::~Ip6Pam() = default;

void Ip6Pam::enabledIsImpl(bool enable) {
    if (mode_ != Mode::test || !enable) {
        Ip6SocketPam::enabledIsImpl(enable);
        return;
    }
    start();
    try {
        // As the machine of a socket does when it is made, and a report for each packet that waits.
        for (uint32_t reports = std::max(testBuff(TestBuff::rx).members(), 1u);
             reports > 0 && enabled(); --reports) {
            readableCountInc(1);
        }
        if (enabled()) {
            writableCountInc(1);
        }
    } catch (...) {
        handleCleanup();
        throw;
    }
}

void Ip6Pam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    if (mode_ != Mode::test) {
        Ip6SocketPam::txPktIsImpl(std::move(pkt));
        return;
    }
    Mox::require(enabled(), "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    const Mox::Ptr<Ip6Pam> hold(this);
    tapTx(*pkt, /*isIpHdrWithKernel=*/true);
    txErrnoIs(0);
    if (const int error = addressError()) {
        sendEnded(nullptr, error);
        return;
    }
    const Mox::Ptr<Pkt> copy = globalPktManager()->newPkt();
    copy->bytesValueIs(pkt->bytesValue(), /*atTail=*/true);
    testBuffPush(TestBuff::tx, {copy, txSrcIpAddr().v6Addr(), txDstIpAddr().v6Addr(), txIfIndex(),
                                txTTL().value(), txTOS().value()});
    sendEnded(nullptr, 0);
}

void Ip6Pam::testBuffPush(TestBuff buff, Ip6PktInfo info) {
    Mox::require(info.pkt != nullptr, "info.pkt");
    testBuffs_[static_cast<uint32_t>(buff)].push(std::move(info));
    if (buff == TestBuff::rx && enabled()) {
        readableCountInc(1);
    }
}

Ip6PktInfo Ip6Pam::testBuffPop(TestBuff buff) {
    Mox::Queue<Ip6PktInfo>& queue = testBuffs_[static_cast<uint32_t>(buff)];
    return queue.empty() ? Ip6PktInfo() : queue.pop();
}

void Ip6Pam::doGetRxPktSingle() {
    if (mode_ == Mode::test && enabled()) {
        testRead();
        return;
    }
    Ip6SocketPam::doGetRxPktSingle();
    countFaults();
}

int32_t Ip6Pam::doGetRxPktBulk() {
    if (mode_ == Mode::test && enabled()) {
        return testBulkRead();
    }
    const int32_t packets = Ip6SocketPam::doGetRxPktBulk();
    countFaults();
    return packets;
}

RxInfo Ip6Pam::rxInfoOf(const Ip6PktInfo& info) const {
    RxInfo rx = newRxInfo();
    rx.srcIpAddr = info.src;
    rx.dstIpAddr = info.dst;
    rx.ifIndex = info.ifIndex;
    rx.tos = info.trafficClass;
    rx.ttl = info.hopLimit;
    return rx;
}

void Ip6Pam::testRead() {
    const Ip6PktInfo info = testBuffPop(TestBuff::rx);
    if (!info.pkt) {
        rxErrorsInc(1);
        return;
    }
    const RxInfo rx = rxInfoOf(info);
    FirstException exception;
    exception.collect([&] { packetInfoIs(rx, options() & reported); });
    exception.collect([&] { rxPktCountInc(1); });
    rxPktIs(info.pkt, rx);
    exception.rethrow();
}

int32_t Ip6Pam::testBulkRead() {
    nothingInBulk();
    uint32_t packets = 0;
    while (packets < bulkSlots() && !testBuff(TestBuff::rx).empty()) {
        const Ip6PktInfo info = testBuffPop(TestBuff::rx);
        slotIs(packets++, info.pkt, rxInfoOf(info));
        packetInfoIs(rxInfoOf(info), options() & reported);
    }
    if (packets == 0) {
        rxErrorsInc(1);
    } else {
        rxPktCountInc(packets);
    }
    return static_cast<int32_t>(packets);
}

// The reader holds the endpoint.
void Ip6Pam::countFaults() {
    numRecvMsgErrorsInc(takeFailedReads());
    numCmsgDataErrorsInc(takeFaultyControlData());
}

Ip6PamVrrp::Ip6PamVrrp(Mox::String name, uint32_t ifIndex, NamespaceName netNs)
    : EntityOf(std::move(name), Mode::vrrp, std::move(netNs)), ifIndex_(ifIndex) {
    txDstIpAddrIs(mcastGroup_);
    txIfIndexIs(ifIndex);
    txTTLIs(255);
}

Ip6PamVrrp::~Ip6PamVrrp() = default;

void Ip6PamVrrp::enabledIsImpl(bool enable) {
    if (!enable) {
        Ip6Pam::enabledIsImpl(false);
        return;
    }
    open();
    try {
        membershipIs(ifIndex_, mcastGroup_, true);
    } catch (...) {
        fileDescDel();
        throw;
    }
    start();
}

// The new group first, so that a failure takes nothing away.
void Ip6PamVrrp::mcastGroupIs(const Ip6Addr& group) {
    if (group == mcastGroup_) {
        return;
    }
    membershipIs(ifIndex_, group, true);
    try {
        membershipIs(ifIndex_, mcastGroup_, false);
    } catch (...) {
        membershipIs(ifIndex_, group, false);
        throw;
    }
    const Mox::Ptr<Ip6PamVrrp> hold(this);
    const bool sendsToGroup = txDstIpAddr() == IpGenAddr(mcastGroup_);
    mcastGroup_ = group;
    if (sendsToGroup) {
        txDstIpAddrIs(group);
    }
    notify(mcastGroupAttr);
}

Mox::Ptr<Ip6Pam> ip6PamFactory(Mox::String name, Ip6Pam::Mode mode, NamespaceName netNs) {
    return Mox::make<Ip6Pam>(std::move(name), mode, std::move(netNs));
}

Mox::Ptr<Ip6PamVrrp> ip6PamVrrpFactory(Mox::String name, uint32_t ifIndex, NamespaceName netNs) {
    return Mox::make<Ip6PamVrrp>(std::move(name), ifIndex, std::move(netNs));
}

}  // namespace Pavo
