#include "Pavo/link/EthDevPam.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Pavo/link/EthFormat.h"
#include "Pavo/link/EthRing.h"
#include "Pavo/pam/BpfFilter.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/SocketOptions.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::EthDevPam");

const Mox::Array<IpFilter> noFilter;  // The program is none of the endpoint's attributes.

void attach(int fd, const std::vector<IpFilter>& program) {
    std::vector<sock_filter> image;
    for (const IpFilter& each : program) {
        image.push_back({each.code(), each.jt(), each.jf(), each.k()});
    }
    attachSocketFilter(facility, fd, image, noFilter);
}

// Before the socket is bound, it receives nothing. The options that every endpoint has come first.
constexpr std::array<SocketOption, 5> optionTable{
    {{none, SocketOptionSteps::plain, SOL_PACKET, PACKET_AUXDATA, "setsockopt(PACKET_AUXDATA)"},
     {none, SocketOptionSteps::plain, SOL_PACKET, PACKET_IGNORE_OUTGOING,
      "setsockopt(PACKET_IGNORE_OUTGOING)"},
     rcvBufOption,
     priorityOption,
     timestampOption}};

}  // namespace

EthDevPam::EthDevPam(Mox::String name, NamespaceName netNs)
    : EntityOf(std::move(name)),
      netNs_(std::move(netNs)),
      receiver_(std::make_unique<PktReceiver>(facility, "EthDevPam")) {
    batchSenderIs(sendBatch);
}

EthDevPam::~EthDevPam() {
    socket_.closeLater();
}

SocketSettings EthDevPam::socketSettings() const {
    return {*this, facility, nullptr, options_, noFilter, rxBuf_, priority_, {}};
}

void EthDevPam::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<EthDevPam> hold(this);  // An observer may drop the endpoint.
    if (enabled) {
        open();
        start();
    } else {
        cleanup();
    }
}

void EthDevPam::open() {
    Mox::require(Mox::EventLoop::current() != nullptr,
                 "EventLoop::current(): enabling needs an event loop on this thread");
    const int fd = socketAt(AF_PACKET, SOCK_RAW, 0, netNs_.value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    const uint32_t ifIndex = wantedIfIndex(fd);
    configureSocket(optionTable, socketSettings(), fd);
    if (!program_.empty()) {
        attach(fd, program_);
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
    receiver_->formatIs(ethFormat());
    socket_.fileDescIs(descriptor);
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

void EthDevPam::start() {
    try {
        // Before the machine first increments the counts, on which agents read and write.
        attributeIs(enabled_, true, enabledAttr);
        socket_.watchFor(this);
    } catch (...) {
        cleanup();
        throw;
    }
}

void EthDevPam::cleanup() {
    drops_ += addStatistics() ? unread_ : 0;
    boundIfIndex_ = 0;
    ethAddr_ = EthAddr();
    ring_ = nullptr;
    socket_.closeLater();
    attributeIs(enabled_, false, enabledAttr);
}

// Adds up what the kernel has counted since the last look. False while there is no socket.
bool EthDevPam::addStatistics() const {
    tpacket_stats counts{};
    socklen_t bytes = sizeof(counts);
    if (!socket_.isOpen() ||
        getsockopt(socket_.number(), SOL_PACKET, PACKET_STATISTICS, &counts, &bytes) < 0) {
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

void EthDevPam::optionsIs(uint32_t wanted) {
    const Mox::Ptr<EthDevPam> hold(this);
    uint32_t reached = options_;
    bool closes = false;
    try {
        if (socket_.isOpen()) {
            changeSocketOptions(optionTable, socketSettings(), socket_.number(), wanted, &reached,
                                &closes);
        }
    } catch (...) {
        attributeIs(options_, reached, optionsAttr);
        if (closes) {
            cleanup();
        }
        throw;
    }
    attributeIs(options_, wanted, optionsAttr);
}

void EthDevPam::enableBulkReadIs(bool enable) {
    if (enable == enableBulkRead_) {
        return;
    }
    const Mox::Ptr<EthDevPam> hold(this);
    const std::vector<Mox::Ptr<Pkt>> pkts = newSlots(enable ? socketReadLimit_ : 0, rxBufferBytes_);
    enableBulkRead_ = enable;
    bulkSlots_ = static_cast<uint8_t>(pkts.size());
    socket_.readIsPossibleAgain();
    if (enable) {
        slotsFill(pkts);
    } else {
        slotsDelAll();
    }
    if (enableBulkRead_ == enable) {  // Unless an observer of a slot has changed it again.
        notify(enableBulkReadAttr);
    }
}

void EthDevPam::promiscuousIs(bool promiscuous) {
    const auto apply = [&] {
        if (socket_.isOpen()) {
            membershipIs(socket_.number(), boundIfIndex_, PACKET_MR_PROMISC, {}, promiscuous);
        }
    };
    if (handled(promiscuous_, promiscuous, apply)) {
        notify(promiscuousAttr);
    }
}

Mox::String EthDevPam::tryRxFilter(const Mox::String& expression) {
    if (expression == rxFilter_) {
        return {};
    }
    std::vector<IpFilter> program;
    if (!expression.empty()) {
        Mox::String error = ethFilterFromText(expression, &program);
        if (!error.empty()) {
            return error;
        }
    }
    if (socket_.isOpen() && !program.empty()) {
        attach(socket_.number(), program);
    } else if (socket_.isOpen()) {
        socketOptionIs(socket_.number(), SOL_SOCKET, SO_DETACH_FILTER, 0,
                       "setsockopt(SO_DETACH_FILTER)");
    }
    program_ = std::move(program);
    attributeIs(rxFilter_, expression, rxFilterAttr);
    return {};
}

void EthDevPam::doJoinMcastGroup(const EthAddr& group) {
    Mox::require(enabled_, "enabled()");
    membershipIs(socket_.number(), boundIfIndex_, PACKET_MR_MULTICAST, group, /*member=*/true);
}

void EthDevPam::doLeaveMcastGroup(const EthAddr& group) {
    Mox::require(enabled_, "enabled()");
    membershipIs(socket_.number(), boundIfIndex_, PACKET_MR_MULTICAST, group, /*member=*/false);
}

Mox::Ptr<EthDevPam> ethDevPamFactory(Mox::String name, NamespaceName netNs) {
    return Mox::make<EthDevPam>(std::move(name), std::move(netNs));
}

}  // namespace Pavo
