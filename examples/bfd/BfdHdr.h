/// @file
/// The control packet of BFD (RFC 5880, 4.1).
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Enum.h"
#include "Pavo/HdrWrapper.h"
#include "Pavo/NetU.h"

namespace Bfd {

using Mox::stringValue;

enum class State : uint32_t { adminDown = 0, down = 1, init = 2, up = 3 };

constexpr auto enumDescription(State) {
    using enum State;
    return Mox::enumeration<State>(
        "Invalid State", {{adminDown, "adminDown"}, {down, "down"}, {init, "init"}, {up, "up"}});
}

/// Why a session left the state up, or does not reach it. Other numbers may be received.
enum class Diag : uint32_t { none = 0, timeExpired = 1, signaledDown = 3, adminDown = 7 };

constexpr auto enumDescription(Diag) {
    using enum Diag;
    return Mox::enumeration<Diag>("Invalid Diag", {{none, "none"},
                                                   {timeExpired, "timeExpired"},
                                                   {signaledDown, "signaledDown"},
                                                   {adminDown, "adminDown"}});
}

/// A control packet without authentication, laid over the payload of a datagram, or free-standing
/// to build one from: then of version 1, with its length, and all else zero. Intervals are in
/// microseconds.
///
///     | version (3 bits), diagnostic (5 bits) | state (2 bits), flags P F C A D M |
///
///     | multiplier (1) | length (1) | my discriminator (4) | your discriminator (4) |
///
///     | desired min TX (4) | required min RX (4) | required min echo RX (4) |
class BfdHdr {
  public:
    static constexpr std::string_view recordName = "BfdHdr";
    static constexpr uint8_t currentVersion = 1;

    uint8_t version() const { return versionAndDiag_ >> 5; }
    Diag diag() const { return static_cast<Diag>(versionAndDiag_ & 0x1f); }
    void diagIs(Diag diag) {
        versionAndDiag_ = static_cast<uint8_t>(currentVersion << 5 | static_cast<uint8_t>(diag));
    }
    State state() const { return static_cast<State>(stateAndFlags_ >> 6); }
    void stateIs(State state) {
        stateAndFlags_ =
            static_cast<uint8_t>((stateAndFlags_ & 0x3f) | static_cast<uint32_t>(state) << 6);
    }
    /// Asks for an answer with the final bit.
    bool isPoll() const { return (stateAndFlags_ & pollBit) != 0; }
    void isPollIs(bool poll) { bitIs(pollBit, poll); }
    bool isFinal() const { return (stateAndFlags_ & finalBit) != 0; }
    void isFinalIs(bool final) { bitIs(finalBit, final); }
    bool hasAuth() const { return (stateAndFlags_ & authBit) != 0; }
    /// The sender wants no periodic packets while both sides are up.
    bool isDemand() const { return (stateAndFlags_ & demandBit) != 0; }
    bool isMultipoint() const { return (stateAndFlags_ & multipointBit) != 0; }
    uint8_t detectMult() const { return detectMult_; }
    void detectMultIs(uint8_t packets) { detectMult_ = packets; }
    uint8_t lengthBytes() const { return length_; }
    uint32_t myDiscr() const { return myDiscr_.value(); }
    void myDiscrIs(uint32_t discr) { myDiscr_.valueIs(discr); }
    uint32_t yourDiscr() const { return yourDiscr_.value(); }
    void yourDiscrIs(uint32_t discr) { yourDiscr_.valueIs(discr); }
    uint32_t desiredMinTx() const { return desiredMinTx_.value(); }
    void desiredMinTxIs(uint32_t micros) { desiredMinTx_.valueIs(micros); }
    uint32_t requiredMinRx() const { return requiredMinRx_.value(); }
    void requiredMinRxIs(uint32_t micros) { requiredMinRx_.valueIs(micros); }

    /// Whether the packet lies in `bytes`; there may be more after it.
    Pavo::PktErrors check(uint32_t bytes) const {
        return length_ >= sizeof(BfdHdr) && length_ <= bytes ? Pavo::PktErrors::noError
                                                             : Pavo::PktErrors::pktTooShort;
    }

  private:
    static constexpr uint8_t pollBit = 0x20, finalBit = 0x10, authBit = 0x04, demandBit = 0x02,
                             multipointBit = 0x01;

    void bitIs(uint8_t bit, bool on) {
        stateAndFlags_ = static_cast<uint8_t>((stateAndFlags_ & ~bit) | (on ? bit : 0));
    }

    uint8_t versionAndDiag_ = currentVersion << 5;
    uint8_t stateAndFlags_ = 0;
    uint8_t detectMult_ = 0;
    uint8_t length_ = 24;
    Pavo::NetU32 myDiscr_;
    Pavo::NetU32 yourDiscr_;
    Pavo::NetU32 desiredMinTx_;
    Pavo::NetU32 requiredMinRx_;
    [[maybe_unused]] Pavo::NetU32 requiredMinEchoRx_;
};
static_assert(Pavo::isOverlay<BfdHdr>(24));

}  // namespace Bfd
