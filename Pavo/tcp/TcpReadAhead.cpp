#include "Pavo/tcp/TcpReadAhead.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "Mox/Trace.h"

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

bool TcpReadAhead::reserve(uint32_t bytes) {
    if (size_ != bytes) {
        clear();
        memory_ = spare.size == bytes ? std::exchange(spare.memory, nullptr)
                                      : new (std::nothrow) uint8_t[bytes];
        spare.size = spare.memory != nullptr ? spare.size : 0;
        size_ = memory_ != nullptr ? bytes : 0;
    }
    return memory_ != nullptr;
}

ssize_t TcpReadAhead::receive(int fd, uint8_t* to, uint32_t bytes) {
    iovec pieces[] = {{to, bytes}, {memory_, size_}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    ssize_t got = -1;
    do {  // Where one piece is enough, recv(2) is the faster call.
        got = bytes == 0   ? recv(fd, memory_, size_, MSG_DONTWAIT)
              : size_ == 0 ? recv(fd, to, bytes, MSG_DONTWAIT)
                           : recvmsg(fd, &message, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > static_cast<ssize_t>(bytes)) {
        end_ = static_cast<uint32_t>(got) - bytes;
    } else if (size_ != 0) {
        clear();
    }
    return got;
}

void TcpReadAhead::clear() {
    begin_ = end_ = 0;
    if (memory_ == nullptr) {
        return;
    }
    const Mox::ErrnoKeeper keeper;
    closer.made();
    std::swap(memory_, spare.memory);  // The last one is the spare: its size is asked for again.
    std::swap(size_, spare.size);
    delete[] std::exchange(memory_, nullptr);
    size_ = 0;
    if (spare.isClosed) {
        delete[] std::exchange(spare.memory, nullptr);
        spare.size = 0;
    }
}

}  // namespace Pavo
