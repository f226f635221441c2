#include "Pavo/ip/IpHost.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "Mox/Assert.h"
#include "Pavo/ip/IpHostEnd.h"
#include "Pavo/packet/BuildPkt.h"

namespace Pavo {

namespace {

constexpr uint8_t kernelTtl = 64;
constexpr uint8_t kernelGroupTtl = 1;
constexpr IpFlags dontFragment = 2;
constexpr uint8_t alertOption[] = {148, 4, 0, 0};  // RFC 2113, 2.1.

std::span<const uint8_t> spanOf(const Mox::String& bytes) {
    return {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.bytes()};
}

// Every packet that the kernel sends may not be fragmented, and has the identification 0.
Mox::Ptr<Pkt> ip4Pkt(const TxInfo& info, const Payload& payload) {
    const Ip ip{.src = info.srcIpAddr.v4Addr(),
                .dst = info.dstIpAddr.v4Addr(),
                .ttl = info.ttl,
                .protocol = info.protocol,
                .tos = info.tos,
                .flags = dontFragment,
                .options = std::span(alertOption).first(info.hasRouterAlert ? 4 : 0)};
    if (info.isUdpHdrWithKernel) {
        return buildPkt(ip, Udp{info.srcPort.value(), info.dstPort.value()}, payload);
    }
    return buildPkt(ip, payload);
}

Mox::Ptr<Pkt> ip6Pkt(const TxInfo& info, const Payload& payload) {
    Ip6 ip{.src = info.srcIpAddr.v6Addr(),
           .dst = info.dstIpAddr.v6Addr(),
           .hopLimit = info.ttl,
           .nextHeader = info.protocol,
           .trafficClass = info.tos};
    if (info.isUdpHdrWithKernel) {
        return buildPkt(ip, Udp{info.srcPort.value(), info.dstPort.value()}, payload);
    }
    if (!info.hasRouterAlert) {
        return buildPkt(ip, payload);
    }
    ip.nextHeader = IpProtocolNumber::hopopt;  // The alert (RFC 2711, 2.1), then padding.
    const uint8_t alert[] = {static_cast<uint8_t>(info.protocol), 0, 5, 2, 0, 0, 1, 0};
    return buildPkt(ip, Payload(std::span(alert)), payload);
}

// A packet that has its header. The kernel fills in the length, the checksum, and a missing source
// of IPv4, and nothing of IPv6. Null for one that it refuses.
Mox::Ptr<Pkt> pktWithHdr(const Mox::String& bytes, const IpGenAddr& source) {
    const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(static_cast<uint32_t>(bytes.bytes()));
    pkt->stringValueIs(bytes, /*atTail=*/true);
    if (source.af() == ipv6) {
        return pkt;
    }
    if (bytes.bytes() < sizeof(IpHdr)) {
        return nullptr;
    }
    auto& header = *reinterpret_cast<IpHdr*>(pkt->frontData());
    if (header.headerBytes() < sizeof(IpHdr) || header.headerBytes() > bytes.bytes()) {
        return nullptr;
    }
    header.totalLenIs(static_cast<uint16_t>(bytes.bytes()));
    if (header.src().isZero()) {
        header.srcIs(source.v4Addr());
    }
    header.checksumIs(IpChecksum());
    header.checksumIs(header.computedChecksum());
    return pkt;
}

// The checksum in the message of a packet, at an offset in it, -1 for none; false where the message
// ends before.
bool fillChecksum(const Mox::Ptr<Pkt>& pkt, int64_t offset) {
    IpMsg msg;
    if (offset < 0) {
        return true;
    }
    if (ipMsgAt(pkt, 0, msg) != PktErrors::noError ||
        msg.bytes < offset + int64_t{sizeof(IpChecksum)}) {
        return false;
    }
    uint8_t* const field = pkt->frontData() + msg.offset + offset;
    std::memset(field, 0, sizeof(IpChecksum));
    const IpChecksum sum = msg.checksum(msg.bytes, msg.pseudoHdrSum(msg.bytes));
    std::memcpy(field, &sum, sizeof(sum));
    return true;
}

// A host without an address sends to all, and to the groups of its link.
bool isFromNobody(const IpMsg& msg) {
    const bool mayBe = IpArrival::isBroadcast(msg.dst) ||
                       (msg.dst.af() == ipv4 && msg.dst.v4Addr().value() >> 8 == 0xe00000);
    return msg.src.af() == ipv4 && msg.src.address().isZero() && !mayBe;
}

}  // namespace

IpHost::IpHost(Mox::String name, Mox::Ptr<PamConnectorPam> link, Mox::Clock* clock)
    : name_(std::move(name)),
      link_(std::move(link)),
      clock_(clock),
      mux_(pamMuxFactory(name_, link_, clock, CaptureLinkType::rawIp)) {
    // Asked first, it says which ends are to receive the packet.
    const auto router =
        mux_->clientIs("route", PamMuxMatch::function([this](const auto& pkt, const auto&) {
                           route(pkt);
                           return false;
                       }));
    router->placeIs(std::numeric_limits<int32_t>::min());
    mux_->enabledIs(true);
}

IpHost::~IpHost() {
    notifieeList()->delAll();
    mux_->enabledIs(false);
    for (IpHostEnd* each : attached_) {
        each->hostDel();
    }
}

void IpHost::attachEnd(UdpPam* pam) {
    pam->transportIs(std::make_unique<UdpHostEnd>(this, pam));
}

void IpHost::attachEnd(RawIpPam* pam) {
    pam->transportIs(std::make_unique<RawHostEnd>(this, pam));
}

void IpHost::addressIs(const IpGenAddr& address) {
    if (address_.add(address)) {
        notify(addressAttr, address);
    }
}

uint32_t IpHost::interfaceIndex(const Mox::String& name) const {
    return name == "lo" ? loIfIndex : name == "eth0" ? ethIfIndex : 0;
}

bool IpHost::isOwn(const IpGenAddr& address) const {
    return address.isLoopback() || address_.contains(address);
}

bool IpHost::isMember(const IpArrival& arrival) const {
    const IpGenAddr& group = arrival.msg.dst;
    return group == IpGenAddr(IpAddr(0xe0000001)) || group == IpGenAddr(Ip6Addr("ff02::1")) ||
           std::any_of(ends_.begin(), ends_.end(), [&](const IpHostEnd* each) {
               return each->isMember(group, arrival.ifIndex);
           });
}

// The loopback addresses are not those of the other interface.
bool IpHost::isForThis(const PktInfo& info) const {
    return !IpArrival::isToMany(info.dstIpAddr) && isOwn(info.dstIpAddr) &&
           !(info.dstIpAddr.isLoopback() && info.ifIndex == ethIfIndex);
}

IpGenAddr IpHost::sourceFor(const PktInfo& info) const {
    const IpGenAddr& destination = info.dstIpAddr;
    if (isForThis(info)) {
        return destination;
    }
    IpGenAddr other(destination.af());
    const bool wantsLinkLocal = destination.af() == ipv6 && destination.isLinkLocal();
    for (const IpGenAddr& each : address_) {
        if (each.af() != destination.af()) {
            continue;
        }
        if (each.isV6LinkLocal() == wantsLinkLocal) {
            return each;
        }
        other = other.address().isZero() ? each : other;
    }
    return other;
}

bool IpHost::isPortFree(const IpHostEnd& wanted, Port port) const {
    return std::none_of(ends_.begin(), ends_.end(), [&](const IpHostEnd* each) {
        if (each == &wanted || each->port() != port || each->family() != wanted.family()) {
            return false;
        }
        const auto differ = [](const auto& a, const auto& b, const auto& any) {
            return a != any && b != any && a != b;
        };
        return !differ(each->local(), wanted.local(), IpGenAddr(wanted.family())) &&
               !differ(each->device(), wanted.device(), 0u) &&
               (each->options() & wanted.options() & (ipReuseAddr | ipReusePort)) == 0;
    });
}

Port IpHost::freePort(const IpHostEnd& wanted) {
    constexpr uint16_t firstPort = 49152;
    for (uint32_t tries = firstPort; tries <= 0xffff; ++tries) {
        lastPort_ = lastPort_ == 0xffff ? firstPort : static_cast<uint16_t>(lastPort_ + 1);
        if (isPortFree(wanted, lastPort_)) {
            return lastPort_;
        }
    }
    return 0;
}

// The destination that stands for this host.
IpGenAddr IpHost::hereFor(const PktInfo& info) const {
    if (info.dstIpAddr.af() == ipv6) {
        return Ip6Addr("::1");
    }
    if (!info.srcIpAddr.address().isZero()) {
        return info.srcIpAddr;
    }
    PktInfo toGroup = info;
    toGroup.dstIpAddr = IpAddr(0xe0000001);
    return info.ifIndex == ethIfIndex ? sourceFor(toGroup) : IpAddr(0x7f000001);
}

// Chooses what the endpoint leaves open. Returns 0, or why there is no way, as an `errno`.
int IpHost::resolve(PktInfo* info, bool* isHere) const {
    *isHere = false;
    const bool six = info->dstIpAddr.af() == ipv6;
    const bool hasSource = !info->srcIpAddr.address().isZero();
    if (info->dstIpAddr.address().isZero()) {
        info->dstIpAddr = hereFor(*info);
        *isHere = !six;
        info->ifIndex = info->ifIndex != 0 ? info->ifIndex : loIfIndex;
    }
    // An IPv4 header of the agent's own may have any source.
    if (hasSource && (six || info->isIpHdrWithKernel) && !isOwn(info->srcIpAddr)) {
        return six ? EINVAL : ENETUNREACH;
    }
    info->srcIpAddr = hasSource ? info->srcIpAddr : sourceFor(*info);
    // Without an address the kernel knows no way, unless the interface is named.
    if (info->srcIpAddr.address().isZero() && (six || info->ifIndex != ethIfIndex)) {
        return ENETUNREACH;
    }
    *isHere = *isHere || isForThis(*info);
    if (!six && info->srcIpAddr.isLoopback() && !*isHere) {
        return EINVAL;
    }
    return six && info->dstIpAddr.isLoopback() && info->ifIndex == ethIfIndex ? ENETUNREACH : 0;
}

int IpHost::send(TxInfo info, const Pkt& pkt, const IpHostEnd& end) {
    constexpr uint32_t maxBytes = 0xffff;
    bool isHere = false;
    if (const int error = resolve(&info, &isHere)) {
        return error;
    }
    const bool six = info.dstIpAddr.af() == ipv6;
    if (info.ttl == 0) {
        info.ttl = info.dstIpAddr.isMulticast() ? kernelGroupTtl : kernelTtl;
    }
    uint32_t hdrBytes = info.isUdpHdrWithKernel ? sizeof(UdpHdr) : 0;
    if (info.isIpHdrWithKernel) {  // The length of IPv6 does not count the header.
        hdrBytes += six ? 0u : uint32_t{sizeof(IpHdr)};
        hdrBytes += !info.hasRouterAlert ? 0 : six ? 8 : 4;
    }
    if (pkt.totalBytes() > maxBytes - hdrBytes) {
        return EMSGSIZE;
    }
    const Mox::String bytes = pkt.stringValue();
    Mox::Ptr<Pkt> whole;
    if (!info.isIpHdrWithKernel) {
        whole = pktWithHdr(bytes, info.srcIpAddr);
    } else {
        whole = six ? ip6Pkt(info, spanOf(bytes)) : ip4Pkt(info, spanOf(bytes));
    }
    if (!whole || !fillChecksum(whole, end.checksumOffset())) {
        return EINVAL;
    }
    const bool isLooped =
        IpArrival::isBroadcast(info.dstIpAddr) ||
        (info.dstIpAddr.isMulticast() && (end.options() & ipNoMulticastLoop) == 0);
    transmit(whole, info, /*leaves=*/!isHere, /*comesBack=*/isHere || isLooped);
    return 0;
}

// Sends a packet on the interface, to this host itself, or to both.
void IpHost::transmit(const Mox::Ptr<Pkt>& pkt, const PktInfo& info, bool leaves, bool comesBack) {
    if (comesBack) {
        // An IP packet has no VLAN tag: that of the copy says on which interface it comes back.
        const Mox::Ptr<Pkt> copy = globalPktManager()->newShallowCopy(pkt);
        leaves ? copy->unshare() : void();
        const uint32_t ifIndex = info.ifIndex != 0             ? info.ifIndex
                                 : info.dstIpAddr.isLoopback() ? loIfIndex
                                                               : ethIfIndex;
        copy->newSeparateVlanTag(static_cast<uint16_t>(ifIndex), EthType::dot1Q);
        link_->inputQueueEnq(copy);
        if (link_->connector() != nullptr) {
            link_->connector()->doScheduleEvent();
        }
    }
    if (leaves && info.ifIndex != loIfIndex && link_->otherEnd()) {
        link_->txPktIs(pkt);
    }
}

void IpHost::route(const Mox::Ptr<Pkt>& pkt) {
    const Mox::Ptr<IpHost> hold(this);
    for (IpHostEnd* each : ends_) {
        each->isReceiver = false;
    }
    IpArrival arrival;
    if (!IpArrival::read(pkt, &arrival)) {
        return;
    }
    const bool isGroup = arrival.msg.dst.isMulticast();
    // Packets of the loopback interface do not come in on the other one, for groups of IPv6 also
    // not from this host.
    const bool isFromWire = !pkt->hasSeparateVlanTag() ||
                            (arrival.msg.dst.isMulticast() && arrival.msg.dst.af() == ipv6 &&
                             arrival.ifIndex == ethIfIndex);
    const bool isMartian = arrival.msg.src.isLoopback() || arrival.msg.dst.isLoopback() ||
                           IpArrival::isToMany(arrival.msg.src) || isFromNobody(arrival.msg) ||
                           (arrival.msg.src.af() == ipv4 && isOwn(arrival.msg.src));
    if ((isFromWire && isMartian) || (!arrival.isToMany() && !isOwn(arrival.msg.dst))) {
        return;
    }
    for (IpHostEnd* each : ends_) {
        each->isReceiver = !each->isUdp() && each->fit(arrival) != 0 &&
                           (!isGroup || each->wantsFromGroup(arrival)) && each->passes(arrival);
    }
    if (arrival.udpBytes != 0) {
        routeUdp(arrival);
    } else {
        takeUnreachable(arrival);
    }
}

void IpHost::routeUdp(const IpArrival& arrival) {
    IpHostEnd* best = nullptr;
    uint32_t bestFit = 0;
    for (IpHostEnd* each : ends_) {
        const uint32_t fit = each->isUdp() ? each->fit(arrival) : 0;
        if (!arrival.isToMany()) {
            best = fit > bestFit ? each : best;
            bestFit = std::max(fit, bestFit);
        } else if (fit != 0 && (!arrival.msg.dst.isMulticast() || each->wantsFromGroup(arrival))) {
            each->isReceiver = each->passes(arrival);
        }
    }
    if (best != nullptr) {
        best->isReceiver = best->passes(arrival);
    } else if (!arrival.isToMany()) {
        sendUnreachable(arrival);
    }
}

// RFC 792; RFC 4443, 3.1: the port has no user. The header and the ports come back.
void IpHost::sendUnreachable(const IpArrival& arrival) {
    const IpMsg& msg = arrival.msg;
    const auto original = msg.pkt->span().first(msg.offset + sizeof(UdpHdr));
    PktInfo info;
    info.dstIpAddr = msg.src;
    const bool isHere = isForThis(info);
    if (msg.src.af() == ipv4) {
        constexpr uint8_t port = 3;
        transmit(buildPkt(Ip{.src = msg.dst.v4Addr(), .dst = msg.src.v4Addr()},
                          Icmp{.type = IcmpType::destinationUnreachable, .code = port},
                          Payload(original)),
                 info, !isHere, isHere);
    } else {
        constexpr uint8_t port = 4;
        transmit(buildPkt(Ip6{.src = msg.dst.v6Addr(), .dst = msg.src.v6Addr()},
                          Icmp6{.type = Icmp6Type::destinationUnreachable, .code = port},
                          Payload(original)),
                 info, !isHere, isHere);
    }
}

// The error of a datagram that a client sent.
void IpHost::takeUnreachable(const IpArrival& arrival) {
    PktInfo sent;
    const bool isError = arrival.readUnreachable(&sent);
    for (IpHostEnd* each : ends_) {
        if (isError && each->isUdp() && each->port() == sent.srcPort &&
            each->local() == sent.srcIpAddr &&
            each->peer() == IpGenAddrAndPort(sent.dstIpAddr, sent.dstPort)) {
            each->errorIs(ECONNREFUSED);
            return;
        }
    }
}

Mox::Ptr<IpHost> ipHostFactory(Mox::String name, Mox::Ptr<PamConnectorPam> link,
                               Mox::Clock* clock) {
    return Mox::make<IpHost>(std::move(name), std::move(link), clock);
}

}  // namespace Pavo
