#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/ip/IpFamily.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/ip/IpTx.h"
#include "Pavo/ip/UdpPam.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

namespace {

// What one large datagram may consist of.
constexpr std::size_t maxSegments = 64;
constexpr uint32_t maxSegmentedBytes = 65507;

// How many packets from the first one can leave as segments: of one size, the last one shorter.
std::size_t segmentable(std::span<const Mox::Ptr<Pkt>> pkts, uint32_t maxBytes) {
    const uint32_t size = pkts[0]->totalBytes();
    if (size == 0 || size > maxBytes) {
        return 1;
    }
    const std::size_t limit =
        std::min({pkts.size(), maxSegments, std::size_t{maxSegmentedBytes / size}});
    std::size_t count = 1;
    while (count < limit) {
        const uint32_t next = pkts[count]->totalBytes();
        if (next == 0 || next > size) {
            break;
        }
        ++count;
        if (next < size) {
            break;
        }
    }
    return count;
}

// How many packets from the first one have to be sent as they are.
std::size_t unsegmentable(std::span<const Mox::Ptr<Pkt>> pkts, uint32_t maxBytes) {
    std::size_t count = 0;
    while (count < pkts.size() && segmentable(pkts.subspan(count), maxBytes) == 1) {
        ++count;
    }
    return count;
}

// Sends packets as segments of one datagram. Returns 0, or why none was sent, as an `errno`.
int sendSegments(int fd, TxHead head, std::span<const Mox::Ptr<Pkt>> pkts) {
    iovec data[maxSegments * Pkt::maxIovecs_];
    std::size_t pieces = 0;
    for (const Mox::Ptr<Pkt>& pkt : pkts) {
        for (const Pkt::Iovec& each : pkt->iovecs()) {
            data[pieces++] = {each.data, each.bytes};
        }
    }
    char* const place = head.control + head.controlBytes;
    std::memset(place, 0, CMSG_SPACE(sizeof(uint16_t)));
    writeControl(reinterpret_cast<cmsghdr*>(place), IPPROTO_UDP, UDP_SEGMENT,
                 static_cast<uint16_t>(pkts[0]->totalBytes()));
    head.controlBytes += CMSG_SPACE(sizeof(uint16_t));
    const msghdr message = head.message(data, pieces);
    return sendmsg(fd, &message, head.flags) < 0 ? errno : 0;
}

}  // namespace

void UdpPam::doGetRxPkt() {
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

int32_t UdpPam::doGetBulkRxPkt() {
    return readBulk();
}

RxSettings UdpPam::rxSettings() const {
    return {options_, rxFlags_, maxRxPktData_, rxBufferBytes_};
}

// What the description of every packet begins with.
RxInfo UdpPam::newRxInfo() const {
    RxInfo info;
    info.dstPort = boundPort_;
    info.isIpHdrWithKernel = true;
    info.isUdpHdrWithKernel = true;
    info.protocol = IpProtocolNumber::udp;
    return info;
}

const std::vector<QueuedError>& UdpPam::queuedErrors() const {
    return receiver_->queuedErrors();
}

void UdpPam::readSingle() {
    Mox::Ptr<Pkt> pkt;
    RxInfo info = newRxInfo();
    const RxRound round = transport_ ? transport_->readOne(&socket_, rxSettings(), &pkt, &info)
                                     : receiver_->readOne(&socket_, rxSettings(), &pkt, &info);
    if (!round.wasTried) {
        return;
    }
    FirstException exception;
    exception.collect([&] { countRead(this, receiver_.get(), socket_, round); });
    if (pkt) {
        rxPktIs(pkt, info);
    }
    exception.rethrow();
}

int32_t UdpPam::readBulk() {
    if (isPublishingSlots()) {
        return 0;
    }
    std::unique_ptr<RxBatch> batch =
        transport_
            ? transport_->readBatch(&socket_, rxSettings(), newRxInfo(), bulkSlots_)
            : receiver_->readBatch(&socket_, rxSettings(), newRxInfo(), savedPacket(), bulkSlots_);
    if (!batch) {
        slotsReceivedNone();
        return 0;
    }
    const RxRound round = batch->round;
    FirstException exception;
    exception.collect([&] { slotsPublish(&batch->pkts, batch->read()); });
    receiver_->batchIs(std::move(batch));
    exception.collect([&] { countRead(this, receiver_.get(), socket_, round); });
    exception.rethrow();
    return static_cast<int32_t>(round.packets);
}

IpTxSettings UdpPam::txSettings() const {
    const bool isConnected = peer_.address().af() != ipunknown;
    return {*family_,  txSrcIpAddr_, isConnected ? peer_.address() : remoteAddr_,
            txIfName_, txIfIndex_,   txFlags_};
}

int UdpPam::txHeadIs(TxHead* head, int fd) const {
    return ipTxHeadIs(head, fd, txSettings(), remotePort_,
                      /*connected=*/peer_.address().af() != ipunknown);
}

void UdpPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled_, "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    // An observer of a count may close the socket, or drop the endpoint.
    const Mox::Ptr<UdpPam> hold(this);
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    tapTx(*pkt);
    txErrnoIs(0);
    const int error = send(fd, *pkt);
    if (error == 0) {
        txPktCountInc(1);
    } else {
        countSent(this, fd, {0, 1, 1, error}, receiver_->trace());
    }
}

// Returns 0, or why the packet was not sent, as an `errno`.
int UdpPam::send(const Mox::Ptr<Mox::FileDescriptor>& fd, const Pkt& pkt) {
    if (transport_) {
        const int error = ipTxAddressError(txSettings());
        return error != 0 ? error : transport_->send(pkt, txInfo(), txIfName_);
    }
    if (!fd) {
        return EBADF;
    }
    TxHead head;
    const int error = txHeadIs(&head, fd->descriptor());
    return error != 0 ? error : sendPkt(fd->descriptor(), head, pkt, receiver_->trace());
}

uint32_t UdpPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    UdpPam& self = *static_cast<UdpPam*>(pam);
    Mox::require(self.enabled_, "enabled()");
    const Mox::Ptr<Mox::FileDescriptor> fd = self.fileDesc();
    for (const Mox::Ptr<Pkt>& each : pkts) {
        self.tapTx(*each);
    }
    self.txErrnoIs(0);
    const auto count = static_cast<uint32_t>(pkts.size());
    TxResult result{0, count, count, EBADF};
    if (self.transport_) {
        result.error = ipTxAddressError(self.txSettings());
        if (result.error == 0) {
            result = self.transport_->sendEach(pkts, self.txInfo(), self.txIfName_);
        }
    } else if (fd) {
        TxHead head;
        result.error = self.txHeadIs(&head, fd->descriptor());
        if (result.error == 0) {
            result = self.sendAll(fd->descriptor(), head, pkts);
        }
    }
    return countSent(&self, fd, result, self.receiver_->trace());
}

// Sends packets as segments of one datagram, or as they are where the kernel refuses segments:
// those that are larger than the MTU of the path, or all where checksums cannot be computed late.
TxResult UdpPam::sendRun(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> run) {
    const auto count = static_cast<uint32_t>(run.size());
    const int error = sendSegments(fd, head, run);
    if (error == 0) {
        return {count, 0, count, 0};
    }
    if (error != EIO && error != EINVAL) {  // It concerns the socket, or the first packet.
        return isNoRoom(error) ? TxResult{0, count, 0, error} : TxResult{0, 1, 1, error};
    }
    const TxResult result = sendPkts(fd, head, run, receiver_->trace());
    if (result.sent != 0) {
        maxSegmentBytes_ = error == EIO ? 0 : run[0]->totalBytes() - 1;
    }
    return result;
}

TxResult UdpPam::sendAll(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts) {
    TxResult result;
    bool hasRoom = true;
    while (hasRoom && result.taken < pkts.size()) {
        const auto rest = pkts.subspan(result.taken);
        TxResult part;
        if (const std::size_t count = unsegmentable(rest, maxSegmentBytes_)) {
            part = sendPkts(fd, head, rest.first(count), receiver_->trace());
        } else {
            part = sendRun(fd, head, rest.first(segmentable(rest, maxSegmentBytes_)));
        }
        result.sent += part.sent;
        result.taken += part.taken;
        result.error = part.error != 0 ? part.error : result.error;
        hasRoom = !isNoRoom(part.error);
    }
    result.failed = static_cast<uint32_t>(pkts.size()) - result.sent;
    return result;
}

void UdpPam::tapTx(const Pkt& pkt) const {
    if (tap()) {
        tap()->handleTxPkt(*this, pkt, txInfo());
    }
}

TxInfo UdpPam::txInfo() const {
    const bool isConnected = peer_.address().af() != ipunknown;
    TxInfo info;
    info.srcIpAddr = txSrcIpAddr_.address().isZero() ? localAddr_ : txSrcIpAddr_;
    info.dstIpAddr = isConnected ? peer_.address() : remoteAddr_;
    info.ifIndex = txIfIndex_;
    info.srcPort = boundPort_;
    info.dstPort = isConnected ? peer_.port() : remotePort_;
    info.tos = txTos_.value();
    info.ttl = (info.dstIpAddr.isMulticast() ? txMcastTtl_ : txTtl_).value();
    info.isIpHdrWithKernel = true;
    info.isUdpHdrWithKernel = true;
    info.protocol = IpProtocolNumber::udp;
    return info;
}

}  // namespace Pavo
