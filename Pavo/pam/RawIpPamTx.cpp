#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/pam/RawIpFamily.h"
#include "Pavo/pam/RawIpPam.h"

namespace Pavo {

namespace {

// Room for the one control message of either family, whatever the word size.
constexpr uint32_t maxControlBytes = CMSG_SPACE(sizeof(in6_pktinfo));
static_assert(maxControlBytes >= CMSG_SPACE(sizeof(in_pktinfo)));

// The index of an interface in the socket's namespace, or -1 with `errno` set.
int interfaceIndex(int fd, const Mox::String& name) {
    ifreq request{};
    if (name.bytes() >= sizeof(request.ifr_name)) {
        errno = ENODEV;
        return -1;
    }
    std::memcpy(request.ifr_name, name.data(), name.bytes());
    return ioctl(fd, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

}  // namespace

void RawIpPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled(), "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    // An observer of a count may close the socket, or drop the endpoint.
    const Mox::Ptr<RawIpPam> hold(this);
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    // The kernel takes every packet of the reserved protocol (IPPROTO_RAW) to have its header.
    tapTx(*pkt, (options() & ipHdrIncl) == 0 && protocol() != IpProtocolNumber::reserved);
    txErrnoIs(0);
    sendEnded(fd, fd ? sendOn(fd->descriptor(), *pkt) : EBADF);
}

void RawIpPam::tapTx(const Pkt& pkt, bool isIpHdrWithKernel) const {
    if (!tap()) {
        return;
    }
    const bool leavesTtlToKernel = txDstIpAddr().isMulticast() && !family_.isTtlForGroups;
    TxInfo info;
    info.srcIpAddr = txSrcIpAddr();
    info.dstIpAddr = txDstIpAddr();
    info.ifIndex = txIfIndex();
    info.tos = txTOS().value();
    info.ttl = leavesTtlToKernel ? 0 : txTTL().value();
    info.isIpHdrWithKernel = isIpHdrWithKernel;
    info.protocol = protocol();
    info.hasRouterAlert = isIpHdrWithKernel && ipPktOption(ipPktRouterAlert);
    tap()->handleTxPkt(*this, pkt, info);
}

void RawIpPam::sendEnded(const Mox::Ptr<Mox::FileDescriptor>& fd, int error) {
    if (error == 0) {
        txPktCountInc(1);
        return;
    }
    MOX_TRACE(*family_.trace, 1, "sendmsg failed : ", std::strerror(error));
    // Without IP_HDRINCL the kernel reports a full send buffer as ENOBUFS.
    if (fd && (error == EAGAIN || error == ENOBUFS)) {
        armForRoom(fd);
    }
    txErrnoIs(error);
    txErrorsInc(1);
}

// Traffic does not throw, so where the kernel refuses to watch for room, only the error is counted.
void RawIpPam::armForRoom(const Mox::Ptr<Mox::FileDescriptor>& fd) const {
    try {
        fd->writeMetNoRoom();
    } catch (const Mox::ErrnoException& error) {
        if (fd->notifyOnWritable()) {
            throw;  // From an observer of the interest.
        }
        MOX_TRACE(*family_.trace, 1, "cannot wait for room : ", error.what());
    }
}

int RawIpPam::addressError() const {
    if (txDstIpAddr().af() == ipunknown) {
        return EDESTADDRREQ;
    }
    const bool isForeignSource =
        txSrcIpAddr().af() != ipunknown && txSrcIpAddr().af() != family_.addressFamily;
    return isForeignSource || txDstIpAddr().af() != family_.addressFamily ? EAFNOSUPPORT : 0;
}

// One packet by one system call, and one more before it where the interface is given by name.
// Returns 0, or why it was not sent.
int RawIpPam::sendOn(int fd, const Pkt& pkt) const {
    if (const int error = addressError()) {
        return error;
    }
    if (txIfIndex() > INT_MAX) {  // The kernel's indices are ints.
        return ENODEV;
    }
    const bool byName = txIfIndex() == 0 && !txIfName().empty();
    const int ifIndex = byName ? interfaceIndex(fd, txIfName()) : static_cast<int>(txIfIndex());
    if (ifIndex < 0) {
        return errno;
    }
    sockaddr_in6 name;  // Has room for that of IPv4.
    family_.nameIs(reinterpret_cast<sockaddr*>(&name), txDstIpAddr());
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[maxControlBytes] = {};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = family_.nameBytes;
    message.msg_iov = data;
    message.msg_iovlen = pkt.copyIovecs(data);
    if (ifIndex != 0 || !txSrcIpAddr().address().isZero()) {
        message.msg_control = control;
        message.msg_controllen = family_.txControlBytes;
        family_.pktInfoIs(CMSG_FIRSTHDR(&message), static_cast<uint32_t>(ifIndex), txSrcIpAddr());
    }
    MOX_TRACE(*family_.trace, 9, "sendmsg( ) with flags : ", txFlags());
    return sendmsg(fd, &message, txFlags()) < 0 ? errno : 0;
}

}  // namespace Pavo
