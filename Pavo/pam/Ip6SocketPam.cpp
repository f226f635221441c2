#include "Pavo/pam/Ip6SocketPam.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/pam/RawIpFamily.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::Ip6SocketPam");

// The option takes the value of the alerts to hear.
int routerAlert(const RawIpPam&, bool on) {
    return on ? 0 : -1;
}

int checksum(const RawIpPam& pam, bool on) {
    const int offset = static_cast<const Ip6SocketPam&>(pam).checksumOffset();
    if (on && (offset < 0 || offset % 2 != 0)) {
        throw Mox::ErrnoException(EINVAL,
                                  "IPV6_CHECKSUM option must be supplied with a valid offset");
    }
    return on ? offset : -1;
}

constexpr RawIpFamily::Switch switches[] = {
    {ipHdrIncl, IPV6_HDRINCL, "setsockopt(IPV6_HDRINCL)"},
    {ipPktInfo, IPV6_RECVPKTINFO, "setsockopt(IPV6_RECVPKTINFO)"},
    {ipFreeBind, IPV6_FREEBIND, "setsockopt(IPV6_FREEBIND)"},
    {ipMulticastLoop, IPV6_MULTICAST_LOOP, "setsockopt(IPV6_MULTICAST_LOOP)"},
    {ipRecvErr, IPV6_RECVERR, "setsockopt(IPV6_RECVERR)"},
    {ipRecvOrigDstAddr, IPV6_RECVORIGDSTADDR, "setsockopt(IPV6_RECVORIGDSTADDR)"},
    {ipRecvTOS, IPV6_RECVTCLASS, "setsockopt(IPV6_RECVTCLASS)"},
    {ipRecvTTL, IPV6_RECVHOPLIMIT, "setsockopt(IPV6_RECVHOPLIMIT)"},
    {ipRouterAlert, IPV6_ROUTER_ALERT, "setsockopt(IPV6_ROUTER_ALERT)", routerAlert},
    {ipv6Checksum, IPV6_CHECKSUM, "setsockopt(IPV6_CHECKSUM)", checksum},
};

constexpr uint32_t rxControlBytes = CMSG_SPACE(sizeof(in6_pktinfo)) + 2 * CMSG_SPACE(sizeof(int)) +
                                    CMSG_SPACE(sizeof(sockaddr_in6));
constexpr uint32_t txControlBytes = CMSG_SPACE(sizeof(in6_pktinfo));
static_assert(rxControlBytes <= RawIpFamily::maxRxControlBytes &&
              txControlBytes <= RawIpFamily::maxTxControlBytes);

void tosIs(int fd, uint8_t tos) {
    socketOptionIs(fd, IPPROTO_IPV6, IPV6_TCLASS, int{tos}, "setsockopt(IPV6_TCLASS)");
}

void ttlIs(int fd, int ttl) {
    socketOptionIs(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, ttl, "setsockopt(IPV6_UNICAST_HOPS)");
    socketOptionIs(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl, "setsockopt(IPV6_MULTICAST_HOPS)");
}

void pktOptionsIs(int fd, const Mox::Set<IpPktOption>& options) {
    // A whole header of eight bytes, whose first the kernel writes: router alert (RFC 2711, 2.1),
    // then two bytes of padding.
    static constexpr uint8_t hopByHop[] = {0, 0, 5, 2, 0, 0, 1, 0};
    const bool on = options.contains(ipPktRouterAlert);
    socketOptionIs(fd, IPPROTO_IPV6, IPV6_HOPOPTS, hopByHop, on ? sizeof(hopByHop) : 0,
                   "setsockopt(IPV6_HOPOPTS)");
}

Ip6Addr addressOf(const in6_addr& address) {
    Ip6Addr value;
    value.copyFromBuffer(address.s6_addr);
    return value;
}

// The interface of a scoped destination is in the packet information.
void nameIs(sockaddr* name, const IpGenAddr& address) {
    sockaddr_in6 image{};
    image.sin6_family = AF_INET6;
    address.v6Addr().copyToBuffer(image.sin6_addr.s6_addr);
    std::memcpy(name, &image, sizeof(image));
}

void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) {
    in6_pktinfo info{};
    info.ipi6_ifindex = ifIndex;
    source.v6Addr().copyToBuffer(info.ipi6_addr.s6_addr);
    writeControl(message, IPPROTO_IPV6, IPV6_PKTINFO, info);
}

void takeName(const sockaddr* name, RxPacketInfo* info) {
    sockaddr_in6 source{};
    std::memcpy(&source, name, sizeof(source));
    info->srcIpAddr = addressOf(source.sin6_addr);
    info->ifIndex = source.sin6_scope_id;
}

// Takes an int that holds a byte.
bool readByte(const cmsghdr* message, uint8_t* value) {
    int number = 0;
    if (!readControl(message, &number)) {
        return false;
    }
    *value = static_cast<uint8_t>(number);
    return true;
}

uint32_t takeControl(const cmsghdr* message, RxPacketInfo* info) {
    if (message->cmsg_level != IPPROTO_IPV6) {
        return none;
    }
    in6_pktinfo pktInfo{};
    sockaddr_in6 origDst{};
    switch (message->cmsg_type) {
        case IPV6_PKTINFO:
            if (!readControl(message, &pktInfo)) {
                return none;
            }
            info->ifIndex = pktInfo.ipi6_ifindex;
            info->dstIpAddr = addressOf(pktInfo.ipi6_addr);
            return ipPktInfo;
        case IPV6_ORIGDSTADDR:
            if (!readControl(message, &origDst)) {
                return none;
            }
            info->origDstIpAddr = addressOf(origDst.sin6_addr);
            return ipRecvOrigDstAddr;
        case IPV6_TCLASS:
            return readByte(message, &info->tos) ? ipRecvTOS : none;
        case IPV6_HOPLIMIT:
            return readByte(message, &info->ttl) ? ipRecvTTL : none;
        default:
            return none;
    }
}

constexpr RawIpFamily family{
    .className = "Ip6SocketPam",
    .trace = &facility,
    .addressFamily = ipv6,
    .domain = AF_INET6,
    .level = IPPROTO_IPV6,
    .joinFailure = "setsockopt(IPV6_JOIN_GROUP)",
    .leaveFailure = "setsockopt(IPV6_LEAVE_GROUP)",
    .switches = switches,
    .transparent = {ipTransparent, IPV6_TRANSPARENT, "setsockopt(IPV6_TRANSPARENT)"},
    .tosIs = tosIs,
    .ttlIs = ttlIs,
    .pktOptionsIs = pktOptionsIs,
    .nameBytes = sizeof(sockaddr_in6),
    .rxControlBytes = rxControlBytes,
    .txControlBytes = txControlBytes,
    .nameIs = nameIs,
    .pktInfoIs = pktInfoIs,
    .takeName = takeName,
    .takeControls = takeEachControl<takeControl>,
};

}  // namespace

Ip6SocketPam::Ip6SocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs), family) {}

Ip6SocketPam::~Ip6SocketPam() = default;

Mox::Ptr<Ip6SocketPam> ip6SocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                           NamespaceName netNs) {
    return Mox::make<Ip6SocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
