/// @file
/// Reading bodies and attributes of received netlink messages, within their bounds.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

#include "Pavo/base/Export.h"

namespace Pavo {

/// The body of a message, such as an `ifinfomsg`, which follows its header; null when the message
/// is too short for it.
/// @pre `nlmsg_len` bytes are there, as in every message that a `NetlinkSession` hands out.
template <class Body>
const Body* netlinkBody(const nlmsghdr& message) {
    static_assert(std::is_trivially_copyable_v<Body> && alignof(Body) <= NLMSG_ALIGNTO);
    return message.nlmsg_len < NLMSG_LENGTH(sizeof(Body))
               ? nullptr
               : reinterpret_cast<const Body*>(&message + 1);
}

/// A table of attributes by their number, of which it keeps the last one of each. It refers to the
/// message, which has to stay, and allocates nothing.
///
/// An attribute with a wrong length ends the reading: `isSound` is then false, and the attributes
/// before it are in the table.
class PAVO_EXPORT NetlinkAttributes {
  public:
    /// The highest number that a table can hold.
    static constexpr uint16_t maxType = 127;

    /// Reads what follows a body of `bodyBytes` bytes. Attributes above `highest`, which a newer
    /// kernel sends, are skipped.
    /// @pre `highest` is at most `maxType` (assertion "highest <= maxType"); `nlmsg_len` bytes are
    /// there.
    NetlinkAttributes(const nlmsghdr& message, std::size_t bodyBytes, uint16_t highest);
    /// Reads the payload of an attribute, or another list that begins on 4 bytes.
    /// @pre as above.
    NetlinkAttributes(std::span<const uint8_t> list, uint16_t highest);

    /// Whether all lengths were right.
    bool isSound() const { return isSound_; }

    /// The attribute of that number, whose `rta_type` may have NLA_F_NESTED set; or null.
    const rtattr* find(uint16_t type) const {
        return type > highest_ || payloads_[type] == 0
                   ? nullptr
                   : reinterpret_cast<const rtattr*>(list_.data() + payloads_[type] -
                                                     sizeof(rtattr));
    }
    /// The payload of an attribute; empty when there is none.
    std::span<const uint8_t> payload(uint16_t type) const {
        const rtattr* const found = find(type);
        return found == nullptr ? std::span<const uint8_t>()
                                : std::span(reinterpret_cast<const uint8_t*>(found + 1),
                                            found->rta_len - sizeof(rtattr));
    }
    /// Copies the payload. False, with `*value` unchanged, when the attribute is missing or
    /// shorter; of a longer one the first bytes are taken.
    template <class Value>
    bool read(uint16_t type, Value* value) const {
        static_assert(std::is_trivially_copyable_v<Value>);
        const std::span<const uint8_t> bytes = payload(type);
        if (bytes.size() < sizeof(Value)) {
            return false;
        }
        std::memcpy(value, bytes.data(), sizeof(Value));
        return true;
    }
    /// The payload up to its first NUL; empty when the attribute is missing.
    std::string_view text(uint16_t type) const;
    /// The attributes inside an attribute; none, and sound, when it is missing.
    NetlinkAttributes nested(uint16_t type, uint16_t highest) const {
        return NetlinkAttributes(payload(type), highest);
    }

  private:
    void readAll();

    std::span<const uint8_t> list_;
    uint16_t highest_;
    bool isSound_ = true;
    // Where the payload of each begins; 0 for none. Only the first `highest_ + 1` are set.
    std::array<uint32_t, maxType + 1> payloads_;
};

}  // namespace Pavo
