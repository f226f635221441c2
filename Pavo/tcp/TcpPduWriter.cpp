#include "Pavo/tcp/TcpPduWriter.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <new>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpPduBuffer.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPduWriter");

const Mox::Ptr<Pkt> noPkt;

// Packets in one call: 80,000 bytes of those of the large size.
constexpr std::size_t pktsPerCall = 8;

// Returns as sendmsg(2), or -1 with `errno` set, never EINTR.
ssize_t transmit(int fd, SocketIovec* iov, std::size_t iovLen) {
    msghdr message{};
    message.msg_iov = iov;
    message.msg_iovlen = iovLen;
    ssize_t sent = -1;
    do {
        sent = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

}  // namespace

const Mox::Ptr<Pkt>& TcpPduWriter::pkt() const {
    return isWaiting() ? pkts_.front() : noPkt;
}

SocketIovec* TcpPduWriter::rest() {
    if (!isWaiting()) {
        return nullptr;
    }
    rest_ = {pkts_.front()->frontData(), pkts_.front()->frontBytes()};
    return &rest_;
}

uint64_t TcpPduWriter::bytesOf(const SocketIovec* iov, uint16_t iovLen) {
    uint64_t bytes = 0;
    for (uint16_t i = 0; i < iovLen; ++i) {
        bytes += iov[i].iov_len;
    }
    return bytes;
}

bool TcpPduWriter::fits(const SocketIovec* iov, uint16_t iovLen) {
    return iovLen <= IOV_MAX && bytesOf(iov, iovLen) <= std::numeric_limits<uint16_t>::max();
}

int TcpPduWriter::send(int fd, SocketIovec* iov, uint16_t iovLen) {
    const auto bytes = static_cast<uint16_t>(bytesOf(iov, iovLen));
    length_ = bytes;
    const ssize_t ret = transmit(fd, iov, iovLen);
    if (ret < 0 && errno != EAGAIN) {
        const int error = errno;
        fail();
        return error;
    }
    const auto sent = static_cast<uint32_t>(std::max<ssize_t>(ret, 0));
    if (sent == bytes) {
        MOX_TRACE(facility, 9, "Sent ", sent, " bytes");
        return 0;
    }
    MOX_TRACE(facility, 9, "Partial send ", sent, " bytes. Remaining to send ", bytes - sent);
    try {
        keep(iov, iovLen, sent, bytes - sent);
    } catch (const std::bad_alloc&) {
        fail();  // Part of a PDU has left: nothing can follow it.
        return ENOMEM;
    }
    state_ = State::waiting;
    return 0;
}

// The first buffer is small, since as a rule few messages are sent in one turn.
void TcpPduWriter::gather(const SocketIovec* iov, uint16_t iovLen) {
    keep(iov, iovLen, 0, pkts_.empty() ? 0 : Pkt::largeBufferSize);
    length_ = lengths_.back();
}

// Copies a message without its first bytes, in one piece.
void TcpPduWriter::keep(const SocketIovec* iov, uint16_t iovLen, uint32_t skipped,
                        uint32_t bufferBytes) {
    const auto bytes = static_cast<uint32_t>(bytesOf(iov, iovLen));
    const uint32_t rest = bytes - skipped;
    if (lengths_.size() == lengths_.capacity()) {
        lengths_.reserve(2 * lengths_.size() + 1);  // Nothing throws after the new packet.
    }
    if (pkts_.empty() || pkts_.back()->sharedBuffer()->tailRoom() < rest) {
        Mox::Ptr<Pkt> pkt = newPktFor(std::max(rest, bufferBytes));
        // A new buffer is all head room: makes tail room of it.
        const uint32_t size = pkt->maxSharedData();
        pkt->newSharedHeadData(size);
        pkt->delSharedTailData(size);
        pkts_.push_back(std::move(pkt));
    }
    lengths_.push_back(static_cast<uint16_t>(bytes));
    sentOfFirst_ = lengths_.size() == 1 ? skipped : sentOfFirst_;
    kept_ += rest;
    uint8_t* to = pkts_.back()->newSharedTailData(rest);
    for (uint16_t i = 0; i < iovLen; ++i) {
        if (skipped >= iov[i].iov_len) {
            skipped -= static_cast<uint32_t>(iov[i].iov_len);
            continue;
        }
        to = std::copy_n(static_cast<const uint8_t*>(iov[i].iov_base) + skipped,
                         iov[i].iov_len - skipped, to);
        skipped = 0;
    }
}

int TcpPduWriter::flush(int fd) {
    while (!pkts_.empty()) {
        SocketIovec iov[pktsPerCall];
        const std::size_t count = std::min(pkts_.size(), pktsPerCall);
        for (std::size_t i = 0; i < count; ++i) {
            iov[i] = {pkts_[i]->frontData(), pkts_[i]->frontBytes()};
        }
        const uint64_t bytes = bytesOf(iov, static_cast<uint16_t>(count));
        const ssize_t ret = transmit(fd, iov, count);
        if (ret < 0 && errno != EAGAIN) {
            const int error = errno;
            fail();
            return error;
        }
        const auto sent = static_cast<std::size_t>(std::max<ssize_t>(ret, 0));
        MOX_TRACE(facility, 9, "Sent ", sent, " bytes of ", kept_);
        removeFront(sent);
        if (sent < bytes) {
            state_ = State::waiting;
            return 0;
        }
        Mox::require(sent == bytes, "ret == txRemainingLength()");
    }
    state_ = State::ready;
    return 0;
}

void TcpPduWriter::removeFront(std::size_t bytes) {
    kept_ -= static_cast<uint32_t>(bytes);
    std::size_t ofMessages = sentOfFirst_ + bytes;
    std::size_t whole = 0;
    while (whole < lengths_.size() && ofMessages >= lengths_[whole]) {
        ofMessages -= lengths_[whole++];
    }
    sentOfFirst_ = static_cast<uint32_t>(ofMessages);
    std::size_t empty = 0;
    while (empty < pkts_.size() && bytes >= pkts_[empty]->frontBytes()) {
        bytes -= pkts_[empty++]->frontBytes();
    }
    if (empty == pkts_.size()) {
        pkts_ = {};  // A stream with nothing to send holds no memory for it.
        lengths_ = {};
        return;
    }
    pkts_[empty]->delSharedHeadData(static_cast<uint32_t>(bytes));
    pkts_.erase(pkts_.begin(), pkts_.begin() + static_cast<std::ptrdiff_t>(empty));
    lengths_.erase(lengths_.begin(), lengths_.begin() + static_cast<std::ptrdiff_t>(whole));
}

void TcpPduWriter::keepFirst(uint32_t messages) {
    while (lengths_.size() > messages) {
        const uint32_t first = lengths_.size() == 1 ? sentOfFirst_ : 0;
        const uint32_t bytes = lengths_.back() - first;
        lengths_.pop_back();
        kept_ -= bytes;
        if (pkts_.back()->frontBytes() == bytes) {
            pkts_.pop_back();
        } else {
            pkts_.back()->delSharedTailData(bytes);
        }
    }
}

void TcpPduWriter::fail() {
    dropped_ += messages() != 0 ? messages() - 1 : 0;
    state_ = State::failed;
    pkts_ = {};
    lengths_ = {};
    kept_ = sentOfFirst_ = 0;
}

}  // namespace Pavo
