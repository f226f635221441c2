/// @file
/// The writing half of an endpoint on a TCP stream.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/tcp/TcpPduPam.h"

namespace Pavo {

/// Writes packets to a stream, and keeps what does not fit until there is room. It calls no
/// observer and watches nothing: its owner does.
///
/// | state     | unsent rest   | left by                                                       |
/// | --------- | ------------- | ------------------------------------------------------------- |
/// | `ready`   | none          | a `send` of which only a part, or nothing, fits: `waiting`    |
/// | `waiting` | in one packet | the `send` of the rest: `ready` when all of it fits           |
/// | `failed`  | none          | nothing; `fail` and a failed `send` lead here from each state |
class TcpPduWriter {
  public:
    enum class State : uint8_t { ready, waiting, failed };

    State state() const { return state_; }
    bool isWaiting() const { return state_ == State::waiting; }
    bool hasFailed() const { return state_ == State::failed; }

    /// The unsent rest, also as one piece; null unless `waiting`.
    const Mox::Ptr<Pkt>& pkt() const { return pkt_; }
    SocketIovec* rest() { return isWaiting() ? &iov_ : nullptr; }
    /// Bytes of the unsent rest, and of the packet that was handed over last.
    uint16_t remaining() const { return remaining_; }
    uint16_t length() const { return length_; }

    /// Whether one system call can send the pieces: at most IOV_MAX of them, and 65,535 bytes.
    static bool fits(const SocketIovec* iov, uint16_t iovLen);
    /// Sends the pieces with one sendmsg(2), or, given `rest()`, what is left. Returns 0, or the
    /// `errno` with which the stream failed. The bytes may be changed after the call: the rest is a
    /// copy.
    /// @pre the pieces fit, and are the rest while there is one.
    int send(int fd, SocketIovec* iov, uint16_t iovLen);
    /// Drops the rest, and writes no more.
    void fail();

  private:
    void keepRest(const SocketIovec* iov, uint16_t iovLen, uint32_t sent);
    void saveShadowPktCopy(const SocketIovec* iov, uint16_t iovLen, uint32_t skipped);
    void dropRest();

    State state_ = State::ready;
    uint16_t remaining_ = 0;
    uint16_t length_ = 0;
    Mox::Ptr<Pkt> pkt_;
    SocketIovec iov_{};
};

}  // namespace Pavo
