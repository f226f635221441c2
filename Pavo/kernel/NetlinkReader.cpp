#include "Pavo/kernel/NetlinkReader.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "Mox/Trace.h"

#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::NetlinkReader");

// In a turn of the event loop, so that a storm leaves time for everything else.
constexpr uint32_t datagramsPerTurn = 64;
// The kernel makes dumps of up to 32 KiB; only a link of many virtual functions takes more.
constexpr std::size_t firstBufferBytes = 64 << 10;
constexpr std::size_t maxBufferBytes = 1 << 20;

// The number in the error field, as an errno.
int errnoOf(int error) {
    return error > 0 || error == INT_MIN ? EBADMSG : -error;
}

}  // namespace

NetlinkAnswer netlinkAnswerOf(const nlmsghdr& message) {
    NetlinkAnswer answer;
    std::size_t bodyBytes = sizeof(int);
    if (message.nlmsg_type == NLMSG_ERROR) {
        const auto* const body = netlinkBody<nlmsgerr>(message);
        if (body == nullptr) {
            return {EBADMSG, {}};
        }
        answer.error = errnoOf(body->error);
        // The whole request follows, unless only its header does.
        const bool isCapped = (message.nlmsg_flags & NLM_F_CAPPED) != 0;
        const uint32_t echoed = isCapped ? 0 : body->msg.nlmsg_len;
        bodyBytes = sizeof(nlmsgerr) + (echoed < sizeof(nlmsghdr) ? 0 : echoed - sizeof(nlmsghdr));
    } else if (const auto* const error = netlinkBody<int>(message)) {
        answer.error = errnoOf(*error);
    }  // A bare NLMSG_DONE is success.
    if ((message.nlmsg_flags & NLM_F_ACK_TLVS) != 0) {
        const NetlinkAttributes attributes(message, bodyBytes, NLMSGERR_ATTR_MSG);
        answer.text = Mox::String(attributes.text(NLMSGERR_ATTR_MSG));
    }
    return answer;
}

NetlinkReader::~NetlinkReader() = default;

void NetlinkReader::portIs(Mox::Ptr<NetlinkPort> port) {
    if (const Mox::Ptr<NetlinkPort> before = std::exchange(port_, nullptr)) {
        before->readableIs(nullptr);
    }
    if (port != nullptr) {
        bufferBytesIs(std::max(bufferBytes_, firstBufferBytes));
        port->readableIs([this] { readAll(); });
        port_ = std::move(port);
    }
}

void NetlinkReader::bufferBytesIs(std::size_t bytes) {
    if (bytes != bufferBytes_) {
        buffer_.reset(new uint8_t[bytes]);  // Aligned for headers, as all that is allocated.
        bufferBytes_ = bytes;
    }
}

void NetlinkReader::readAll() {
    const Mox::Ptr<NetlinkSession> hold(session_);
    const Mox::Ptr<NetlinkPort> port = port_;
    FirstException exception;
    Next next = Next::read;
    for (uint32_t count = 0; count < datagramsPerTurn && next == Next::read; ++count) {
        next = readOne(&exception);
        next = port_ != port ? Next::stop : next;  // Closed by what was called.
    }
    if (next != Next::stop) {
        port->receiveTried(/*moreMayWait=*/next == Next::read);
    }
    exception.rethrow();
}

NetlinkReader::Next NetlinkReader::readOne(FirstException* exception) {
    uint32_t sender = 0;
    const Mox::Ptr<NetlinkPort> port = port_;
    const ssize_t got = port->receive({buffer_.get(), bufferBytes_}, &sender);
    if (got < 0) {
        return readFailed(errno, exception);
    }
    const auto bytes = static_cast<std::size_t>(got);
    if (sender != 0) {
        foreignDatagramsInc(exception);
    } else if (bytes > bufferBytes_) {
        takeCut(bytes, exception);
    } else {
        takeApart(bytes, exception);
    }
    return port_ == nullptr || expectsMore() ? Next::read : Next::waitForMore;
}

NetlinkReader::Next NetlinkReader::readFailed(int error, FirstException* exception) {
    if (error == EAGAIN) {
        handleEmpty(exception);
        return Next::waitForMore;
    }
    if (error == EINTR) {
        return Next::read;
    }
    MOX_TRACE(facility, 1, "netlink messages cannot be read: ", std::strerror(error));
    if (error != ENOBUFS) {
        return Next::waitForMore;  // It may stay, and is not worth a busy loop.
    }
    handleLoss(exception);
    overflowsInc(exception);
    return Next::read;
}

void NetlinkReader::takeApart(std::size_t bytes, FirstException* exception) {
    const Mox::Ptr<NetlinkPort> port = port_;
    std::size_t offset = 0;
    while (bytes - offset >= sizeof(nlmsghdr)) {
        auto& message = *reinterpret_cast<nlmsghdr*>(buffer_.get() + offset);
        if (message.nlmsg_len < sizeof(nlmsghdr) || message.nlmsg_len > bytes - offset) {
            break;
        }
        // The last one may lack its padding.
        offset = std::min<std::size_t>(offset + NLMSG_ALIGN(message.nlmsg_len), bytes);
        if (message.nlmsg_type == NLMSG_OVERRUN) {
            handleLoss(exception);
            overflowsInc(exception);
        } else if (message.nlmsg_type != NLMSG_NOOP) {
            handleMessage(message, exception);
        }
        if (port_ != port) {
            return;
        }
    }
    if (offset != bytes) {
        MOX_TRACE(facility, 0, "malformed netlink datagram of ", bytes, " bytes, at ", offset);
        handleLoss(exception);
        overflowsInc(exception);
    }
}

// Nothing is lost silently: what the datagram said is asked for again, with a buffer that holds it.
void NetlinkReader::takeCut(std::size_t bytes, FirstException* exception) {
    MOX_TRACE(facility, 1, "netlink datagram of ", bytes, " bytes was cut");
    nlmsghdr first;
    std::memcpy(&first, buffer_.get(), sizeof(first));
    bufferBytesIs(std::min(std::bit_ceil(bytes), maxBufferBytes));
    handleCut(first, exception);
    overflowsInc(exception);
}

void NetlinkReader::overflowsInc(FirstException* exception) {
    exception->collect([this] { session_->overflowsIs(session_->overflows() + 1); });
}

void NetlinkReader::interruptedDumpsInc(FirstException* exception) {
    exception->collect([this] { session_->interruptedDumpsIs(session_->interruptedDumps() + 1); });
}

void NetlinkReader::staleAnswersInc(FirstException* exception) {
    exception->collect([this] { session_->staleAnswersIs(session_->staleAnswers() + 1); });
}

void NetlinkReader::deadlinesInc(FirstException* exception) {
    exception->collect([this] { session_->deadlinesIs(session_->deadlines() + 1); });
}

void NetlinkReader::foreignDatagramsInc(FirstException* exception) {
    exception->collect([this] { session_->foreignDatagramsIs(session_->foreignDatagrams() + 1); });
}

}  // namespace Pavo
