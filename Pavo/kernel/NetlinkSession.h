/// @file
/// A session with the kernel over netlink, on the event loop: requests, dumps, and tables that are
/// followed.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <span>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/Netlink.h"
#include "Pavo/kernel/NetlinkMessage.h"
#include "Pavo/kernel/NetlinkPort.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

class NetlinkMonitor;
class NetlinkRequests;

/// How a request ended.
struct NetlinkAnswer {
    /// 0 for success, else an `errno`: the kernel's, or one that `NetlinkSession` lists.
    int error = 0;
    /// What the kernel says beside it (NETLINK_EXT_ACK), such as "Invalid prefix for given prefix
    /// length"; mostly empty. It may come with success too, as a warning.
    Mox::String text;

    /// "ok" or the words of strerror(3), then the text: "File exists: ipv4: Address already
    /// assigned".
    PAVO_EXPORT Mox::String stringValue() const;

    friend bool operator==(const NetlinkAnswer&, const NetlinkAnswer&) = default;
    /// Writes `stringValue`.
    friend std::ostream& operator<<(std::ostream& out, const NetlinkAnswer& answer) {
        return out << answer.stringValue();
    }
};

/// A follower of tables of the kernel. `callback` gets every message of the dumps and every
/// notification, in the order in which the kernel made them; all functions are called from the
/// event loop, and may do with the session what they want.
class PAVO_EXPORT NetlinkFollower : public NetlinkMessageCallback {
  public:
    /// A dump of the table begins: messages about everything that exists follow, among
    /// notifications. `getType` is that of `followIs`, such as RTM_GETLINK. A dump that begins
    /// again before its end was incomplete, and does not count.
    virtual void handleDumpBegin(uint16_t getType);
    /// The dump is complete: what neither it nor a notification since its beginning has named does
    /// not exist any more. A table that this kernel does not have ends likewise, without messages.
    /// Returns true, or false to have the table dumped again, as after an overflow, but not before
    /// as much time has passed as the dump took; so is it where this throws. The table is not in
    /// sync until then.
    virtual bool handleDumpEnd(uint16_t getType);
    /// The kernel refuses to dump this table, which is then not in sync. It is asked again after
    /// the next overflow.
    virtual void handleDumpRefused(uint16_t getType, const NetlinkAnswer& answer);
    /// A dump begins since `handleDumpEnd` returned false, and nothing was lost in between, so that
    /// what any of these dumps names exists. Calls `handleDumpBegin`, unless overridden.
    virtual void handleDumpAgain(uint16_t getType);
};

/// Requests, dumps and followed tables of one network namespace, over two sockets: one for requests
/// and dumps that the caller asks for, one for notifications and the dumps of the tables
/// that are followed, so that both come in the kernel's order.
///
/// **Requests.** Each has a deadline and exactly one end: the kernel's acknowledgement or error, or
/// - ETIMEDOUT: nothing came within the deadline, which begins when it is sent; for a batch or a
///   dump, nothing for one to two deadlines;
/// - ECANCELED: the session was disabled, or was it already;
/// - ENOBUFS: answers were lost, so that it is unknown what the kernel did;
/// - EOVERFLOW: an answer was larger than the buffer, which has grown now: ask again;
/// - EBADMSG: the answer was malformed;
/// - EINTR: a dump was interrupted again and again;
/// - the error of send(2), with ENOMEM for its ENOBUFS: EMSGSIZE for a request that is larger than
///   the send buffer.
///
/// No more requests are sent than the receive buffer has room for answers; the others wait in the
/// session and are sent in order.
///
/// **Followed tables.** Each is subscribed to, then dumped, one after the other. When notifications
/// were lost (the receive buffer overflowed, ENOBUFS), all tables are dumped again: after 10 ms,
/// and after twice the time before, up to 1 s, while overflows keep coming. A second without one
/// begins with 10 ms again. A dump during which the table changed in a way that makes it
/// inconsistent (NLM_F_DUMP_INTR) is asked again likewise, and so is one of which nothing comes for
/// 5 s, or with which its follower was not content.
///
/// At most 64 datagrams of a socket are read in a turn of the event loop. Messages of other senders
/// than the kernel are dropped.
///
/// No function calls back before it returns, except that disabling ends requests. While anything is
/// called, it may make and delete requests, disable and enable the session, and drop the last
/// reference to it. Where it throws, everything else that was received is still handed out; then
/// the first exception leaves the event loop's turn. A session that ends with its last reference
/// calls no callback. One thread uses a session and its clock.
class PAVO_EXPORT NetlinkSession : public Mox::EntityOf<NetlinkSession> {
  public:
    static constexpr Mox::Attribute<NetlinkSession> enabledAttr{0, "enabled"};
    static constexpr Mox::Attribute<NetlinkSession> netNsAttr{1, "netNs"};
    static constexpr Mox::Attribute<NetlinkSession> rcvBufBytesAttr{2, "rcvBufBytes"};
    static constexpr Mox::Attribute<NetlinkSession> overflowsAttr{3, "overflows"};
    static constexpr Mox::Attribute<NetlinkSession> interruptedDumpsAttr{4, "interruptedDumps"};
    static constexpr Mox::Attribute<NetlinkSession> staleAnswersAttr{5, "staleAnswers"};
    static constexpr Mox::Attribute<NetlinkSession> deadlinesAttr{6, "deadlines"};
    static constexpr Mox::Attribute<NetlinkSession> foreignDatagramsAttr{7, "foreignDatagrams"};
    static constexpr Mox::Attribute<NetlinkSession> isInSyncAttr{8, "isInSync"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::NetlinkSession", Mox::attribute(enabledAttr, &NetlinkSession::enabled),
            Mox::attribute(netNsAttr, &NetlinkSession::netNs),
            Mox::attribute(rcvBufBytesAttr, &NetlinkSession::rcvBufBytes),
            Mox::attribute(overflowsAttr, &NetlinkSession::overflows),
            Mox::attribute(interruptedDumpsAttr, &NetlinkSession::interruptedDumps),
            Mox::attribute(staleAnswersAttr, &NetlinkSession::staleAnswers),
            Mox::attribute(deadlinesAttr, &NetlinkSession::deadlines),
            Mox::attribute(foreignDatagramsAttr, &NetlinkSession::foreignDatagrams),
            Mox::attribute(isInSyncAttr, &NetlinkSession::isInSync));
    }

    /// Called once, with the answer.
    using Done = std::function<void(const NetlinkAnswer& answer)>;
    /// Called with each message of an answer, which is valid during the call.
    using Each = std::function<void(const nlmsghdr& message)>;
    /// Called when a dump begins, also when it begins anew after an interruption: what `Each` got
    /// before does not count.
    using Begin = std::function<void()>;
    /// Called once for each message of a batch, with its index and answer, in order.
    using EachDone = std::function<void(std::size_t index, const NetlinkAnswer& answer)>;
    /// The default deadline: how long nothing of an answer may come.
    static constexpr double defaultDeadlineSeconds = 5;

    /// Disabled. `protocol` is one of netlink(7). `clock` is that of the event loop, or of a test,
    /// and outlives the session.
    NetlinkSession(Mox::String name, NamespaceName netNs, Mox::Clock* clock, int protocol);

    Mox::String name() const override { return name_; }

    /// Whether the sockets are open.
    bool enabled() const { return enabled_; }
    /// Enabling opens the sockets, and begins to follow in the next turn. Disabling closes them and
    /// ends every request with ECANCELED; tables stay registered for the next enabling.
    /// @pre to enable, with sockets: an event loop on this thread (assertion
    /// "EventLoop::current(): a netlink socket needs an event loop").
    /// @throws Mox::ErrnoException naming the call that failed, as `netlinkSocketOpener` does, or
    /// "setsockopt(NETLINK_ADD_MEMBERSHIP)"; nothing is then open.
    void enabledIs(bool enabled);

    /// The namespace of the sockets.
    const NamespaceName& netNs() const { return netNs_; }
    /// @pre disabled (assertion "!enabled()").
    void netNsIs(NamespaceName netNs);
    /// The size of the receive buffer of notifications, in bytes, from the next enabling on; the
    /// kernel doubles it. 0, the default, stands for the environment's NL_RCVBUFSIZE, and where
    /// that is no positive number for the system's size.
    uint32_t rcvBufBytes() const { return rcvBufBytes_; }
    void rcvBufBytesIs(uint32_t bytes) { attributeIs(rcvBufBytes_, bytes, rcvBufBytesAttr); }
    /// Opens ports in place of sockets, from the next enabling on; null for sockets again.
    void portOpenerIs(NetlinkPortOpener opener) { opener_ = std::move(opener); }

    /// Times that messages of the kernel were lost, on either socket.
    uint64_t overflows() const { return overflows_; }
    void overflowsIs(uint64_t count) { attributeIs(overflows_, count, overflowsAttr); }
    /// Dumps that the kernel marked as inconsistent.
    uint64_t interruptedDumps() const { return interruptedDumps_; }
    void interruptedDumpsIs(uint64_t count) {
        attributeIs(interruptedDumps_, count, interruptedDumpsAttr);
    }
    /// Messages that answer no request, such as one whose deadline has passed.
    uint64_t staleAnswers() const { return staleAnswers_; }
    void staleAnswersIs(uint64_t count) { attributeIs(staleAnswers_, count, staleAnswersAttr); }
    /// Deadlines that have passed: of requests, of batches and of dumps.
    uint64_t deadlines() const { return deadlines_; }
    void deadlinesIs(uint64_t count) { attributeIs(deadlines_, count, deadlinesAttr); }
    /// Datagrams of other senders than the kernel.
    uint64_t foreignDatagrams() const { return foreignDatagrams_; }
    void foreignDatagramsIs(uint64_t count) {
        attributeIs(foreignDatagrams_, count, foreignDatagramsAttr);
    }

    /// Sends a request, which gets NLM_F_REQUEST, NLM_F_ACK and its sequence number, and returns
    /// that number. `each` gets what the kernel answers before its acknowledgement, such as the
    /// route of RTM_GETROUTE.
    uint32_t requestIs(NetlinkMessage message, Done done, Each each = {},
                       double deadlineSeconds = defaultDeadlineSeconds);
    /// Sends requests in as few datagrams as the buffers allow, and returns the sequence number of
    /// the first; 0 for none. Where some fail, those after them are still made. Only the last of a
    /// datagram asks for an acknowledgement: the kernel answers in order, and always says errors.
    uint32_t requestsAre(std::span<const NetlinkMessage> messages, EachDone done,
                         double deadlineSeconds = defaultDeadlineSeconds);
    /// Asks for a dump: the message gets NLM_F_REQUEST, NLM_F_DUMP and its sequence number, which
    /// is returned. Dumps are made one after the other.
    uint32_t dumpIs(NetlinkMessage message, Begin begin, Each each, Done done,
                    double deadlineSeconds = defaultDeadlineSeconds);
    /// Forgets a request, a batch or a dump, by the number that was returned for it: nobody is
    /// called. What was sent is not undone, what was not is not sent.
    void requestDel(uint32_t sequence);

    /// Follows a table of rtnetlink(7): joins `groups` (RTNLGRP_LINK and the like, as numbers),
    /// then dumps it, beginning in the next turn; again after each enabling. `getType` is
    /// RTM_GETLINK, RTM_GETADDR, RTM_GETNEIGH, RTM_GETROUTE and the like. Notifications of the
    /// table's messages (RTM_NEWLINK, RTM_DELLINK) go to its followers; with a `family` other than
    /// AF_UNSPEC only those of it. Does nothing for a table and family that `follower` follows
    /// already. `follower` stays until `followDel`.
    /// @pre the protocol is NETLINK_ROUTE (assertion "protocol_ == NETLINK_ROUTE").
    /// @throws Mox::ErrnoException "setsockopt(NETLINK_ADD_MEMBERSHIP)"; it is then not followed.
    void followIs(uint16_t getType, std::vector<uint32_t> groups, NetlinkFollower* follower,
                  uint8_t family = 0);
    /// Ends all that this follower follows, or with a `getType` that table only; it is not called
    /// any more. Never throws.
    void followDel(NetlinkFollower* follower, uint16_t getType = 0);
    /// Whether the session is enabled and every followed table is as its last dump and the
    /// notifications since have it: no dump is running or due. Where `followIs` or `followDel`
    /// change it, observers are notified in the next turn.
    bool isInSync() const;

  protected:
    ~NetlinkSession() override;

  private:
    friend class NetlinkMonitor;
    friend class NetlinkReader;
    friend class NetlinkRequests;

    void open();
    void close();
    void handleSync();

    Mox::String name_;
    NamespaceName netNs_;
    int protocol_;
    bool enabled_ = false;
    bool wasInSync_ = false;  // As observers know it.
    uint32_t rcvBufBytes_ = 0;
    uint64_t overflows_ = 0;
    uint64_t interruptedDumps_ = 0;
    uint64_t staleAnswers_ = 0;
    uint64_t deadlines_ = 0;
    uint64_t foreignDatagrams_ = 0;
    NetlinkPortOpener opener_;
    std::unique_ptr<NetlinkRequests> requests_;
    std::unique_ptr<NetlinkMonitor> monitor_;
};

/// A disabled session. `clock` is that of the event loop, or of a test, and outlives the session.
PAVO_EXPORT Mox::Ptr<NetlinkSession> netlinkSessionFactory(Mox::String name, NamespaceName netNs,
                                                           Mox::Clock* clock,
                                                           int protocol = NETLINK_ROUTE);

}  // namespace Pavo
