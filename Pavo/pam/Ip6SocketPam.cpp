#include "Pavo/pam/Ip6SocketPam.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/pam/RawIpFamily.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::Ip6SocketPam");

// The option's value is that of the alerts to receive.
void applyRouterAlert(const RawIpOptionChange& change) {
    socketOptionIs(change.fd, IPPROTO_IPV6, IPV6_ROUTER_ALERT, change.on ? 0 : -1,
                   "setsockopt(IPV6_ROUTER_ALERT)");
}

void applyChecksum(const RawIpOptionChange& change) {
    const int offset = static_cast<const Ip6SocketPam&>(change.pam).checksumOffset();
    if (change.on && (offset < 0 || offset % 2 != 0)) {
        throw Mox::ErrnoException(EINVAL,
                                  "IPV6_CHECKSUM option must be supplied with a valid offset");
    }
    socketOptionIs(change.fd, IPPROTO_IPV6, IPV6_CHECKSUM, change.on ? offset : -1,
                   "setsockopt(IPV6_CHECKSUM)");
}

constexpr RawIpOption row(uint32_t bit, int number, const char* failure,
                          void (*apply)(const RawIpOptionChange&) = RawIpOptionSteps::plain) {
    return {bit, apply, IPPROTO_IPV6, number, failure, bit == ipTransparent};
}

constexpr char loopFailure[] = "setsockopt(IPV6_MULTICAST_LOOP)";
constexpr RawIpOption first[] = {
    row(ipHdrIncl, IPV6_HDRINCL, "setsockopt(IPV6_HDRINCL)"),
    row(ipPktInfo, IPV6_RECVPKTINFO, "setsockopt(IPV6_RECVPKTINFO)"),
    row(ipFreeBind, IPV6_FREEBIND, "setsockopt(IPV6_FREEBIND)"),
    row(ipMulticastLoop, IPV6_MULTICAST_LOOP, loopFailure, RawIpOptionSteps::multicastLoop),
    row(ipRecvErr, IPV6_RECVERR, "setsockopt(IPV6_RECVERR)"),
    row(ipRecvOrigDstAddr, IPV6_RECVORIGDSTADDR, "setsockopt(IPV6_RECVORIGDSTADDR)"),
    row(ipRecvTOS, IPV6_RECVTCLASS, "setsockopt(IPV6_RECVTCLASS)"),
    row(ipRecvTTL, IPV6_RECVHOPLIMIT, "setsockopt(IPV6_RECVHOPLIMIT)"),
    {ipRouterAlert, applyRouterAlert},
    {ipv6Checksum, applyChecksum},
};
constexpr auto table = rawIpOptions(
    first, row(ipTransparent, IPV6_TRANSPARENT, "setsockopt(IPV6_TRANSPARENT)"),
    row(ipNoMulticastLoop, IPV6_MULTICAST_LOOP, loopFailure, RawIpOptionSteps::noMulticastLoop));

struct Six {
    using Name = sockaddr_in6;
    using KernelPktInfo = in6_pktinfo;

    static constexpr const char* className = "Ip6SocketPam";
    static constexpr AddressFamily addressFamily = ipv6;
    static constexpr int domain = AF_INET6;
    static constexpr int level = IPPROTO_IPV6;
    static constexpr const char* joinFailure = "setsockopt(IPV6_JOIN_GROUP)";
    static constexpr const char* leaveFailure = "setsockopt(IPV6_LEAVE_GROUP)";
    static constexpr const auto& options = table;
    static constexpr bool isRxIpHdrWithKernel = true;
    static constexpr bool isTtlForGroups = true;
    static constexpr uint32_t rxControlBytes = CMSG_SPACE(sizeof(in6_pktinfo)) +
                                               2 * CMSG_SPACE(sizeof(int)) +
                                               CMSG_SPACE(sizeof(sockaddr_in6));
    static constexpr int pktInfoType = IPV6_PKTINFO;
    static constexpr int origDstType = IPV6_ORIGDSTADDR;
    static constexpr int tosType = IPV6_TCLASS;
    static constexpr int ttlType = IPV6_HOPLIMIT;

    static void tosIs(int fd, uint8_t tos) {
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_TCLASS, int{tos}, "setsockopt(IPV6_TCLASS)");
    }
    // Two options of the kernel, both changed or none.
    static void ttlIs(int fd, int ttl) {
        int before = 0;
        socklen_t bytes = sizeof(before);
        if (getsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &before, &bytes) < 0) {
            Mox::throwErrnoException("getsockopt(IPV6_UNICAST_HOPS)");
        }
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, ttl, "setsockopt(IPV6_UNICAST_HOPS)");
        try {
            socketOptionIs(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl,
                           "setsockopt(IPV6_MULTICAST_HOPS)");
        } catch (...) {
            (void)setsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &before, sizeof(before));
            throw;
        }
    }
    static void routerAlertIs(int fd, bool on) {
        // A whole header of eight bytes, whose first the kernel writes: router alert (RFC 2711,
        // 2.1), then two bytes of padding.
        static constexpr uint8_t hopByHop[] = {0, 0, 5, 2, 0, 0, 1, 0};
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_HOPOPTS, hopByHop, on ? sizeof(hopByHop) : 0,
                       "setsockopt(IPV6_HOPOPTS)");
    }

    // The interface of a scoped destination is in the packet information.
    static void nameIs(sockaddr* name, const IpGenAddr& address) {
        const sockaddr_in6 image = sockaddrIn6From(address.v6Addr());
        std::memcpy(name, &image, sizeof(image));
    }
    static void takeName(const void* name, PktInfo* info) {
        sockaddr_in6 source{};
        std::memcpy(&source, name, sizeof(source));
        info->srcIpAddr = ip6AddrFrom(source.sin6_addr);
        info->ifIndex = source.sin6_scope_id;
    }
    static void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) {
        in6_pktinfo info{};
        info.ipi6_ifindex = ifIndex;
        info.ipi6_addr = in6AddrFrom(source.v6Addr());
        writeControl(message, IPPROTO_IPV6, IPV6_PKTINFO, info);
    }
    static bool takePktInfo(const cmsghdr* message, PktInfo* info) {
        in6_pktinfo image{};
        if (!readControl(message, &image)) {
            return false;
        }
        info->ifIndex = image.ipi6_ifindex;
        info->dstIpAddr = ip6AddrFrom(image.ipi6_addr);
        return true;
    }
};

constexpr RawIpFamily family = rawIpFamily<Six>(&facility);

}  // namespace

Ip6SocketPam::Ip6SocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs), family) {}

Ip6SocketPam::~Ip6SocketPam() = default;

Mox::Ptr<Ip6SocketPam> ip6SocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                           NamespaceName netNs) {
    return Mox::make<Ip6SocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
