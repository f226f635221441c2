/// @file
/// Fields of netlink message headers and addresses as values, and the receiver of messages.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <type_traits>

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// A netlink protocol, such as NETLINK_ROUTE (netlink(7)).
class NetlinkFamily : public Ordinal<NetlinkFamily, uint16_t, 0xffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::NetlinkFamily";
    static constexpr const char* rangeText = "NetlinkFamily::value < 0 or > 65535 not allowed";
};

/// The type of a message, `nlmsg_type`, such as RTM_NEWLINK (rtnetlink(7)).
class NetlinkMsgType : public Ordinal<NetlinkMsgType, uint16_t, 0xffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::NetlinkMsgType";
    static constexpr const char* rangeText = "NetlinkMsgType::value < 0 or > 65535 not allowed";
};

/// The flags of a message, `nlmsg_flags`: a bit mask of NLM_F_REQUEST and others.
class NetlinkMsgFlags : public Ordinal<NetlinkMsgFlags, uint16_t, 0xffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::NetlinkMsgFlags";
    static constexpr const char* rangeText = "NetlinkMsgFlags::value < 0 or > 65535 not allowed";
};

/// The address of a netlink socket, `nl_pid`: 0 is the kernel.
class NetlinkPortId : public Ordinal<NetlinkPortId, uint32_t, 0xffffffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::NetlinkPortId";
    static constexpr const char* rangeText = "NetlinkPortId::value < 0 or > 4294967295 not allowed";
};

/// The multicast groups of a netlink socket, `nl_groups`: bit n is group n + 1, such as
/// RTMGRP_LINK.
class NetlinkGroups : public Ordinal<NetlinkGroups, uint32_t, 0xffffffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::NetlinkGroups";
    static constexpr const char* rangeText = "NetlinkGroups::value < 0 or > 4294967295 not allowed";
};

static_assert(sizeof(NetlinkFamily) == 2 && sizeof(NetlinkMsgType) == 2 &&
              sizeof(NetlinkMsgFlags) == 2 && sizeof(NetlinkPortId) == 4 &&
              sizeof(NetlinkGroups) == 4);
static_assert(std::is_trivially_copyable_v<NetlinkMsgType> &&
              std::is_trivially_copyable_v<NetlinkGroups>);

/// A receiver of netlink messages: the reader of a socket passes each message to it, in order.
class PAVO_EXPORT NetlinkMessageCallback {
  public:
    /// Receives one message, `nlmsg_len` bytes with the header, which the caller owns. Unless a
    /// derived class overrides it: assertion "NetlinkMessageCallback::callback not overwritten".
    virtual void callback(nlmsghdr* message);
    virtual ~NetlinkMessageCallback() = default;
};

}  // namespace Pavo
