#include <linux/if_packet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/link/EthDevPam.h"
#include "Pavo/link/EthRing.h"
#include "Pavo/packet/VlanUtils.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

void EthDevPam::doGetRxPkt() {
    if (hasRxPkt()) {
        socket_.readEnded(PamSocket::ReadEnd::packets);
        return;  // An observer of its arrival has thrown.
    }
    rxPktIs(nullptr);
    if (enableBulkRead_) {
        readBulk();
    } else {
        readSingle();
    }
}

int32_t EthDevPam::doGetBulkRxPkt() {
    return readBulk();
}

RxSettings EthDevPam::rxSettings() const {
    return {options_ & ipRecvTimestamp, /*flags=*/0, maxRxPktData_, rxBufferBytes_};
}

void EthDevPam::countRead(const RxRound& round) {
    if (round.error != EAGAIN) {
        Pavo::countRead(this, receiver_.get(), socket_, round);
    }
}

void EthDevPam::readSingle() {
    Mox::Ptr<Pkt> pkt;
    RxInfo info;
    const RxRound round = ring_ ? ring_->readOne(&socket_, rxSettings(), &pkt, &info)
                                : receiver_->readOne(&socket_, rxSettings(), &pkt, &info);
    if (!round.wasTried) {
        return;
    }
    unread_ -= round.packets;  // First, since observers may disable the endpoint.
    FirstException exception;
    exception.collect([&] { countRead(round); });
    if (pkt) {
        rxPktIs(pkt, info);
    }
    exception.rethrow();
}

// Null when nothing was looked for.
std::unique_ptr<RxBatch> EthDevPam::readBatch() try {
    if (!ring_) {
        return receiver_->readBatch(&socket_, rxSettings(), RxInfo(), savedPacket(), bulkSlots_);
    }
    std::unique_ptr<RxBatch> batch = receiver_->newBatch(bulkSlots_);
    return ring_->readBatch(&socket_, rxSettings(), savedPacket(), batch.get()) ? std::move(batch)
                                                                                : nullptr;
} catch (const std::bad_alloc&) {
    socket_.readEnded(PamSocket::ReadEnd::failed);
    return nullptr;
}

int32_t EthDevPam::readBulk() {
    if (isPublishingSlots()) {
        return 0;
    }
    std::unique_ptr<RxBatch> batch = readBatch();
    if (!batch) {
        slotsReceivedNone();
        return 0;
    }
    const RxRound round = batch->round;
    unread_ -= round.packets;
    FirstException exception;
    exception.collect([&] { slotsPublish(&batch->pkts, batch->read()); });
    receiver_->batchIs(std::move(batch));
    exception.collect([&] { countRead(round); });
    exception.rethrow();
    return static_cast<int32_t>(round.packets);
}

// The kernel takes the type of each frame from the frame where the address has none.
TxHead EthDevPam::txHead() const {
    sockaddr_ll device{};
    device.sll_family = AF_PACKET;
    device.sll_ifindex = static_cast<int>(boundIfIndex_);
    TxHead head;
    head.nameBytes = sizeof(device);
    std::memcpy(&head.name, &device, sizeof(device));
    return head;
}

void EthDevPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled_, "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    // An observer of a count may close the socket, or drop the endpoint.
    const Mox::Ptr<EthDevPam> hold(this);
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    txErrnoIs(0);
    int error = EBADF;
    if (fd) {
        error = sendPkt(fd->descriptor(), txHead(), *pktWithTagInFrame(pkt), receiver_->trace());
    }
    if (error == 0) {
        txPktCountInc(1);
    } else {
        countSent(this, fd, {0, 1, 1, error}, receiver_->trace());
    }
}

uint32_t EthDevPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    EthDevPam& self = *static_cast<EthDevPam*>(pam);
    Mox::require(self.enabled_, "enabled()");
    const Mox::Ptr<Mox::FileDescriptor> fd = self.fileDesc();
    std::vector<Mox::Ptr<Pkt>> frames;
    if (std::any_of(pkts.begin(), pkts.end(),
                    [](const auto& each) { return each->hasSeparateVlanTag(); })) {
        std::transform(pkts.begin(), pkts.end(), std::back_inserter(frames), pktWithTagInFrame);
        pkts = frames;
    }
    self.txErrnoIs(0);
    const auto count = static_cast<uint32_t>(pkts.size());
    TxResult result{0, count, count, EBADF};
    if (fd) {
        result = sendPkts(fd->descriptor(), self.txHead(), pkts, self.receiver_->trace());
    }
    return countSent(&self, fd, result, self.receiver_->trace());
}

}  // namespace Pavo
