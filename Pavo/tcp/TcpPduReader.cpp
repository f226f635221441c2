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
    const bool isAhead = framing_ != nullptr && isBetweenPdus() && (hasBuffered() || aheadBytes_);
    Result result = isAhead ? readAhead() : Result::readMoreData;
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

// Begins with the buffer: most PDUs are whole there.
Result TcpPduReader::readAhead() {
    if (!hasBuffered()) {
        if (!ahead_.reserve(aheadBytes_)) {
            return Result::readMoreData;
        }
        if (const ssize_t ret = receive(nullptr, 0); !hasBuffered()) {
            return nothingReceived(ret, errno);
        }
    }
    pkt_ = takeBuffered();
    remaining_ = 0;
    return pkt_ ? Result::fullPduRead : Result::readMoreData;
}

// Whatever is refused here, or needs memory that is not there, takes the long way.
Mox::Ptr<Pkt> TcpPduReader::takeBuffered() {
    const auto bytes = ahead_.bytes();
    if (framing_ == nullptr || bytes.size() < framing_->headerBytes || !isBetweenPdus()) {
        return nullptr;
    }
    const uint64_t size = framing_->messageBytes(bytes.data());
    if (size > bytes.size() || size > longestFramed() || size < shortestFramed_ ||
        (framing_->check != nullptr && refusalOf(bytes.data()) != nullptr)) {
        return nullptr;
    }
    try {
        Mox::Ptr<Pkt> pkt =
            globalPktManager()->newPktWith(bytes.first(static_cast<std::size_t>(size)));
        ahead_.drop(static_cast<uint32_t>(size));
        return pkt;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

Result TcpPduReader::readPart() {
    if (!pkt_ && !begin()) {
        return Result::error;
    }
    if (isDrained_ && !hasBuffered()) {
        return Result::waitForMoreData;
    }
    uint8_t* room = pkt_->newSharedTailData(remaining_);
    const ssize_t ret = receive(room, remaining_);
    const int error = errno;
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
    pkt_->delSharedTailData(remaining_);
    return got != 0 ? Result::readMoreData : nothingReceived(ret, error);
}

// Why there are no bytes.
Result TcpPduReader::nothingReceived(ssize_t ret, int error) {
    if (ret < 0 && error == EAGAIN) {
        return Result::waitForMoreData;
    }
    (void)(ret == 0 ? failedWith("Connection closed by peer")
                    : failedWith("Recv failed with ", error));
    return Result::error;
}

// As recv(2), up to `bytes` bytes; what comes after them, and all with 0, goes to the buffer.
ssize_t TcpPduReader::receive(uint8_t* to, uint32_t bytes) {
    if (const uint32_t taken = ahead_.take(to, bytes)) {
        return static_cast<ssize_t>(taken);
    }
    if (aheadBytes_ != 0) {
        (void)ahead_.reserve(aheadBytes_);  // Without memory these bytes alone are read.
    }
    const uint64_t wanted = uint64_t{bytes} + ahead_.reserved();
    const ssize_t got = ahead_.receive(pam_->fileDescriptor()->descriptor(), to, bytes);
    // Edge-triggered, the end of the stream may have come with the bytes: it is not reported again.
    isDrained_ = aheadBytes_ != 0 && got > 0 && static_cast<uint64_t>(got) < wanted &&
                 pam_->levelTriggered();
    mayHaveMore_ = mayHaveMore_ && !isDrained_;
    return std::min<ssize_t>(got, bytes);
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
    uint32_t bytes = pam_->maxPduLength();
    if (framing_ != nullptr) {
        bytes = std::max<uint32_t>(framing_->headerBytes, Pkt::Manager::defaultBufferSize);
    }
    Mox::Ptr<Pkt> pkt = newPkt(bytes);
    if (!pkt) {
        return false;
    }
    pkt_ = std::move(pkt);
    return measure();
}

// The part asked for is there: sets how much is to be asked for next.
bool TcpPduReader::measure() {
    const uint32_t held = pkt_->iovec(1).bytes;
    uint32_t size = held;  // That of a framed PDU whose length was known before.
    if (framing_ == nullptr) {
        size = pam_->getPduSize();
        if (!checkSize(size, held, pam_->maxPduLength())) {
            return false;
        }
    } else if (held == 0) {
        size = framing_->headerBytes;
        if (!checkSize(size, held, longestFramed())) {
            return false;
        }
    } else if (held == framing_->headerBytes && !framedSize(pkt_->iovec(1).data, &size)) {
        return false;
    }
    MOX_TRACE(facility, 9, "PDU size: ", size, " Remaining: ", int64_t{size} - held);
    remaining_ = static_cast<uint16_t>(size - held);
    return framing_ == nullptr || makeRoom(held, size);
}

// False where the PDU that begins with the header is refused.
bool TcpPduReader::framedSize(const uint8_t* header, uint32_t* size) {
    if (const char* refusal = refusalOf(header)) {
        return failedWith(refusal);
    }
    const uint64_t bytes = framing_->messageBytes(header);
    *size = static_cast<uint32_t>(bytes);
    return checkSize(bytes, shortestFramed_, longestFramed());
}

const char* TcpPduReader::refusalOf(const uint8_t* header) const {
    return framing_->check == nullptr ? nullptr : framing_->check({header, framing_->headerBytes});
}

void TcpPduReader::framingIs(const TcpFraming* framing) {
    framing_ = framing;
    shortestFramed_ = std::max<uint32_t>(framing->min, framing->headerBytes);
}

uint32_t TcpPduReader::longestFramed() const {
    return std::min<uint32_t>(framing_->max, pam_->maxPduLength());
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
