#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/ip/Ip6SocketPam.h"
#include "Pavo/ip/IpFamily.h"
#include "Pavo/ip/IpHostEnd.h"
#include "Pavo/packet/UdpHdr.h"
#include "Pavo/pam/SocketOptions.h"

namespace Pavo {

IpHostEnd::IpHostEnd(IpHost* host, Pam* pam, bool isUdp, Options optionsOf)
    : host_(host), pam_(pam), options_(optionsOf), isUdp_(isUdp) {
    host->attached_.push_back(this);
}

IpHostEnd::~IpHostEnd() {
    if (host_ != nullptr) {
        IpHostEnd::close();
        std::erase(host_->attached_, this);
    }
}

IpHost& IpHostEnd::requireHost(const char* failure) const {
    if (host_ == nullptr) {
        throw Mox::ErrnoException(ENETDOWN, failure);
    }
    return *host_;
}

// The end that was opened last comes first.
void IpHostEnd::start(PamSocket* socket) {
    const Mox::String name = std::to_string(++host_->endsMade_);
    client_ = host_->mux_->clientIs(
        name, PamMuxMatch::function([this](const auto&, const auto&) { return isReceiver; }));
    client_->takesCopiesIs(true);
    socket->clientIs(client_);
    host_->ends_.insert(host_->ends_.begin(), this);
}

void IpHostEnd::close() {
    if (const Mox::Ptr<PamMuxPam> client = std::exchange(client_, nullptr); client && host_) {
        std::erase(host_->ends_, this);
        host_->mux_->clientDel(client->name());
    }
    memberships_.clear();
    error_ = 0;
    drops_ = 0;
    reportedDrops_ = 0;
}

int IpHostEnd::send(const Pkt& pkt, const TxInfo& info, const Mox::String& ifName) {
    if (host_ == nullptr || !client_) {
        return ENETDOWN;
    }
    if (error_ != 0) {
        return std::exchange(error_, 0);
    }
    TxInfo whole = info;
    if (info.ifIndex == 0 && !ifName.empty()) {
        whole.ifIndex = host_->interfaceIndex(ifName);
    } else if (info.ifIndex == 0) {
        whole.ifIndex = device_ != 0 ? device_ : info.dstIpAddr.isMulticast() ? groupIfIndex() : 0;
    }
    const bool isNamed = info.ifIndex != 0 || !ifName.empty();
    if (whole.ifIndex > IpHost::ethIfIndex || (isNamed && whole.ifIndex == 0)) {
        return ENODEV;
    }
    if (IpArrival::isBroadcast(info.dstIpAddr) && (options() & ipBroadcast) == 0) {
        return EACCES;
    }
    if (peer_.address().af() != ipunknown) {
        whole.dstIpAddr = peer_.address();
    } else if (isUdp_ && info.dstPort == Port()) {
        return EINVAL;
    }
    // The attribute may be newer than the address that is bound.
    whole.srcIpAddr = txSource();
    if (whole.srcIpAddr.address().isZero()) {
        whole.srcIpAddr = IpArrival::isToMany(local_) ? IpGenAddr(family_) : local_;
    }
    return host_->send(whole, pkt, *this);
}

RxRound IpHostEnd::readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                           RxInfo* info) {
    RxRound round;
    if (!client_ || host_ == nullptr) {
        return round;
    }
    Mox::Ptr<Pkt> room;
    try {
        room = pktToReadInto(settings, nullptr, settings.maxBytes);
    } catch (const std::bad_alloc&) {
        socket->readEnded(PamSocket::ReadEnd::failed);
        return round;
    }
    round.wasTried = true;
    round.error = std::exchange(error_, 0);
    Mox::Ptr<Pkt> arrived;
    if (round.error == 0) {
        arrived = client_->rxPkt();
        round.error = arrived ? 0 : EAGAIN;
    }
    socket->readEnded(round.error);
    IpArrival arrival;
    if (arrived && IpArrival::read(arrived, &arrival)) {
        round.packets = 1;
        round.carried = describe(arrival, settings, info);
        fill(room.ptr(), arrival, settings, info);
        *pkt = std::move(room);
        round.truncated = info->truncated ? 1 : 0;
    }
    if (round.packets != 0 && (settings.options & ipRecvDrops) != 0) {  // A packet reports them.
        const uint32_t drops = drops_ + client_->rxDrops();
        round.drops = drops - std::exchange(reportedDrops_, drops);
    }
    return round;
}

// Copies what the reader gets of a packet into `pkt`, cut to the room that there is.
void IpHostEnd::fill(Pkt* pkt, const IpArrival& arrival, const RxSettings& settings, RxInfo* info) {
    const IpMsg& msg = arrival.msg;
    const uint32_t begin = info->isUdpHdrWithKernel
                               ? msg.offset + static_cast<uint32_t>(sizeof(UdpHdr))
                           : info->isIpHdrWithKernel ? msg.offset
                                                     : 0;
    const uint32_t msgBytes = info->isUdpHdrWithKernel ? arrival.udpBytes : msg.bytes;
    const auto bytes = msg.pkt->span().subspan(begin, msg.offset + msgBytes - begin);
    const auto room = static_cast<uint32_t>(std::min<std::size_t>(settings.maxBytes, bytes.size()));
    info->truncated = room < bytes.size();
    if (room != 0) {
        std::memcpy(pkt->frontData(), bytes.data(), room);
    }
    pkt->delSharedTailData(settings.maxBytes - room);
}

// Returns the bits of the options whose messages the packet carries.
uint32_t IpHostEnd::describe(const IpArrival& arrival, const RxSettings& settings,
                             RxInfo* info) const {
    const IpMsg& msg = arrival.msg;
    info->srcIpAddr = msg.src;
    info->srcPort = isUdp_ ? arrival.srcPort : Port();
    info->ifIndex = msg.src.isV6LinkLocal() ? arrival.ifIndex : 0;
    uint32_t carried = settings.options & (ipPktInfo | ipRecvTOS | ipRecvTTL | ipRecvOrigDstAddr);
    if (msg.bytes < sizeof(uint32_t)) {
        carried &= ~uint32_t{ipRecvOrigDstAddr};  // It is read with the ports that follow.
    }
    if ((carried & ipPktInfo) != 0) {
        info->ifIndex = arrival.ifIndex;
        info->dstIpAddr = msg.dst;
    }
    if ((carried & ipRecvOrigDstAddr) != 0) {
        info->origDstIpAddr = msg.dst;
        info->origDstPort = isUdp_ ? arrival.dstPort : Port();
    }
    info->tos = (carried & ipRecvTOS) != 0 ? arrival.tos : 0;
    info->ttl = (carried & ipRecvTTL) != 0 ? msg.ttl : 0;
    if ((settings.options & ipRecvTimestamp) != 0) {
        info->timestampNs = static_cast<int64_t>(host_->clock_->now() * 1e9);
    }
    return carried;
}

bool IpHostEnd::isMember(const IpGenAddr& group, uint32_t ifIndex) const {
    return std::any_of(memberships_.begin(), memberships_.end(), [&](const Membership& each) {
        return each.group == group && each.ifIndex == ifIndex;
    });
}

bool IpHostEnd::isMemberFor(const IpArrival& arrival) const {
    return std::any_of(memberships_.begin(), memberships_.end(), [&](const Membership& each) {
        return each.group == arrival.msg.dst && each.ifIndex == arrival.ifIndex &&
               (each.source.af() == ipunknown || each.source == arrival.msg.src);
    });
}

// The errors are those of the kernel (ip(7)).
int IpHostEnd::membershipError(const Membership& wanted, bool member) const {
    if (!wanted.group.isMulticast()) {
        return EINVAL;
    }
    if (wanted.ifIndex > IpHost::ethIfIndex) {
        return ENODEV;
    }
    const bool hasGroup = isMember(wanted.group, wanted.ifIndex);
    if (wanted.source.af() == ipunknown) {
        return hasGroup != member ? 0 : member ? EADDRINUSE : EADDRNOTAVAIL;
    }
    const bool isListed =
        std::find(memberships_.begin(), memberships_.end(), wanted) != memberships_.end();
    return !member && !hasGroup ? EINVAL : isListed == member ? EADDRNOTAVAIL : 0;
}

// A membership for all sources ends as soon as a call names one source, even where that call fails.
void IpHostEnd::sourceIsNamed(const Membership& wanted) {
    const IpGenAddr noSource(family_);
    for (Membership& each : memberships_) {
        if (each.group == wanted.group && each.ifIndex == wanted.ifIndex &&
            each.source.af() == ipunknown) {
            each.source = noSource;
        }
    }
}

void IpHostEnd::membershipIs(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr* source,
                             bool member) {
    if (!client_) {
        return;
    }
    const IpFamily& family = family_ == ipv4 ? ip4Family() : ip6Family();
    const char* const failure = source != nullptr ? member ? "setsockopt(MCAST_JOIN_SOURCE_GROUP)"
                                                           : "setsockopt(MCAST_LEAVE_SOURCE_GROUP)"
                                : member          ? family.names().joinFailure
                                                  : family.names().leaveFailure;
    if (group.af() != family_ || (source != nullptr && source->af() != family_)) {
        throw Mox::ErrnoException(EAFNOSUPPORT, failure);
    }
    const Membership wanted{ifIndex != 0 ? ifIndex : IpHost::ethIfIndex, group,
                            source != nullptr ? *source : IpGenAddr()};
    if (source != nullptr) {
        sourceIsNamed(wanted);
    }
    if (const int error = membershipError(wanted, member)) {
        throw Mox::ErrnoException(error, failure);
    }
    if (member) {
        std::erase(memberships_, Membership{wanted.ifIndex, group, IpGenAddr(family_)});
        memberships_.push_back(wanted);
    } else if (source != nullptr) {
        std::erase(memberships_, wanted);
    } else {
        std::erase_if(memberships_, [&](const Membership& each) {
            return each.group == group && each.ifIndex == wanted.ifIndex;
        });
    }
}

void IpHostEnd::errorIs(int error) {
    error_ = error;
    client_->readableIs();
}

namespace {

// Empty for a program that the kernel refuses.
std::vector<bpf_insn> validProgramOf(const Mox::Array<IpFilter>& filter) {
    std::vector<bpf_insn> program;
    for (uint32_t i = 0; i < filter.members(); ++i) {
        const IpFilter& each = filter.at(i);
        program.push_back({each.code(), each.jt(), each.jf(), each.k()});
    }
    const bool isValid = bpf_validate(program.data(), static_cast<int>(program.size())) != 0;
    return isValid ? program : std::vector<bpf_insn>();
}

}  // namespace

void IpHostEnd::attachFilter(const Mox::Array<IpFilter>& filter) {
    hasProgram_ = (options() & ipAttachFilter) != 0;
    program_ = hasProgram_ ? validProgramOf(filter) : std::vector<bpf_insn>();
    if (hasProgram_ && program_.empty()) {
        const bool isMissing = filter.members() == 0;
        throw Mox::ErrnoException(EINVAL,
                                  isMissing ? noFilterText : "setsockopt(SO_ATTACH_FILTER)");
    }
}

// A program is attached when the option is switched on, and stays as it was then. A bad one is not.
bool IpHostEnd::passesFilter(const Mox::Array<IpFilter>& filter, const IpArrival& arrival,
                             uint32_t offset) {
    const bool isOn = (options() & ipAttachFilter) != 0;
    if (std::exchange(hasProgram_, isOn) != isOn) {
        program_ = isOn ? validProgramOf(filter) : std::vector<bpf_insn>();
    }
    if (program_.empty()) {
        return true;
    }
    const auto bytes = arrival.msg.pkt->span().subspan(offset);
    const auto length = static_cast<u_int>(bytes.size());
    const bool passes = bpf_filter(program_.data(), bytes.data(), length, length) != 0;
    drops_ += passes ? 0 : 1;
    return passes;
}

UdpHostEnd::UdpHostEnd(IpHost* host, UdpPam* pam)
    : IpHostEnd(host, pam, /*isUdp=*/true,
                [](const Pam& each) { return static_cast<const UdpPam&>(each).options(); }) {}

Port UdpHostEnd::open(AddressFamily family, PamSocket* socket) {
    IpHost& host = requireHost("socketAt");
    attachFilter(pam().rxFilter());
    device_ = host.interfaceIndex(pam().device());
    if (device_ == 0 && !pam().device().empty()) {
        throw Mox::ErrnoException(ENODEV, "setsockopt(SO_BINDTODEVICE)");
    }
    const bool isClient = pam().mode() == UdpPam::Mode::client;
    const IpGenAddr& remote = pam().remoteAddr();
    if (isClient && remote.af() != family) {
        throw Mox::ErrnoException(remote.af() == ipunknown ? EDESTADDRREQ : EAFNOSUPPORT,
                                  "connect");
    }
    family_ = family;
    local_ = pam().localAddr().af() == family ? pam().localAddr() : IpGenAddr(family);
    bind();
    peer_ = IpGenAddrAndPort();
    if (isClient) {
        connect();
    }
    start(socket);
    return port_;
}

void UdpHostEnd::connect() {
    PktInfo info;
    info.isIpHdrWithKernel = true;
    info.srcIpAddr = IpArrival::isToMany(local_) ? IpGenAddr(family_) : local_;
    info.dstIpAddr = pam().remoteAddr();
    info.ifIndex = device_ != 0                   ? device_
                   : info.dstIpAddr.isMulticast() ? pam().txMcastIfIndex()
                                                  : 0;
    const uint32_t ifIndex = info.ifIndex;
    for (int looks = 0; looks < 2; ++looks) {  // The second one with what the first one chose.
        bool isHere = false;
        info.ifIndex = ifIndex;
        if (const int error = host_->resolve(&info, &isHere)) {
            throw Mox::ErrnoException(error, "connect");
        }
    }
    if (IpArrival::isBroadcast(info.dstIpAddr) && (options() & ipBroadcast) == 0) {
        throw Mox::ErrnoException(EACCES, "connect");
    }
    local_ = local_.address().isZero() ? info.srcIpAddr : local_;
    peer_ = {info.dstIpAddr, pam().remotePort()};
}

void UdpHostEnd::bind() {
    if (local_.isV6LinkLocal() && device_ == 0) {
        throw Mox::ErrnoException(EINVAL, "bind");
    }
    const bool isAny = local_.address().isZero() || IpArrival::isToMany(local_) ||
                       (options() & (ipFreeBind | ipTransparent)) != 0;
    const bool isElsewhere =
        family_ == ipv6 && device_ != 0 && (device_ == IpHost::loIfIndex) != local_.isLoopback();
    if (!isAny && (isElsewhere || !host_->isOwn(local_))) {
        throw Mox::ErrnoException(EADDRNOTAVAIL, "bind");
    }
    const bool isGiven = pam().localPort() != Port();
    port_ = isGiven ? pam().localPort() : host_->freePort(*this);
    if (port_ == Port() || (isGiven && !host_->isPortFree(*this, port_))) {
        throw Mox::ErrnoException(EADDRINUSE, "bind");
    }
}

uint32_t UdpHostEnd::fit(const IpArrival& arrival) const {
    const IpMsg& msg = arrival.msg;
    const bool hasLocal = !local_.address().isZero();
    const bool hasPeer = peer_.address().af() != ipunknown;
    if (msg.dst.af() != family_ || arrival.dstPort != port_ || (hasLocal && local_ != msg.dst) ||
        (hasPeer && peer_ != IpGenAddrAndPort(msg.src, arrival.srcPort)) ||
        (device_ != 0 && device_ != arrival.ifIndex)) {
        return 0;
    }
    return 1 + (hasLocal ? 8 : 0) + (hasPeer ? 4 : 0) + (device_ != 0 ? 2 : 0);
}

bool UdpHostEnd::passes(const IpArrival& arrival) {
    if (arrival.msg.ttl < pam().rxMinTtl().value()) {
        ++drops_;
        return false;
    }
    return passesFilter(pam().rxFilter(), arrival, arrival.msg.offset);
}

RawHostEnd::RawHostEnd(IpHost* host, RawIpPam* pam)
    : IpHostEnd(host, pam, /*isUdp=*/false,
                [](const Pam& each) { return static_cast<const RawIpPam&>(each).options(); }) {}

Port RawHostEnd::open(AddressFamily family, PamSocket* socket) {
    (void)requireHost("socketAt");
    attachFilter(pam().rxFilter());
    family_ = family;
    start(socket);
    return Port();
}

// The kernel puts no options into a header that the packet has already.
int RawHostEnd::send(const Pkt& pkt, const TxInfo& info, const Mox::String& ifName) {
    const bool hasOptions = family_ == ipv4 && pam().ipPktOption(ipPktRouterAlert);
    return hasOptions && !info.isIpHdrWithKernel ? EINVAL : IpHostEnd::send(pkt, info, ifName);
}

int32_t RawHostEnd::checksumOffset() const {
    constexpr int32_t icmp6Offset = 2;
    if (family_ == ipv6 && pam().protocol() == IpProtocolNumber::ipv6Icmp) {
        return icmp6Offset;
    }
    const bool isOn = family_ == ipv6 && (options() & ipv6Checksum) != 0;
    return isOn ? static_cast<const Ip6SocketPam&>(pam()).checksumOffset() : -1;
}

uint32_t RawHostEnd::fit(const IpArrival& arrival) const {
    const bool isOfThis =
        arrival.msg.protocol == pam().protocol() && pam().protocol() != IpProtocolNumber::reserved;
    return arrival.msg.dst.af() == family_ && isOfThis ? 1 : 0;
}

// One that has not joined the group receives what the host does.
bool RawHostEnd::wantsFromGroup(const IpArrival& arrival) const {
    return isMember(arrival.msg.dst, arrival.ifIndex) ? isMemberFor(arrival)
                                                      : host_->isMember(arrival);
}

// The kernel trusts what it sends to a group and takes back itself.
bool RawHostEnd::passes(const IpArrival& arrival) {
    const IpMsg& msg = arrival.msg;
    const bool isTrusted = msg.dst.isMulticast() && msg.pkt->hasSeparateVlanTag();
    if (checksumOffset() >= 0 && !isTrusted &&
        msg.checksum(msg.bytes, msg.pseudoHdrSum(msg.bytes)) != IpChecksum()) {
        return false;
    }
    return passesFilter(pam().rxFilter(), arrival, family_ == ipv4 ? 0 : msg.offset);
}

}  // namespace Pavo
