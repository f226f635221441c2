#include "Pavo/link/EthDevPam.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Pavo/link/EthFormat.h"
#include "Pavo/link/EthFrames.h"
#include "Pavo/link/EthRing.h"
#include "Pavo/pam/BpfFilter.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/PktSender.h"
#include "Pavo/pam/SocketOptions.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::EthDevPam");

// Before the socket is bound, it receives nothing. The options that every endpoint has come first.
constexpr std::array<SocketOption, 5> ethOptions{
    {{none, SocketOptionSteps::plain, SOL_PACKET, PACKET_AUXDATA, "setsockopt(PACKET_AUXDATA)"},
     {none, SocketOptionSteps::plain, SOL_PACKET, PACKET_IGNORE_OUTGOING,
      "setsockopt(PACKET_IGNORE_OUTGOING)"},
     rcvBufOption,
     priorityOption,
     timestampOption}};

}  // namespace

EthDevPam::EthDevPam(Mox::String name, NamespaceName netNs)
    : EntityOf(std::move(name), stepsOf<EthDevPam>(), socketStepsOf<EthDevPam>(), facility,
               "EthDevPam"),
      netNs_(std::move(netNs)) {
    socket().closesLaterIs();
}

EthDevPam::~EthDevPam() = default;

SocketOptionTable EthDevPam::optionTable() const {
    return ethOptions;
}

SocketSettings EthDevPam::socketSettings() const {
    return {*this, facility, nullptr, options(), program_, rxBuf(), priority(), {}};
}

void EthDevPam::open() {
    requireEventLoop();
    const int fd = socketAt(AF_PACKET, SOCK_RAW, 0, netNs_.value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    const uint32_t ifIndex = wantedIfIndex(fd);
    configureSocket(ethOptions, socketSettings(), fd);
    if (program_.members() != 0) {
        attachSocketFilter(facility, fd, {}, program_);
    }
    std::unique_ptr<EthRing> ring;
    if (rxRingBlocks_ != 0) {
        ring = std::make_unique<EthRing>(
            fd, EthRingSize{rxRingBlocks_, rxRingBlockBytes_, rxRingTimeoutMs_});
    }
    const EthAddr ethAddr = bindTo(fd, ifIndex);
    if (promiscuous_) {
        membershipIs(fd, ifIndex, PACKET_MR_PROMISC, {}, /*member=*/true);
    }
    descriptor->nonBlockingIs(true);
    ethAddr_ = ethAddr;
    boundIfIndex_ = ifIndex;
    unread_ = 0;
    ring_ = std::move(ring);
    receiver().formatIs(ethFormat());
    socket().fileDescIs(descriptor);
}

uint32_t EthDevPam::wantedIfIndex(int fd) const {
    if (device_.empty()) {
        // The kernel would take 0 for all interfaces, and its indices are ints.
        return ifIndex_ != 0 && ifIndex_ <= INT_MAX ? ifIndex_
                                                    : throw Mox::ErrnoException(ENODEV, "bind");
    }
    const int ifIndex = interfaceIndexAt(fd, device_);
    if (ifIndex < 0) {
        Mox::throwErrnoException("ioctl(SIOCGIFINDEX)");
    }
    return static_cast<uint32_t>(ifIndex);
}

// Returns the MAC address of the device.
EthAddr EthDevPam::bindTo(int fd, uint32_t ifIndex) const {
    sockaddr_ll name{};
    name.sll_family = AF_PACKET;
    name.sll_protocol = htons(etherType_);
    name.sll_ifindex = static_cast<int>(ifIndex);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof(name)) < 0) {
        Mox::throwErrnoException("bind");
    }
    socklen_t bytes = sizeof(name);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&name), &bytes) < 0) {
        Mox::throwErrnoException("getsockname");
    }
    if (name.sll_hatype != ARPHRD_ETHER && name.sll_hatype != ARPHRD_LOOPBACK) {
        throw Mox::ErrnoException(EAFNOSUPPORT, "getsockname");
    }
    EthAddr address;
    std::memcpy(&address, name.sll_addr, sizeof(address));
    return address;
}

void EthDevPam::membershipIs(int fd, uint32_t ifIndex, uint16_t type, const EthAddr& address,
                             bool member) const {
    packet_mreq request{};
    request.mr_ifindex = static_cast<int>(ifIndex);
    request.mr_type = type;
    request.mr_alen = sizeof(address);
    std::memcpy(request.mr_address, &address, sizeof(address));
    socketOptionIs(
        fd, SOL_PACKET, member ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP, request,
        member ? "setsockopt(PACKET_ADD_MEMBERSHIP)" : "setsockopt(PACKET_DROP_MEMBERSHIP)");
}

void EthDevPam::close() {
    drops_ += addStatistics() ? unread_ : 0;
    boundIfIndex_ = 0;
    ethAddr_ = EthAddr();
    ring_ = nullptr;
    socket().close();
}

// Adds up what the kernel has counted since the last look. False while there is no socket.
bool EthDevPam::addStatistics() const {
    tpacket_stats counts{};
    socklen_t bytes = sizeof(counts);
    if (!socket().isOpen() ||
        getsockopt(socket().number(), SOL_PACKET, PACKET_STATISTICS, &counts, &bytes) < 0) {
        return false;
    }
    drops_ += counts.tp_drops;
    unread_ += counts.tp_packets - counts.tp_drops;  // Those that were dropped are included.
    return true;
}

uint32_t EthDevPam::rxDrops() const {
    (void)addStatistics();
    return drops_;
}

void EthDevPam::rxDropsIs(uint32_t drops) {
    (void)addStatistics();
    drops_ = drops;
}

void EthDevPam::promiscuousIs(bool promiscuous) {
    const auto apply = [&](int fd) {
        membershipIs(fd, boundIfIndex_, PACKET_MR_PROMISC, {}, promiscuous);
    };
    if (applied(promiscuous_, promiscuous, apply)) {
        notify(promiscuousAttr);
    }
}

Mox::String EthDevPam::tryRxFilter(const Mox::String& expression) {
    if (expression == rxFilter_) {
        return {};
    }
    std::vector<IpFilter> instructions;
    if (!expression.empty()) {
        Mox::String error = ethFilterFromText(expression, &instructions);
        if (!error.empty()) {
            return error;
        }
    }
    Mox::Array<IpFilter> program;
    for (uint32_t i = 0; i < instructions.size(); ++i) {
        (void)program.is(i, instructions[i]);
    }
    if (socket().isOpen() && program.members() != 0) {
        attachSocketFilter(facility, socket().number(), {}, program);
    } else if (socket().isOpen()) {
        socketOptionIs(socket().number(), SOL_SOCKET, SO_DETACH_FILTER, 0,
                       "setsockopt(SO_DETACH_FILTER)");
    }
    program_ = std::move(program);
    attributeIs(rxFilter_, expression, rxFilterAttr);
    return {};
}

void EthDevPam::doJoinMcastGroup(const EthAddr& group) {
    Mox::require(enabled(), "enabled()");
    membershipIs(socket().isOpen() ? socket().number() : -1, boundIfIndex_, PACKET_MR_MULTICAST,
                 group, /*member=*/true);
}

void EthDevPam::doLeaveMcastGroup(const EthAddr& group) {
    Mox::require(enabled(), "enabled()");
    membershipIs(socket().isOpen() ? socket().number() : -1, boundIfIndex_, PACKET_MR_MULTICAST,
                 group, /*member=*/false);
}

RxSettings EthDevPam::rxSettings() const {
    return {options() & ipRecvTimestamp, /*flags=*/0, maxRxPktData(),
            std::max(rxBufferBytes(), maxRxPktData())};
}

RxRound EthDevPam::readOne(Mox::Ptr<Pkt>* pkt, RxInfo* info) {
    const RxRound round = ring_ ? ring_->readOne(&socket(), rxSettings(), pkt, info)
                                : receiver().readOne(&socket(), rxSettings(), pkt, info);
    unread_ -= round.packets;
    return round;
}

std::unique_ptr<RxBatch> EthDevPam::readBatch() try {
    std::unique_ptr<RxBatch> batch;
    if (!ring_) {
        batch = receiver().readBatch(&socket(), rxSettings(), RxInfo(), savedPacket(), bulkSlots());
    } else {
        batch = receiver().newBatch(bulkSlots());
        if (!ring_->readBatch(&socket(), rxSettings(), savedPacket(), batch.get())) {
            batch = nullptr;
        }
    }
    unread_ -= batch ? batch->round.packets : 0;
    return batch;
} catch (const std::bad_alloc&) {
    socket().readEnded(PamSocket::ReadEnd::failed);
    return nullptr;
}

TxResult EthDevPam::send(int fd, std::span<const Mox::Ptr<Pkt>> pkts) {
    return sendFrames(fd, boundIfIndex_, pkts, receiver().trace());
}

Mox::Ptr<EthDevPam> ethDevPamFactory(Mox::String name, NamespaceName netNs) {
    return Mox::make<EthDevPam>(std::move(name), std::move(netNs));
}

}  // namespace Pavo
