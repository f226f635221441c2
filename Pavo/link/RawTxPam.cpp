#include "Pavo/link/RawTxPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/packet/VlanUtils.h"
#include "Pavo/pam/PktSender.h"
#include "Pavo/pam/SocketOptions.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::RawTxPam");

void bypassIs(int fd, bool bypasses) {
    socketOptionIs(fd, SOL_PACKET, PACKET_QDISC_BYPASS, int{bypasses},
                   "setsockopt(PACKET_QDISC_BYPASS)");
}

TxHead headFor(uint32_t ifIndex) {
    sockaddr_ll name{};  // The kernel takes the EtherType from the frame.
    name.sll_family = AF_PACKET;
    name.sll_ifindex = static_cast<int>(ifIndex);
    TxHead head;
    static_assert(sizeof(name) <= sizeof(head.name));
    std::memcpy(&head.name, &name, sizeof(name));
    head.nameBytes = sizeof(name);
    return head;
}

TxResult sendFrames(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts) {
    const bool isTagged = std::any_of(pkts.begin(), pkts.end(),
                                      [](const auto& each) { return each->hasSeparateVlanTag(); });
    if (!isTagged) {
        return sendPkts(fd, head, pkts, facility);
    }
    std::vector<Mox::Ptr<Pkt>> frames(pkts.size());
    std::transform(pkts.begin(), pkts.end(), frames.begin(), pktWithTagInFrame);
    return sendPkts(fd, head, frames, facility);
}

}  // namespace

RawTxPam::RawTxPam(Mox::String name, NamespaceName netNs)
    : EntityOf(std::move(name)), netNs_(std::move(netNs)) {
    batchSenderIs(sendBatch);
}

RawTxPam::~RawTxPam() {
    socket_.closeLater();
}

void RawTxPam::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<RawTxPam> hold(this);  // An observer may drop the endpoint.
    if (enabled) {
        open();
        start();
    } else {
        cleanup();
    }
}

void RawTxPam::open() {
    Mox::require(Mox::EventLoop::current() != nullptr,
                 "EventLoop::current(): enabling needs an event loop on this thread");
    const int fd =
        socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, /*protocol=*/0, netNs_.value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    if (bypassesQdisc_) {
        bypassIs(fd, true);
    }
    socket_.fileDescIs(descriptor);
}

void RawTxPam::start() {
    try {
        // Before the machine first increments the counts, on which agents write.
        attributeIs(enabled_, true, enabledAttr);
        socket_.watchFor(this);
    } catch (...) {
        cleanup();
        throw;
    }
}

void RawTxPam::cleanup() {
    socket_.closeLater();
    attributeIs(enabled_, false, enabledAttr);
}

void RawTxPam::bypassesQdiscIs(bool bypasses) {
    const auto apply = [&] {
        if (socket_.isOpen()) {
            bypassIs(socket_.number(), bypasses);
        }
    };
    if (handled(bypassesQdisc_, bypasses, apply)) {
        notify(bypassesQdiscAttr);
    }
}

void RawTxPam::doGetRxPkt() {
    rxPktIs(nullptr);
    socket_.readEnded(PamSocket::ReadEnd::empty);
}

void RawTxPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(pkt != nullptr, "pkt != nullptr");
    (void)sendBatch(this, {&pkt, 1});
}

uint32_t RawTxPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    RawTxPam& self = *static_cast<RawTxPam*>(pam);
    Mox::require(self.enabled_, "enabled()");
    // An observer of a count may close the socket, or drop the endpoint.
    const Mox::Ptr<RawTxPam> hold(&self);
    const Mox::Ptr<Mox::FileDescriptor> fd = self.fileDesc();
    const TxHead head = headFor(self.txIfIndex_);
    self.txErrnoIs(0);
    const auto count = static_cast<uint32_t>(pkts.size());
    const TxResult result =
        fd ? sendFrames(fd->descriptor(), head, pkts) : TxResult{0, count, count, EBADF};
    return countSent(&self, fd, result, facility);
}

Mox::Ptr<RawTxPam> rawTxPamFactory(Mox::String name, NamespaceName netNs) {
    return Mox::make<RawTxPam>(std::move(name), std::move(netNs));
}

}  // namespace Pavo
