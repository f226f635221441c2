/// @file
/// The socket options of raw IP endpoints as a table. For the endpoints themselves; an agent does
/// not need it.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "Pavo/pam/RawIpPam.h"

namespace Pavo {

struct RawIpFamily;
struct RawIpOption;

/// One option that is to be set on the open socket of an endpoint, at enabling or later.
struct RawIpOptionChange {
    const RawIpFamily& family;
    const RawIpOption& option;
    const RawIpPam& pam;
    int fd;
    bool on;
    bool isEnabling;
};

/// One step of configuring a socket.
struct RawIpOption {
    /// The bit of `IpSocketOptions` that asks for it; `none` for a step of every enabling, which
    /// depends on another attribute.
    uint32_t bit = none;
    /// @throws Mox::ErrnoException naming the option.
    void (*apply)(const RawIpOptionChange& change) = nullptr;
    /// The system's option, where `apply` does not know it.
    int level = 0;
    int number = 0;
    const char* failure = nullptr;
    /// A socket on which a change of it has failed is closed.
    bool closesOnFailure = false;
};

/// setsockopt(2).
/// @throws Mox::ErrnoException with the text `failure`.
void socketOptionIs(int fd, int level, int option, const void* value, uint32_t bytes,
                    const char* failure);
template <class Value>
void socketOptionIs(int fd, int level, int option, const Value& value, const char* failure) {
    socketOptionIs(fd, level, option, &value, sizeof(value), failure);
}

/// @throws Mox::ErrnoException "setsockopt(SO_PRIORITY)"
void socketPriorityIs(const RawIpFamily& family, int fd, uint32_t priority);

/// What the rows of the table apply.
struct RawIpOptionSteps {
    using Change = RawIpOptionChange;

    /// An option that is 1 when on and 0 when off.
    static void plain(const Change& change);
    static void multicastLoop(const Change& change);
    static void noMulticastLoop(const Change& change);
    static void filter(const Change& change);
    static void rcvBuf(const Change& change);
    static void tos(const Change& change);
    static void ttl(const Change& change);
    static void priority(const Change& change);
    static void pktOptions(const Change& change);
};

/// A table that begins with the options of a family's level. `transparent` and `noMulticastLoop`
/// are the family's too, and have their places among the common ones.
template <std::size_t count>
constexpr auto rawIpOptions(const RawIpOption (&first)[count], const RawIpOption& transparent,
                            const RawIpOption& noMulticastLoop) {
    using Steps = RawIpOptionSteps;
    const RawIpOption common[] = {
        {ipAttachFilter, Steps::filter},
        {ipRcvBuf, Steps::rcvBuf},
        {none, Steps::tos},
        {none, Steps::ttl},
        transparent,
        {ipPriority, Steps::priority, 0, 0, nullptr, /*closesOnFailure=*/true},
        {none, Steps::pktOptions},
        noMulticastLoop,
        {ipRecvDrops, Steps::plain, SOL_SOCKET, SO_RXQ_OVFL, "setsockopt(SO_RXQ_OVFL)"},
    };
    std::array<RawIpOption, count + std::size(common)> all;
    std::copy(std::begin(common), std::end(common), std::copy_n(first, count, all.begin()));
    return all;
}

}  // namespace Pavo
