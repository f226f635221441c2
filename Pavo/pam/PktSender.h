/// @file
/// Packets sent on a socket, one at a time or in batches. For the endpoints themselves; an agent
/// does not need it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <span>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/PamSocket.h"

namespace Pavo {

/// The common part of the packets of one send: where they go, what the kernel is asked to do with
/// them.
struct TxHead {
    /// No destination for a connected socket.
    uint32_t nameBytes = 0;
    sockaddr_in6 name;  // Has room for those of IPv4 and of packet sockets.
    uint32_t controlBytes = 0;
    /// Has room for interface and source of either family, and for the size of a segment.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(uint16_t))];
    int flags = 0;

    /// The message that consists of the given pieces.
    msghdr message(iovec* pieces, std::size_t count) const;
};

/// The result of a batch.
struct TxResult {
    /// Packets that were sent, and that were not.
    uint32_t sent = 0;
    uint32_t failed = 0;
    /// Packets from the first one that were sent or refused; those after them found no room.
    uint32_t taken = 0;
    /// Why the last packet that failed did, as an `errno`; 0 when all were sent.
    int error = 0;
};

/// One packet with one sendmsg(2). Returns 0, or why it was not sent, as an `errno`.
int sendPkt(int fd, const TxHead& head, const Pkt& pkt, const Mox::TraceFacility& trace);

/// One packet with sendmsg(2); more with one sendmmsg(2) for each 64 of them, and two more for each
/// that is refused. It stops where there is no room.
TxResult sendPkts(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts,
                  const Mox::TraceFacility& trace);

/// Packets one after the other with `send(pkt)`, which returns 0 or why it was not sent, as an
/// `errno`. It stops where there is no room.
template <class Send>
TxResult sendEachPkt(std::span<const Mox::Ptr<Pkt>> pkts, Send send) {
    TxResult result;
    while (result.taken < pkts.size() && !isNoRoom(result.error)) {
        const int error = send(pkts[result.taken]);
        result.sent += error == 0 ? 1 : 0;
        result.taken += isNoRoom(error) ? 0 : 1;
        result.error = error != 0 ? error : result.error;
    }
    result.failed = static_cast<uint32_t>(pkts.size()) - result.sent;
    return result;
}

/// Traces why a send failed. When there was no room on `fd`, which may be null, room is reported
/// later.
void sendHasFailed(const Mox::Ptr<Mox::FileDescriptor>& fd, int error,
                   const Mox::TraceFacility& trace);

/// Counts packets on the endpoint that sent them on `fd`, and returns how many were taken.
template <class Endpoint>
uint32_t countSent(Endpoint* pam, const Mox::Ptr<Mox::FileDescriptor>& fd, const TxResult& result,
                   const Mox::TraceFacility& trace) {
    FirstException exception;
    if (result.sent != 0) {
        exception.collect([&] { pam->txPktCountInc(result.sent); });
    }
    if (result.failed != 0) {
        exception.collect([&] { sendHasFailed(fd, result.error, trace); });
        exception.collect([&] { pam->txErrnoIs(result.error); });
        exception.collect([&] { pam->txErrorsInc(result.failed); });
    }
    exception.rethrow();
    return result.taken;
}

}  // namespace Pavo
