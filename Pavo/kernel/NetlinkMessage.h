/// @file
/// Netlink messages that are being built, in memory that grows.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Mox/Lifetime.h"

#include "Pavo/base/Export.h"

namespace Pavo {

/// A message: header, body and attributes, each aligned to 4 bytes and padded with zeros. Numbers
/// are in host byte order, addresses in network byte order, as rtnetlink(7) wants them.
///
///     NetlinkMessage message(RTM_NEWLINK, NLM_F_REQUEST);
///     message.bodyIs<ifinfomsg>().ifi_index = index;
///     message.attributeIs(IFLA_MTU, uint32_t{9000});
///
/// `NetlinkSession` numbers it, and adds NLM_F_REQUEST and what else the kind of request needs.
class PAVO_EXPORT NetlinkMessage {
  public:
    /// A header alone.
    explicit NetlinkMessage(uint16_t type, uint16_t flags = NLM_F_REQUEST);
    /// A copy of a whole message.
    explicit NetlinkMessage(const nlmsghdr& message);

    /// Appends the body, and returns it to be filled in: it is valid until something else is
    /// appended. To be called once, before attributes.
    template <class Body>
    Body& bodyIs(const Body& body = {}) MOX_LIFETIME_BOUND {
        static_assert(std::is_trivially_copyable_v<Body> && !std::is_pointer_v<Body>);
        void* const place = append(sizeof(Body));
        std::memcpy(place, &body, sizeof(Body));
        return *static_cast<Body*>(place);
    }

    /// Appends an attribute: with bytes, with a payload of a type without padding, with a text and
    /// its NUL, or without payload.
    /// @throws Mox::RangeException "NetlinkMessage: attribute of more than 65535 bytes"; the
    /// message is then unchanged.
    /// @{
    void attributeIs(uint16_t type, std::span<const uint8_t> payload);
    template <class Payload>
    requires(std::is_trivially_copyable_v<Payload> && !std::is_pointer_v<Payload> &&
             !std::is_convertible_v<const Payload&, std::span<const uint8_t>> &&
             !std::is_convertible_v<const Payload&,
                                    std::string_view>) void attributeIs(uint16_t type,
                                                                        const Payload& payload) {
        attributeIs(type, std::span(reinterpret_cast<const uint8_t*>(&payload), sizeof(payload)));
    }
    void attributeIs(uint16_t type, std::string_view text);
    void attributeIs(uint16_t type, const char* text) { attributeIs(type, std::string_view(text)); }
    void attributeIs(uint16_t type) { attributeIs(type, std::span<const uint8_t>()); }
    /// @}

    /// Begins an attribute that holds all that is appended up to `nestEnd`, which takes what this
    /// returns. The attribute has NLA_F_NESTED.
    std::size_t nestBegin(uint16_t type);
    /// @throws Mox::RangeException "NetlinkMessage: attribute of more than 65535 bytes"; the
    /// attribute and all in it are then removed.
    void nestEnd(std::size_t nest);

    /// The header, whose `nlmsg_len` counts all that was appended; valid until more is.
    /// @{
    nlmsghdr* header() MOX_LIFETIME_BOUND { return reinterpret_cast<nlmsghdr*>(bytes_.data()); }
    const nlmsghdr* header() const MOX_LIFETIME_BOUND {
        return reinterpret_cast<const nlmsghdr*>(bytes_.data());
    }
    /// @}
    /// All bytes, a multiple of 4; valid until more is appended.
    std::span<const uint8_t> bytes() const MOX_LIFETIME_BOUND { return bytes_; }
    /// Gives the bytes up. The message must not be used any more.
    std::vector<uint8_t> bytesRelease() { return std::move(bytes_); }

  private:
    void* append(std::size_t bytes);

    std::vector<uint8_t> bytes_;
};

}  // namespace Pavo
