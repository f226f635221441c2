#include "Pavo/ip/McastGroup.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "Pavo/value/SockAddr.h"

namespace Pavo {

int doJoinLeaveMcastGroup(int fd, uint32_t ifIndex, const Ip6Addr& group, bool join) {
    ipv6_mreq request{};
    group.copyToBuffer(reinterpret_cast<unsigned char*>(&request.ipv6mr_multiaddr));
    request.ipv6mr_interface = ifIndex;
    return setsockopt(fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &request,
                      sizeof(request));
}

int doJoinLeaveMcastGroup(int fd, uint32_t ifIndex, const IpAddr& group, bool join) {
    ip_mreqn request{};
    group.copyToBuffer(reinterpret_cast<unsigned char*>(&request.imr_multiaddr));
    request.imr_ifindex = static_cast<int>(ifIndex);
    return setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request,
                      sizeof(request));
}

int doJoinLeaveMcastGroup(int fd, uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr& source,
                          bool join) {
    group_source_req request{};
    request.gsr_interface = ifIndex;
    request.gsr_group = SockAddr(group).storage;
    request.gsr_source = SockAddr(source).storage;
    return setsockopt(fd, group.af() == ipv6 ? IPPROTO_IPV6 : IPPROTO_IP,
                      join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP, &request,
                      sizeof(request));
}

}  // namespace Pavo
