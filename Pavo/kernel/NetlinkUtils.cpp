#include "Pavo/kernel/NetlinkUtils.h"

#include <fcntl.h>
#include <linux/neighbour.h>
#include <linux/pkt_sched.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"

#include "Pavo/socket/SocketAt.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::NetlinkUtils");

// The number of the last message, of all handles.
uint32_t sequenceNumber = 999;

// The part of an answer that is read. The kernel's copy of the request, which follows, is not.
struct Answer {
    nlmsghdr header;
    nlmsgerr body;
};
static_assert(sizeof(Answer) == 36);
constexpr ssize_t headerBytes = sizeof(nlmsghdr);
constexpr ssize_t errorBytes = NLMSG_LENGTH(sizeof(nlmsgerr::error));

bool setNonBlocking(int fd) {
    const char* call = "fcntl(F_GETFL)";
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        call = "fcntl(F_SETFL)";
        if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0) {
            return true;
        }
    }
    const Mox::ErrnoKeeper keeper;
    std::perror(call);
    MOX_TRACE(facility, 0, "setNonblocking(", fd, ") fcntl failed due to ",
              std::strerror(keeper.saved()));
    return false;
}

// Binds to `h->local`, and reads back the address that the kernel assigned.
bool bindLocal(netlinkHandle* h) {
    auto* const address = reinterpret_cast<sockaddr*>(&h->local);
    socklen_t length = sizeof(h->local);
    if (bind(h->fd, address, length) < 0) {
        MOX_TRACE(facility, 0, "Cannot bind netlink socket ", std::strerror(errno));
        return false;
    }
    if (getsockname(h->fd, address, &length) < 0) {
        MOX_TRACE(facility, 0, "Cannot getsockname ", std::strerror(errno));
        return false;
    }
    if (length != sizeof(h->local)) {
        MOX_TRACE(facility, 0, "Wrong address length ", length);
        errno = EBADE;
        return false;
    }
    if (h->local.nl_family != AF_NETLINK) {
        MOX_TRACE(facility, 0, "Wrong address family ", h->local.nl_family);
        errno = EBADE;
        return false;
    }
    return true;
}

// Numbers the message and sends it. No wait for room can be interrupted here: the kernel takes a
// request, and handles it, inside the call.
bool sendNumbered(netlinkHandle* h, nlmsghdr* msg) {
    msg->nlmsg_seq = ++sequenceNumber;
    return send(h->fd, msg, msg->nlmsg_len, 0) >= 0;
}

// The bytes after the header of an attribute, whose `rta_len` may hold any number.
uint32_t payloadBytes(const rtattr* attribute) {
    constexpr uint32_t headBytes = RTA_LENGTH(0);
    return attribute->rta_len < headBytes ? 0 : attribute->rta_len - headBytes;
}

template <class Address>
void copyAddress(rtattr* attribute, Address* address) {
    if (payloadBytes(attribute) < sizeof(Address)) {
        MOX_TRACE(facility, 0, "attribute too short for an address, expecting at least ",
                  sizeof(Address), ", saw ", payloadBytes(attribute));
        return;
    }
    address->copyFromBuffer(static_cast<const unsigned char*>(RTA_DATA(attribute)));
}

// The requests about groups: `type` is the operation, `ifIndex` the link, or 0 for all of the
// group.
int sendGroupRequest(netlinkHandle* h, uint16_t type, unsigned ifIndex, uint32_t group) {
    constexpr int bytes = NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_LENGTH(sizeof(group));
    NetlinkRequest<ifinfomsg, bytes> request(type, NLM_F_REQUEST | NLM_F_ACK);
    request.body().ifi_index = static_cast<int>(ifIndex);
    const int ret = request.addAttribute(IFLA_GROUP, group);
    Mox::require(ret == 0, "ret == 0");
    return sendNetlinkMsg(h, request.header());
}

ssize_t receiveAnswer(int fd, Answer* answer) {
    ssize_t bytes = 0;
    do {  // An answer left in the socket by a signal would be taken for the next request's.
        bytes = recv(fd, answer, sizeof(*answer), 0);
    } while (bytes < 0 && errno == EINTR);
    return bytes;
}

// The meaning of the error field of a complete NLMSG_ERROR message for the caller.
int resultOf(int error) {
    if (error == 0) {
        return 0;
    }
    if (error > 0 || error == INT_MIN) {
        MOX_TRACE(facility, 0, "no error number in NLMSG_ERROR response: ", error);
        errno = EBADMSG;
        return -1;
    }
    MOX_TRACE(facility, 0, "recv returned error : ", std::strerror(-error));
    errno = -error;
    return error;
}

}  // namespace

int createNetlinkSocket(netlinkHandle* h, unsigned groups, const char* nsName, int type,
                        bool nonBlocking, unsigned protocol) {
    *h = netlinkHandle();
    h->fd = socketAt(AF_NETLINK, type, static_cast<int>(protocol), nsName);
    if (h->fd < 0) {
        MOX_TRACE(facility, 0, "Cannot open netlink socket: ", std::strerror(errno));
        h->fd = -1;
        return -1;
    }
    h->local.nl_family = AF_NETLINK;
    h->local.nl_groups = groups;
    if ((nonBlocking && !setNonBlocking(h->fd)) || !bindLocal(h)) {
        const Mox::ErrnoKeeper keeper;
        closeNetlinkSocket(h);
        return -1;
    }
    h->seq = static_cast<uint32_t>(std::time(nullptr));
    MOX_TRACE(facility, 9, " opened netlink socket ", h->fd, " for ns ",
              nsName == nullptr ? "" : nsName);
    return 0;
}

void closeNetlinkSocket(netlinkHandle* nlh) {
    Mox::require(nlh != nullptr, "nlh");
    if (nlh->fd < 0) {
        return;
    }
    Mox::require(close(nlh->fd) == 0, "close( nlh->fd ) == 0");
    nlh->fd = -1;
}

int sendNetlinkMsg(netlinkHandle* h, nlmsghdr* msg) {
    return sendNumbered(h, msg) ? getNetlinkResponse(h->fd, msg->nlmsg_seq) : -1;
}

int sendNetlinkVec(netlinkHandle* h, nlmsghdr* buf, int len) {
    return send(h->fd, buf, static_cast<std::size_t>(len), 0) < 0 ? -1 : 0;
}

int sendRecvXfrmNetlinkMsg(netlinkHandle* h, nlmsghdr* msg) {
    if (!sendNumbered(h, msg)) {
        MOX_TRACE(facility, 0, "Cannot send netlink msg ", std::strerror(errno));
        return -1;
    }
    return static_cast<int>(msg->nlmsg_seq);
}

int sendNetlinkRequest(int fd, unsigned seq, unsigned short type) {
    NetlinkRequest<uint32_t, NLMSG_LENGTH(sizeof(uint32_t))> request(  // AF_UNSPEC, padded.
        type, NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH);
    request.header()->nlmsg_seq = seq;
    const ssize_t sent = send(fd, request.header(), request.header()->nlmsg_len, 0);
    if (sent < 0) {
        Mox::throwErrnoException("send");
    }
    return static_cast<int>(sent);
}

int getNetlinkResponse(int fd, unsigned seq) {
    Answer answer;
    const ssize_t bytes = receiveAnswer(fd, &answer);
    if (bytes < 1) {
        return -1;
    }
    if (bytes < headerBytes) {
        MOX_TRACE(facility, 0, "incomplete netlink response, expecting at least ", headerBytes);
        return -1;
    }
    if (answer.header.nlmsg_seq != seq) {
        MOX_TRACE(facility, 0, "netlink sequence number mismatch, expecting ", seq, ", saw ",
                  answer.header.nlmsg_seq);
        errno = EBADE;
        return -1;
    }
    if (answer.header.nlmsg_type != NLMSG_ERROR) {
        MOX_TRACE(facility, 0, "got unexpected message type ", answer.header.nlmsg_type);
        errno = EBADE;
        return -1;
    }
    if (bytes < errorBytes) {
        MOX_TRACE(facility, 0, "incomplete NLMSG_ERROR response, expecting at least ", errorBytes);
        return -1;
    }
    return resultOf(answer.body.error);
}

int addattr_l(nlmsghdr* n, int bound, int type, const void* data, int alen) {
    if (alen < 0 || alen > static_cast<int>(UINT16_MAX - RTA_LENGTH(0))) {
        MOX_TRACE(facility, 0, "no attribute has a length of ", alen);
        return -1;
    }
    const uint32_t length = RTA_LENGTH(static_cast<uint32_t>(alen));
    // In 64 bits, since `nlmsg_len` may hold any number; NLMSG_ALIGN would cut it to 32.
    const uint64_t start = (uint64_t{n->nlmsg_len} + 3) / 4 * 4;
    const uint64_t end = start + RTA_ALIGN(length);
    if (static_cast<int64_t>(end) > bound) {
        MOX_TRACE(facility, 0, "message exceeded bound of ", bound, " (", end, ")");
        return -1;
    }
    auto* const bytes = reinterpret_cast<unsigned char*>(n);
    std::memset(bytes + n->nlmsg_len, 0, static_cast<std::size_t>(end - n->nlmsg_len));
    const rtattr attribute = {static_cast<uint16_t>(length), static_cast<uint16_t>(type)};
    std::memcpy(bytes + start, &attribute, sizeof(attribute));
    if (alen > 0) {
        std::memcpy(bytes + start + sizeof(attribute), data, static_cast<std::size_t>(alen));
    }
    n->nlmsg_len = static_cast<uint32_t>(end);
    return 0;
}

void getRtaAddr(rtattr* attribute, Ip6Addr* address) {
    copyAddress(attribute, address);
}

void getRtaAddr(rtattr* attribute, IpAddr* address) {
    copyAddress(attribute, address);
}

void getRtaAddr(rtattr* attribute, EthAddr* address) {
    copyAddress(attribute, address);
}

void getCacheInfo(const rtattr* attribute) {
    nda_cacheinfo info;
    if (payloadBytes(attribute) < sizeof(info)) {
        MOX_TRACE(facility, 0, "attribute too short for nda_cacheinfo, expecting at least ",
                  sizeof(info), ", saw ", payloadBytes(attribute));
        return;
    }
    std::memcpy(&info, RTA_DATA(attribute), sizeof(info));
    MOX_TRACE(facility, 9, "NDA_CACHEINFO:\nconfirmed=", info.ndm_confirmed,
              " used=", info.ndm_used, " updated=", info.ndm_updated, " refcnt=", info.ndm_refcnt);
}

int addPrioQdisc(const char* ifname) {
    const unsigned ifIndex = if_nametoindex(ifname);
    Mox::require(ifIndex > 0, "ifIndex > 0");

    NetlinkRequest<tcmsg, 100> request(RTM_NEWQDISC,
                                       NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE);
    request.body().tcm_ifindex = static_cast<int>(ifIndex);
    request.body().tcm_handle = TC_H_MAKE(1u << 16, 0);
    request.body().tcm_parent = TC_H_ROOT;
    int ret = request.addAttribute(TCA_KIND, "prio");
    Mox::require(ret == 0, "ret == 0");
    // The default priority map of Linux: priorities 6 and 7 go to the first band.
    constexpr tc_prio_qopt options = {3, {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1}};
    ret = request.addAttribute(TCA_OPTIONS, options);
    Mox::require(ret == 0, "ret == 0");

    netlinkHandle h;
    ret = createNetlinkSocket(&h, 0, "", SOCK_RAW, false, NETLINK_ROUTE);
    Mox::require(ret == 0, "ret == 0");
    MOX_TRACE(facility, 9, "Sending netlink request for ", ifname);
    ret = sendNetlinkMsg(&h, request.header());
    MOX_TRACE(facility, 9, "Netlink request returned ", ret);
    const Mox::ErrnoKeeper keeper;
    closeNetlinkSocket(&h);
    return ret;
}

int setDeviceGroup(netlinkHandle* h, unsigned ifIndex, unsigned group) {
    return sendGroupRequest(h, RTM_SETLINK, ifIndex, group);
}

int delDeviceGroup(netlinkHandle* h, unsigned group) {
    return sendGroupRequest(h, RTM_DELLINK, /*ifIndex=*/0, group);
}

}  // namespace Pavo
