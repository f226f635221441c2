/// @file
/// The bytes of a stream that were received before they were asked for.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

namespace Pavo {

/// A buffer for what follows the part of a message that is being received: one recvmsg(2) fills
/// that part, then the buffer. Memory is held only while there are bytes in it; the thread keeps
/// one spare buffer, so that streams which are read one after the other all use the same memory.
class TcpReadAhead {
  public:
    TcpReadAhead() = default;
    TcpReadAhead(const TcpReadAhead&) = delete;
    TcpReadAhead& operator=(const TcpReadAhead&) = delete;
    ~TcpReadAhead() { clear(); }

    /// The bytes that are there, in order.
    std::span<const uint8_t> bytes() const { return {memory_ + begin_, end_ - begin_}; }
    bool isEmpty() const { return begin_ == end_; }
    /// Moves the first bytes to `to`, at most `bytes`, and returns how many.
    uint32_t take(uint8_t* to, uint32_t bytes) {
        const uint32_t taken = std::min(bytes, end_ - begin_);
        if (taken != 0) {
            std::memcpy(to, memory_ + begin_, taken);
            drop(taken);
        }
        return taken;
    }
    /// Drops the first `bytes` bytes.
    /// @pre there are as many.
    void drop(uint32_t bytes) {
        begin_ += bytes;
        if (isEmpty()) {
            clear();
        }
    }
    /// Makes room for `bytes` bytes, until the next `clear` or a `receive` that leaves nothing
    /// here. False, with no room, where there is no memory.
    /// @pre `isEmpty()`.
    bool reserve(uint32_t bytes);
    uint32_t reserved() const { return size_; }
    /// Receives up to `bytes` bytes at `to` and then what there is room for here. Returns as
    /// recv(2) the number of all bytes, or -1 with `errno` set, never EINTR.
    /// @pre `isEmpty()`.
    ssize_t receive(int fd, uint8_t* to, uint32_t bytes);
    /// Drops all bytes, and gives back the room.
    void clear();

  private:
    uint8_t* memory_ = nullptr;
    uint32_t size_ = 0;
    uint32_t begin_ = 0;
    uint32_t end_ = 0;
};

}  // namespace Pavo
