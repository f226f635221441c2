#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/pam/RawIpFamily.h"
#include "Pavo/pam/RawIpPam.h"

namespace Pavo {

namespace {

// What every packet must carry while the option is on. The original destination is not included,
// since short packets come without one.
constexpr uint32_t promisedControl = ipPktInfo | ipRecvTOS | ipRecvTTL;

// Room for all control messages of either family, whatever the word size.
constexpr uint32_t dropsControlBytes = CMSG_SPACE(sizeof(uint32_t));
constexpr uint32_t maxControlBytes = CMSG_SPACE(sizeof(in6_pktinfo)) + 2 * CMSG_SPACE(sizeof(int)) +
                                     CMSG_SPACE(sizeof(sockaddr_in6)) + dropsControlBytes;

// One message to receive into: where the kernel puts the sender, the bytes and the control data.
struct RxMessage {
    sockaddr_in6 name;  // Has room for that of IPv4.
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[maxControlBytes];

    void prepare(msghdr* message, const Pkt& pkt, const RawIpFamily& family, uint32_t options) {
        *message = {};
        message->msg_name = &name;
        message->msg_namelen = family.nameBytes;
        message->msg_iov = data;
        message->msg_iovlen = pkt.copyIovecs(data);
        message->msg_control = control;
        message->msg_controllen =
            family.rxControlBytes + ((options & ipRecvDrops) != 0 ? dropsControlBytes : 0);
    }
};

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
    // To the front of the buffer, from where the data has room for all of it.
    pkt->delSharedTailData(pkt->iovec(1).bytes);
    const uint32_t headRoom = pkt->sharedBuffer()->headRoom();
    pkt->newSharedHeadData(headRoom);
    pkt->delSharedTailData(headRoom);
    pkt->newSharedTailData(bytes);
    return pkt;
}

// Cuts the packet to what was received; with MSG_TRUNC among the flags, the number may be larger
// than the packet.
void shrinkTo(Pkt& pkt, std::size_t received) {
    const uint32_t room = pkt.totalBytes();
    pkt.delSharedTailData(received < room ? room - static_cast<uint32_t>(received) : 0);
}

// Takes a byte, or an int that holds one (TTL, hop limit, traffic class).
bool readByte(const cmsghdr* message, uint8_t* value) {
    int number = 0;
    if (!readControl(message, &number)) {
        return readControl(message, value);
    }
    *value = static_cast<uint8_t>(number);
    return true;
}

// Takes a socket address of the family.
bool readAddress(const cmsghdr* message, const RawIpFamily& family, IpGenAddr* address) {
    if (message->cmsg_len < CMSG_LEN(family.nameBytes)) {
        return false;
    }
    PktInfo info;
    family.takeName(CMSG_DATA(message), &info);
    *address = info.srcIpAddr;
    return true;
}

// Takes one message of the family's level. Returns the bit of the option that asked for it; 0 for
// one that no option asked for, or that was cut.
uint32_t takeControl(const cmsghdr* message, const RawIpFamily& family, RxInfo* info) {
    const int type = message->cmsg_type;
    if (type == family.pktInfoType) {
        return family.takePktInfo(message, info) ? ipPktInfo : none;
    }
    if (type == family.origDstType) {
        return readAddress(message, family, &info->origDstIpAddr) ? ipRecvOrigDstAddr : none;
    }
    if (type == family.tosType) {
        return readByte(message, &info->tos) ? ipRecvTOS : none;
    }
    if (type == family.ttlType) {
        return readByte(message, &info->ttl) ? ipRecvTTL : none;
    }
    return none;
}

}  // namespace

// What one recvmmsg(2) works on: an entry for each slot, kept from round to round.
struct RawIpPam::BulkRead {
    explicit BulkRead(uint32_t slots) : pkts(slots), rooms(slots), messages(slots), infos(slots) {}

    uint32_t slots() const { return static_cast<uint32_t>(pkts.size()); }

    std::vector<Mox::Ptr<Pkt>> pkts;
    std::vector<RxMessage> rooms;
    std::vector<mmsghdr> messages;
    std::vector<RxInfo> infos;
};

RawIpPam::RawIpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs,
                   const RawIpFamily& family)
    : EntityOf(std::move(name), protocol, std::move(netNs)), family_(family) {
    tapsWhatItSendsIs(true);
}

RawIpPam::~RawIpPam() = default;

void RawIpPam::doGetRxPkt() {
    if (hasRxPkt()) {
        IpPam::readEnded(ReadEnd::packets);
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

// A new packet with room to read into; throws std::bad_alloc.
Mox::Ptr<Pkt> RawIpPam::newRoom() const {
    const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(rxBufferBytes());
    const uint32_t maxSize = pkt->maxSharedData();
    Mox::require(maxSize >= maxRxPktData(), "maxSize >= maxRxPktData()");
    pkt->newSharedTailData(maxRxPktData());
    return pkt;
}

void RawIpPam::doGetRxPktSingle() {
    if (!fileDesc()) {
        MOX_TRACE(*family_.trace, 1, family_.className, " not enabled. Aborting action");
        return;
    }
    Mox::Ptr<Pkt> pkt;
    try {
        pkt = newRoom();
    } catch (const std::bad_alloc&) {
        MOX_TRACE(*family_.trace, 0, "no packet to receive into");
        IpPam::readEnded(ReadEnd::failed);
        return;
    }
    RxMessage room;
    msghdr message;
    room.prepare(&message, *pkt, family_, options());
    const ssize_t received = recvmsg(socket(), &message, rxFlags());
    const int error = received < 0 ? errno : 0;
    readEnded(error);
    if (error != 0) {
        countFailedRead(error);
        return;
    }
    RxInfo info = newRxInfo();
    RxRound round;
    readMessage(message, &info, &round);
    shrinkTo(*pkt, static_cast<std::size_t>(received));
    FirstException exception;
    exception.collect([&] { packetInfoIs(info, round.carried); });
    exception.collect([&] { countPackets(1, round); });
    rxPktIs(pkt, info);
    exception.rethrow();
}

// Puts a packet to read into in every slot. False when there is none, or no slot.
bool RawIpPam::prepareBulkRead() try {
    const uint32_t slots = bulkSlots();
    if (!bulkRead_ || bulkRead_->slots() != slots) {
        bulkRead_ = std::make_unique<BulkRead>(slots);
    }
    for (uint32_t slot = 0; slot < slots; ++slot) {
        Mox::Ptr<Pkt> pkt = roomAgain(savedPacket().at(slot), maxRxPktData());
        if (!pkt) {
            pkt = newRoom();
        }
        bulkRead_->rooms[slot].prepare(&bulkRead_->messages[slot].msg_hdr, *pkt, family_,
                                       options());
        bulkRead_->messages[slot].msg_len = 0;
        bulkRead_->pkts[slot] = std::move(pkt);
    }
    return slots != 0;
} catch (const std::bad_alloc&) {
    MOX_TRACE(*family_.trace, 0, "no packets to receive into");
    return false;
}

int32_t RawIpPam::nothingInBulk() {
    slotInfos().clear();
    for (uint32_t slot = 0; slot < savedPacketRx().members(); ++slot) {
        savedPacketRxIs(slot, false);
    }
    return 0;
}

int32_t RawIpPam::doGetRxPktBulk() {
    if (isPublishingBatch_) {
        return 0;
    }
    if (!fileDesc()) {
        MOX_TRACE(*family_.trace, 1, family_.className, " not enabled. Aborting action");
        return nothingInBulk();
    }
    if (!prepareBulkRead()) {
        IpPam::readEnded(ReadEnd::failed);
        return nothingInBulk();
    }
    // An observer of a slot may change what the next round works on.
    std::unique_ptr<BulkRead> round = std::move(bulkRead_);
    const int received = recvmmsg(socket(), round->messages.data(), round->slots(),
                                  rxFlags() | MSG_DONTWAIT, nullptr);
    const int error = received < 0 ? errno : 0;
    readEnded(error);
    const uint32_t count = error == 0 ? static_cast<uint32_t>(received) : 0;
    RxRound result;
    for (uint32_t slot = 0; slot < count; ++slot) {
        round->infos[slot] = newRxInfo();
        readMessage(round->messages[slot].msg_hdr, &round->infos[slot], &result);
        shrinkTo(*round->pkts[slot], round->messages[slot].msg_len);
    }
    FirstException exception;
    exception.collect([&] { publishBatch(round.get(), count); });
    if (count != 0) {
        exception.collect([&] { packetInfoIs(round->infos[count - 1], result.carried); });
    }
    bulkRead_ = std::move(round);
    exception.collect([&] { error != 0 ? countFailedRead(error) : countPackets(count, result); });
    exception.rethrow();
    return static_cast<int32_t>(count);
}

void RawIpPam::publishBatch(BulkRead* round, uint32_t count) {
    slotInfos().assign(round->infos.begin(), round->infos.begin() + count);
    for (uint32_t slot = 0; slot < count; ++slot) {
        tapSlot(slot, *round->pkts[slot]);
    }
    FirstException exception;
    isPublishingBatch_ = true;
    for (uint32_t slot = 0; slot < round->slots(); ++slot) {
        exception.collect([&] { savedPacketIs(slot, std::move(round->pkts[slot])); });
        exception.collect([&] { savedPacketRxIs(slot, slot < count); });
    }
    isPublishingBatch_ = false;
    exception.rethrow();
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

// Fills in what the kernel says of a packet.
void RawIpPam::readMessage(const msghdr& message, RxInfo* info, RxRound* round) {
    family_.takeName(message.msg_name, info);
    const bool controlCut = (message.msg_flags & MSG_CTRUNC) != 0;
    info->truncated = (message.msg_flags & MSG_TRUNC) != 0;
    round->truncated += info->truncated ? 1 : 0;
    if (controlCut || info->truncated) {
        MOX_TRACE(*family_.trace, 1, "packet or control data cut short, flags ", message.msg_flags);
    }
    round->carried = readControls(message, info, round);
    if (controlCut || (options() & promisedControl & ~round->carried) != 0) {
        ++faultyControlData_;
    }
    if ((round->carried & ipRecvOrigDstAddr) != 0) {
        MOX_TRACE(*family_.trace, 9, "Original destination IP is ", info->origDstIpAddr,
                  " with destination IP of ", info->dstIpAddr);
    }
    if ((round->carried & ipRecvTTL) != 0) {
        MOX_TRACE(*family_.trace, 9, "TTL of received packet is 0x", std::hex, unsigned{info->ttl});
    }
}

// Returns the bits of the options whose messages were there.
uint32_t RawIpPam::readControls(const msghdr& message, RxInfo* info, RxRound* round) {
    uint32_t carried = none;
    for (const cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(each))) {
        uint32_t drops = 0;
        if (each->cmsg_level == family_.level) {
            carried |= takeControl(each, family_, info);
        } else if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SO_RXQ_OVFL &&
                   readControl(each, &drops)) {
            round->drops += drops - std::exchange(socketDrops_, drops);
        }
    }
    return carried;
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

void RawIpPam::countPackets(uint32_t packets, const RxRound& round) {
    FirstException exception;
    if (round.drops != 0) {
        rxDropsIs(rxDrops() + round.drops);
    }
    if (round.truncated != 0) {
        exception.collect([&] { rxTruncatedPktsInc(round.truncated); });
    }
    exception.collect([&] { rxPktCountInc(packets); });
    exception.rethrow();
}

// The `errno` of a read of the socket; 0 when it took packets.
void RawIpPam::readEnded(int error) {
    IpPam::readEnded(error == 0        ? ReadEnd::packets
                     : error == EAGAIN ? ReadEnd::empty
                                       : ReadEnd::failed);
}

void RawIpPam::countFailedRead(int error) {
    if (error != EAGAIN) {
        ++failedReads_;
        MOX_TRACE(*family_.trace, 1, "recvmsg failed : ", std::strerror(error));
    }
    rxErrorsInc(1 + ((options() & ipRecvErr) != 0 ? drainErrorQueue() : 0));
}

// A queued error keeps the socket in EPOLLERR until it is read. Returns how many there were.
uint32_t RawIpPam::drainErrorQueue() {
    if (!fileDesc()) {
        return 0;  // Closed by an observer of the slots.
    }
    uint32_t drained = 0;
    char data[1];
    iovec room{data, sizeof(data)};
    msghdr message{};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    while (drained < 1024 && recvmsg(socket(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0) {
        ++drained;
    }
    return drained;
}

}  // namespace Pavo
