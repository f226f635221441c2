/// @file
/// The socket options of endpoints as a table. For the endpoints themselves; an agent does not need
/// it.
#pragma once

#include <linux/filter.h>
#include <sys/socket.h>

#include <cstdint>
#include <span>

#include "Mox/Collections.h"
#include "Mox/String.h"
#include "Mox/Trace.h"
#include "Pavo/pam/IpSocketOptions.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

class IpFamily;
struct SocketOption;

/// The attributes of an endpoint that concern its socket.
struct SocketSettings {
    /// The endpoint, for the options that only one class has.
    const Pam& pam;
    const Mox::TraceFacility& trace;
    /// Null for an endpoint that is not one of IP.
    const IpFamily* family;
    /// The options in force; at enabling all that are wanted.
    uint32_t options;
    const Mox::Array<IpFilter>& rxFilter;
    uint32_t rxBuf;
    uint32_t priority;
    IpDscp tos;
};

/// One option that is to be set on the open socket of an endpoint, at enabling or later.
struct SocketOptionChange {
    const SocketSettings& settings;
    const SocketOption& option;
    int fd;
    bool on;
    bool isEnabling;
};

/// One step of configuring a socket.
struct SocketOption {
    /// The bit of `IpSocketOptions` that asks for it; `none` for a step of every enabling, which
    /// depends on another attribute.
    uint32_t bit = none;
    /// @throws Mox::ErrnoException naming the option.
    void (*apply)(const SocketOptionChange& change) = nullptr;
    /// The system's option, where `apply` does not know it.
    int level = 0;
    int number = 0;
    const char* failure = nullptr;
    /// A socket on which a change of it has failed is closed.
    bool closesOnFailure = false;
};

/// In the order of enabling and of every later change.
using SocketOptionTable = std::span<const SocketOption>;

/// Configures a socket that was just opened.
/// @throws Mox::ErrnoException naming the option that failed.
void configureSocket(SocketOptionTable table, const SocketSettings& settings, int fd);

/// Changes an open socket from the options `*reached` to those that are wanted, one after the
/// other, so that `*reached` describes the socket after a failure too.
/// @throws Mox::ErrnoException naming the option that failed; `*closes` then says whether the
/// socket is to be closed.
void changeSocketOptions(SocketOptionTable table, const SocketSettings& settings, int fd,
                         uint32_t wanted, uint32_t* reached, bool* closes);

/// setsockopt(2).
/// @throws Mox::ErrnoException with the text `failure`.
void socketOptionIs(int fd, int level, int option, const void* value, uint32_t bytes,
                    const char* failure);
template <class Value>
void socketOptionIs(int fd, int level, int option, const Value& value, const char* failure) {
    socketOptionIs(fd, level, option, &value, sizeof(value), failure);
}

/// @throws Mox::ErrnoException "setsockopt(SO_PRIORITY)"
void socketPriorityIs(const Mox::TraceFacility& trace, int fd, uint32_t priority);

/// The error of a filter without instructions.
inline constexpr char noFilterText[] =
    "SO_ATTACH_FILTER option must be supplied with a valid filter";

/// Attaches one program that consists of the instructions `first` and those of `filter`.
/// @throws Mox::ErrnoException "setsockopt(SO_ATTACH_FILTER)"; with EINVAL and "SO_ATTACH_FILTER
/// option must be supplied with a valid filter" when there are no instructions.
void attachSocketFilter(const Mox::TraceFacility& trace, int fd, std::span<const sock_filter> first,
                        const Mox::Array<IpFilter>& filter);

/// The index of an interface in the namespace of a socket, or -1 with `errno` set.
int interfaceIndexAt(int fd, const Mox::String& name);

/// The functions that apply the rows of tables.
struct SocketOptionSteps {
    using Change = SocketOptionChange;

    /// An option that is 1 when on and 0 when off.
    static void plain(const Change& change);
    static void multicastLoop(const Change& change);
    static void noMulticastLoop(const Change& change);
    static void filter(const Change& change);
    static void rcvBuf(const Change& change);
    static void priority(const Change& change);
};

/// The rows that endpoints of every kind have.
/// @{
inline constexpr SocketOption rcvBufOption{ipRcvBuf, SocketOptionSteps::rcvBuf};
inline constexpr SocketOption priorityOption{ipPriority, SocketOptionSteps::priority, 0, 0,
                                             nullptr,    /*closesOnFailure=*/true};
inline constexpr SocketOption recvDropsOption{ipRecvDrops, SocketOptionSteps::plain, SOL_SOCKET,
                                              SO_RXQ_OVFL, "setsockopt(SO_RXQ_OVFL)"};
/// With 64-bit times on both word sizes.
inline constexpr SocketOption timestampOption{ipRecvTimestamp, SocketOptionSteps::plain, SOL_SOCKET,
                                              SO_TIMESTAMPNS_NEW, "setsockopt(SO_TIMESTAMPNS)"};
inline constexpr SocketOption broadcastOption{ipBroadcast, SocketOptionSteps::plain, SOL_SOCKET,
                                              SO_BROADCAST, "setsockopt(SO_BROADCAST)"};
/// @}

}  // namespace Pavo
