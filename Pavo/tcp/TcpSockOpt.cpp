#include "Pavo/tcp/TcpSockOpt.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/packet/ByteReader.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpSockOpt");

constexpr uint32_t v4MappedPrefixBits = 96;  // ::ffff:0.0.0.0/96
constexpr uint32_t md5KeyLimit = TCP_MD5SIG_MAXKEYLEN;
static_assert(sizeof(tcp_md5sig) == 216 && md5KeyLimit == 80);

struct SockOpt {
    int level;
    int optname;
};
// One option, as each family has it.
struct SockOptByFamily {
    SockOpt v4;
    SockOpt v6;
};

constexpr SockOptByFamily txTtlOpt{{IPPROTO_IP, IP_TTL}, {IPPROTO_IPV6, IPV6_UNICAST_HOPS}};
constexpr SockOptByFamily txDsOpt{{IPPROTO_IP, IP_TOS}, {IPPROTO_IPV6, IPV6_TCLASS}};
constexpr SockOptByFamily rxMinTtlOpt{{IPPROTO_IP, IP_MINTTL}, {IPPROTO_IPV6, IPV6_MINHOPCOUNT}};
constexpr SockOptByFamily pathMtuDiscoveryOpt{{IPPROTO_IP, IP_MTU_DISCOVER},
                                              {IPPROTO_IPV6, IPV6_MTU_DISCOVER}};
constexpr SockOptByFamily dontRouteOpt{{SOL_SOCKET, SO_DONTROUTE}, {IPPROTO_IPV6, IPV6_UNICAST_IF}};
static_assert(IP_PMTUDISC_DO == 2 && IPV6_PMTUDISC_DO == 2 && IP_PMTUDISC_DONT == 0);

int setByFamily(AddressFamily af, int sd, const SockOptByFamily& option, int value, bool verify) {
    Mox::require(af == ipv4 || af == ipv6, "Unexpected af");
    const SockOpt& one = af == ipv4 ? option.v4 : option.v6;
    return setSocketOptionInteger(sd, one.level, one.optname, value, verify);
}

// The bits of an option's value that the kernel keeps unchanged.
int keptBits(int level, int optname) {
    const bool isTrafficClass = (level == IPPROTO_IP && optname == IP_TOS) ||
                                (level == IPPROTO_IPV6 && optname == IPV6_TCLASS);
    constexpr int congestionBits = 0x03;
    return isTrafficClass ? ~congestionBits : ~0;
}

SockAddr nameOf(const IpGenAddr& addr, const Port& port, uint32_t ifIndex) {
    Mox::require(addr.af() == ipv4 || addr.af() == ipv6, "Unknown af");
    return SockAddr(addr, port.value(), addr.isV6LinkLocal() ? ifIndex : 0);
}

}  // namespace

int setSocketOptionInteger(int sd, int level, int optname, int value, bool verify) {
    if (setsockopt(sd, level, optname, &value, sizeof(value)) < 0) {
        return -1;
    }
    if (!verify) {
        return 0;
    }
    int verificationValue = 0;
    socklen_t valueLength = sizeof(verificationValue);
    if (getsockopt(sd, level, optname, &verificationValue, &valueLength) < 0) {
        return -1;
    }
    Mox::require(valueLength == sizeof(verificationValue),
                 "valueLength == sizeof( verificationValue )");
    Mox::require(((value ^ verificationValue) & keptBits(level, optname)) == 0,
                 "value == verificationValue");
    return 0;
}

int setSockOptTxTtl(AddressFamily af, int sd, bool enabled, IpTtl ttl) {
    return setByFamily(af, sd, txTtlOpt, enabled ? ttl.value() : -1, /*verify=*/enabled);
}

int setSockOptTxDs(AddressFamily af, int sd, bool enabled, IpDscp dscp) {
    return setByFamily(af, sd, txDsOpt, enabled ? dscp.value() : 0, /*verify=*/enabled);
}

int setSockOptRxMinTtl(AddressFamily af, int sd, bool enabled, IpTtl ttl) {
    return setByFamily(af, sd, rxMinTtlOpt, enabled ? ttl.value() : 0, /*verify=*/enabled);
}

// Not verified, since an established connection reads back the size that the handshake has agreed.
int setSockOptMaxSegSize(int sd, uint16_t bytes) {
    return setSocketOptionInteger(sd, IPPROTO_TCP, TCP_MAXSEG, bytes, /*verify=*/false);
}

int setSockOptPathMtuDiscovery(AddressFamily af, int sd, bool enable) {
    return setByFamily(af, sd, pathMtuDiscoveryOpt, enable ? IP_PMTUDISC_DO : IP_PMTUDISC_DONT,
                       /*verify=*/false);
}

// IPV6_UNICAST_IF takes the interface index in network byte order, unlike other options.
int setSockOptDontRoute(AddressFamily af, int sd, bool enabled, uint32_t ifIndex) {
    const int whenEnabled = af == ipv4 ? 1 : static_cast<int>(htonl(ifIndex));
    return setByFamily(af, sd, dontRouteOpt, enabled ? whenEnabled : 0, /*verify=*/true);
}

int setSockOptSaveSyn(int sd, bool enabled) {
    return setSocketOptionInteger(sd, IPPROTO_TCP, TCP_SAVE_SYN, enabled, /*verify=*/false);
}

// The kernel keeps the IP header and all after it.
std::optional<IpTtl> synTtl(int sd) {
    uint8_t syn[1024];
    socklen_t bytes = sizeof(syn);
    if (getsockopt(sd, IPPROTO_TCP, TCP_SAVED_SYN, syn, &bytes) < 0) {
        return std::nullopt;
    }
    ByteReader in(std::span<const uint8_t>(syn, bytes));
    const bool isFour = in.u8() >> 4 == 4;
    in.skip(isFour ? 7 : 6);
    const uint8_t ttl = in.u8();
    return in.ok() ? std::optional<IpTtl>(ttl) : std::nullopt;
}

const char* checkMd5Key(const Mox::String& key) {
    static_assert(md5KeyLimit == 80);
    if (key.empty()) {
        return "key is empty";
    }
    return key.bytes() < md5KeyLimit ? nullptr : "key has more than 79 bytes";
}

int setSockMd5AuthOption(int sd, const IpGenAddrWithMask& addrWithMask, const Mox::String& key) {
    Mox::require(key.bytes() < md5KeyLimit, "key.bytes() < 80");
    const IpGenAddr addr = addrWithMask.ipGenAddr();
    tcp_md5sig record{};
    record.tcpm_addr = nameOf(addr, Port(), 0).storage;
    record.tcpm_keylen = static_cast<uint16_t>(key.bytes());
    std::copy(key.begin(), key.end(), record.tcpm_key);
    if (!addrWithMask.isHost()) {
        // The kernel stores a mapped address as the IPv4 address, so its prefix is 0 to 32.
        const uint32_t len = addrWithMask.len();
        const bool isMapped =
            len >= v4MappedPrefixBits && IpGenAddr::getMappedV4Addr(addr).af() == ipv4;
        record.tcpm_flags = TCP_MD5SIG_FLAG_PREFIX;
        record.tcpm_prefixlen =
            static_cast<uint8_t>(std::min(isMapped ? len - v4MappedPrefixBits : len, 255u));
    }
    const int optname = addrWithMask.isHost() ? TCP_MD5SIG : TCP_MD5SIG_EXT;
    if (setsockopt(sd, IPPROTO_TCP, optname, &record, sizeof(record)) == 0) {
        return 0;
    }
    const int error = errno;
    if (error == ENOENT && key.empty()) {
        return 0;
    }
    MOX_TRACE(facility, 0, "Md5Auth error: sd=", sd, " peer=", addrWithMask, " ", strerror(error),
              error == ENOMEM ? " (net.core.optmem_max limits the keys)" : "");
    return -1;
}

IpGenAddrWithMask v4MappedPeer(const IpGenAddrWithMask& peer) {
    return {IpGenAddr::getV4MappedV6Addr(peer.ipGenAddr()), v4MappedPrefixBits + peer.len()};
}

socklen_t constructSockAddr(sockaddr* out, const IpGenAddr& addr) {
    const SockAddr name = nameOf(addr, Port(), 0);
    std::memcpy(out, &name.storage, name.length);
    return name.length;
}

int socketBind(int sd, const IpGenAddr& addr, const Port& port) {
    MOX_TRACE(facility, 5, "Bind: sd=", sd, " addr=", addr, " port=", port);
    const SockAddr local = nameOf(addr, port, 0);
    return bind(sd, local.get(), local.length);
}

int socketBindClient(int sd, AddressFamily af, const IpGenAddr& addr, uint32_t ifIndex,
                     const char** failed) {
    const char* step = "Setsockopt";
    int result = setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, /*verify=*/true);
    if (result == 0) {
        step = "Bind";
        // Defers the choice of the port to connect(2), so that connections to different peers can
        // share a port. A kernel without this option chooses the port in bind(2).
        (void)setSocketOptionInteger(sd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1, /*verify=*/false);
        MOX_TRACE(facility, 5, "Bind: sd=", sd, " addr=", addr, " ifIndex=", ifIndex);
        const SockAddr local =
            nameOf(addr.af() == ipunknown ? IpGenAddr(af) : addr, Port(), ifIndex);
        result = bind(sd, local.get(), local.length);
    }
    if (result < 0 && failed != nullptr) {
        *failed = step;
    }
    return result;
}

int socketConnect(int sd, const IpGenAddr& addr, const Port& port, uint32_t ifIndex) {
    MOX_TRACE(facility, 5, "Connect: sd=", sd, " addr=", addr, " port=", port);
    const SockAddr peer = nameOf(addr, port, ifIndex);
    const int result = connect(sd, peer.get(), peer.length);
    if (result < 0 && errno == EINPROGRESS) {
        MOX_TRACE(facility, 5, "Connection is in progress");
    }
    return result;
}

uint32_t setSockOptKeepalive(int sd, const TcpKeepaliveOptions& options) {
    const struct {
        int level;
        int optname;
        uint32_t value;
        const char* name;
    } steps[] = {
        {SOL_SOCKET, SO_KEEPALIVE, options.enabled(), "SO_KEEPALIVE"},
        {IPPROTO_TCP, TCP_KEEPIDLE, options.idleTime(), "TCP_KEEPIDLE"},
        {IPPROTO_TCP, TCP_KEEPINTVL, options.probeInterval(), "TCP_KEEPINTVL"},
        {IPPROTO_TCP, TCP_KEEPCNT, options.probeCount(), "TCP_KEEPCNT"},
    };
    uint32_t failures = 0;
    for (const auto& step : steps) {
        if (step.level == IPPROTO_TCP && !options.enabled()) {
            break;
        }
        if (setSocketOptionInteger(sd, step.level, step.optname, static_cast<int>(step.value),
                                   /*verify=*/false) < 0) {
            MOX_TRACE(facility, 0, "setsockopt() error while setting ", step.name, ": ",
                      std::strerror(errno));
            ++failures;
        }
    }
    if (failures == 0 && options.enabled()) {
        MOX_TRACE(facility, 5, "Setsockopt(): TCP Keepalive enabled ",
                  "( idletime: ", options.idleTime(), ", probeinterval: ", options.probeInterval(),
                  ", probetime: ", options.probeCount(), " )");
    } else if (failures == 0) {
        MOX_TRACE(facility, 5, "Setsockopt(): TCP Keepalive disabled");
    }
    return failures;
}

}  // namespace Pavo
