/// @file
/// The differences between the raw IP endpoints of the two families. For the endpoints themselves;
/// an agent does not need it.
#pragma once

#include <array>
#include <cstddef>

#include "Mox/Trace.h"
#include "Pavo/ip/IpFamily.h"
#include "Pavo/ip/IpOptions.h"
#include "Pavo/ip/IpTx.h"
#include "Pavo/ip/RawIpPam.h"
#include "Pavo/pam/SocketOptions.h"

namespace Pavo {

/// What makes a raw endpoint one of IPv4 or IPv6, beside what its sockets have in common with all
/// others of the family. Each family has one constant of static storage.
struct RawIpFamily {
    /// The endpoint's class, for traces.
    const char* className;
    const Mox::TraceFacility* trace;
    const IpFamily& (*ip)();
    SocketOptionTable options;
    /// A received packet begins after its IP header, except for endpoints of the reserved protocol.
    bool isRxIpHdrWithKernel;

    /// The TTL of packets to groups; 0 where the kernel chooses.
    uint8_t (*groupTtl)(const RawIpPam& pam);
    /// `txTTL` on an open socket; -1 stands for the kernel's default.
    /// @throws Mox::ErrnoException naming the option.
    void (*ttlIs)(int fd, int ttl);
    /// The packet option `ipPktRouterAlert` on an open socket.
    /// @throws Mox::ErrnoException naming the option.
    void (*routerAlertIs)(int fd, bool on);
};

/// The table of a raw endpoint: `before` and `after` surround the family's first rows; `ttl` and
/// `pktOptions` are steps of every enabling.
template <std::size_t beforeCount, std::size_t afterCount>
constexpr auto rawIpOptions(const IpOptionRows& family,
                            const std::array<SocketOption, beforeCount>& before,
                            const std::array<SocketOption, afterCount>& after,
                            void (*ttl)(const SocketOptionChange&),
                            void (*pktOptions)(const SocketOptionChange&)) {
    return joinedOptions(
        before, family.first, after,
        ipCommonOptions(family, {ipAttachFilter, SocketOptionSteps::filter}, {none, ttl}),
        std::array{SocketOption{none, pktOptions}});
}

/// The endpoint whose socket is configured.
inline const RawIpPam& rawPamOf(const SocketOptionChange& change) {
    return static_cast<const RawIpPam&>(change.settings.pam);
}

/// The two steps, for a family's functions.
/// @{
template <void (*ttlIs)(int fd, int ttl)>
void applyRawTtl(const SocketOptionChange& change) {
    if (const IpTtl ttl = rawPamOf(change).txTTL(); ttl != IpTtl()) {
        ttlIs(change.fd, ttl.value());
    }
}
template <void (*routerAlertIs)(int fd, bool on)>
void applyRawPktOptions(const SocketOptionChange& change) {
    if (rawPamOf(change).ipPktOption(ipPktRouterAlert)) {
        routerAlertIs(change.fd, true);
    }
}
/// @}

}  // namespace Pavo
