// What the configuration of a peer means for its sockets.
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>

#include "Mox/Trace.h"
#include "Pavo/tcp/TcpPeer.h"
#include "Pavo/tcp/TcpPeering.h"
#include "Pavo/tcp/TcpSockOpt.h"
#include "Pavo/value/IpGenAddrWithMask.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPeer");

}  // namespace

Mox::Ptr<TcpClientConfig> TcpPeer::clientConfig() const {
    const auto config = tcpClientConfigFactory(config_.address, config_.port);
    TcpSocketOptions options;
    config->networkNamespaceIs(peering_->netNs());
    config->clientIpAddrIs(config_.localAddress);
    config->ifIndexIs(config_.ifIndex);
    config->timeoutIs(config_.connectTimeoutSeconds);
    config->kernelTcpTimeoutIs(UINT32_MAX);  // The peering plans the next attempt.
    if (config_.minTtl != IpTtl(0)) {
        config->txTtlIs(IpTtl::max);
        config->rxMinTtlIs(config_.minTtl);
        options = options | optionTxTtl | optionRxMinTtl;
    }
    if (config_.dscp != IpDscp(0)) {
        config->txDsIs(config_.dscp);
        options = options | optionTxDs;
    }
    if (!config_.md5Key.empty()) {
        config->md5AuthIs(IpGenAddrWithMask(config_.address), config_.md5Key);
        options = options | optionMd5Auth;
    }
    config->optionsIs(options);
    return config;
}

// Without TCP_NODELAY a small message would wait for the acknowledgement of the one before, up to
// 40 ms.
void TcpPeer::applyToSocket(const TcpConnSocket& connection) const {
    const AddressFamily af = config_.address.af();
    const int sd = connection.fileDescriptor()->descriptor();
    const bool isProtected = config_.minTtl != IpTtl(0);
    if (setSockOptTxTtl(af, sd, isProtected, IpTtl::max) != 0 ||
        setSockOptRxMinTtl(af, sd, isProtected, config_.minTtl) != 0 ||
        setSockOptTxDs(af, sd, config_.dscp != IpDscp(0), config_.dscp) != 0 ||
        setSocketOptionInteger(sd, IPPROTO_TCP, TCP_NODELAY, 1, /*verify=*/false) != 0) {
        MOX_TRACE(facility, 0, config_.address, ": setsockopt() error: errno=", errno);
    }
}

}  // namespace Pavo
