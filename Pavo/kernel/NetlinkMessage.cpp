#include "Pavo/kernel/NetlinkMessage.h"

#include <linux/rtnetlink.h>

#include "Mox/Exception.h"

namespace Pavo {

namespace {

constexpr std::size_t headBytes = sizeof(rtattr);
constexpr std::size_t maxPayload = UINT16_MAX - headBytes;

[[noreturn]] void throwTooLong() {
    Mox::throwRangeException("NetlinkMessage: attribute of more than 65535 bytes");
}

}  // namespace

NetlinkMessage::NetlinkMessage(uint16_t type, uint16_t flags) : bytes_(sizeof(nlmsghdr)) {
    header()->nlmsg_len = sizeof(nlmsghdr);
    header()->nlmsg_type = type;
    header()->nlmsg_flags = flags;
}

NetlinkMessage::NetlinkMessage(const nlmsghdr& message) : bytes_(NLMSG_ALIGN(message.nlmsg_len)) {
    std::memcpy(bytes_.data(), &message, message.nlmsg_len);
    header()->nlmsg_len = static_cast<uint32_t>(bytes_.size());
}

void* NetlinkMessage::append(std::size_t bytes) {
    const std::size_t start = bytes_.size();
    bytes_.resize(start + NLMSG_ALIGN(bytes));
    header()->nlmsg_len = static_cast<uint32_t>(bytes_.size());
    return bytes_.data() + start;
}

void NetlinkMessage::attributeIs(uint16_t type, std::span<const uint8_t> payload) {
    if (payload.size() > maxPayload) {
        throwTooLong();
    }
    auto* const place = static_cast<uint8_t*>(append(headBytes + payload.size()));
    const rtattr head = {static_cast<uint16_t>(headBytes + payload.size()), type};
    std::memcpy(place, &head, headBytes);
    if (!payload.empty()) {
        std::memcpy(place + headBytes, payload.data(), payload.size());
    }
}

void NetlinkMessage::attributeIs(uint16_t type, std::string_view text) {
    if (text.size() + 1 > maxPayload) {
        throwTooLong();
    }
    auto* const place = static_cast<uint8_t*>(append(headBytes + text.size() + 1));
    const rtattr head = {static_cast<uint16_t>(headBytes + text.size() + 1), type};
    std::memcpy(place, &head, headBytes);
    std::memcpy(place + headBytes, text.data(), text.size());  // A NUL follows already.
}

std::size_t NetlinkMessage::nestBegin(uint16_t type) {
    const std::size_t nest = bytes_.size();
    attributeIs(type | NLA_F_NESTED);
    return nest;
}

void NetlinkMessage::nestEnd(std::size_t nest) {
    const std::size_t length = bytes_.size() - nest;
    if (length > UINT16_MAX) {
        bytes_.resize(nest);
        header()->nlmsg_len = static_cast<uint32_t>(nest);
        throwTooLong();
    }
    const auto length16 = static_cast<uint16_t>(length);
    std::memcpy(bytes_.data() + nest, &length16, sizeof(length16));
}

}  // namespace Pavo
