#include "Pavo/pam/IpSocketPam.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "Pavo/pam/RawIpFamily.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::IpSocketPam");

constexpr RawIpFamily::Switch switches[] = {
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

// The kernel counts the message headers of the process's word size.
constexpr uint32_t rxControlBytes = CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(int)) +
                                    CMSG_SPACE(sizeof(uint8_t)) + CMSG_SPACE(sizeof(sockaddr_in));
constexpr uint32_t txControlBytes = CMSG_SPACE(sizeof(in_pktinfo));
static_assert(sizeof(void*) != 4 || (rxControlBytes == 84 && txControlBytes == 24));
static_assert(rxControlBytes <= RawIpFamily::maxRxControlBytes &&
              txControlBytes <= RawIpFamily::maxTxControlBytes);

void tosIs(int fd, uint8_t tos) {
    socketOptionIs(fd, IPPROTO_IP, IP_TOS, tos, "setsockopt(IP_TOS)");
}

void ttlIs(int fd, int ttl) {
    socketOptionIs(fd, IPPROTO_IP, IP_TTL, ttl, "setsockopt(IP_TTL)");
}

void pktOptionsIs(int fd, const Mox::Set<IpPktOption>& options) {
    static constexpr uint8_t routerAlert[] = {148, 4, 0, 0};  // RFC 2113, 2.1.
    const bool on = options.contains(ipPktRouterAlert);
    socketOptionIs(fd, IPPROTO_IP, IP_OPTIONS, routerAlert, on ? sizeof(routerAlert) : 0,
                   "setsockopt(IP_OPTIONS)");
}

IpAddr addressOf(const in_addr& address) {
    return IpAddr(ntohl(address.s_addr));
}

void nameIs(sockaddr* name, const IpGenAddr& address) {
    sockaddr_in image{};
    image.sin_family = AF_INET;
    address.v4Addr().copyToBuffer(reinterpret_cast<unsigned char*>(&image.sin_addr));
    std::memcpy(name, &image, sizeof(image));
}

void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) {
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(ifIndex);
    source.v4Addr().copyToBuffer(reinterpret_cast<unsigned char*>(&info.ipi_spec_dst));
    writeControl(message, IPPROTO_IP, IP_PKTINFO, info);
}

void takeName(const sockaddr* name, RxPacketInfo* info) {
    sockaddr_in source{};
    std::memcpy(&source, name, sizeof(source));
    info->srcIpAddr = addressOf(source.sin_addr);
}

uint32_t takeControl(const cmsghdr* message, RxPacketInfo* info) {
    if (message->cmsg_level != IPPROTO_IP) {
        return none;
    }
    in_pktinfo pktInfo{};
    sockaddr_in origDst{};
    switch (message->cmsg_type) {
        case IP_PKTINFO:
            if (!readControl(message, &pktInfo)) {
                return none;
            }
            info->ifIndex = static_cast<uint32_t>(pktInfo.ipi_ifindex);
            info->dstIpAddr = addressOf(pktInfo.ipi_addr);
            return ipPktInfo;
        case IP_ORIGDSTADDR:
            if (!readControl(message, &origDst)) {
                return none;
            }
            info->origDstIpAddr = addressOf(origDst.sin_addr);
            return ipRecvOrigDstAddr;
        case IP_TOS:
            return readControl(message, &info->tos) ? ipRecvTOS : none;
        case IP_TTL:  // An int in host order on the wire of the process; its first byte is the TTL.
            return readControl(message, &info->ttl) ? ipRecvTTL : none;
        default:
            return none;
    }
}

constexpr RawIpFamily family{
    .className = "IpSocketPam",
    .trace = &facility,
    .addressFamily = ipv4,
    .domain = AF_INET,
    .level = IPPROTO_IP,
    .joinFailure = "setsockopt(IP_ADD_MEMBERSHIP)",
    .leaveFailure = "setsockopt(IP_DROP_MEMBERSHIP)",
    .switches = switches,
    .transparent = {ipTransparent, IP_TRANSPARENT, "setsockopt(IP_TRANSPARENT)"},
    .tosIs = tosIs,
    .ttlIs = ttlIs,
    .pktOptionsIs = pktOptionsIs,
    .nameBytes = sizeof(sockaddr_in),
    .rxControlBytes = rxControlBytes,
    .txControlBytes = txControlBytes,
    .nameIs = nameIs,
    .pktInfoIs = pktInfoIs,
    .takeName = takeName,
    .takeControls = takeEachControl<takeControl>,
};

}  // namespace

IpSocketPam::IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs), family) {}

IpSocketPam::~IpSocketPam() = default;

Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                         NamespaceName netNs) {
    return Mox::make<IpSocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
