#include "Pavo/socket/PktSocket.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

namespace Pavo {

namespace {

// Writes the error to standard error, then throws it with the name of the call.
[[noreturn]] void writeAndThrow(const char* text, const char* call, int error) {
    std::fprintf(stderr, "%s%d %s\n", text, error, std::strerror(error));
    throw Mox::ErrnoException(error, call);
}

}  // namespace

PktSocket::PktSocket(Mox::String name) : name_(std::move(name)), pktManager_(globalPktManager()) {}

PktSocket::~PktSocket() = default;

void PktSocket::fileDescriptorIs(Mox::Ptr<Mox::FileDescriptor> fileDescriptor) {
    fileDescriptor_ = std::move(fileDescriptor);
    fileDescriptor_->nonBlockingIs(true);
}

int32_t PktSocket::sendPkt(Mox::Ptr<Pkt> pkt, sockaddr_in dest) {
    const int32_t sent = sendmsg(pkt, dest);
    if (sent < 0 && errno != EAGAIN) {
        writeAndThrow("error sending pkt:", "sendmsg", errno);
    }
    return sent;
}

Mox::Ptr<Pkt> PktSocket::recvPkt(sockaddr_in* from) {
    const Mox::Ptr<Pkt> pkt = newPkt();
    const uint32_t capacity = pkt->maxSharedData();
    uint8_t* const data = pkt->newSharedTailData(capacity);
    Mox::require(!fileDescriptor_ || fileDescriptor_->nonBlocking(),
                 "fileDescriptor_->nonBlocking()");
    uint32_t fromLen = sizeof(sockaddr_in);
    const int32_t received =
        recvfrom(fd(), data, capacity, /*flags=*/0, reinterpret_cast<sockaddr*>(from), &fromLen);
    const int error = received < 0 ? errno : 0;
    readEnded(/*isGood=*/received > 0, /*isEmpty=*/error == EAGAIN);
    if (error == EAGAIN) {
        return nullptr;
    }
    if (received < 0) {
        Mox::require(error != EINTR, "(*__errno_location ()) != 4");
        writeAndThrow(" error is  ", "recvfrom", error);
    }
    if (received == 0) {
        throw Mox::InternalException("read from tap socket returned 0");
    }
    pkt->delSharedTailData(capacity - static_cast<uint32_t>(received));
    return pkt;
}

// The kernel reports a pending error before the packets that wait, so one failure does not say that
// there are none; a second one is an error that stays.
void PktSocket::readEnded(bool isGood, bool isEmpty) {
    const bool hadFailed = std::exchange(hasReadFailed_, !isGood && !isEmpty);
    if (fileDescriptor_) {
        fileDescriptor_->readTried(/*moreMayWait=*/isGood || (hasReadFailed_ && !hadFailed));
    }
}

Mox::Ptr<Pkt> PktSocket::newPkt() const {
    try {
        return pktManager_->newPkt();
    } catch (const std::bad_alloc&) {
        throw Mox::MemoryException("Unable to allocate Pkt");
    }
}

int32_t PktSocket::recvfrom(int fd, void* buf, uint32_t len, int flags, sockaddr* from,
                            uint32_t* fromLen) {
    return static_cast<int32_t>(::recvfrom(fd, buf, len, flags, from, fromLen));
}

int32_t PktSocket::sendmsg(Mox::Ptr<Pkt> pkt, sockaddr_in dest) {
    return sendTo(*pkt, &dest, sizeof(dest));
}

int32_t PktSocket::sendTo(const Pkt& pkt, const void* dest, uint32_t destBytes) const {
    iovec iovecs[Pkt::maxIovecs_];
    msghdr message{};
    message.msg_name = const_cast<void*>(dest);  // The kernel only reads it.
    message.msg_namelen = destBytes;
    message.msg_iov = iovecs;
    message.msg_iovlen = pkt.copyIovecs(iovecs);
    return static_cast<int32_t>(::sendmsg(fd(), &message, 0));
}

TapPktSocket::TapPktSocket(Mox::String name, Mox::Ptr<Mox::FileDescriptor> tap)
    : Described(std::move(name)) {
    fileDescriptorIs(std::move(tap));
}

TapPktSocket::~TapPktSocket() = default;

int32_t TapPktSocket::recvfrom(int fd, void* buf, uint32_t len, int, sockaddr*, uint32_t* fromLen) {
    *fromLen = 0;
    return static_cast<int32_t>(read(fd, buf, len));
}

int32_t TapPktSocket::sendmsg(Mox::Ptr<Pkt> pkt, sockaddr_in) {
    iovec iovecs[Pkt::maxIovecs_];
    const uint32_t count = pkt->copyIovecs(iovecs);
    return static_cast<int32_t>(writev(fd(), iovecs, static_cast<int>(count)));
}

}  // namespace Pavo
