#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "Pavo/ip/IpFamily.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/ip/IpTx.h"
#include "Pavo/ip/UdpPam.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

namespace {

// The limits of one large datagram.
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

// How many packets have to be sent as they are, from the first one, which has to.
std::size_t unsegmentable(std::span<const Mox::Ptr<Pkt>> pkts, uint32_t maxBytes) {
    std::size_t count = 1;
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
    std::fill_n(place, CMSG_SPACE(sizeof(uint16_t)), '\0');
    writeControl(reinterpret_cast<cmsghdr*>(place), IPPROTO_UDP, UDP_SEGMENT,
                 static_cast<uint16_t>(pkts[0]->totalBytes()));
    head.controlBytes += CMSG_SPACE(sizeof(uint16_t));
    const msghdr message = head.message(data, pieces);
    return sendmsg(fd, &message, head.flags) < 0 ? errno : 0;
}

}  // namespace

RxSettings UdpPam::rxSettings() const {
    return {options(), rxFlags_, maxRxPktData(), std::max(rxBufferBytes(), maxRxPktData())};
}

// Puts into a new description what every packet has in common.
void UdpPam::describe(RxInfo* info) const {
    info->dstPort = boundPort_;
    info->isIpHdrWithKernel = true;
    info->isUdpHdrWithKernel = true;
    info->protocol = IpProtocolNumber::udp;
}

const std::vector<QueuedError>& UdpPam::queuedErrors() const {
    return receiver().queuedErrors();
}

RxRound UdpPam::readOne(Mox::Ptr<Pkt>* pkt, RxInfo* info) {
    describe(info);
    return transport_ ? transport_->readOne(&socket(), rxSettings(), pkt, info)
                      : receiver().readOne(&socket(), rxSettings(), pkt, info);
}

std::unique_ptr<RxBatch> UdpPam::readBatch() {
    RxInfo first;
    describe(&first);
    return transport_
               ? transport_->readBatch(&socket(), rxSettings(), first, bulkSlots())
               : receiver().readBatch(&socket(), rxSettings(), first, savedPacket(), bulkSlots());
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

TxResult UdpPam::send(int fd, std::span<const Mox::Ptr<Pkt>> pkts) {
    for (std::size_t i = 0; tap() && i < pkts.size(); ++i) {
        tap()->handleTxPkt(*this, *pkts[i], txInfo());
    }
    TxHead head;
    const int error = transport_ ? ipTxAddressError(txSettings()) : txHeadIs(&head, fd);
    if (error != 0) {
        const auto count = static_cast<uint32_t>(pkts.size());
        return {0, count, count, error};
    }
    return transport_ ? transport_->sendEach(pkts, txInfo(), txIfName_) : sendAll(fd, head, pkts);
}

// Sends packets as segments of one datagram, or as they are where the kernel refuses segments:
// those that are larger than the MTU of the path, or all where checksums cannot be computed late.
TxResult UdpPam::sendRun(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> run) {
    const auto count = static_cast<uint32_t>(run.size());
    const int error = sendSegments(fd, head, run);
    if (error == 0) {
        return {count, 0, count, 0};
    }
    if (error != EIO && error != EINVAL && error != EMSGSIZE) {
        // It concerns the socket, or the first packet.
        return isNoRoom(error) ? TxResult{0, count, 0, error} : TxResult{0, 1, 1, error};
    }
    const TxResult result = sendPkts(fd, head, run, receiver().trace());
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
        const std::size_t segments = segmentable(rest, maxSegmentBytes_);
        const TxResult part =
            segments > 1 ? sendRun(fd, head, rest.first(segments))
                         : sendPkts(fd, head, rest.first(unsegmentable(rest, maxSegmentBytes_)),
                                    receiver().trace());
        result.sent += part.sent;
        result.taken += part.taken;
        result.error = part.error != 0 ? part.error : result.error;
        hasRoom = !isNoRoom(part.error);
    }
    result.failed = static_cast<uint32_t>(pkts.size()) - result.sent;
    return result;
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
