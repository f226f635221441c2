#include "Pavo/ip/IpSocketPam.h"

#include <netinet/in.h>

#include <utility>
#include <vector>

#include "Pavo/ip/RawIpFamily.h"
#include "Pavo/pam/BpfFilter.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::IpSocketPam");

const IpSocketPam& pamOf(const RawIpPam& pam) {
    return static_cast<const IpSocketPam&>(pam);
}

void ttlIs(int fd, int ttl) {
    ip4Family().ttlIs(fd, ttl);
}

void applyMcastTtl(const SocketOptionChange& change) {
    if (const IpTtl ttl = pamOf(rawPamOf(change)).txMcastTTL(); ttl != IpTtl()) {
        ip4Family().mcastTtlIs(change.fd, ttl.value());
    }
}

void routerAlertIs(int fd, bool on) {
    static constexpr uint8_t option[] = {148, 4, 0, 0};  // RFC 2113, 2.1.
    socketOptionIs(fd, IPPROTO_IP, IP_OPTIONS, option, on ? sizeof(option) : 0,
                   "setsockopt(IP_OPTIONS)");
}

constexpr auto table = joinedOptions(
    rawIpOptions(ip4OptionRows,
                 std::array{ipOption<IPPROTO_IP>(ipHdrIncl, IP_HDRINCL, "setsockopt(IP_HDRINCL)")},
                 std::array{ipOption<IPPROTO_IP>(ipRouterAlert, IP_ROUTER_ALERT,
                                                 "setsockopt(IP_ROUTER_ALERT)")},
                 applyRawTtl<ttlIs>, applyRawPktOptions<routerAlertIs>),
    std::array{SocketOption{none, applyMcastTtl}});

constexpr RawIpFamily family{
    .className = "IpSocketPam",
    .trace = &facility,
    .ip = ip4Family,
    .options = table,
    .isRxIpHdrWithKernel = false,
    .groupTtl = [](const RawIpPam& pam) { return pamOf(pam).txMcastTTL().value(); },
    .ttlIs = ttlIs,
    .routerAlertIs = routerAlertIs,
};

}  // namespace

IpSocketPam::IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name), protocol, std::move(netNs), family) {}

IpSocketPam::~IpSocketPam() = default;

void IpSocketPam::txMcastTTLIs(IpTtl ttl) {
    const auto apply = [this] {
        if (fileDesc()) {
            const int value = txMcastTTL_ == IpTtl() ? -1 : int{txMcastTTL_.value()};
            ip4Family().mcastTtlIs(fileDesc()->descriptor(), value);
        }
    };
    if (handled(txMcastTTL_, ttl, apply)) {
        notify(txMcastTTLAttr);
    }
}

Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                         NamespaceName netNs) {
    return Mox::make<IpSocketPam>(std::move(name), protocol, std::move(netNs));
}

Mox::String rxFilterFromText(const Mox::String& expression, Mox::Ptr<IpSocketPam> pam) {
    std::vector<IpFilter> program;
    Mox::String error = ipFilterFromText(expression, &program);
    if (!error.empty()) {
        return error;
    }
    const auto count = static_cast<uint32_t>(program.size());
    for (uint32_t i = 0; i < count; ++i) {
        pam->rxFilterIs(static_cast<uint8_t>(i), program[i]);
    }
    for (uint32_t i = pam->rxFilter().members(); i > count; --i) {
        pam->rxFilterDel(static_cast<uint8_t>(i - 1));
    }
    return {};
}

}  // namespace Pavo
