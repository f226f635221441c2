/// @file
/// What a netlink session sends to and receives from: a socket, or what stands in for one in tests.
#pragma once

#include <linux/netlink.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <span>

#include "Mox/FwkType.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The two ports of a session: one for requests and the dumps that the caller asks for, one
/// for notifications together with the dumps of the tables that are followed.
enum class NetlinkPortUse { requests, monitor };

/// One end of a netlink socket. Buffers are aligned to 4 bytes and hold whole datagrams of one or
/// more messages.
class PAVO_EXPORT NetlinkPort : public Mox::Described<NetlinkPort> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::NetlinkPort"); }

    /// The port number of this end, which answers to its requests carry in `nlmsg_pid`.
    virtual uint32_t portId() const = 0;
    /// The size of the receive buffer, as the kernel counts it.
    virtual uint32_t rcvBufBytes() const = 0;
    /// Sends messages as one datagram. Returns 0 or an `errno`.
    virtual int send(std::span<const uint8_t> messages) = 0;
    /// Receives one datagram. Returns its length, which is larger than `buffer` where it was cut,
    /// and the sender in `*sender`, 0 for the kernel; or -1 with `errno`, EAGAIN when there is
    /// none.
    virtual ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) = 0;
    /// After one or more `receive`: whether `readable` is to be called again, in the next turn,
    /// although nothing new comes.
    virtual void receiveTried(bool moreMayWait) = 0;
    /// Joins or leaves a multicast group, such as RTNLGRP_LINK.
    /// @throws Mox::ErrnoException naming the call.
    virtual void groupIs(uint32_t group, bool isMember) = 0;
    /// From now on calls `readable` from the event loop when datagrams wait, or may; null ends
    /// that. Never calls it from inside another function of this class.
    virtual void readableIs(std::function<void()> readable) = 0;

  protected:
    ~NetlinkPort() override;
};

/// Opens a port.
/// @throws Mox::ErrnoException naming the call; nothing is left open.
using NetlinkPortOpener = std::function<Mox::Ptr<NetlinkPort>(NetlinkPortUse use)>;

/// Opens sockets of netlink protocol `protocol` in a namespace, watched by the event loop of the
/// thread. They get texts of errors (NETLINK_EXT_ACK), short acknowledgements (NETLINK_CAP_ACK)
/// and, with NETLINK_ROUTE, strict checks of dump requests (NETLINK_GET_STRICT_CHK) where the
/// kernel has these (netlink(7)). `rcvBufBytes` sizes the receive buffer of the monitor, above the
/// kernel's ceiling where the process may (SO_RCVBUFFORCE); 0 leaves the system's size.
/// @throws Mox::ErrnoException "socketAt(<namespace>)", "fcntl(F_SETFL)", "setsockopt(SO_RCVBUF)",
/// "bind", "getsockname", "getsockopt(SO_RCVBUF)" or "epoll_ctl".
/// @pre an event loop on this thread (assertion "EventLoop::current(): a netlink socket needs an
/// event loop").
PAVO_EXPORT NetlinkPortOpener netlinkSocketOpener(NamespaceName netNs, int protocol = NETLINK_ROUTE,
                                                  uint32_t rcvBufBytes = 0);

}  // namespace Pavo
