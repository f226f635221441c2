#include "Pavo/pam/IpSocketPam.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "Pavo/pam/RawIpFamily.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::IpSocketPam");

constexpr RawIpOption row(uint32_t bit, int number, const char* failure,
                          void (*apply)(const RawIpOptionChange&) = RawIpOptionSteps::plain) {
    return {bit, apply, IPPROTO_IP, number, failure, bit == ipTransparent};
}

constexpr char loopFailure[] = "setsockopt(IP_MULTICAST_LOOP)";
constexpr RawIpOption first[] = {
    row(ipHdrIncl, IP_HDRINCL, "setsockopt(IP_HDRINCL)"),
    row(ipPktInfo, IP_PKTINFO, "setsockopt(IP_PKTINFO)"),
    row(ipFreeBind, IP_FREEBIND, "setsockopt(IP_FREEBIND)"),
    row(ipMulticastLoop, IP_MULTICAST_LOOP, loopFailure, RawIpOptionSteps::multicastLoop),
    row(ipRecvErr, IP_RECVERR, "setsockopt(IP_RECVERR)"),
    row(ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, "setsockopt(IP_RECVORIGDSTADD)"),
    row(ipRecvTOS, IP_RECVTOS, "setsockopt(IP_RECVTOS)"),
    row(ipRecvTTL, IP_RECVTTL, "setsockopt(IP_RECVTTL)"),
    row(ipRouterAlert, IP_ROUTER_ALERT, "setsockopt(IP_ROUTER_ALERT)"),
};
constexpr auto table = rawIpOptions(
    first, row(ipTransparent, IP_TRANSPARENT, "setsockopt(IP_TRANSPARENT)"),
    row(ipNoMulticastLoop, IP_MULTICAST_LOOP, loopFailure, RawIpOptionSteps::noMulticastLoop));

struct Four {
    using Name = sockaddr_in;
    using KernelPktInfo = in_pktinfo;

    static constexpr const char* className = "IpSocketPam";
    static constexpr AddressFamily addressFamily = ipv4;
    static constexpr int domain = AF_INET;
    static constexpr int level = IPPROTO_IP;
    static constexpr const char* joinFailure = "setsockopt(IP_ADD_MEMBERSHIP)";
    static constexpr const char* leaveFailure = "setsockopt(IP_DROP_MEMBERSHIP)";
    static constexpr const auto& options = table;
    static constexpr bool isRxIpHdrWithKernel = false;
    static constexpr bool isTtlForGroups = false;
    // The kernel counts the message headers of the process's word size.
    static constexpr uint32_t rxControlBytes =
        CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(uint8_t)) +
        CMSG_SPACE(sizeof(sockaddr_in));
    static_assert(sizeof(void*) != 4 ||
                  (rxControlBytes == 84 && CMSG_SPACE(sizeof(in_pktinfo)) == 24));
    static constexpr int pktInfoType = IP_PKTINFO;
    static constexpr int origDstType = IP_ORIGDSTADDR;
    static constexpr int tosType = IP_TOS;
    static constexpr int ttlType = IP_TTL;

    static void tosIs(int fd, uint8_t tos) {
        socketOptionIs(fd, IPPROTO_IP, IP_TOS, tos, "setsockopt(IP_TOS)");
    }
    static void ttlIs(int fd, int ttl) {
        socketOptionIs(fd, IPPROTO_IP, IP_TTL, ttl, "setsockopt(IP_TTL)");
    }
    static void routerAlertIs(int fd, bool on) {
        static constexpr uint8_t option[] = {148, 4, 0, 0};  // RFC 2113, 2.1.
        socketOptionIs(fd, IPPROTO_IP, IP_OPTIONS, option, on ? sizeof(option) : 0,
                       "setsockopt(IP_OPTIONS)");
    }

    static void nameIs(sockaddr* name, const IpGenAddr& address) {
        const sockaddr_in image = sockaddrInFrom(address.v4Addr());
        std::memcpy(name, &image, sizeof(image));
    }
    static void takeName(const void* name, PktInfo* info) {
        sockaddr_in source{};
        std::memcpy(&source, name, sizeof(source));
        info->srcIpAddr = ipAddrFrom(source.sin_addr);
    }
    static void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) {
        in_pktinfo info{};
        info.ipi_ifindex = static_cast<int>(ifIndex);
        info.ipi_spec_dst = inAddrFrom(source.v4Addr());
        writeControl(message, IPPROTO_IP, IP_PKTINFO, info);
    }
    static bool takePktInfo(const cmsghdr* message, PktInfo* info) {
        in_pktinfo image{};
        if (!readControl(message, &image)) {
            return false;
        }
        info->ifIndex = static_cast<uint32_t>(image.ipi_ifindex);
        info->dstIpAddr = ipAddrFrom(image.ipi_addr);
        return true;
    }
};

constexpr RawIpFamily family = rawIpFamily<Four>(&facility);

}  // namespace

IpSocketPam::IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs), family) {}

IpSocketPam::~IpSocketPam() = default;

Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                         NamespaceName netNs) {
    return Mox::make<IpSocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
