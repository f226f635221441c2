#include "Pavo/kernel/NetlinkRequests.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Pavo {

namespace {

// An acknowledgement or an error takes up to a KiB of the receive buffer. A quarter of it is for
// these, since the messages of a dump may take half.
constexpr uint32_t bufferBytesOfRoom = 4 * 1024;
// A table that changes all the time can be dumped later, but not now.
constexpr uint32_t maxInterruptions = 32;

nlmsghdr* headerAt(NetlinkRequests::Pending* pending, uint32_t message) {
    const uint32_t offset = message == 0 ? 0 : pending->ends[message - 1];
    return reinterpret_cast<nlmsghdr*>(pending->bytes.data() + offset);
}

uint32_t endOf(const NetlinkRequests::Pending& pending, uint32_t message) {
    return pending.ends.empty() ? static_cast<uint32_t>(pending.bytes.size())
                                : pending.ends[message];
}

}  // namespace

NetlinkRequests::NetlinkRequests(NetlinkSession* session, Mox::Clock* clock)
    : NetlinkReader(session), clock_(clock), timer_(clock, [this] { handleTimer(); }) {}

void NetlinkRequests::start(Mox::Ptr<NetlinkPort> port) {
    room_ = std::max<uint32_t>(port->rcvBufBytes() / bufferBytesOfRoom, 1);
    portIs(std::move(port));
}

std::vector<NetlinkRequests::Owned> NetlinkRequests::stop() {
    portIs(nullptr);
    queue_.clear();
    dumps_.clear();
    dump_ = nullptr;
    inFlight_ = 0;
    hasLoss_ = false;
    std::vector<Owned> stopped;
    for (const auto& [first, pending] : pending_) {
        if (pending->answered != pending->count) {
            pending->sent = pending->answered;
            failed(pending.get(), ECANCELED);
            stopped.push_back(pending);
        }
    }
    return stopped;
}

void NetlinkRequests::cancel(const std::vector<Owned>& pending, FirstException* exception) {
    for (const Owned& each : pending) {
        if (isCurrent(each)) {
            finish(each, {ECANCELED, {}}, exception);
        }
    }
}

uint32_t NetlinkRequests::add(const Owned& pending) {
    if (lastSequence_ > UINT32_MAX - pending->count) {
        lastSequence_ = 0;  // Which is the number of notifications.
    }
    pending->first = lastSequence_ + 1;
    lastSequence_ += pending->count;
    for (uint32_t i = 0; i < pending->count; ++i) {
        nlmsghdr* const header = headerAt(pending.get(), i);
        header->nlmsg_seq = pending->first + i;
        header->nlmsg_pid = 0;
        header->nlmsg_flags |= NLM_F_REQUEST;
    }
    pending_.emplace(pending->first, pending);
    if (port() == nullptr) {
        failed(pending.get(), ECANCELED);
    } else if (pending->isDump) {
        dumps_.push_back(pending);
        sendNextDump();
    } else {
        queue_.push_back(pending);
        sendQueued();
    }
    return pending->first;
}

void NetlinkRequests::del(uint32_t sequence) {
    const auto found = pending_.find(sequence);
    if (found == pending_.end()) {
        return;
    }
    const Owned pending = found->second;
    pending->isForgotten = true;
    pending->count = pending->sent;
    // What is in flight stays, so that its answers are known and its place is taken.
    if (pending->answered == pending->count) {
        pending_.erase(found);
    }
}

// Whether it has no end yet.
bool NetlinkRequests::isCurrent(const Owned& pending) const {
    const auto found = pending_.find(pending->first);
    return found != pending_.end() && found->second == pending &&
           pending->answered != pending->count;
}

NetlinkRequests::Owned NetlinkRequests::find(uint32_t sequence) const {
    const auto after = pending_.upper_bound(sequence);
    if (after == pending_.begin()) {
        return nullptr;
    }
    const Owned& pending = std::prev(after)->second;
    const uint32_t index = sequence - pending->first;
    return index >= pending->answered && index < pending->sent ? pending : nullptr;
}

void NetlinkRequests::handleMessage(nlmsghdr& message, FirstException* exception) {
    const Owned pending = find(message.nlmsg_seq);
    if (pending == nullptr) {
        staleAnswersInc(exception);
        return;
    }
    pending->hasProgress = true;
    if (pending->isDump) {
        handleDumpMessage(pending, message, exception);
    } else if (message.nlmsg_type == NLMSG_ERROR || message.nlmsg_type == NLMSG_DONE) {
        advance(pending, message.nlmsg_seq - pending->first + 1, {}, netlinkAnswerOf(message),
                exception);
    } else if (pending->each && !pending->isForgotten) {
        exception->collect([&] { pending->each(message); });
    }
}

void NetlinkRequests::handleDumpMessage(const Owned& pending, const nlmsghdr& message,
                                        FirstException* exception) {
    pending->isInterrupted |= (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR) {
        handleDumpEnd(pending, message, exception);
        return;
    }
    if (!std::exchange(pending->isBegun, true) && pending->begin && !pending->isForgotten) {
        exception->collect([&] { pending->begin(); });
    }
    if (dump_ == pending && pending->each && !pending->isForgotten) {
        exception->collect([&] { pending->each(message); });
    }
}

void NetlinkRequests::handleDumpEnd(const Owned& pending, const nlmsghdr& message,
                                    FirstException* exception) {
    NetlinkAnswer answer = netlinkAnswerOf(message);
    if (message.nlmsg_type == NLMSG_ERROR && answer.error == ENOBUFS) {
        // The buffer was full when the dump began. The kernel goes on with it when there is room.
        pending->isInterrupted = true;
        return;
    }
    if (std::exchange(pending->isInterrupted, false) && answer.error == 0) {
        const bool asksAgain =
            ++pending->interruptions <= maxInterruptions && !pending->isForgotten;
        answer.error = EINTR;
        if (asksAgain) {
            pending->isBegun = false;
            dump_ = nullptr;
            dumps_.push_front(pending);
            sendNextDump();
        }
        interruptedDumpsInc(exception);
        if (asksAgain || !isCurrent(pending)) {
            return;
        }
    }
    if (!pending->isBegun && answer.error == 0 && pending->begin && !pending->isForgotten) {
        exception->collect([&] { pending->begin(); });
    }
    if (isCurrent(pending)) {
        finish(pending, answer, exception);
    }
}

// The messages before `to` have their answers: the last one `last`, the others `before`.
void NetlinkRequests::advance(const Owned& pending, uint32_t to, const NetlinkAnswer& before,
                              const NetlinkAnswer& last, FirstException* exception) {
    const uint32_t from = pending->answered;
    inFlight_ -= (std::min(to, pending->sent) - from) * pending->weight;
    pending->answered = to;
    pending->sent = std::max(pending->sent, to);
    if (to == pending->count) {
        pending->deadline = Mox::Clock::idle;
        dump_ = dump_ == pending ? nullptr : dump_;
    }
    sendQueued();
    sendNextDump();
    if (pending->isCalling) {  // One of its calls ends the others, as by disabling the session.
        pending->toCall.push_back({to - 1, before});
        pending->toCall.push_back({to, last});
        return;
    }
    pending->isCalling = true;
    callUpTo(pending, to - 1, before, exception);
    callUpTo(pending, to, last, exception);
    for (std::size_t i = 0; i < pending->toCall.size(); ++i) {
        const Ended ended = std::move(pending->toCall[i]);
        callUpTo(pending, ended.to, ended.answer, exception);
    }
    pending->toCall.clear();
    pending->isCalling = false;
    called(pending, exception);
}

void NetlinkRequests::finish(const Owned& pending, const NetlinkAnswer& answer,
                             FirstException* exception) {
    advance(pending, pending->count, answer, answer, exception);
}

void NetlinkRequests::callUpTo(const Owned& pending, uint32_t to, const NetlinkAnswer& answer,
                               FirstException* exception) {
    for (; pending->called < to && !pending->isForgotten; ++pending->called) {
        exception->collect([&] {
            if (pending->eachDone) {
                pending->eachDone(pending->called, answer);
            } else if (pending->done) {
                pending->done(answer);
            }
        });
    }
}

// An entry stays until its calls are made, so that `del` finds it during them.
void NetlinkRequests::called(const Owned& pending, FirstException* exception) {
    const auto found = pending_.find(pending->first);
    if (found == pending_.end() || found->second != pending) {
        return;
    }
    if (pending->answered == pending->count) {
        pending_.erase(found);
    } else if (pending->sendError != 0 && pending->answered == pending->sent) {
        finish(pending, {pending->sendError, {}}, exception);
    }
}

void NetlinkRequests::sendQueued() {
    while (!queue_.empty() && !hasLoss_) {
        const Owned pending = queue_.front();
        if (pending->sent == pending->count || pending->sendError != 0) {
            queue_.pop_front();
        } else if (inFlight_ != 0 && inFlight_ + pending->weight > room_) {
            return;
        } else {
            sendSome(pending.get());
        }
    }
}

void NetlinkRequests::sendSome(Pending* pending) {
    const uint32_t fits = std::max((room_ - std::min(inFlight_, room_)) / pending->weight, 1u);
    uint32_t messages = std::min(pending->count - pending->sent, fits);
    int error = sendChunk(pending, messages);
    while (error == EMSGSIZE && messages > 1) {
        messages /= 2;
        error = sendChunk(pending, messages);
    }
    if (error != 0) {
        failed(pending, error);
        return;
    }
    pending->sent += messages;
    inFlight_ += messages * pending->weight;
    deadlineIs(pending, pending->deadlineSeconds);
}

int NetlinkRequests::sendChunk(Pending* pending, uint32_t messages) {
    const uint32_t end = pending->sent + messages;
    for (uint32_t i = pending->sent; i < end; ++i) {
        uint16_t& flags = headerAt(pending, i)->nlmsg_flags;
        flags = static_cast<uint16_t>(i + 1 == end ? flags | NLM_F_ACK : flags & ~NLM_F_ACK);
    }
    const auto* const begin = reinterpret_cast<const uint8_t*>(headerAt(pending, pending->sent));
    return port()->send({begin, pending->bytes.data() + endOf(*pending, end - 1)});
}

// A socket makes one dump at a time.
void NetlinkRequests::sendNextDump() {
    while (dump_ == nullptr && !dumps_.empty()) {
        const Owned pending = dumps_.front();
        dumps_.pop_front();
        if (!isCurrent(pending)) {
            continue;
        }
        pending->sent = 0;
        if (const int error = port()->send(pending->bytes)) {
            failed(pending.get(), error);
            continue;
        }
        pending->sent = 1;
        dump_ = pending;
        deadlineIs(pending.get(), pending->deadlineSeconds);
    }
}

// The messages that are not sent will not be. They end when those that are in flight have their
// answers, and else in the next turn. ENOBUFS is left for lost answers.
void NetlinkRequests::failed(Pending* pending, int error) {
    pending->sendError = error == ENOBUFS ? ENOMEM : error;
    if (pending->answered == pending->sent) {
        deadlineIs(pending, 0);
    }
}

void NetlinkRequests::deadlineIs(Pending* pending, double seconds) {
    pending->deadline = clock_->now() + seconds;
    armTimer(pending->deadline);
}

void NetlinkRequests::armTimer(double expiry) {
    if (expiry < timer_.expiry()) {
        timer_.expiryIs(expiry);
    }
}

void NetlinkRequests::handleTimer() {
    const Mox::Ptr<NetlinkSession> hold(session());
    const double now = clock_->now();
    std::vector<Owned> due;
    for (const auto& [first, pending] : pending_) {
        if (pending->deadline <= now) {
            due.push_back(pending);
        }
    }
    FirstException exception;
    for (const Owned& pending : due) {
        if (isCurrent(pending) && pending->deadline <= now) {
            handleDeadline(pending, &exception);
        }
    }
    for (const auto& [first, pending] : pending_) {
        armTimer(pending->deadline);
    }
    exception.rethrow();
}

void NetlinkRequests::handleDeadline(const Owned& pending, FirstException* exception) {
    if (pending->sendError != 0 && pending->answered == pending->sent) {
        finish(pending, {pending->sendError, {}}, exception);
    } else if (std::exchange(pending->hasProgress, false)) {
        deadlineIs(pending.get(), pending->deadlineSeconds);
    } else {
        const bool isCounted = !pending->isForgotten;
        finish(pending, {ETIMEDOUT, {}}, exception);
        isCounted ? deadlinesInc(exception) : void();
    }
}

void NetlinkRequests::handleLoss(FirstException*) {
    hasLoss_ = true;
    if (dump_ != nullptr) {
        dump_->isInterrupted = true;
    }
}

void NetlinkRequests::handleCut(const nlmsghdr& message, FirstException* exception) {
    const Owned pending = find(message.nlmsg_seq);
    if (pending == nullptr) {
        staleAnswersInc(exception);
    } else if (pending->isDump) {
        pending->isInterrupted = true;
    } else {
        advance(pending, message.nlmsg_seq - pending->first + 1, {}, {EOVERFLOW, {}}, exception);
    }
}

// The kernel adds nothing to a buffer that has overflowed before all was read. So what was in
// flight, and has no answer now, gets none. Until now nothing was sent, or the answer to that would
// be taken for the end of what was lost.
void NetlinkRequests::handleEmpty(FirstException* exception) {
    if (!std::exchange(hasLoss_, false)) {
        return;
    }
    std::vector<Owned> lost;
    for (const auto& [first, pending] : pending_) {
        if (!pending->isDump && pending->answered != pending->sent) {
            lost.push_back(pending);
        }
    }
    const NetlinkAnswer unknown = {ENOBUFS, {}};
    for (const Owned& pending : lost) {
        if (isCurrent(pending) && pending->answered != pending->sent) {
            advance(pending, pending->sent, unknown, unknown, exception);
        }
    }
    sendQueued();
}

}  // namespace Pavo
