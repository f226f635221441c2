/// @file
/// The reading half of an endpoint on a TCP stream.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/tcp/TcpPduPam.h"

namespace Pavo {

/// Puts PDUs together from the bytes of a stream, one at a time. It calls no observer and watches
/// nothing: its owner, which also knows the framing, does.
///
/// | state         | packet       | left by                                                 |
/// | ------------- | ------------ | ------------------------------------------------------- |
/// | `betweenPdus` | none         | the first byte: `receiving`                             |
/// | `receiving`   | part of PDU  | the last byte: `holding`, or with one PDU `holdingLast` |
/// | `holding`     | a whole PDU  | `take`: `betweenPdus`                                   |
/// | `holdingLast` | a whole PDU  | `take`: `stopped`; `goOnAfterLast`: `holding`           |
/// | `stopped`     | none         | `goOnAfterLast`: `betweenPdus`                          |
/// | `failed`      | none         | nothing; `fail` leads here from every state             |
class TcpPduReader {
  public:
    enum class State : uint8_t { betweenPdus, receiving, holding, holdingLast, stopped, failed };

    explicit TcpPduReader(TcpPduPam* framing) : framing_(framing) {}

    State state() const { return state_; }
    bool isReceiving() const { return state_ == State::receiving; }
    bool holdsPdu() const { return state_ == State::holding || state_ == State::holdingLast; }
    /// Whether another PDU may be read, at once or after the one that is held.
    bool isOpen() const { return state_ <= State::holding; }
    /// Whether the socket was not found empty since its last event.
    bool mayHaveMore() const { return mayHaveMore_; }
    void mayHaveMoreIs(bool mayHaveMore) { mayHaveMore_ = mayHaveMore; }

    /// The packet being received or held, or null.
    const Mox::Ptr<Pkt>& pkt() const { return pkt_; }
    /// Bytes missing of the part asked for.
    uint16_t remaining() const { return remaining_; }

    /// Reads until a PDU is whole (`fullPduRead`), the socket is empty (`waitForMoreData`) or the
    /// stream is of no more use (`error`; the caller then calls `fail`). With `onlyOne` the PDU is
    /// the last one.
    /// @pre the state is `betweenPdus` or `receiving`.
    TcpPduPamReadResult read(bool onlyOne);
    /// The reason of the last read that ended with `error`.
    Mox::String failure() const;
    /// The PDU that is held, or null.
    Mox::Ptr<Pkt> take();
    /// Other PDUs may follow the last one.
    void goOnAfterLast();
    /// Drops what is received or held, and reads no more.
    void fail();

  private:
    TcpPduPamReadResult readPart();
    bool begin();
    bool measure();
    bool failedWith(const char* text, int error = 0);

    TcpPduPam* framing_;
    Mox::Ptr<Pkt> pkt_;
    State state_ = State::betweenPdus;
    bool mayHaveMore_ = false;
    uint16_t remaining_ = 0;
    const char* failureText_ = "";
    int failureErrno_ = 0;  // Part of the text, unless 0.
};

}  // namespace Pavo
