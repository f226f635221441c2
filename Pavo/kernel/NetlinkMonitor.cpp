#include "Pavo/kernel/NetlinkMonitor.h"

#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/Trace.h"

#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::NetlinkMonitor");

constexpr double firstBackOffSeconds = 0.01;
constexpr double maxBackOffSeconds = 1;
// From then on it is quiet.
constexpr double quietSeconds = 1;

// NEW, DEL, GET and SET of a table are four consecutive types, of which the first is a multiple of
// four.
bool isSameTable(uint16_t a, uint16_t b) {
    return a / 4 == b / 4;
}

// Every body begins with the family, in one byte.
bool concerns(const NetlinkMonitor::Followed& table, const nlmsghdr& message) {
    if (table.follower == nullptr || !isSameTable(table.getType, message.nlmsg_type)) {
        return false;
    }
    const auto* const family = netlinkBody<uint8_t>(message);
    return table.family == 0 || (family != nullptr && *family == table.family);
}

// The body of a dump request has to be that of the table, all zero but for the family, or the
// kernel refuses it (NETLINK_GET_STRICT_CHK).
NetlinkMessage dumpRequest(uint16_t getType, uint8_t family) {
    NetlinkMessage request(getType, NLM_F_REQUEST | NLM_F_DUMP);
    switch (getType) {
        case RTM_GETLINK:
            request.bodyIs<ifinfomsg>().ifi_family = family;
            break;
        case RTM_GETADDR:
            request.bodyIs<ifaddrmsg>().ifa_family = family;
            break;
        case RTM_GETROUTE:
            request.bodyIs<rtmsg>().rtm_family = family;
            break;
        case RTM_GETNEIGH:
            request.bodyIs<ndmsg>().ndm_family = family;
            break;
        case RTM_GETRULE:
            request.bodyIs<fib_rule_hdr>().family = family;
            break;
        case RTM_GETQDISC:
        case RTM_GETTCLASS:
        case RTM_GETTFILTER:
            request.bodyIs<tcmsg>().tcm_family = family;
            break;
        case RTM_GETNEIGHTBL:
            request.bodyIs<ndtmsg>().ndtm_family = family;
            break;
        default:
            request.bodyIs<rtgenmsg>().rtgen_family = family;
    }
    return request;
}

// This kernel has no such table.
bool isMissing(int error) {
    return error == EOPNOTSUPP || error == EAFNOSUPPORT || error == EPROTONOSUPPORT;
}

// Errors that say nothing about the table.
bool isPassing(int error) {
    return error == ENOBUFS || error == ENOMEM || error == EBUSY || error == EINTR ||
           error == EAGAIN;
}

}  // namespace

NetlinkMonitor::NetlinkMonitor(NetlinkSession* session, Mox::Clock* clock)
    : NetlinkReader(session),
      clock_(clock),
      timer_(clock, [this] { handleTimer(); }),
      deadline_(clock, [this] { handleDeadline(); }) {}

void NetlinkMonitor::start(Mox::Ptr<NetlinkPort> port) {
    for (const Owned& table : followed_) {
        for (const uint32_t group : table->groups) {
            port->groupIs(group, true);
        }
    }
    portIs(std::move(port));
    dumpSoon();
}

void NetlinkMonitor::stop() {
    portIs(nullptr);
    forgetGone();
    allDue();
    running_ = nullptr;
    isEmpty_ = true;
    timer_.expiryIs(Mox::Clock::idle);
    deadline_.expiryIs(Mox::Clock::idle);
}

void NetlinkMonitor::followIs(Followed table) {
    const bool isKnown = std::any_of(followed_.begin(), followed_.end(), [&](const Owned& each) {
        return each->getType == table.getType && each->family == table.family &&
               each->follower == table.follower;
    });
    if (isKnown) {
        return;
    }
    if (port() != nullptr) {
        join(table.groups);
        // A datagram that waits may be older than one that was not received before the groups were
        // joined.
        isEmpty_ = false;
    }
    followed_.push_back(std::make_shared<Followed>(std::move(table)));
    dumpSoon();
}

// While the port is open, entries stay until `beginDump`, since `handleNotification` may go through
// them.
void NetlinkMonitor::followDel(NetlinkFollower* follower, uint16_t getType) {
    for (const Owned& each : followed_) {
        if (each->follower == follower && (getType == 0 || each->getType == getType)) {
            each->follower = nullptr;
            port() != nullptr ? leave(each->groups) : void();
        }
    }
    port() != nullptr ? dumpSoon() : forgetGone();
}

void NetlinkMonitor::forgetGone() {
    std::erase_if(followed_, [](const Owned& each) { return each->follower == nullptr; });
}

bool NetlinkMonitor::isWanted(uint32_t group) const {
    return std::any_of(followed_.begin(), followed_.end(), [group](const Owned& each) {
        return each->follower != nullptr &&
               std::count(each->groups.begin(), each->groups.end(), group) != 0;
    });
}

// All, or none.
void NetlinkMonitor::join(const std::vector<uint32_t>& groups) {
    try {
        for (const uint32_t group : groups) {
            if (!isWanted(group)) {
                port()->groupIs(group, true);
            }
        }
    } catch (...) {
        leave(groups);
        throw;
    }
}

// Those that no table needs. Where that fails there are messages that nobody wants, which is no
// reason to stop.
void NetlinkMonitor::leave(const std::vector<uint32_t>& groups) {
    for (const uint32_t group : groups) {
        try {
            if (!isWanted(group)) {
                port()->groupIs(group, false);
            }
        } catch (const Mox::ErrnoException& error) {
            MOX_TRACE(facility, 1, "cannot leave group ", group, ": ", error.what());
        }
    }
}

bool NetlinkMonitor::isInSync() const {
    return port() != nullptr && isEmpty_ &&
           std::none_of(followed_.begin(), followed_.end(), [](const Owned& each) {
               return each->follower != nullptr && (each->isDue || each->isRefused);
           });
}

void NetlinkMonitor::handleSync(FirstException* exception) {
    exception->collect([this] { session()->handleSync(); });
}

// This port only dumps. Notifications of a change that a request made carry that request's numbers:
// those of other ports, which in another namespace may have this one's number.
void NetlinkMonitor::handleMessage(nlmsghdr& message, FirstException* exception) {
    const bool isAnswer = (message.nlmsg_flags & NLM_F_MULTI) != 0 ||
                          message.nlmsg_type == NLMSG_ERROR || message.nlmsg_type == NLMSG_DONE;
    const bool isOwn = isAnswer && message.nlmsg_pid == port()->portId();
    if (!isOwn) {
        handleNotification(message, exception);
    } else if (running_ != nullptr && message.nlmsg_seq == sequence_) {
        handleDumpMessage(message, exception);
    } else {
        staleAnswersInc(exception);
    }
}

void NetlinkMonitor::handleNotification(nlmsghdr& message, FirstException* exception) {
    const Mox::Ptr<NetlinkPort> before = port();
    const std::size_t size = followed_.size();  // A callback may add some.
    for (std::size_t i = 0; i < size && port() == before; ++i) {
        if (concerns(*followed_[i], message)) {
            const Owned table = followed_[i];
            exception->collect([&] { table->follower->callback(&message); });
        }
    }
}

void NetlinkMonitor::handleDumpMessage(nlmsghdr& message, FirstException* exception) {
    hasProgress_ = true;
    if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0 && !std::exchange(isIncomplete_, true)) {
        interruptedDumpsInc(exception);
    }
    if (running_ == nullptr) {
        return;  // An observer has disabled the session.
    }
    if (message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR) {
        handleDumpEnd(message, exception);
    } else if (const Owned table = running_; table->follower != nullptr) {
        exception->collect([&] { table->follower->callback(&message); });
    }
}

void NetlinkMonitor::handleDumpEnd(const nlmsghdr& message, FirstException* exception) {
    const NetlinkAnswer answer = netlinkAnswerOf(message);
    if (message.nlmsg_type == NLMSG_ERROR && answer.error == ENOBUFS) {
        // The buffer was full when the dump began. The kernel goes on with it as soon as there is
        // room, and refuses another one until then.
        isIncomplete_ = true;
        return;
    }
    const Owned table = std::exchange(running_, nullptr);
    deadline_.expiryIs(Mox::Clock::idle);
    if (table->follower != nullptr && (isIncomplete_ || isPassing(answer.error))) {
        dumpLater();
    } else if (table->follower != nullptr) {
        tableEnded(table, answer, exception);
    }
    beginDump(exception);
    handleSync(exception);
}

// The follower may make the table due again, and then its answer does not count.
void NetlinkMonitor::tableEnded(const Owned& table, const NetlinkAnswer& answer,
                                FirstException* exception) {
    table->isDue = false;
    table->isAgain = false;
    table->isRefused = answer.error != 0 && !isMissing(answer.error);
    if (table->isRefused) {
        exception->collect([&] { table->follower->handleDumpRefused(table->getType, answer); });
        return;
    }
    bool isGood = false;
    exception->collect([&] { isGood = table->follower->handleDumpEnd(table->getType); });
    if (!isGood && !table->isDue) {
        table->isDue = table->isAgain = true;
        dumpLater(clock_->now() - begunAt_);
    }
}

void NetlinkMonitor::beginDump(FirstException* exception) {
    forgetGone();
    while (port() != nullptr && running_ == nullptr && timer_.isIdle() && isEmpty_) {
        const auto due = std::find_if(followed_.begin(), followed_.end(),
                                      [](const Owned& each) { return each->isDue; });
        if (due == followed_.end()) {
            return;
        }
        const Owned table = *due;
        sendDump(table);
        if (running_ == table) {
            exception->collect([&] {
                table->isAgain ? table->follower->handleDumpAgain(table->getType)
                               : table->follower->handleDumpBegin(table->getType);
            });
        }
    }
}

void NetlinkMonitor::sendDump(const Owned& table) {
    NetlinkMessage request = dumpRequest(table->getType, table->family);
    sequence_ = sequence_ == UINT32_MAX ? 1 : sequence_ + 1;
    request.header()->nlmsg_seq = sequence_;
    if (port()->send(request.bytes()) != 0) {
        dumpLater();
        return;
    }
    running_ = table;
    isIncomplete_ = false;
    hasProgress_ = false;
    begunAt_ = clock_->now();
    lastLossAt_ = std::exchange(isRepair_, false) ? begunAt_ : lastLossAt_;
    deadline_.expiryIs(begunAt_ + NetlinkSession::defaultDeadlineSeconds);
}

// What has not come by now says nothing about what exists. While the kernel's buffer has
// overflowed it drops everything, without saying so again, until all was read: a dump that begins
// earlier might miss changes.
void NetlinkMonitor::handleLoss(FirstException* exception) {
    allDue();
    isIncomplete_ = true;
    isEmpty_ = false;
    dumpLater();
    handleSync(exception);
}

void NetlinkMonitor::allDue() {
    for (const Owned& table : followed_) {
        table->isDue = true;
        table->isAgain = false;
        table->isRefused = false;
    }
}

void NetlinkMonitor::handleCut(const nlmsghdr&, FirstException* exception) {
    handleLoss(exception);
}

void NetlinkMonitor::handleEmpty(FirstException* exception) {
    isEmpty_ = true;
    beginDump(exception);
    handleSync(exception);
}

void NetlinkMonitor::dumpLater(double atLeastSeconds) {
    const double now = clock_->now();
    const bool isQuiet = now - lastLossAt_ > quietSeconds;
    lastLossAt_ = now;
    isRepair_ = true;
    if (!timer_.isIdle()) {
        return;
    }
    backOffSeconds_ =
        isQuiet ? firstBackOffSeconds : std::min(2 * backOffSeconds_, maxBackOffSeconds);
    timer_.expiryIs(now + std::max(backOffSeconds_, atLeastSeconds));
}

void NetlinkMonitor::dumpSoon() {
    if (port() != nullptr && timer_.isIdle() && running_ == nullptr) {
        timer_.expiryIs(clock_->now());
    }
}

void NetlinkMonitor::handleTimer() {
    const Mox::Ptr<NetlinkSession> hold(session());
    if (!isEmpty_) {
        readAll();
        return;
    }
    FirstException exception;
    beginDump(&exception);
    handleSync(&exception);
    exception.rethrow();
}

void NetlinkMonitor::handleDeadline() {
    const Mox::Ptr<NetlinkSession> hold(session());
    if (std::exchange(hasProgress_, false)) {
        deadline_.expiryIs(clock_->now() + NetlinkSession::defaultDeadlineSeconds);
        return;
    }
    running_ = nullptr;
    dumpLater();
    FirstException exception;
    deadlinesInc(&exception);
    exception.rethrow();
}

}  // namespace Pavo
