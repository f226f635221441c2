/// @file
/// The messages of a small session protocol.
#pragma once

#include <cstdint>

#include "Mox/Enum.h"
#include "Pavo/NetU.h"

namespace Session {

enum class MsgType : uint32_t {
    open = 1,          ///< carries the speaker's number and its hold time
    keepAlive = 2,     ///< restarts the peer's hold timer
    update = 3,        ///< numbered from 1; carries a body
    notification = 4,  ///< ends the session; the body says why
};

constexpr auto enumDescription(MsgType) {
    return Mox::enumeration<MsgType>("Invalid MsgType", {{MsgType::open, "open"},
                                                         {MsgType::keepAlive, "keep-alive"},
                                                         {MsgType::update, "update"},
                                                         {MsgType::notification, "notification"}});
}

/// The header of every message, in network byte order:
///
///      0                   1                   2                   3
///     +---------------+---------------+-------------------------------+
///     |    version    |     type      |   length, header and body     |
///     +---------------+---------------+-------------------------------+
///     |                            speaker                            |
///     +---------------------------------------------------------------+
///     |                        update's number                        |
///     +-------------------------------+-------------------------------+
///     |     hold time, seconds        |           reserved            |
///     +-------------------------------+-------------------------------+
///     |                           reserved                            |
///     +---------------------------------------------------------------+
class MsgHdr {
  public:
    static constexpr uint8_t currentVersion = 1;

    uint8_t version() const { return version_; }
    void versionIs(uint8_t version) { version_ = version; }
    /// An unknown type reads as its number.
    MsgType type() const { return static_cast<MsgType>(type_); }
    void typeIs(MsgType type) { type_ = static_cast<uint8_t>(type); }
    uint16_t lengthBytes() const { return length_.value(); }
    void lengthBytesIs(uint16_t bytes) { length_.valueIs(bytes); }
    uint32_t speaker() const { return speaker_.value(); }
    void speakerIs(uint32_t speaker) { speaker_.valueIs(speaker); }
    uint32_t number() const { return number_.value(); }
    void numberIs(uint32_t number) { number_.valueIs(number); }
    uint16_t holdSeconds() const { return holdSeconds_.value(); }
    void holdSecondsIs(uint16_t seconds) { holdSeconds_.valueIs(seconds); }

  private:
    uint8_t version_ = currentVersion;
    uint8_t type_ = 0;
    Pavo::NetU16 length_;
    Pavo::NetU32 speaker_;
    Pavo::NetU32 number_;
    Pavo::NetU16 holdSeconds_;
    Pavo::NetU16 reserved_;
    Pavo::NetU32 reservedToo_;
};
static_assert(Pavo::isOverlay<MsgHdr>(20));

}  // namespace Session
