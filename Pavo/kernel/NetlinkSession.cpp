#include "Pavo/kernel/NetlinkSession.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "Mox/Assert.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetlinkMonitor.h"
#include "Pavo/kernel/NetlinkRequests.h"

namespace Pavo {

namespace {

// Of the receive buffer, in KiB, that the answer of a request for data may take: a link with its
// attributes.
constexpr uint32_t dataWeight = 16;

uint32_t rcvBufBytesOfEnvironment() {
    const char* const variable = std::getenv("NL_RCVBUFSIZE");
    const std::string_view text = variable == nullptr ? "" : variable;
    uint32_t bytes = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), bytes);
    return error == std::errc() && end == text.data() + text.size() ? bytes : 0;
}

NetlinkRequests::Owned pendingOf(std::vector<uint8_t> bytes, double deadlineSeconds) {
    const auto pending = std::make_shared<NetlinkRequests::Pending>();
    pending->bytes = std::move(bytes);
    pending->deadlineSeconds = deadlineSeconds;
    return pending;
}

}  // namespace

Mox::String NetlinkAnswer::stringValue() const {
    const Mox::String what(error == 0 ? "ok" : std::strerror(error));
    return text.empty() ? what : what + ": " + text.view();
}

void NetlinkFollower::handleDumpBegin(uint16_t) {}

bool NetlinkFollower::handleDumpEnd(uint16_t) {
    return true;
}

void NetlinkFollower::handleDumpRefused(uint16_t, const NetlinkAnswer&) {}

void NetlinkFollower::handleDumpAgain(uint16_t getType) {
    handleDumpBegin(getType);
}

NetlinkSession::NetlinkSession(Mox::String name, NamespaceName netNs, Mox::Clock* clock,
                               int protocol)
    : name_(std::move(name)),
      netNs_(std::move(netNs)),
      protocol_(protocol),
      requests_(std::make_unique<NetlinkRequests>(this, clock)),
      monitor_(std::make_unique<NetlinkMonitor>(this, clock)) {}

NetlinkSession::~NetlinkSession() = default;

void NetlinkSession::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<NetlinkSession> hold(this);
    enabled ? open() : close();
}

void NetlinkSession::open() {
    const uint32_t bytes = rcvBufBytes_ != 0 ? rcvBufBytes_ : rcvBufBytesOfEnvironment();
    const auto opener = opener_ ? opener_ : netlinkSocketOpener(netNs_, protocol_, bytes);
    try {
        requests_->start(opener(NetlinkPortUse::requests));
        monitor_->start(opener(NetlinkPortUse::monitor));
    } catch (...) {
        (void)requests_->stop();
        monitor_->stop();
        throw;
    }
    FirstException exception;
    exception.collect([this] { attributeIs(enabled_, true, enabledAttr); });
    exception.collect([this] { handleSync(); });
    exception.rethrow();
}

void NetlinkSession::close() {
    const std::vector<NetlinkRequests::Owned> pending = requests_->stop();
    monitor_->stop();
    FirstException exception;
    exception.collect([this] { attributeIs(enabled_, false, enabledAttr); });
    exception.collect([this] { handleSync(); });
    requests_->cancel(pending, &exception);
    exception.rethrow();
}

void NetlinkSession::netNsIs(NamespaceName netNs) {
    Mox::require(!enabled_, "!enabled()");
    attributeIs(netNs_, std::move(netNs), netNsAttr);
}

uint32_t NetlinkSession::requestIs(NetlinkMessage message, Done done, Each each,
                                   double deadlineSeconds) {
    const NetlinkRequests::Owned pending = pendingOf(message.bytesRelease(), deadlineSeconds);
    pending->weight = each != nullptr ? dataWeight : 1;
    pending->each = std::move(each);
    pending->done = std::move(done);
    return requests_->add(pending);
}

uint32_t NetlinkSession::requestsAre(std::span<const NetlinkMessage> messages, EachDone done,
                                     double deadlineSeconds) {
    if (messages.empty()) {
        return 0;
    }
    const NetlinkRequests::Owned pending = pendingOf({}, deadlineSeconds);
    pending->count = static_cast<uint32_t>(messages.size());
    pending->ends.reserve(messages.size());
    for (const NetlinkMessage& each : messages) {
        const std::span<const uint8_t> bytes = each.bytes();
        pending->bytes.insert(pending->bytes.end(), bytes.begin(), bytes.end());
        pending->ends.push_back(static_cast<uint32_t>(pending->bytes.size()));
    }
    pending->eachDone = std::move(done);
    return requests_->add(pending);
}

uint32_t NetlinkSession::dumpIs(NetlinkMessage message, Begin begin, Each each, Done done,
                                double deadlineSeconds) {
    message.header()->nlmsg_flags |= NLM_F_DUMP;
    const NetlinkRequests::Owned pending = pendingOf(message.bytesRelease(), deadlineSeconds);
    pending->isDump = true;
    pending->weight = 0;
    pending->begin = std::move(begin);
    pending->each = std::move(each);
    pending->done = std::move(done);
    return requests_->add(pending);
}

void NetlinkSession::requestDel(uint32_t sequence) {
    requests_->del(sequence);
}

void NetlinkSession::followIs(uint16_t getType, std::vector<uint32_t> groups,
                              NetlinkFollower* follower, uint8_t family) {
    Mox::require(protocol_ == NETLINK_ROUTE, "protocol_ == NETLINK_ROUTE");
    monitor_->followIs({getType, family, std::move(groups), follower});
}

void NetlinkSession::followDel(NetlinkFollower* follower, uint16_t getType) {
    monitor_->followDel(follower, getType);
}

bool NetlinkSession::isInSync() const {
    return monitor_->isInSync();
}

void NetlinkSession::handleSync() {
    attributeIs(wasInSync_, isInSync(), isInSyncAttr);
}

Mox::Ptr<NetlinkSession> netlinkSessionFactory(Mox::String name, NamespaceName netNs,
                                               Mox::Clock* clock, int protocol) {
    return Mox::make<NetlinkSession>(std::move(name), std::move(netNs), clock, protocol);
}

}  // namespace Pavo
