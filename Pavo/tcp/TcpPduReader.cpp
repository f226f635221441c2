#include "Pavo/tcp/TcpPduReader.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpPduBuffer.h"

namespace Pavo {

namespace {

using Result = TcpPduPamReadResult;

Mox::TraceFacility facility("Pavo::TcpPduReader");

}  // namespace

Result TcpPduReader::read(bool onlyOne) {
    isDrained_ = false;
    Result result = readBuffered();
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

// Reads a PDU that is whole in the buffer, which is most of them, in one step.
Result TcpPduReader::readBuffered() {
    const auto bytes = ahead_.bytes();
    if (pkt_ || framing_ == nullptr || bytes.size() < framing_->headerBytes) {
        return Result::readMoreData;
    }
    uint32_t size = 0;
    if (!framedSize(bytes.data(), static_cast<uint32_t>(bytes.size()), &size)) {
        return Result::error;
    }
    if (size > bytes.size()) {
        return Result::readMoreData;
    }
    pkt_ = newPkt(size);
    if (!pkt_) {
        return Result::error;
    }
    ahead_.take(pkt_->newSharedTailData(size), size);
    return Result::fullPduRead;
}

Result TcpPduReader::readPart() {
    if (!pkt_ && !begin()) {
        return Result::error;
    }
    if (isDrained_ && ahead_.isEmpty()) {
        return Result::waitForMoreData;
    }
    const ssize_t ret = receive(pkt_->newSharedTailData(remaining_));
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

// Up to `remaining_` bytes, as recv(2).
ssize_t TcpPduReader::receive(uint8_t* to) {
    if (const uint32_t taken = ahead_.take(to, remaining_)) {
        return static_cast<ssize_t>(taken);
    }
    const int fd = pam_->fileDescriptor()->descriptor();
    const ssize_t got = ahead_.receive(fd, to, remaining_, aheadBytes_);
    // Edge-triggered, the end of the stream may have come with the bytes, and is not reported
    // again.
    isDrained_ = got > 0 && aheadBytes_ != 0 && pam_->levelTriggered() &&
                 static_cast<uint64_t>(got) < uint64_t{remaining_} + aheadBytes_;
    mayHaveMore_ = mayHaveMore_ && !isDrained_;
    return std::min<ssize_t>(got, remaining_);
}

// With `bytes` bytes of tail room; null on failure.
Mox::Ptr<Pkt> TcpPduReader::newPkt(uint32_t bytes) {
    Mox::Ptr<Pkt> pkt;
    try {
        pkt = newPktFor(bytes);
    } catch (const std::bad_alloc&) {
        (void)failedWith("Failed to allocate packet");
        return nullptr;
    }
    if (!pkt) {
        (void)failedWith("Failed to obtain new packet object");
        return nullptr;
    }
    Mox::require(pkt->maxSharedData() >= bytes, "pkt->maxSharedData() >= maxPduLength()");
    return pkt;
}

// A new packet, for a new PDU; false on failure. That of a framing is small: it is replaced when
// the length is known to need more.
bool TcpPduReader::begin() {
    Mox::Ptr<Pkt> pkt = newPkt(framing_ == nullptr ? pam_->maxPduLength() : framing_->headerBytes);
    if (!pkt) {
        return false;
    }
    pkt_ = std::move(pkt);
    return measure();
}

// The part asked for is there: sets how much is to be asked for next.
bool TcpPduReader::measure() {
    const uint32_t held = pkt_->iovec(1).bytes;
    uint32_t size = held;
    if (framing_ == nullptr) {
        size = pam_->getPduSize();
        if (!checkSize(size, held, pam_->maxPduLength())) {
            return false;
        }
    } else if (held <= framing_->headerBytes && !framedSize(pkt_->iovec(1).data, held, &size)) {
        return false;
    }
    MOX_TRACE(facility, 9, "PDU size: ", size, " Remaining: ", int64_t{size} - held);
    remaining_ = static_cast<uint16_t>(size - held);
    return framing_ == nullptr || makeRoom(held, size);
}

// As `getPduSize` answers for a PDU that begins with the `held` bytes at `data`; false where it is
// refused.
bool TcpPduReader::framedSize(const uint8_t* data, uint32_t held, uint32_t* size) {
    const uint32_t headerBytes = framing_->headerBytes;
    const uint32_t longest = std::min<uint32_t>(framing_->max, pam_->maxPduLength());
    *size = headerBytes;
    if (held < headerBytes) {
        return checkSize(headerBytes, held, longest);
    }
    if (framing_->check != nullptr) {
        if (const char* refusal = framing_->check({data, headerBytes})) {
            return failedWith(refusal);
        }
    }
    const uint64_t bytes = framing_->messageBytes(data);
    *size = static_cast<uint32_t>(bytes);
    return checkSize(bytes, std::max(headerBytes, framing_->min), longest);
}

// A length that leaves nothing to ask for, before the PDU has begun or after more than the PDU was
// read, would never end.
bool TcpPduReader::checkSize(uint64_t size, uint32_t shortest, uint32_t longest) {
    if (size > longest) {
        return failedWith("PDU length too big");
    }
    if (size < shortest || size == 0) {
        return failedWith("PDU length too small");
    }
    return true;
}

bool TcpPduReader::makeRoom(uint32_t held, uint32_t size) {
    if (size - held <= pkt_->sharedBuffer()->tailRoom()) {
        return true;
    }
    const Mox::Ptr<Pkt> larger = newPkt(size);
    if (!larger) {
        return false;
    }
    std::memcpy(larger->newSharedTailData(held), pkt_->iovec(1).data, held);
    pkt_ = larger;
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
    ahead_.clear();
    pkt_ = nullptr;
    remaining_ = 0;
}

}  // namespace Pavo
