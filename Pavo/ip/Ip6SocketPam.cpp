#include "Pavo/ip/Ip6SocketPam.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/ip/RawIpFamily.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::Ip6SocketPam");

// The option's value is that of the alerts to receive.
void applyRouterAlert(const SocketOptionChange& change) {
    socketOptionIs(change.fd, IPPROTO_IPV6, IPV6_ROUTER_ALERT, change.on ? 0 : -1,
                   "setsockopt(IPV6_ROUTER_ALERT)");
}

void applyChecksum(const SocketOptionChange& change) {
    const int offset = static_cast<const Ip6SocketPam&>(change.settings.pam).checksumOffset();
    if (change.on && (offset < 0 || offset % 2 != 0)) {
        throw Mox::ErrnoException(EINVAL,
                                  "IPV6_CHECKSUM option must be supplied with a valid offset");
    }
    socketOptionIs(change.fd, IPPROTO_IPV6, IPV6_CHECKSUM, change.on ? offset : -1,
                   "setsockopt(IPV6_CHECKSUM)");
}

// Two options of the kernel, both changed or none.
void ttlIs(int fd, int ttl) {
    int before = 0;
    socklen_t bytes = sizeof(before);
    if (getsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &before, &bytes) < 0) {
        Mox::throwErrnoException("getsockopt(IPV6_UNICAST_HOPS)");
    }
    ip6Family().ttlIs(fd, ttl);
    try {
        ip6Family().mcastTtlIs(fd, ttl);
    } catch (...) {
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &before, sizeof(before));
        throw;
    }
}

void routerAlertIs(int fd, bool on) {
    // A whole header of eight bytes, whose first the kernel writes: router alert (RFC 2711,
    // 2.1), then two bytes of padding.
    static constexpr uint8_t hopByHop[] = {0, 0, 5, 2, 0, 0, 1, 0};
    socketOptionIs(fd, IPPROTO_IPV6, IPV6_HOPOPTS, hopByHop, on ? sizeof(hopByHop) : 0,
                   "setsockopt(IPV6_HOPOPTS)");
}

constexpr auto table = rawIpOptions(
    ip6OptionRows,
    std::array{ipOption<IPPROTO_IPV6>(ipHdrIncl, IPV6_HDRINCL, "setsockopt(IPV6_HDRINCL)")},
    std::array{SocketOption{ipRouterAlert, applyRouterAlert},
               SocketOption{ipv6Checksum, applyChecksum}},
    applyRawTtl<ttlIs>, applyRawPktOptions<routerAlertIs>);

constexpr RawIpFamily family{
    .className = "Ip6SocketPam",
    .trace = &facility,
    .ip = ip6Family,
    .options = table,
    .isRxIpHdrWithKernel = true,
    .groupTtl = [](const RawIpPam& pam) { return pam.txTTL().value(); },
    .ttlIs = ttlIs,
    .routerAlertIs = routerAlertIs,
};

}  // namespace

Ip6SocketPam::Ip6SocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs), family) {}

Ip6SocketPam::~Ip6SocketPam() = default;

Mox::Ptr<Ip6SocketPam> ip6SocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                           NamespaceName netNs) {
    return Mox::make<Ip6SocketPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
