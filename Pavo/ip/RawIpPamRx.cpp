#include <cerrno>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/ip/RawIpFamily.h"
#include "Pavo/ip/RawIpPam.h"
#include "Pavo/pam/PktReceiver.h"

namespace Pavo {

void RawIpPam::doGetRxPkt() {
    if (hasRxPkt()) {
        readEnded(ReadEnd::packets);
        return;  // An observer of its arrival has thrown.
    }
    rxPktIs(nullptr);
    if (enableBulkRead()) {
        doGetRxPktBulk();
    } else {
        doGetRxPktSingle();
    }
}

int32_t RawIpPam::doGetBulkRxPkt() {
    return doGetRxPktBulk();
}

RxSettings RawIpPam::rxSettings() const {
    return {options(), rxFlags(), maxRxPktData(), rxBufferBytes()};
}

const std::vector<QueuedError>& RawIpPam::queuedErrors() const {
    return receiver_->queuedErrors();
}

void RawIpPam::doGetRxPktSingle() {
    Mox::Ptr<Pkt> pkt;
    RxInfo info = newRxInfo();
    const RxRound round = transport_ ? transport_->readOne(&pamSocket(), rxSettings(), &pkt, &info)
                                     : receiver_->readOne(&pamSocket(), rxSettings(), &pkt, &info);
    if (!pkt) {
        round.wasTried ? countRead(round) : void();
        return;
    }
    rxPktIs(pkt, info);  // First: an observer of what is counted may read it.
    FirstException exception;
    exception.collect([&] { packetInfoIs(info, round.carried); });
    exception.collect([&] { countRead(round); });
    exception.rethrow();
}

int32_t RawIpPam::nothingInBulk() {
    slotsReceivedNone();
    return 0;
}

int32_t RawIpPam::doGetRxPktBulk() {
    if (isPublishingSlots()) {
        return 0;
    }
    std::unique_ptr<RxBatch> batch =
        transport_ ? transport_->readBatch(&pamSocket(), rxSettings(), newRxInfo(), bulkSlots())
                   : receiver_->readBatch(&pamSocket(), rxSettings(), newRxInfo(), savedPacket(),
                                          bulkSlots());
    if (!batch) {
        return nothingInBulk();
    }
    FirstException exception;
    int32_t packets = 0;
    exception.collect([&] {
        // Two pointers: more of them would make `std::function` allocate for each batch.
        packets = slotsPublish(&batch->pkts, batch->read(), [this, all = batch.get()] {
            FirstException counting;
            if (all->round.packets != 0) {
                counting.collect([&] { packetInfoIs(all->read().back(), all->round.carried); });
            }
            counting.collect([&] { countRead(all->round); });
            counting.rethrow();
        });
    });
    receiver_->batchIs(std::move(batch));
    exception.rethrow();
    return packets;
}

void RawIpPam::slotIs(uint32_t slot, const Mox::Ptr<Pkt>& pkt, const RxInfo& info) {
    slotInfos().resize(slot);
    slotInfos().push_back(info);
    tapSlot(slot, *pkt);
    savedPacketIs(slot, pkt);
    savedPacketRxIs(slot, true);
}

RxInfo RawIpPam::newRxInfo() const {
    RxInfo info;
    // Packets that were passing by, which come to endpoints of the reserved protocol, have theirs.
    info.isIpHdrWithKernel =
        family_.isRxIpHdrWithKernel && protocol() != IpProtocolNumber::reserved;
    info.protocol = protocol();
    return info;
}

// Each value is set, also where an observer of another one throws.
void RawIpPam::packetInfoIs(const RxInfo& info, uint32_t carried) {
    FirstException exception;
    exception.collect([&] { rxSrcIpAddrIs(info.srcIpAddr); });
    exception.collect([&] { rxIfIndexIs(info.ifIndex != 0 ? info.ifIndex : rxIfIndex()); });
    if ((carried & ipPktInfo) != 0) {
        exception.collect([&] { rxDstIpAddrIs(info.dstIpAddr); });
    }
    if ((carried & ipRecvOrigDstAddr) != 0) {
        exception.collect([&] { rxOrigDstIpAddrIs(info.origDstIpAddr); });
    }
    if ((carried & ipRecvTOS) != 0) {
        exception.collect([&] { rxTOSIs(info.tos); });
    }
    if ((carried & ipRecvTTL) != 0) {
        exception.collect([&] { rxTTLIs(info.ttl); });
    }
    exception.rethrow();
}

void RawIpPam::countRead(const RxRound& round) {
    faultyControlData_ += round.faulty;
    failedReads_ += round.error != 0 && round.error != EAGAIN ? 1 : 0;
    Pavo::countRead(this, receiver_.get(), pamSocket(), round, /*countsEmpty=*/true);
}

}  // namespace Pavo
