#include "Pavo/ip/IpFamily.h"

#include <linux/errqueue.h>

#include <cerrno>
#include <cstring>

#include "Mox/Exception.h"
#include "Pavo/ip/McastGroup.h"
#include "Pavo/pam/SocketOptions.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

// Takes a byte, or an int that holds one (TTL, hop limit, traffic class).
bool readByte(const cmsghdr* message, uint8_t* value) {
    int number = 0;
    if (!readControl(message, &number)) {
        return readControl(message, value);
    }
    *value = static_cast<uint8_t>(number);
    return true;
}

class Ip4Family final : public IpFamily {
  public:
    constexpr Ip4Family()
        : IpFamily(ipv4, IPPROTO_IP, sizeof(sockaddr_in), roomBytes, CMSG_SPACE(sizeof(in_pktinfo)),
                   {AF_INET, IP_PKTINFO, IP_ORIGDSTADDR, IP_TOS, IP_TTL, IP_RECVERR,
                    "setsockopt(IP_ADD_MEMBERSHIP)", "setsockopt(IP_DROP_MEMBERSHIP)"}) {}

    void tosIs(int fd, uint8_t tos) const override {
        socketOptionIs(fd, IPPROTO_IP, IP_TOS, tos, "setsockopt(IP_TOS)");
    }
    void ttlIs(int fd, int ttl) const override {
        socketOptionIs(fd, IPPROTO_IP, IP_TTL, ttl, "setsockopt(IP_TTL)");
    }
    void mcastTtlIs(int fd, int ttl) const override {
        socketOptionIs(fd, IPPROTO_IP, IP_MULTICAST_TTL, ttl, "setsockopt(IP_MULTICAST_TTL)");
    }
    void mcastIfIndexIs(int fd, uint32_t ifIndex) const override {
        ip_mreqn request{};
        request.imr_ifindex = static_cast<int>(ifIndex);
        socketOptionIs(fd, IPPROTO_IP, IP_MULTICAST_IF, request, "setsockopt(IP_MULTICAST_IF)");
    }

    void nameIs(sockaddr* name, const IpGenAddr& address, Port port) const override {
        const sockaddr_in image = sockaddrInFrom(address.v4Addr(), port.value());
        std::memcpy(name, &image, sizeof(image));
    }
    void takeName(const void* name, RxInfo* info) const override {
        sockaddr_in source{};
        std::memcpy(&source, name, sizeof(source));
        info->srcIpAddr = ipAddrFrom(source.sin_addr);
        info->srcPort = ntohs(source.sin_port);
    }
    void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) const override {
        in_pktinfo info{};
        info.ipi_ifindex = static_cast<int>(ifIndex);
        info.ipi_spec_dst = inAddrFrom(source.v4Addr());
        writeControl(message, IPPROTO_IP, IP_PKTINFO, info);
    }

  private:
    // The kernel counts the message headers of the process's word size.
    static constexpr uint32_t roomBytes = CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(int)) +
                                          CMSG_SPACE(sizeof(uint8_t)) +
                                          CMSG_SPACE(sizeof(sockaddr_in));
    static_assert(sizeof(void*) != 4 || (roomBytes == 84 && CMSG_SPACE(sizeof(in_pktinfo)) == 24));

    bool takePktInfo(const cmsghdr* message, PktInfo* info) const override {
        in_pktinfo image{};
        if (!readControl(message, &image)) {
            return false;
        }
        info->ifIndex = static_cast<uint32_t>(image.ipi_ifindex);
        info->dstIpAddr = ipAddrFrom(image.ipi_addr);
        return true;
    }
};

class Ip6Family final : public IpFamily {
  public:
    constexpr Ip6Family()
        : IpFamily(ipv6, IPPROTO_IPV6, sizeof(sockaddr_in6), roomBytes,
                   CMSG_SPACE(sizeof(in6_pktinfo)),
                   {AF_INET6, IPV6_PKTINFO, IPV6_ORIGDSTADDR, IPV6_TCLASS, IPV6_HOPLIMIT,
                    IPV6_RECVERR, "setsockopt(IPV6_JOIN_GROUP)", "setsockopt(IPV6_LEAVE_GROUP)"}) {}

    void tosIs(int fd, uint8_t tos) const override {
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_TCLASS, int{tos}, "setsockopt(IPV6_TCLASS)");
    }
    void ttlIs(int fd, int ttl) const override {
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, ttl, "setsockopt(IPV6_UNICAST_HOPS)");
    }
    void mcastTtlIs(int fd, int ttl) const override {
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl,
                       "setsockopt(IPV6_MULTICAST_HOPS)");
    }
    void mcastIfIndexIs(int fd, uint32_t ifIndex) const override {
        socketOptionIs(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, ifIndex,
                       "setsockopt(IPV6_MULTICAST_IF)");
    }

    // The interface of a scoped destination is in the packet information.
    void nameIs(sockaddr* name, const IpGenAddr& address, Port port) const override {
        const sockaddr_in6 image = sockaddrIn6From(address.v6Addr(), port.value());
        std::memcpy(name, &image, sizeof(image));
    }
    void takeName(const void* name, RxInfo* info) const override {
        sockaddr_in6 source{};
        std::memcpy(&source, name, sizeof(source));
        info->srcIpAddr = ip6AddrFrom(source.sin6_addr);
        info->srcPort = ntohs(source.sin6_port);
        info->ifIndex = source.sin6_scope_id;
    }
    void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) const override {
        in6_pktinfo info{};
        info.ipi6_ifindex = ifIndex;
        info.ipi6_addr = in6AddrFrom(source.v6Addr());
        writeControl(message, IPPROTO_IPV6, IPV6_PKTINFO, info);
    }

  private:
    static constexpr uint32_t roomBytes = CMSG_SPACE(sizeof(in6_pktinfo)) +
                                          2 * CMSG_SPACE(sizeof(int)) +
                                          CMSG_SPACE(sizeof(sockaddr_in6));

    bool takePktInfo(const cmsghdr* message, PktInfo* info) const override {
        in6_pktinfo image{};
        if (!readControl(message, &image)) {
            return false;
        }
        info->ifIndex = image.ipi6_ifindex;
        info->dstIpAddr = ip6AddrFrom(image.ipi6_addr);
        return true;
    }
};

constexpr Ip4Family four;
constexpr Ip6Family six;

}  // namespace

const IpFamily& ip4Family() {
    return four;
}

const IpFamily& ip6Family() {
    return six;
}

bool IpFamily::takeOrigDst(const cmsghdr* message, RxInfo* info) const {
    if (message->cmsg_len < CMSG_LEN(nameBytes)) {
        return false;
    }
    RxInfo taken;
    takeName(CMSG_DATA(message), &taken);
    info->origDstIpAddr = taken.srcIpAddr;
    if (info->isUdpHdrWithKernel) {  // Else it is what stands there in the packet.
        info->origDstPort = taken.srcPort;
    }
    return true;
}

uint32_t IpFamily::takeControl(const cmsghdr* message, Pkt*, RxInfo* info) const {
    const int type = message->cmsg_type;
    if (type == names_.pktInfoType) {
        return takePktInfo(message, info) ? ipPktInfo : none;
    }
    if (type == names_.origDstType) {
        return takeOrigDst(message, info) ? ipRecvOrigDstAddr : none;
    }
    if (type == names_.tosType) {
        return readByte(message, &info->tos) ? ipRecvTOS : none;
    }
    if (type == names_.ttlType) {
        return readByte(message, &info->ttl) ? ipRecvTTL : none;
    }
    return none;
}

// The name of such a message is the destination; the host that reported it follows the record.
bool IpFamily::takeError(const msghdr& message, QueuedError* error) const {
    RxInfo destination;
    takeName(message.msg_name, &destination);
    error->dstIpAddr = destination.srcIpAddr;
    error->dstPort = destination.srcPort;
    for (const cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(each))) {
        sock_extended_err record{};
        if (each->cmsg_level != level || each->cmsg_type != names_.errorType ||
            !readControl(each, &record)) {
            continue;
        }
        error->error = static_cast<int>(record.ee_errno);
        error->mtu = record.ee_errno == EMSGSIZE ? record.ee_info : 0;
        if (record.ee_origin != SO_EE_ORIGIN_LOCAL &&
            each->cmsg_len >= CMSG_LEN(sizeof(record) + nameBytes)) {
            RxInfo reporter;
            takeName(CMSG_DATA(each) + sizeof(record), &reporter);
            error->reporter = reporter.srcIpAddr;
            error->icmpType = record.ee_type;
            error->icmpCode = record.ee_code;
        }
        return true;
    }
    return false;
}

void IpFamily::membershipIs(int fd, uint32_t ifIndex, const IpGenAddr& group, bool member) const {
    const char* failure = member ? names_.joinFailure : names_.leaveFailure;
    if (group.af() != addressFamily_) {
        throw Mox::ErrnoException(EAFNOSUPPORT, failure);
    }
    const int result = group.af() == ipv4
                           ? doJoinLeaveMcastGroup(fd, ifIndex, group.v4Addr(), member)
                           : doJoinLeaveMcastGroup(fd, ifIndex, group.v6Addr(), member);
    if (result < 0) {
        Mox::throwErrnoException(failure);
    }
}

void IpFamily::membershipIs(int fd, uint32_t ifIndex, const IpGenAddr& group,
                            const IpGenAddr& source, bool member) const {
    const char* failure =
        member ? "setsockopt(MCAST_JOIN_SOURCE_GROUP)" : "setsockopt(MCAST_LEAVE_SOURCE_GROUP)";
    if (group.af() != addressFamily_ || source.af() != addressFamily_) {
        throw Mox::ErrnoException(EAFNOSUPPORT, failure);
    }
    if (doJoinLeaveMcastGroup(fd, ifIndex, group, source, member) < 0) {
        Mox::throwErrnoException(failure);
    }
}

}  // namespace Pavo
