/// @file
/// The tables that a session follows: notifications, and the dumps that begin and repair them.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "Mox/Clock.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetlinkReader.h"
#include "Pavo/kernel/NetlinkSession.h"

namespace Pavo {

/// Followed tables over one port, which makes one dump at a time.
///
///     followed, or messages lost --> due --- timer, and the port was read empty --> running
///                                     ^                                               |  |
///                                     +- interrupted, lost, no answer, not sure ------+  |
///                                                    refused, or in sync <---------------+
class NetlinkMonitor final : public NetlinkReader {
  public:
    struct Followed {
        uint16_t getType;
        uint8_t family;
        std::vector<uint32_t> groups;
        NetlinkFollower* follower;  // Null for one that does not follow any more.
        bool isDue = true;          // To be dumped.
        bool isRefused = false;     // The kernel did not dump it.
        bool isAgain = false;       // The follower asked for one more dump; nothing was lost since.
    };

    NetlinkMonitor(NetlinkSession* session, Mox::Clock* clock);

    /// Joins the groups of every table on a port, reads it from now on, and dumps in the next turn.
    /// @throws as `NetlinkPort::groupIs`; nothing is changed.
    void start(Mox::Ptr<NetlinkPort> port);
    /// Closes the port; all tables are due.
    void stop();
    /// As of the session.
    /// @{
    void followIs(Followed table);
    void followDel(NetlinkFollower* follower, uint16_t getType);
    bool isInSync() const;
    /// @}

  private:
    using Owned = std::shared_ptr<Followed>;

    void handleMessage(nlmsghdr& message, FirstException* exception) override;
    void handleLoss(FirstException* exception) override;
    void handleCut(const nlmsghdr& message, FirstException* exception) override;
    void handleEmpty(FirstException* exception) override;
    bool expectsMore() const override { return true; }

    void handleNotification(nlmsghdr& message, FirstException* exception);
    void handleDumpMessage(nlmsghdr& message, FirstException* exception);
    void handleDumpEnd(const nlmsghdr& message, FirstException* exception);
    void tableEnded(const Owned& table, const NetlinkAnswer& answer, FirstException* exception);
    void allDue();
    void forgetGone();
    void handleSync(FirstException* exception);
    bool isWanted(uint32_t group) const;
    void join(const std::vector<uint32_t>& groups);
    void leave(const std::vector<uint32_t>& groups);
    void beginDump(FirstException* exception);
    void sendDump(const Owned& table);
    void dumpLater(double atLeastSeconds = 0);
    void dumpSoon();
    void handleTimer();
    void handleDeadline();

    Mox::Clock* const clock_;
    Mox::Timer timer_;     // While armed, no dump begins.
    Mox::Timer deadline_;  // Armed while a dump runs.
    std::vector<Owned> followed_;
    Owned running_;              // The table of the dump that the kernel makes now.
    bool isIncomplete_ = false;  // That dump has to be made again.
    bool hasProgress_ = false;
    bool isRepair_ = false;  // The next dump is because of a loss.
    bool isEmpty_ = true;    // The port was read empty since messages were lost or groups joined.
    uint32_t sequence_ = 0;
    double begunAt_ = 0;  // The dump that runs, or ran last.
    double backOffSeconds_ = 0;
    double lastLossAt_ = -Mox::Clock::idle;  // The last loss, or dump because of one.
};

}  // namespace Pavo
