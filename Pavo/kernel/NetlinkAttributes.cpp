#include "Pavo/kernel/NetlinkAttributes.h"

#include <algorithm>

#include "Mox/Assert.h"

namespace Pavo {

NetlinkAttributes::NetlinkAttributes(const nlmsghdr& message, std::size_t bodyBytes,
                                     uint16_t highest)
    : highest_(highest) {
    const std::size_t offset = sizeof(nlmsghdr) + NLMSG_ALIGN(bodyBytes);
    if (message.nlmsg_len > offset) {
        list_ = {reinterpret_cast<const uint8_t*>(&message) + offset, message.nlmsg_len - offset};
    }
    readAll();
    isSound_ = isSound_ && message.nlmsg_len >= sizeof(nlmsghdr) + bodyBytes;
}

NetlinkAttributes::NetlinkAttributes(std::span<const uint8_t> list, uint16_t highest)
    : list_(list), highest_(highest) {
    readAll();
}

void NetlinkAttributes::readAll() {
    Mox::require(highest_ <= maxType, "highest <= maxType");
    std::fill_n(payloads_.begin(), highest_ + 1, 0u);
    std::size_t offset = 0;
    while (list_.size() - offset >= sizeof(rtattr)) {
        rtattr head;
        std::memcpy(&head, list_.data() + offset, sizeof(head));
        if (head.rta_len < sizeof(head) || head.rta_len > list_.size() - offset) {
            break;
        }
        const auto type = static_cast<uint16_t>(head.rta_type & NLA_TYPE_MASK);
        if (type <= highest_) {
            payloads_[type] = static_cast<uint32_t>(offset + sizeof(head));
        }
        // The last one may lack its padding.
        offset = std::min<std::size_t>(offset + RTA_ALIGN(head.rta_len), list_.size());
    }
    isSound_ = offset == list_.size();
}

std::string_view NetlinkAttributes::text(uint16_t type) const {
    const std::span<const uint8_t> bytes = payload(type);
    const std::string_view all(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return all.substr(0, all.find('\0'));
}

}  // namespace Pavo
