/// @file
/// The messages of a small session protocol.
#pragma once

#include <cstdint>
#include <span>

#include "Pavo/NetU.h"
#include "Pavo/TcpFraming.h"

namespace Session {

enum class MsgType : uint32_t {
    open = 1,          ///< carries the speaker's number and its hold time
    keepAlive = 2,     ///< restarts the peer's hold timer
    update = 3,        ///< numbered from 1; carries a body
    notification = 4,  ///< ends the session; the body says why
};

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

    MsgHdr(MsgType type, uint32_t bytes, uint32_t speaker, uint32_t number, uint16_t holdSeconds)
        : type_(static_cast<uint8_t>(type)),
          length_(static_cast<uint16_t>(bytes)),
          speaker_(speaker),
          number_(number),
          holdSeconds_(holdSeconds) {}

    /// An unknown type reads as its number.
    MsgType type() const { return static_cast<MsgType>(type_); }
    uint32_t speaker() const { return speaker_.value(); }
    uint32_t number() const { return number_.value(); }
    uint16_t holdSeconds() const { return holdSeconds_.value(); }

  private:
    [[maybe_unused]] uint8_t version_ = currentVersion;
    uint8_t type_;
    Pavo::NetU16 length_;
    Pavo::NetU32 speaker_;
    Pavo::NetU32 number_;
    Pavo::NetU16 holdSeconds_;
    Pavo::NetU16 reserved_;
    Pavo::NetU32 reservedToo_;
};
static_assert(Pavo::isOverlay<MsgHdr>(20));

/// The messages of a stream: a header of another version is refused.
inline constexpr Pavo::TcpFraming sessionFraming{
    .headerBytes = sizeof(MsgHdr),
    .lengthAt = 2,
    .min = sizeof(MsgHdr),
    .check = [](std::span<const uint8_t> header) {
        return header[0] == MsgHdr::currentVersion ? nullptr : "version not supported";
    }};

}  // namespace Session
