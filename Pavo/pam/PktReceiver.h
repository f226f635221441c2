/// @file
/// Packets read from a socket, one at a time or in batches. For the endpoints themselves; an agent
/// does not need it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/IpSocketOptions.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/pam/RxFormat.h"
#include "Pavo/pam/RxInfo.h"

namespace Pavo {

/// The attributes of an endpoint that concern a read.
struct RxSettings {
    /// Bits of `IpSocketOptions`.
    uint32_t options;
    int flags;
    /// The room for a packet, and the size of the buffer that has it.
    uint32_t maxBytes;
    uint32_t bufferBytes;
};

/// A packet of so many bytes to read into, at most `settings.maxBytes`: that of a slot, if nobody
/// else holds it, or a new one. Throws std::bad_alloc.
Mox::Ptr<Pkt> pktToReadInto(const RxSettings& settings, const Mox::Ptr<Pkt>& slot, uint32_t bytes);

/// The result of one read beside the descriptions of its packets.
struct RxRound {
    /// False for a single read when the kernel was not asked, since the socket is closed or there
    /// is no memory.
    bool wasTried = false;
    /// The `errno` of the read; 0 when it took packets.
    int error = 0;
    uint32_t packets = 0;
    /// Bits of the options whose messages the last packet carried.
    uint32_t carried = 0;
    uint32_t truncated = 0;
    /// Packets that the kernel dropped since the last packet that said so.
    uint32_t drops = 0;
    /// Packets whose control data was cut, or lacked what the options promise.
    uint32_t faulty = 0;
};

/// The memory of one recvmmsg(2): an entry for each slot, kept from round to round.
struct RxBatch;

/// Reads the packets of one endpoint. It changes no attribute and notifies nobody, but reports to
/// the socket how each attempt ended.
class PktReceiver {
  public:
    /// `className` is that of the endpoint, for traces.
    PktReceiver(const Mox::TraceFacility& trace, const char* className);
    ~PktReceiver();

    const Mox::TraceFacility& trace() const { return trace_; }
    /// A socket was opened, whose messages are of that format.
    void formatIs(const RxFormat& format) {
        format_ = &format;
        socketDrops_ = 0;
    }

    /// One packet with one recvmsg(2). When there was one, `*pkt` is set, and `*info` gets what the
    /// kernel says of it.
    RxRound readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                    RxInfo* info);

    /// A batch with one recvmmsg(2), of at most `count` packets, whose descriptions begin with
    /// `first`. It reads into those packets of `slots` that nobody else holds. Null when the kernel
    /// was not asked: the socket is closed, or there is no memory or no slot. The batch is the
    /// caller's until it is given back by `batchIs`, since another one may be read while observers
    /// are notified.
    std::unique_ptr<RxBatch> readBatch(PamSocket* socket, const RxSettings& settings,
                                       const RxInfo& first, const Mox::Array<Mox::Ptr<Pkt>>& slots,
                                       uint32_t count);
    /// A batch of so many slots, for another way of reading: the one that was given back, if it has
    /// so many. Throws std::bad_alloc.
    std::unique_ptr<RxBatch> newBatch(uint32_t slots);
    void batchIs(std::unique_ptr<RxBatch> batch) { batch_ = std::move(batch); }

    /// Empties the error queue, since a queued error keeps the socket in EPOLLERR. Returns how many
    /// there were; `queuedErrors` has them.
    uint32_t drainErrorQueue(const PamSocket& socket);
    const std::vector<QueuedError>& queuedErrors() const { return queuedErrors_; }

    /// Traces why a read failed, unless there was nothing to read.
    void traceFailure(int error) const;

  private:
    std::unique_ptr<RxBatch> prepare(const RxSettings& settings,
                                     const Mox::Array<Mox::Ptr<Pkt>>& slots, uint32_t count);
    void readMessage(const msghdr& message, const RxSettings& settings, Pkt* pkt, RxInfo* info,
                     RxRound* round);
    uint32_t readControls(const msghdr& message, Pkt* pkt, RxInfo* info, RxRound* round);
    bool takeQueuedError(int fd);

    const Mox::TraceFacility& trace_;
    const char* className_;
    const RxFormat* format_ = nullptr;
    uint32_t socketDrops_ = 0;  // As the socket last said; it counts from its beginning.
    std::unique_ptr<RxBatch> batch_;
    std::vector<QueuedError> queuedErrors_;
};

/// Room for all control messages of any kind of socket, whatever the word size.
inline constexpr uint32_t rxDropsControlBytes = CMSG_SPACE(sizeof(uint32_t));
inline constexpr uint32_t rxTimestampControlBytes = CMSG_SPACE(2 * sizeof(int64_t));
inline constexpr uint32_t rxMaxControlBytes =
    CMSG_SPACE(sizeof(in6_pktinfo)) + 2 * CMSG_SPACE(sizeof(int)) +
    CMSG_SPACE(sizeof(sockaddr_in6)) + rxDropsControlBytes + rxTimestampControlBytes;

/// One message to receive into: where the kernel puts the sender, the bytes and the control data.
struct RxMessage {
    sockaddr_in6 name;  // Has room for those of IPv4 and of packet sockets.
    iovec data[Pkt::maxIovecs_];
    alignas(cmsghdr) char control[rxMaxControlBytes];

    void prepare(msghdr* message, const Pkt& pkt, const RxFormat& format, uint32_t options);
};

struct RxBatch {
    explicit RxBatch(uint32_t slots) : pkts(slots), rooms(slots), messages(slots), infos(slots) {}

    uint32_t slots() const { return static_cast<uint32_t>(pkts.size()); }
    /// The descriptions of the packets that were read.
    std::span<const RxInfo> read() const { return {infos.data(), round.packets}; }

    std::vector<Mox::Ptr<Pkt>> pkts;
    std::vector<RxMessage> rooms;
    std::vector<mmsghdr> messages;
    std::vector<RxInfo> infos;
    RxRound round;
};

/// Counts a read on the endpoint that made it: packets, or its failure with the errors of the
/// queue. `countsEmpty`: a read that found nothing has failed.
template <class Endpoint>
void countRead(Endpoint* pam, PktReceiver* receiver, const PamSocket& socket, const RxRound& round,
               bool countsEmpty) {
    if (round.error != 0) {
        receiver->traceFailure(round.error);
        const uint32_t failed = round.error != EAGAIN || countsEmpty ? 1 : 0;
        const bool drains = (pam->options() & ipRecvErr) != 0;
        pam->rxErrorsInc(failed + (drains ? receiver->drainErrorQueue(socket) : 0));
        return;
    }
    FirstException exception;
    if (round.drops != 0) {
        pam->rxDropsIs(pam->rxDrops() + round.drops);
    }
    if (round.truncated != 0) {
        exception.collect([&] { pam->rxTruncatedPktsInc(round.truncated); });
    }
    exception.collect([&] { pam->rxPktCountInc(round.packets); });
    exception.rethrow();
}

}  // namespace Pavo
