#include "Pavo/tcp/TcpPduReader.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpPduBuffer.h"

namespace Pavo {

namespace {

using Result = TcpPduPamReadResult;

Mox::TraceFacility facility("Pavo::TcpPduReader");

// Returns as recv(2), or -1 with `errno` set, never EINTR.
ssize_t receive(int fd, void* to, uint32_t bytes) {
    ssize_t got = -1;
    do {
        got = recv(fd, to, bytes, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace

Result TcpPduReader::read(bool onlyOne) {
    Result result = Result::readMoreData;
    while (result == Result::readMoreData) {
        result = readPart();
    }
    if (result == Result::fullPduRead) {
        Mox::require(pkt_->numIovecs() == 1, "pkt->numIovecs() == 1");
        state_ = onlyOne ? State::holdingLast : State::holding;
    } else if (result == Result::waitForMoreData) {
        mayHaveMore_ = false;
        if (state_ == State::betweenPdus) {
            pkt_ = nullptr;  // An idle stream holds no buffer.
        }
    }
    return result;
}

Result TcpPduReader::readPart() {
    if (!pkt_ && !begin()) {
        return Result::error;
    }
    uint8_t* room = pkt_->newSharedTailData(remaining_);
    const ssize_t ret = receive(framing_->fileDescriptor()->descriptor(), room, remaining_);
    const auto got = static_cast<uint16_t>(std::max<ssize_t>(ret, 0));
    remaining_ = static_cast<uint16_t>(remaining_ - got);
    if (got != 0) {
        state_ = State::receiving;
    }
    if (remaining_ == 0) {
        if (!measure()) {
            return Result::error;
        }
        return remaining_ != 0 ? Result::readMoreData : Result::fullPduRead;
    }
    const int error = errno;
    pkt_->delSharedTailData(remaining_);
    if (got != 0) {
        return Result::readMoreData;
    }
    if (ret < 0 && error == EAGAIN) {
        return Result::waitForMoreData;
    }
    (void)(ret == 0 ? failedWith("Connection closed by peer")
                    : failedWith("Recv failed with ", error));
    return Result::error;
}

// A new packet, for a new PDU; false on failure.
bool TcpPduReader::begin() {
    const uint16_t bytes = framing_->maxPduLength();
    Mox::Ptr<Pkt> pkt;
    try {
        pkt = newPktFor(bytes);
    } catch (const std::bad_alloc&) {
        return failedWith("Failed to allocate packet");
    }
    if (!pkt) {
        return failedWith("Failed to obtain new packet object");
    }
    Mox::require(pkt->maxSharedData() >= bytes, "pkt->maxSharedData() >= maxPduLength()");
    // A new buffer is all head room: makes tail room of it.
    pkt->sharedBuffer()->newHeadData(bytes);
    pkt->sharedBuffer()->delTailData(bytes);
    pkt->updateSharedIovec();
    pkt_ = std::move(pkt);
    return measure();
}

// The part asked for is there: sets how much is to be asked for next. A length that leaves nothing
// to ask for, before the PDU has begun or after more than the PDU was read, would never end.
bool TcpPduReader::measure() {
    const uint32_t size = framing_->getPduSize();
    const uint32_t held = pkt_->iovec(1).bytes;
    MOX_TRACE(facility, 9, "PDU size: ", size, " Remaining: ", int64_t{size} - held);
    if (size > framing_->maxPduLength()) {
        return failedWith("PDU length too big");
    }
    if (size < held || size == 0) {
        return failedWith("PDU length too small");
    }
    remaining_ = static_cast<uint16_t>(size - held);
    return true;
}

bool TcpPduReader::failedWith(const char* text, int error) {
    failureText_ = text;
    failureErrno_ = error;
    return false;
}

Mox::String TcpPduReader::failure() const {
    return failureErrno_ != 0 ? withError(failureText_, failureErrno_) : Mox::String(failureText_);
}

Mox::Ptr<Pkt> TcpPduReader::take() {
    if (!holdsPdu()) {
        return nullptr;
    }
    state_ = state_ == State::holding ? State::betweenPdus : State::stopped;
    return std::exchange(pkt_, nullptr);
}

void TcpPduReader::goOnAfterLast() {
    if (state_ == State::holdingLast) {
        state_ = State::holding;
    } else if (state_ == State::stopped) {
        state_ = State::betweenPdus;
    }
}

void TcpPduReader::fail() {
    state_ = State::failed;
    pkt_ = nullptr;
    remaining_ = 0;
}

}  // namespace Pavo
