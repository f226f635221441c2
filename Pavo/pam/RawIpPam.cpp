#include "Pavo/pam/RawIpPam.h"

#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/pam/McastGroup.h"
#include "Pavo/pam/RawIpFamily.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

// What the options that are no plain switches stand for, in the order of changing them.
constexpr uint32_t otherOptions[] = {ipAttachFilter, ipRcvBuf, ipTransparent, ipPriority};

// What every packet must say of itself while the option is on. The original destination is not
// among these, since short packets come without one.
constexpr uint32_t promisedControl = ipPktInfo | ipRecvTOS | ipRecvTTL;

// The index of an interface in the socket's namespace, or -1 with `errno` set.
int interfaceIndex(int fd, const Mox::String& name) {
    ifreq request{};
    if (name.bytes() >= sizeof(request.ifr_name)) {
        errno = ENODEV;
        return -1;
    }
    std::memcpy(request.ifr_name, name.data(), name.bytes());
    return ioctl(fd, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

// The packet's pieces as the kernel takes them; returns how many.
std::size_t iovecsOf(const Pkt& pkt, iovec (&table)[Pkt::maxIovecs_]) {
    std::size_t count = 0;
    for (uint32_t i = pkt.firstIoVec(); i < Pkt::maxIovecs_; ++i) {
        table[count++] = {pkt.iovec(i).data, pkt.iovec(i).bytes};
    }
    return count;
}

// One message to receive into: where the kernel puts the sender, the bytes and the control data.
struct RxMessage {
    sockaddr_in6 name;  // Has room for that of IPv4.
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[RawIpFamily::maxRxControlBytes];

    void prepare(msghdr* message, const Pkt& pkt, const RawIpFamily& family) {
        *message = {};
        message->msg_name = &name;
        message->msg_namelen = family.nameBytes;
        message->msg_iov = data;
        message->msg_iovlen = iovecsOf(pkt, data);
        message->msg_control = control;
        message->msg_controllen = family.rxControlBytes;
    }
};

// A new packet with `bytes` of data to read into.
Mox::Ptr<Pkt> newRoom(uint32_t bytes, const Mox::TraceFacility& facility) {
    try {
        const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
        const uint32_t maxSize = pkt->maxSharedData();
        Mox::require(maxSize >= bytes, "maxSize >= maxRxPktData()");
        pkt->newSharedTailData(bytes);
        return pkt;
    } catch (const std::bad_alloc&) {
        MOX_TRACE(facility, 0, "no packet to receive into");
        return nullptr;
    }
}

// The packet of an earlier read, made ready for the next one; null where somebody else may still
// look at its bytes.
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
    pkt->delSharedTailData(pkt->sharedBuffer()->dataBytes());
    const uint32_t headRoom = pkt->sharedBuffer()->headRoom();
    pkt->newSharedHeadData(headRoom);
    pkt->delSharedTailData(headRoom);
    pkt->newSharedTailData(bytes);
    return pkt;
}

// Cuts the packet to what was received; with MSG_TRUNC among the flags that may be said to be more
// than the packet has.
void shrinkTo(Pkt& pkt, std::size_t received) {
    const uint32_t room = pkt.totalBytes();
    pkt.delSharedTailData(room - std::min<std::size_t>(received, room));
}

void switchIs(const RawIpPam& pam, const RawIpFamily& family, const RawIpFamily::Switch& option,
              int fd, bool on) {
    const int value = option.value != nullptr ? option.value(pam, on) : int{on};
    socketOptionIs(fd, family.level, option.option, value, option.failure);
}

}  // namespace

void socketOptionIs(int fd, int level, int option, const void* value, uint32_t bytes,
                    const char* failure) {
    if (setsockopt(fd, level, option, value, bytes) < 0) {
        Mox::throwErrnoException(failure);
    }
}

int RawIpPam::socket() const {
    return fileDesc()->descriptor();
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
    const int fd =
        socketAt(family_.domain, SOCK_RAW, static_cast<int>(protocol()), netNs().value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    for (const RawIpFamily::Switch& each : family_.switches) {
        if ((options() & each.bit) != 0) {
            switchIs(*this, family_, each, fd, true);
        }
    }
    if ((options() & ipAttachFilter) != 0) {
        attachFilter(fd);
    }
    if ((options() & ipRcvBuf) != 0) {
        socketOptionIs(fd, SOL_SOCKET, SO_RCVBUFFORCE, rxBuf(), "setsockopt(SO_RCVBUFFORCE)");
    }
    if (txTOS() != IpDscp()) {
        MOX_TRACE(*family_.trace, 9, "TOS=", txTOS());
        family_.tosIs(fd, txTOS().value());
    }
    if (txTTL() != IpTtl()) {
        family_.ttlIs(fd, txTTL().value());
    }
    if ((options() & ipTransparent) != 0) {
        switchIs(*this, family_, family_.transparent, fd, true);
    }
    if ((options() & ipPriority) != 0) {
        socketPriorityIs(fd, priority());
    }
    if (ipPktOptions_.members() != 0) {
        family_.pktOptionsIs(fd, ipPktOptions_);
    }
    descriptor->nonBlockingIs(true);
    fileDescIs(descriptor);
}

void RawIpPam::start() {
    try {
        enabledStore(true);  // Before the machine's first bumps, on which agents read and write.
        fdSmIs();
    } catch (...) {
        handleCleanup();
        throw;
    }
}

void RawIpPam::handleCleanup() {
    fileDescDel();
    enabledStore(false);
}

void RawIpPam::optionsIsImpl(uint32_t wanted) {
    if (!fileDesc()) {
        optionsStore(wanted);
        return;
    }
    // One bit after the other, so that a failure leaves `options` describing the socket.
    uint32_t reached = options();
    uint32_t changing = none;
    const auto change = [&](uint32_t bit) {
        if (((wanted ^ reached) & bit) != 0) {
            changing = bit;
            optionChange(bit, (wanted & bit) != 0);
            reached ^= bit;
        }
    };
    try {
        for (const RawIpFamily::Switch& each : family_.switches) {
            change(each.bit);
        }
        for (const uint32_t bit : otherOptions) {
            change(bit);
        }
    } catch (...) {
        optionsStore(reached);
        if (changing == ipTransparent || changing == ipPriority) {
            handleCleanup();  // Of these two a socket in doubt is not kept.
        }
        throw;
    }
    optionsStore(wanted);
}

void RawIpPam::optionChange(uint32_t bit, bool on) {
    const int fd = socket();
    for (const RawIpFamily::Switch& each : family_.switches) {
        if (each.bit == bit) {
            switchIs(*this, family_, each, fd, on);
            return;
        }
    }
    if (bit == ipAttachFilter && on) {
        attachFilter(fd);
    } else if (bit == ipAttachFilter) {
        socketOptionIs(fd, SOL_SOCKET, SO_DETACH_FILTER, 0, "setsockopt(SO_DETACH_FILTER)");
    } else if (bit == ipRcvBuf) {
        socketOptionIs(fd, SOL_SOCKET, SO_RCVBUFFORCE, on ? rxBuf() : 0,
                       on ? "setsockopt(SO_RCVBUFFIRCE)" : "setsockopt(SO_RCVBUFFORCE)");
    } else if (bit == ipTransparent) {
        switchIs(*this, family_, family_.transparent, fd, on);
    } else {
        socketPriorityIs(fd, on ? priority() : 0);
    }
}

void RawIpPam::attachFilter(int fd) const {
    static_assert(sizeof(IpFilter) == sizeof(sock_filter));
    const uint32_t count = rxFilter().members();
    if (count == 0) {
        throw Mox::ErrnoException(EINVAL,
                                  "SO_ATTACH_FILTER option must be supplied with a valid filter");
    }
    const std::unique_ptr<sock_filter[]> copy(new (std::nothrow) sock_filter[count]);
    if (!copy) {
        throw Mox::ErrnoException(ENOMEM, "malloc failed. Out of memory");
    }
    MOX_TRACE(*family_.trace, 9, "Filter is: ");
    for (uint32_t i = 0; i < count; ++i) {
        const IpFilter& each = rxFilter().at(i);
        copy[i] = {each.code(), each.jt(), each.jf(), each.k()};
        MOX_TRACE(*family_.trace, 9, "Filter[", i, "] ", each);
    }
    const sock_fprog image{static_cast<unsigned short>(count), copy.get()};
    socketOptionIs(fd, SOL_SOCKET, SO_ATTACH_FILTER, image, "setsockopt(SO_ATTACH_FILTER)");
}

void RawIpPam::socketPriorityIs(int fd, uint32_t priority) const {
    MOX_TRACE(*family_.trace, 9, "Socket priority is ", priority);
    socketOptionIs(fd, SOL_SOCKET, SO_PRIORITY, priority, "setsockopt(SO_PRIORITY)");
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
    family_.tosIs(socket(), txTOS().value());
    if ((options() & ipPriority) != 0) {
        socketPriorityIs(socket(), priority());
    }
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
        family_.pktOptionsIs(socket(), ipPktOptions_);
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
    const char* failure = member ? family_.joinFailure : family_.leaveFailure;
    if (group.af() != family_.addressFamily) {
        throw Mox::ErrnoException(EAFNOSUPPORT, failure);
    }
    if (!fileDesc()) {
        return;
    }
    const int result = group.af() == ipv4
                           ? doJoinLeaveMcastGroup(socket(), ifIndex, group.v4Addr(), member)
                           : doJoinLeaveMcastGroup(socket(), ifIndex, group.v6Addr(), member);
    if (result < 0) {
        Mox::throwErrnoException(failure);
    }
}

bool RawIpPam::isForeign(const IpGenAddr& address) const {
    return address.af() != family_.addressFamily && address.af() != ipunknown;
}

void RawIpPam::doGetRxPkt() {
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

void RawIpPam::doGetRxPktSingle() {
    if (!enabled()) {
        MOX_TRACE(*family_.trace, 1, family_.className, " not enabled. Aborting action");
        return;
    }
    const Mox::Ptr<Pkt> pkt = newRoom(maxRxPktData(), *family_.trace);
    if (!pkt) {
        return;
    }
    RxMessage room;
    msghdr message;
    room.prepare(&message, *pkt, family_);
    const ssize_t received = recvmsg(socket(), &message, rxFlags());
    const int error = errno;
    fileDesc()->readTried(received >= 0 || error != EAGAIN);
    if (received < 0) {
        receiveFailed(error);
        return;
    }
    RxPacketInfo info;
    const uint32_t carried = readMessage(message, &info);
    shrinkTo(*pkt, static_cast<std::size_t>(received));
    packetInfoIs(info, carried);
    rxPktCountInc(1);
    rxPktIs(pkt);
}

// What one recvmmsg(2) works on: an entry a slot, kept from round to round.
struct RawIpPam::BulkRead {
    explicit BulkRead(uint32_t slots) : pkts(slots), rooms(slots), messages(slots), infos(slots) {}

    uint32_t slots() const { return static_cast<uint32_t>(pkts.size()); }

    std::vector<Mox::Ptr<Pkt>> pkts;
    std::vector<RxMessage> rooms;
    std::vector<mmsghdr> messages;
    std::vector<RxPacketInfo> infos;
};

RawIpPam::RawIpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs,
                   const RawIpFamily& family)
    : EntityOf(std::move(name), protocol, std::move(netNs)), family_(family) {}

RawIpPam::~RawIpPam() = default;

// Puts a packet to read into in every slot. False when there is none to be had.
bool RawIpPam::prepareBulkRead() {
    const uint32_t slots = bulkSlots();
    if (!bulkRead_ || bulkRead_->slots() != slots) {
        bulkRead_ = std::make_unique<BulkRead>(slots);
    }
    for (uint32_t slot = 0; slot < slots; ++slot) {
        Mox::Ptr<Pkt> pkt = roomAgain(savedPacket().at(slot), maxRxPktData());
        if (!pkt) {
            pkt = newRoom(maxRxPktData(), *family_.trace);
        }
        if (!pkt) {
            return false;
        }
        bulkRead_->rooms[slot].prepare(&bulkRead_->messages[slot].msg_hdr, *pkt, family_);
        bulkRead_->messages[slot].msg_len = 0;
        bulkRead_->pkts[slot] = std::move(pkt);
    }
    return slots != 0;
}

int32_t RawIpPam::nothingInBulk() {
    savedPacketInfo_.clear();
    for (uint32_t slot = 0; slot < savedPacketRx().members(); ++slot) {
        savedPacketRxIs(slot, false);
    }
    return 0;
}

int32_t RawIpPam::doGetRxPktBulk() {
    if (!enabled()) {
        MOX_TRACE(*family_.trace, 1, family_.className, " not enabled. Aborting action");
        return nothingInBulk();
    }
    if (!prepareBulkRead()) {
        return nothingInBulk();
    }
    // An observer of what follows may change the slots, and so what the next round works on.
    std::unique_ptr<BulkRead> round = std::move(bulkRead_);
    const int received = recvmmsg(socket(), round->messages.data(), round->slots(),
                                  rxFlags() | MSG_DONTWAIT, nullptr);
    const int error = errno;
    fileDesc()->readTried(received >= 0 || error != EAGAIN);
    const uint32_t count = received < 0 ? 0 : static_cast<uint32_t>(received);
    uint32_t carried = none;
    for (uint32_t slot = 0; slot < count; ++slot) {
        round->infos[slot] = RxPacketInfo();
        carried = readMessage(round->messages[slot].msg_hdr, &round->infos[slot]);
        shrinkTo(*round->pkts[slot], round->messages[slot].msg_len);
    }
    savedPacketInfo_.assign(round->infos.begin(), round->infos.begin() + count);
    for (uint32_t slot = 0; slot < count; ++slot) {
        tapSlot(slot, *round->pkts[slot]);
    }
    for (uint32_t slot = 0; slot < round->slots(); ++slot) {
        savedPacketIs(slot, std::move(round->pkts[slot]));
        savedPacketRxIs(slot, slot < count);
    }
    if (count != 0) {
        packetInfoIs(round->infos[count - 1], carried);
    }
    bulkRead_ = std::move(round);
    if (received < 0) {
        receiveFailed(error);
        return 0;
    }
    rxPktCountInc(count);
    return received;
}

RxPacketInfo RawIpPam::savedPacketInfo(uint32_t slot) const {
    return slot < savedPacketInfo_.size() ? savedPacketInfo_[slot] : RxPacketInfo();
}

void RawIpPam::slotIs(uint32_t slot, const Mox::Ptr<Pkt>& pkt, const RxPacketInfo& info) {
    savedPacketInfo_.resize(slot);
    savedPacketInfo_.push_back(info);
    tapSlot(slot, *pkt);
    savedPacketIs(slot, pkt);
    savedPacketRxIs(slot, true);
}

// Fills in what the kernel says of a packet; returns the bits of the options that asked for it.
uint32_t RawIpPam::readMessage(const msghdr& message, RxPacketInfo* info) {
    family_.takeName(static_cast<const sockaddr*>(message.msg_name), info);
    const bool controlCut = (message.msg_flags & MSG_CTRUNC) != 0;
    if (controlCut || (message.msg_flags & MSG_TRUNC) != 0) {
        MOX_TRACE(*family_.trace, 1, "packet or control data cut short, flags ", message.msg_flags);
    }
    const uint32_t carried = family_.takeControls(message, info);
    if (controlCut || (options() & promisedControl & ~carried) != 0) {
        ++faultyControlData_;
    }
    if ((carried & ipRecvOrigDstAddr) != 0) {
        MOX_TRACE(*family_.trace, 9, "Original destination IP is ", info->origDstIpAddr,
                  " with destination IP of ", info->dstIpAddr);
    }
    if ((carried & ipRecvTTL) != 0) {
        MOX_TRACE(*family_.trace, 9, "TTL of received packet is 0x", std::hex, unsigned{info->ttl});
    }
    return carried;
}

void RawIpPam::packetInfoIs(const RxPacketInfo& info, uint32_t carried) {
    rxSrcIpAddrIs(info.srcIpAddr);
    if (info.ifIndex != 0) {
        rxIfIndexIs(info.ifIndex);
    }
    if ((carried & ipPktInfo) != 0) {
        rxDstIpAddrIs(info.dstIpAddr);
    }
    if ((carried & ipRecvOrigDstAddr) != 0) {
        rxOrigDstIpAddrIs(info.origDstIpAddr);
    }
    if ((carried & ipRecvTOS) != 0) {
        rxTOSIs(info.tos);
    }
    if ((carried & ipRecvTTL) != 0) {
        rxTTLIs(info.ttl);
    }
}

void RawIpPam::receiveFailed(int error) {
    if (error != EAGAIN) {
        ++failedReads_;
        MOX_TRACE(*family_.trace, 1, "recvmsg failed : ", std::strerror(error));
    }
    if ((options() & ipRecvErr) != 0) {
        drainErrorQueue();
    }
    rxErrorsInc(1);
}

// A queued error keeps the socket in EPOLLERR until it is read.
void RawIpPam::drainErrorQueue() {
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    if (!fd) {
        return;  // Closed by somebody who was told of the failed read.
    }
    uint32_t drained = 0;
    char data[1];
    iovec room{data, sizeof(data)};
    msghdr message{};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    while (drained < 1024 &&
           recvmsg(fd->descriptor(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0) {
        ++drained;
    }
    if (drained != 0) {
        rxErrorsInc(drained);
    }
}

void RawIpPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled(), "enabled()");
    // An observer of what is counted may close the socket, or drop the endpoint.
    const Mox::Ptr<RawIpPam> hold(this);
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    txErrnoIs(0);
    if (sendOn(fd->descriptor(), *pkt)) {
        txPktCountInc(1);
        return;
    }
    const int error = errno;
    MOX_TRACE(*family_.trace, 1, "sendmsg failed : ", std::strerror(error));
    // Without IP_HDRINCL the kernel reports a full send buffer as ENOBUFS.
    if (error == EAGAIN || error == ENOBUFS) {
        fd->writeMetNoRoom();
    }
    txErrnoIs(error);
    txErrorsInc(1);
}

// One packet by one system call, and one more before it where the interface is given by name.
// False with `errno` set when it was not sent.
bool RawIpPam::sendOn(int fd, const Pkt& pkt) const {
    if (isForeign(txDstIpAddr()) || isForeign(txSrcIpAddr())) {
        errno = EAFNOSUPPORT;
        return false;
    }
    if (txIfIndex() > INT_MAX) {  // The kernel's indices are ints.
        errno = ENODEV;
        return false;
    }
    const bool byName = txIfIndex() == 0 && !txIfName().empty();
    const int ifIndex = byName ? interfaceIndex(fd, txIfName()) : static_cast<int>(txIfIndex());
    if (ifIndex < 0) {
        return false;
    }
    sockaddr_in6 name;  // Has room for that of IPv4.
    family_.nameIs(reinterpret_cast<sockaddr*>(&name), txDstIpAddr());
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[RawIpFamily::maxTxControlBytes] = {};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = family_.nameBytes;
    message.msg_iov = data;
    message.msg_iovlen = iovecsOf(pkt, data);
    if (ifIndex != 0 || !txSrcIpAddr().address().isZero()) {
        message.msg_control = control;
        message.msg_controllen = family_.txControlBytes;
        family_.pktInfoIs(CMSG_FIRSTHDR(&message), static_cast<uint32_t>(ifIndex), txSrcIpAddr());
    }
    MOX_TRACE(*family_.trace, 9, "sendmsg( ) with flags : ", txFlags());
    return sendmsg(fd, &message, txFlags()) >= 0;
}

}  // namespace Pavo
