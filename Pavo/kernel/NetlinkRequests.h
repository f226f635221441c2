/// @file
/// The requests of a session: what waits to be sent, and what waits for its answer.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "Mox/Clock.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetlinkReader.h"
#include "Pavo/kernel/NetlinkSession.h"

namespace Pavo {

/// Requests over one port. A request, a batch and a dump are each one `Pending`: its messages have
/// consecutive sequence numbers.
///
///     messages     0 ... answered ... sent ... count
///                  answers came | in flight | in the queue
///
/// The kernel works on the messages of a datagram in order and answers in order, so the answer to
/// one says that those before it, which it did not answer, are done.
class NetlinkRequests final : public NetlinkReader {
  public:
    struct Ended {
        uint32_t to;  // The messages before.
        NetlinkAnswer answer;
    };
    struct Pending {
        uint32_t first = 0;  // The sequence number of message 0.
        uint32_t count = 1;
        uint32_t sent = 0;
        uint32_t answered = 0;
        uint32_t called = 0;
        std::vector<Ended> toCall;    // What came while it was called.
        std::vector<uint8_t> bytes;   // Of all messages.
        std::vector<uint32_t> ends;   // Where each message ends; empty for a single one.
        NetlinkSession::Begin begin;  // Of a dump.
        NetlinkSession::Each each;
        NetlinkSession::Done done;
        NetlinkSession::EachDone eachDone;  // Of a batch.
        bool isDump = false;
        bool isBegun = false;        // The dump.
        bool isInterrupted = false;  // The dump.
        bool isForgotten = false;
        bool isCalling = false;
        bool hasProgress = false;  // Since the deadline was set.
        int sendError = 0;         // Of the messages from `sent` on.
        uint32_t interruptions = 0;
        uint32_t weight = 1;  // Of the answer to a message, see `room_`.
        double deadlineSeconds = 0;
        double deadline = Mox::Clock::idle;  // While it waits to be sent there is none.
    };
    using Owned = std::shared_ptr<Pending>;

    NetlinkRequests(NetlinkSession* session, Mox::Clock* clock);

    /// Sends over a port from now on.
    void start(Mox::Ptr<NetlinkPort> port);
    /// Closes the port, and returns everything that has no end yet: it ends with ECANCELED, in the
    /// next turn unless `cancel` is called before.
    std::vector<Owned> stop();
    /// Ends them now.
    void cancel(const std::vector<Owned>& pending, FirstException* exception);
    /// Numbers the messages of `pending`, and sends them now or later. Returns the first number.
    uint32_t add(const Owned& pending);
    void del(uint32_t sequence);

  private:
    void handleMessage(nlmsghdr& message, FirstException* exception) override;
    void handleLoss(FirstException* exception) override;
    void handleCut(const nlmsghdr& message, FirstException* exception) override;
    void handleEmpty(FirstException* exception) override;
    bool expectsMore() const override { return inFlight_ != 0 || dump_ != nullptr || hasLoss_; }

    Owned find(uint32_t sequence) const;
    void handleDumpMessage(const Owned& pending, const nlmsghdr& message,
                           FirstException* exception);
    void handleDumpEnd(const Owned& pending, const nlmsghdr& message, FirstException* exception);
    bool isCurrent(const Owned& pending) const;
    void advance(const Owned& pending, uint32_t to, const NetlinkAnswer& before,
                 const NetlinkAnswer& last, FirstException* exception);
    void finish(const Owned& pending, const NetlinkAnswer& answer, FirstException* exception);
    static void callUpTo(const Owned& pending, uint32_t to, const NetlinkAnswer& answer,
                         FirstException* exception);
    void called(const Owned& pending, FirstException* exception);

    void sendQueued();
    void sendSome(Pending* pending);
    int sendChunk(Pending* pending, uint32_t messages);
    void sendNextDump();
    void failed(Pending* pending, int error);
    void deadlineIs(Pending* pending, double seconds);
    void armTimer(double expiry);
    void handleTimer();
    void handleDeadline(const Owned& pending, FirstException* exception);

    Mox::Clock* const clock_;
    Mox::Timer timer_;
    uint32_t lastSequence_ = 0;
    std::map<uint32_t, Owned> pending_;  // By the first number.
    std::deque<Owned> queue_;  // Requests and batches that are not sent entirely, or ended.
    std::deque<Owned> dumps_;  // Dumps that are not sent, among ended ones.
    Owned dump_;               // The one under way.
    uint32_t room_ = 0;        // For answers that did not come yet, in the receive buffer, in KiB.
    uint32_t inFlight_ = 0;    // What of that is taken.
    bool hasLoss_ = false;     // No request is sent before all was read.
};

}  // namespace Pavo
