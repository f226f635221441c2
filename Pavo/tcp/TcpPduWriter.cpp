#include "Pavo/tcp/TcpPduWriter.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>
#include <new>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpPduBuffer.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPduWriter");

uint64_t bytesOf(const SocketIovec* iov, uint16_t iovLen) {
    uint64_t bytes = 0;
    for (uint16_t i = 0; i < iovLen; ++i) {
        bytes += iov[i].iov_len;
    }
    return bytes;
}

// Returns as sendmsg(2), or -1 with `errno` set, never EINTR.
ssize_t transmit(int fd, SocketIovec* iov, uint16_t iovLen) {
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

bool TcpPduWriter::fits(const SocketIovec* iov, uint16_t iovLen) {
    return iovLen <= IOV_MAX && bytesOf(iov, iovLen) <= std::numeric_limits<uint16_t>::max();
}

int TcpPduWriter::send(int fd, SocketIovec* iov, uint16_t iovLen) {
    const bool resumed = isWaiting();
    const auto bytes = static_cast<uint32_t>(bytesOf(iov, iovLen));
    if (!resumed) {
        length_ = static_cast<uint16_t>(bytes);
    }
    const ssize_t ret = transmit(fd, iov, iovLen);
    if (ret < 0 && errno != EAGAIN) {
        const int error = errno;
        fail();
        return error;
    }
    const auto sent = static_cast<uint32_t>(std::max<ssize_t>(ret, 0));
    if (sent < bytes) {
        try {
            keepRest(iov, iovLen, sent);
        } catch (const std::bad_alloc&) {
            fail();  // Part of a PDU has left: nothing can follow it.
            return ENOMEM;
        }
        state_ = State::waiting;
        return 0;
    }
    MOX_TRACE(facility, 9, "Sent ", sent, " bytes");
    if (resumed) {
        Mox::require(ret == remaining_, "ret == txRemainingLength()");
        dropRest();
        state_ = State::ready;
    }
    return 0;
}

void TcpPduWriter::keepRest(const SocketIovec* iov, uint16_t iovLen, uint32_t sent) {
    const auto rest = static_cast<uint32_t>(bytesOf(iov, iovLen)) - sent;
    uint32_t skipped = sent;
    uint16_t curr = 0;
    while (curr < iovLen && skipped >= iov[curr].iov_len) {
        skipped -= static_cast<uint32_t>(iov[curr].iov_len);
        ++curr;
    }
    Mox::require(curr < iovLen, "curr < iovLen");
    MOX_TRACE(facility, 9, "Partial send ", sent, " bytes. Curr iovec: ", curr, ", ", skipped,
              " bytes. Remaining to send ", rest);
    remaining_ = static_cast<uint16_t>(rest);
    if (isWaiting()) {
        iov_ = {static_cast<uint8_t*>(iov_.iov_base) + skipped, rest};
    } else {
        saveShadowPktCopy(iov + curr, static_cast<uint16_t>(iovLen - curr), skipped);
    }
}

void TcpPduWriter::saveShadowPktCopy(const SocketIovec* iov, uint16_t iovLen, uint32_t skipped) {
    const Mox::Ptr<Pkt> copy = newPktFor(remaining_);
    uint8_t* to = copy->newSharedTailData(remaining_);
    iov_ = {to, remaining_};
    for (uint16_t i = 0; i < iovLen; ++i) {
        const std::size_t bytes = iov[i].iov_len - skipped;
        to = std::copy_n(static_cast<const uint8_t*>(iov[i].iov_base) + skipped, bytes, to);
        skipped = 0;
    }
    pkt_ = copy;
}

void TcpPduWriter::fail() {
    state_ = State::failed;
    dropRest();
}

void TcpPduWriter::dropRest() {
    pkt_ = nullptr;
    iov_ = {};
    remaining_ = 0;
}

}  // namespace Pavo
