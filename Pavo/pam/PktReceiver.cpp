#include "Pavo/pam/PktReceiver.h"

#include <linux/errqueue.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "Mox/Assert.h"

namespace Pavo {

namespace {

// What every packet must carry while the option is on. The original destination is not included,
// since short packets come without one.
constexpr uint32_t promisedControl = ipPktInfo | ipRecvTOS | ipRecvTTL;
constexpr uint32_t errorControlBytes =
    rxMaxControlBytes + CMSG_SPACE(sizeof(sock_extended_err) + sizeof(sockaddr_in6));

Mox::Ptr<Pkt> newRoom(const RxSettings& settings, uint32_t bytes) {
    const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(settings.bufferBytes);
    const uint32_t maxSize = pkt->maxSharedData();
    Mox::require(maxSize >= settings.maxBytes, "maxSize >= maxRxPktData()");
    pkt->newSharedTailData(bytes);
    return pkt;
}

// The packet of an earlier read, made ready for the next one; null where others may still read its
// bytes.
Mox::Ptr<Pkt> roomAgain(const Mox::Ptr<Pkt>& pkt, uint32_t bytes) {
    if (!pkt || pkt->references() != 1 || !pkt->sharedBuffer() ||
        pkt->sharedBuffer()->references() != 1 || pkt->maxSharedData() < bytes) {
        return nullptr;
    }
    if (pkt->firstIoVec() == 0) {
        pkt->delPrivateHeadData(pkt->iovec(0).bytes);
    }
    pkt->delSeparateVlanTag();
    pkt->delSharedTailData(pkt->iovec(1).bytes);
    if (pkt->sharedBuffer()->tailRoom() < bytes) {  // To the front of the buffer.
        const uint32_t headRoom = pkt->sharedBuffer()->headRoom();
        pkt->newSharedHeadData(headRoom);
        pkt->delSharedTailData(headRoom);
    }
    pkt->newSharedTailData(bytes);
    return pkt;
}

}  // namespace

Mox::Ptr<Pkt> pktToReadInto(const RxSettings& settings, const Mox::Ptr<Pkt>& slot, uint32_t bytes) {
    Mox::Ptr<Pkt> again = roomAgain(slot, bytes);
    return again ? again : newRoom(settings, bytes);
}

namespace {

// Cuts the packet to what was received; with MSG_TRUNC among the flags, the number may be larger
// than the packet.
void shrinkTo(Pkt& pkt, std::size_t received) {
    const uint32_t room = pkt.totalBytes();
    pkt.delSharedTailData(received < room ? room - static_cast<uint32_t>(received) : 0);
}

}  // namespace

void RxMessage::prepare(msghdr* message, const Pkt& pkt, const RxFormat& format, uint32_t options) {
    *message = {};
    message->msg_name = &name;
    message->msg_namelen = format.nameBytes;
    message->msg_iov = data;
    message->msg_iovlen = pkt.copyIovecs(data);
    message->msg_control = control;
    message->msg_controllen = format.controlBytes +
                              ((options & ipRecvDrops) != 0 ? rxDropsControlBytes : 0) +
                              ((options & ipRecvTimestamp) != 0 ? rxTimestampControlBytes : 0);
}

PktReceiver::PktReceiver(const Mox::TraceFacility& trace, const char* className)
    : trace_(trace), className_(className) {}

PktReceiver::~PktReceiver() = default;

RxRound PktReceiver::readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                             RxInfo* info) {
    RxRound round;
    if (!socket->isOpen()) {
        MOX_TRACE(trace_, 1, className_, " not enabled. Aborting action");
        return round;
    }
    Mox::Ptr<Pkt> into;
    try {
        into = pktToReadInto(settings, nullptr, settings.maxBytes);
    } catch (const std::bad_alloc&) {
        MOX_TRACE(trace_, 0, "no packet to receive into");
        socket->readEnded(PamSocket::ReadEnd::failed);
        return round;
    }
    round.wasTried = true;
    RxMessage room;
    msghdr message;
    room.prepare(&message, *into, *format_, settings.options);
    const ssize_t received = recvmsg(socket->number(), &message, settings.flags);
    round.error = received < 0 ? errno : 0;
    socket->readEnded(round.error);
    if (round.error == 0) {
        round.packets = 1;
        readMessage(message, settings, into.ptr(), info, &round);
        shrinkTo(*into, static_cast<std::size_t>(received));
        *pkt = std::move(into);
    }
    return round;
}

std::unique_ptr<RxBatch> PktReceiver::newBatch(uint32_t slots) {
    if (!batch_ || batch_->slots() != slots) {
        batch_ = std::make_unique<RxBatch>(slots);
    }
    batch_->round = RxRound();
    return std::move(batch_);
}

// A batch with a packet to read into in every slot; null when there is no memory.
std::unique_ptr<RxBatch> PktReceiver::prepare(const RxSettings& settings,
                                              const Mox::Array<Mox::Ptr<Pkt>>& slots,
                                              uint32_t count) try {
    std::unique_ptr<RxBatch> batch = newBatch(count);
    for (uint32_t slot = 0; slot < count; ++slot) {
        Mox::Ptr<Pkt> pkt = pktToReadInto(settings, slots.at(slot), settings.maxBytes);
        mmsghdr& message = batch->messages[slot];
        batch->rooms[slot].prepare(&message.msg_hdr, *pkt, *format_, settings.options);
        message.msg_len = 0;
        batch->pkts[slot] = std::move(pkt);
    }
    return batch;
} catch (const std::bad_alloc&) {
    MOX_TRACE(trace_, 0, "no packets to receive into");
    return nullptr;
}

std::unique_ptr<RxBatch> PktReceiver::readBatch(PamSocket* socket, const RxSettings& settings,
                                                const RxInfo& first,
                                                const Mox::Array<Mox::Ptr<Pkt>>& slots,
                                                uint32_t count) {
    if (!socket->isOpen()) {
        MOX_TRACE(trace_, 1, className_, " not enabled. Aborting action");
        return nullptr;
    }
    std::unique_ptr<RxBatch> batch = count != 0 ? prepare(settings, slots, count) : nullptr;
    if (!batch) {
        socket->readEnded(PamSocket::ReadEnd::failed);
        return nullptr;
    }
    RxRound& round = batch->round;
    const int received = recvmmsg(socket->number(), batch->messages.data(), count,
                                  settings.flags | MSG_DONTWAIT, nullptr);
    round.error = received < 0 ? errno : 0;
    socket->readEnded(round.error);
    round.packets = round.error == 0 ? static_cast<uint32_t>(received) : 0;
    for (uint32_t slot = 0; slot < round.packets; ++slot) {
        batch->infos[slot] = first;
        Pkt* const pkt = batch->pkts[slot].ptr();
        readMessage(batch->messages[slot].msg_hdr, settings, pkt, &batch->infos[slot], &round);
        shrinkTo(*pkt, batch->messages[slot].msg_len);
    }
    return batch;
}

void PktReceiver::traceFailure(int error) const {
    if (error != EAGAIN) {
        MOX_TRACE(trace_, 1, "recvmsg failed : ", std::strerror(error));
    }
}

// Fills in what the kernel says of a packet.
void PktReceiver::readMessage(const msghdr& message, const RxSettings& settings, Pkt* pkt,
                              RxInfo* info, RxRound* round) {
    format_->takeName(message.msg_name, info);
    const bool controlCut = (message.msg_flags & MSG_CTRUNC) != 0;
    info->truncated = (message.msg_flags & MSG_TRUNC) != 0;
    round->truncated += info->truncated ? 1 : 0;
    if (controlCut || info->truncated) {
        MOX_TRACE(trace_, 1, "packet or control data cut short, flags ", message.msg_flags);
    }
    round->carried = readControls(message, pkt, info, round);
    if (controlCut || (settings.options & promisedControl & ~round->carried) != 0) {
        ++round->faulty;
    }
    if ((round->carried & ipRecvOrigDstAddr) != 0) {
        MOX_TRACE(trace_, 9, "Original destination IP is ", info->origDstIpAddr,
                  " with destination IP of ", info->dstIpAddr);
    }
    if ((round->carried & ipRecvTTL) != 0) {
        MOX_TRACE(trace_, 9, "TTL of received packet is 0x", std::hex, unsigned{info->ttl});
    }
}

// Returns the bits of the options whose messages were there.
uint32_t PktReceiver::readControls(const msghdr& message, Pkt* pkt, RxInfo* info, RxRound* round) {
    uint32_t carried = none;
    for (const cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(each))) {
        uint32_t drops = 0;
        int64_t time[2];  // Seconds, nanoseconds.
        if (each->cmsg_level == format_->level) {
            carried |= format_->takeControl(each, pkt, info);
        } else if (each->cmsg_level != SOL_SOCKET) {
            continue;
        } else if (each->cmsg_type == SO_RXQ_OVFL && readControl(each, &drops)) {
            round->drops += drops - std::exchange(socketDrops_, drops);
        } else if (each->cmsg_type == SO_TIMESTAMPNS_NEW && readControl(each, &time)) {
            info->timestampNs = time[0] * 1'000'000'000 + time[1];
        }
    }
    return carried;
}

// Takes one entry; false when there is none, or the socket fails.
bool PktReceiver::takeQueuedError(int fd) {
    sockaddr_in6 name{};
    char data[1];
    alignas(cmsghdr) char control[errorControlBytes];
    iovec room{data, sizeof(data)};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = sizeof(name);
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
        return false;
    }
    QueuedError error;
    if (format_->takeError(message, &error)) {
        try {
            queuedErrors_.push_back(error);
        } catch (const std::bad_alloc&) {
            MOX_TRACE(trace_, 0, "no memory for a queued error");
        }
    }
    return true;
}

uint32_t PktReceiver::drainErrorQueue(const PamSocket& socket) {
    queuedErrors_.clear();
    uint32_t drained = 0;
    while (socket.isOpen() && drained < 1024 && takeQueuedError(socket.number())) {
        ++drained;
    }
    return drained;
}

}  // namespace Pavo
