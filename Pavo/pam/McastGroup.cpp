#include "Pavo/pam/McastGroup.h"

#include <netinet/in.h>
#include <sys/socket.h>

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

}  // namespace Pavo
