#include "Pavo/IpSocketPam.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::IpSocketPam");

constexpr const Mox::AttributeBase* attributes[] = {&IpSocketPam::ipPktOptionAttr};

// The options that are plain switches, with the texts of their failures. The order is that of
// enabling and of every later change; the filter, the buffer and what follows are not plain.
constexpr struct {
    uint32_t bit;
    int option;
    const char* failure;
} switches[] = {
    {ipHdrIncl, IP_HDRINCL, "setsockopt(IP_HDRINCL)"},
    {ipPktInfo, IP_PKTINFO, "setsockopt(IP_PKTINFO)"},
    {ipFreeBind, IP_FREEBIND, "setsockopt(IP_FREEBIND)"},
    {ipMulticastLoop, IP_MULTICAST_LOOP, "setsockopt(IP_MULTICAST_LOOP)"},
    {ipRecvErr, IP_RECVERR, "setsockopt(IP_RECVERR)"},
    {ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, "setsockopt(IP_RECVORIGDSTADD)"},
    {ipRecvTOS, IP_RECVTOS, "setsockopt(IP_RECVTOS)"},
    {ipRecvTTL, IP_RECVTTL, "setsockopt(IP_RECVTTL)"},
    {ipRouterAlert, IP_ROUTER_ALERT, "setsockopt(IP_ROUTER_ALERT)"},
};

// Room for every control message that the options can ask for, and the part of it that one packet
// information message takes; the kernel counts the message headers of the process's word size.
constexpr std::size_t rxControlBytes = CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(int)) +
                                       CMSG_SPACE(sizeof(uint8_t)) +
                                       CMSG_SPACE(sizeof(sockaddr_in));
constexpr std::size_t txControlBytes = CMSG_SPACE(sizeof(in_pktinfo));
static_assert(sizeof(void*) != 4 || (rxControlBytes == 84 && txControlBytes == 24));

template <class Value>
void setOption(int fd, int level, int option, const Value& value, const char* failure) {
    if (setsockopt(fd, level, option, &value, sizeof(value)) < 0) {
        Mox::throwErrnoException(failure);
    }
}

void attachFilter(int fd, const Mox::Array<IpFilter>& program) {
    static_assert(sizeof(IpFilter) == sizeof(sock_filter));
    const uint32_t count = program.members();
    if (count == 0) {
        throw Mox::ErrnoException(EINVAL,
                                  "SO_ATTACH_FILTER option must be supplied with a valid filter");
    }
    const std::unique_ptr<sock_filter[]> copy(new (std::nothrow) sock_filter[count]);
    if (!copy) {
        throw Mox::ErrnoException(ENOMEM, "malloc failed. Out of memory");
    }
    MOX_TRACE(facility, 9, "Filter is: ");
    for (uint32_t i = 0; i < count; ++i) {
        const IpFilter& each = program.at(i);
        copy[i] = {each.code(), each.jt(), each.jf(), each.k()};
        MOX_TRACE(facility, 9, "Filter[", i, "] ", each);
    }
    const sock_fprog image{static_cast<unsigned short>(count), copy.get()};
    setOption(fd, SOL_SOCKET, SO_ATTACH_FILTER, image, "setsockopt(SO_ATTACH_FILTER)");
}

void setTransparent(int fd, bool on) {
    setOption(fd, IPPROTO_IP, IP_TRANSPARENT, int{on}, "setsockopt(IP_TRANSPARENT)");
}

void setPriority(int fd, uint32_t priority) {
    MOX_TRACE(facility, 9, "Socket priority is ", priority);
    setOption(fd, SOL_SOCKET, SO_PRIORITY, priority, "setsockopt(SO_PRIORITY)");
}

void setPktOptions(int fd, const Mox::Set<IpPktOption>& options) {
    static constexpr uint8_t routerAlert[] = {148, 4, 0, 0};  // RFC 2113, 2.1.
    const bool on = options.contains(ipPktRouterAlert);
    if (setsockopt(fd, IPPROTO_IP, IP_OPTIONS, routerAlert, on ? sizeof(routerAlert) : 0) < 0) {
        Mox::throwErrnoException("setsockopt(IP_OPTIONS)");
    }
}

IpAddr addressOf(const in_addr& address) {
    return IpAddr(ntohl(address.s_addr));
}

sockaddr_in socketAddressOf(const IpGenAddr& address) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    address.v4Addr().copyToBuffer(reinterpret_cast<unsigned char*>(&name.sin_addr));
    return name;
}

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
    sockaddr_in name;
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[rxControlBytes];

    void prepare(msghdr* message, const Pkt& pkt) {
        *message = {};
        message->msg_name = &name;
        message->msg_namelen = sizeof(name);
        message->msg_iov = data;
        message->msg_iovlen = iovecsOf(pkt, data);
        message->msg_control = control;
        message->msg_controllen = sizeof(control);
    }
};

// Which members of `RxPacketInfo` a packet carried.
constexpr uint32_t hasPktInfo = 1;
constexpr uint32_t hasOrigDst = 2;
constexpr uint32_t hasTos = 4;
constexpr uint32_t hasTtl = 8;

// The value of a control message, if it is all there: the kernel cuts the last one where the buffer
// ends.
template <class Value>
bool readControl(const cmsghdr* message, Value* value) {
    if (message->cmsg_len < CMSG_LEN(sizeof(Value))) {
        return false;
    }
    std::memcpy(value, CMSG_DATA(message), sizeof(Value));
    return true;
}

// Fills in what one control message says; returns its bit.
uint32_t takeControl(const cmsghdr* message, RxPacketInfo* info) {
    if (message->cmsg_level != IPPROTO_IP) {
        return 0;
    }
    in_pktinfo pktInfo{};
    sockaddr_in origDst{};
    switch (message->cmsg_type) {
        case IP_PKTINFO:
            if (!readControl(message, &pktInfo)) {
                return 0;
            }
            info->ifIndex = static_cast<uint32_t>(pktInfo.ipi_ifindex);
            info->dstIpAddr = addressOf(pktInfo.ipi_addr);
            return hasPktInfo;
        case IP_ORIGDSTADDR:
            if (!readControl(message, &origDst)) {
                return 0;
            }
            info->origDstIpAddr = addressOf(origDst.sin_addr);
            return hasOrigDst;
        case IP_TOS:
            return readControl(message, &info->tos) ? hasTos : 0;
        case IP_TTL:  // An int in host order on the wire of the process; its first byte is the TTL.
            return readControl(message, &info->ttl) ? hasTtl : 0;
        default:
            return 0;
    }
}

uint32_t readMessage(const msghdr& message, RxPacketInfo* info) {
    sockaddr_in source{};
    std::memcpy(&source, message.msg_name, sizeof(source));
    info->srcIpAddr = addressOf(source.sin_addr);
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        MOX_TRACE(facility, 1, "packet or control data cut short, flags ", message.msg_flags);
    }
    uint32_t present = 0;
    if (message.msg_controllen < sizeof(cmsghdr)) {
        return present;
    }
    for (const cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(each))) {
        present |= takeControl(each, info);
    }
    if ((present & hasOrigDst) != 0) {
        MOX_TRACE(facility, 9, "Original destination IP is ", info->origDstIpAddr,
                  " with destination IP of ", info->dstIpAddr);
    }
    if ((present & hasTtl) != 0) {
        MOX_TRACE(facility, 9, "TTL of received packet is 0x", std::hex, unsigned{info->ttl});
    }
    return present;
}

// A new packet with `bytes` of data to read into.
Mox::Ptr<Pkt> newRoom(uint32_t bytes) {
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

}  // namespace

constinit const Mox::FwkType IpSocketPam::type{"Pavo::IpSocketPam", &IpPam::type, attributes};

const Mox::FwkType* IpSocketPam::fwkType() const {
    return &type;
}

int IpSocketPam::socket() const {
    return fileDesc()->descriptor();
}

void IpSocketPam::enabledIsImpl(bool enable) {
    if (!enable) {
        handleCleanup();
        return;
    }
    open();
    try {
        enabledStore(true);  // Before the machine's first bumps, on which agents read and write.
        fdSmIs();
    } catch (...) {
        handleCleanup();
        throw;
    }
}

// Opens and configures the socket; on failure nothing is left of it.
void IpSocketPam::open() {
    const int fd =
        socketAt(AF_INET, SOCK_RAW, static_cast<int>(protocol()), netNs().value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    for (const auto& each : switches) {
        if ((options() & each.bit) != 0) {
            setOption(fd, IPPROTO_IP, each.option, 1, each.failure);
        }
    }
    if ((options() & ipAttachFilter) != 0) {
        attachFilter(fd, rxFilter());
    }
    if ((options() & ipRcvBuf) != 0) {
        setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, rxBuf(), "setsockopt(SO_RCVBUFFORCE)");
    }
    if (txTOS() != IpDscp()) {
        MOX_TRACE(facility, 9, "TOS=", txTOS());
        setOption(fd, IPPROTO_IP, IP_TOS, txTOS().value(), "setsockopt(IP_TOS)");
    }
    if (txTTL() != IpTtl()) {
        setOption(fd, IPPROTO_IP, IP_TTL, int{txTTL().value()}, "setsockopt(IP_TTL)");
    }
    if ((options() & ipTransparent) != 0) {
        setTransparent(fd, true);
    }
    if ((options() & ipPriority) != 0) {
        setPriority(fd, priority());
    }
    if (ipPktOptions_.members() != 0) {
        setPktOptions(fd, ipPktOptions_);
    }
    descriptor->nonBlockingIs(true);
    fileDescIs(descriptor);
}

void IpSocketPam::handleCleanup() {
    fileDescDel();
    enabledStore(false);
}

void IpSocketPam::optionsIsImpl(uint32_t wanted) {
    if (!enabled()) {
        optionsStore(wanted);
        return;
    }
    // One bit after the other, so that a failure leaves `options` describing the socket.
    static constexpr uint32_t order[] = {
        ipHdrIncl,         ipPktInfo,     ipFreeBind, ipMulticastLoop, ipRecvErr,
        ipRecvOrigDstAddr, ipRecvTOS,     ipRecvTTL,  ipRouterAlert,   ipAttachFilter,
        ipRcvBuf,          ipTransparent, ipPriority};
    uint32_t reached = options();
    uint32_t changing = none;
    try {
        for (const uint32_t bit : order) {
            if (((wanted ^ reached) & bit) != 0) {
                changing = bit;
                optionChange(bit, (wanted & bit) != 0);
                reached ^= bit;
            }
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

void IpSocketPam::optionChange(uint32_t bit, bool on) {
    const int fd = socket();
    for (const auto& each : switches) {
        if (each.bit == bit) {
            setOption(fd, IPPROTO_IP, each.option, int{on}, each.failure);
            return;
        }
    }
    if (bit == ipAttachFilter && on) {
        attachFilter(fd, rxFilter());
    } else if (bit == ipAttachFilter) {
        setOption(fd, SOL_SOCKET, SO_DETACH_FILTER, 0, "setsockopt(SO_DETACH_FILTER)");
    } else if (bit == ipRcvBuf) {
        setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, on ? rxBuf() : 0,
                  on ? "setsockopt(SO_RCVBUFFIRCE)" : "setsockopt(SO_RCVBUFFORCE)");
    } else {
        bit == ipTransparent ? setTransparent(fd, on) : setPriority(fd, on ? priority() : 0);
    }
}

void IpSocketPam::handleTxTOS() {
    if (enabled()) {
        handleTxTos();
    }
}

void IpSocketPam::handleTxTTL() {
    if (enabled()) {
        handleTxTtl();
    }
}

void IpSocketPam::handleTxTos() const {
    setOption(socket(), IPPROTO_IP, IP_TOS, txTOS().value(), "setsockopt(IP_TOS)");
    if ((options() & ipPriority) != 0) {
        setPriority(socket(), priority());
    }
}

void IpSocketPam::handleTxTtl() const {
    const int ttl = txTTL() == IpTtl() ? -1 : int{txTTL().value()};
    setOption(socket(), IPPROTO_IP, IP_TTL, ttl, "setsockopt(IP_TTL)");
}

void IpSocketPam::ipPktOptionIs(IpPktOption option, bool wanted) {
    if (!(wanted ? ipPktOptions_.add(option) : ipPktOptions_.del(option))) {
        return;
    }
    try {
        setIpPktOptions();
    } catch (...) {
        wanted ? ipPktOptions_.del(option) : ipPktOptions_.add(option);
        throw;
    }
    notify(ipPktOptionAttr, option);
}

void IpSocketPam::ipPktOptionDelAll() {
    ipPktOptionDel(ipPktRouterAlert);
}

void IpSocketPam::setIpPktOptions() {
    if (enabled()) {
        setPktOptions(socket(), ipPktOptions_);
    }
}

void IpSocketPam::doGetRxPkt() {
    rxPktIs(nullptr);
    if (enableBulkRead()) {
        doGetRxPktBulk();
    } else {
        doGetRxPktSingle();
    }
}

int32_t IpSocketPam::doGetBulkRxPkt() {
    return doGetRxPktBulk();
}

void IpSocketPam::doGetRxPktSingle() {
    if (!enabled()) {
        MOX_TRACE(facility, 1, "IpSocketPam not enabled. Aborting action");
        return;
    }
    const Mox::Ptr<Pkt> pkt = newRoom(maxRxPktData());
    if (!pkt) {
        return;
    }
    RxMessage room;
    msghdr message;
    room.prepare(&message, *pkt);
    const ssize_t received = recvmsg(socket(), &message, rxFlags());
    const int error = errno;
    fileDesc()->readTried(received >= 0 || error != EAGAIN);
    if (received < 0) {
        receiveFailed(error);
        return;
    }
    RxPacketInfo info;
    const uint32_t present = readMessage(message, &info);
    shrinkTo(*pkt, static_cast<std::size_t>(received));
    packetInfoIs(info, present);
    rxPktCountInc(1);
    rxPktIs(pkt);
}

// What one recvmmsg(2) works on: an entry a slot, kept from round to round.
struct IpSocketPam::BulkRead {
    explicit BulkRead(uint32_t slots) : pkts(slots), rooms(slots), messages(slots), infos(slots) {}

    uint32_t slots() const { return static_cast<uint32_t>(pkts.size()); }

    std::vector<Mox::Ptr<Pkt>> pkts;
    std::vector<RxMessage> rooms;
    std::vector<mmsghdr> messages;
    std::vector<RxPacketInfo> infos;
};

IpSocketPam::IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : IpPam(std::move(name), protocol, std::move(netNs)) {}

IpSocketPam::~IpSocketPam() = default;

// Puts a packet to read into in every slot. False when there is none to be had.
bool IpSocketPam::prepareBulkRead() {
    const uint32_t slots = bulkSlots();
    if (!bulkRead_ || bulkRead_->slots() != slots) {
        bulkRead_ = std::make_unique<BulkRead>(slots);
    }
    for (uint32_t slot = 0; slot < slots; ++slot) {
        Mox::Ptr<Pkt> pkt = roomAgain(savedPacket().at(slot), maxRxPktData());
        if (!pkt) {
            pkt = newRoom(maxRxPktData());
        }
        if (!pkt) {
            return false;
        }
        bulkRead_->rooms[slot].prepare(&bulkRead_->messages[slot].msg_hdr, *pkt);
        bulkRead_->messages[slot].msg_len = 0;
        bulkRead_->pkts[slot] = std::move(pkt);
    }
    return slots != 0;
}

// Nothing was read: no slot holds a packet of this round.
int32_t IpSocketPam::nothingInBulk() {
    savedPacketInfo_.clear();
    for (uint32_t slot = 0; slot < savedPacketRx().members(); ++slot) {
        savedPacketRxIs(slot, false);
    }
    return 0;
}

int32_t IpSocketPam::doGetRxPktBulk() {
    if (!enabled()) {
        MOX_TRACE(facility, 1, "IpSocketPam not enabled. Aborting action");
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
    uint32_t present = 0;
    for (uint32_t slot = 0; slot < count; ++slot) {
        round->infos[slot] = RxPacketInfo();
        present = readMessage(round->messages[slot].msg_hdr, &round->infos[slot]);
        shrinkTo(*round->pkts[slot], round->messages[slot].msg_len);
    }
    savedPacketInfo_.assign(round->infos.begin(), round->infos.begin() + count);
    for (uint32_t slot = 0; slot < round->slots(); ++slot) {
        savedPacketIs(slot, std::move(round->pkts[slot]));
        savedPacketRxIs(slot, slot < count);
    }
    if (count != 0) {
        packetInfoIs(round->infos[count - 1], present);
    }
    bulkRead_ = std::move(round);
    if (received < 0) {
        receiveFailed(error);
        return 0;
    }
    rxPktCountInc(count);
    return received;
}

RxPacketInfo IpSocketPam::savedPacketInfo(uint32_t slot) const {
    return slot < savedPacketInfo_.size() ? savedPacketInfo_[slot] : RxPacketInfo();
}

void IpSocketPam::packetInfoIs(const RxPacketInfo& info, uint32_t present) {
    rxSrcIpAddrIs(info.srcIpAddr);
    if ((present & hasPktInfo) != 0) {
        rxIfIndexIs(info.ifIndex);
        rxDstIpAddrIs(info.dstIpAddr);
    }
    if ((present & hasOrigDst) != 0) {
        rxOrigDstIpAddrIs(info.origDstIpAddr);
    }
    if ((present & hasTos) != 0) {
        rxTOSIs(info.tos);
    }
    if ((present & hasTtl) != 0) {
        rxTTLIs(info.ttl);
    }
}

void IpSocketPam::receiveFailed(int error) {
    if (error != EAGAIN) {
        MOX_TRACE(facility, 1, "recvmsg failed : ", std::strerror(error));
    }
    if ((options() & ipRecvErr) != 0) {
        drainErrorQueue();
    }
    rxErrorsInc(1);
}

// A queued error keeps the socket in EPOLLERR until it is read.
void IpSocketPam::drainErrorQueue() {
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

void IpSocketPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled(), "enabled()");
    // An observer of what is counted may close the socket, or drop the endpoint.
    const Mox::Ptr<IpSocketPam> hold(this);
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    txErrnoIs(0);
    if (sendOn(fd->descriptor(), *pkt)) {
        txPktCountInc(1);
        return;
    }
    const int error = errno;
    MOX_TRACE(facility, 1, "sendmsg failed : ", std::strerror(error));
    if (error == EAGAIN) {
        fd->writeMetNoRoom();
    }
    txErrnoIs(error);
    txErrorsInc(1);
}

// One packet by one system call, and one more before it where the interface is given by name.
// False with `errno` set when it was not sent.
bool IpSocketPam::sendOn(int fd, const Pkt& pkt) const {
    const bool byName = txIfIndex() == 0 && !txIfName().empty();
    const int ifIndex = byName ? interfaceIndex(fd, txIfName()) : static_cast<int>(txIfIndex());
    if (ifIndex < 0) {
        return false;
    }
    sockaddr_in name = socketAddressOf(txDstIpAddr());
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[txControlBytes] = {};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = sizeof(name);
    message.msg_iov = data;
    message.msg_iovlen = iovecsOf(pkt, data);
    const IpAddr source = txSrcIpAddr().v4Addr();
    if (ifIndex != 0 || !source.isZero()) {
        in_pktinfo info{};
        info.ipi_ifindex = ifIndex;
        source.copyToBuffer(reinterpret_cast<unsigned char*>(&info.ipi_spec_dst));
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* first = CMSG_FIRSTHDR(&message);
        first->cmsg_level = IPPROTO_IP;
        first->cmsg_type = IP_PKTINFO;
        first->cmsg_len = CMSG_LEN(sizeof(info));
        std::memcpy(CMSG_DATA(first), &info, sizeof(info));
    }
    MOX_TRACE(facility, 9, "sendmsg( ) with flags : ", txFlags());
    return sendmsg(fd, &message, txFlags()) >= 0;
}

Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                         NamespaceName netNs) {
    return Mox::make<IpSocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
