#include "Pavo/tcp/TcpReadAhead.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace Pavo {

namespace {

// The spare buffer of a thread. Without a destructor, since streams of static storage end later
// than a thread's objects: `Closer` stands in.
struct Spare {
    uint8_t* memory = nullptr;
    uint32_t size = 0;
    bool isClosed = false;
};
thread_local constinit Spare spare;

struct Closer {
    ~Closer() {
        delete[] std::exchange(spare.memory, nullptr);
        spare.isClosed = true;
    }
    void made() const {}
};
thread_local Closer closer;

}  // namespace

uint32_t TcpReadAhead::take(uint8_t* to, uint32_t bytes) {
    const uint32_t taken = std::min(bytes, end_ - begin_);
    if (taken != 0) {
        std::memcpy(to, memory_ + begin_, taken);
        begin_ += taken;
        if (isEmpty()) {
            clear();
        }
    }
    return taken;
}

ssize_t TcpReadAhead::receive(int fd, uint8_t* to, uint32_t bytes, uint32_t aheadBytes) {
    const bool isAhead = aheadBytes != 0 && allocate(aheadBytes);
    iovec pieces[2] = {{to, bytes}, {memory_, aheadBytes}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    ssize_t got = -1;
    do {
        got = isAhead ? recvmsg(fd, &message, MSG_DONTWAIT) : recv(fd, to, bytes, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > static_cast<ssize_t>(bytes)) {
        end_ = static_cast<uint32_t>(got) - bytes;
    } else if (isAhead) {
        clear();
    }
    return got;
}

bool TcpReadAhead::allocate(uint32_t size) {
    if (spare.size >= size) {
        memory_ = std::exchange(spare.memory, nullptr);
        size_ = std::exchange(spare.size, 0);
    } else {
        memory_ = new (std::nothrow) uint8_t[size];
        size_ = size;
    }
    return memory_ != nullptr;
}

void TcpReadAhead::clear() {
    begin_ = end_ = 0;
    closer.made();
    if (spare.memory != nullptr || spare.isClosed) {
        delete[] memory_;
    } else {
        spare = {memory_, memory_ != nullptr ? size_ : 0, false};
    }
    memory_ = nullptr;
}

}  // namespace Pavo
