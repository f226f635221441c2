#include "Pavo/ip/UdpPam.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Pavo/ip/IpFamily.h"
#include "Pavo/ip/IpOptions.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/ip/IpTx.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/SocketOptions.h"
#include "Pavo/socket/SocketAt.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::UdpPam");

const UdpPam& pamOf(const SocketOptionChange& change) {
    return static_cast<const UdpPam&>(change.settings.pam);
}

// The kernel verifies a least TTL for TCP only, so a filter does it for UDP, before the agent's
// program. Without either there is no filter.
void filterIs(const SocketSettings& settings, int fd, uint32_t minTtl, bool hasProgram) {
    constexpr uint32_t all = 0xffffffff;
    const uint32_t place = settings.family->addressFamily() == ipv4 ? 8 : 7;
    const std::array<sock_filter, 4> check{
        {{BPF_LD | BPF_B | BPF_ABS, 0, 0, static_cast<uint32_t>(SKF_NET_OFF) + place},
         {BPF_JMP | BPF_JGE | BPF_K, 1, 0, minTtl},
         {BPF_RET | BPF_K, 0, 0, 0},
         {BPF_RET | BPF_K, 0, 0, all}}};
    const bool isEmpty = settings.rxFilter.members() == 0;
    if (hasProgram) {  // An empty one is refused.
        const auto first = std::span(check).first(minTtl != 0 && !isEmpty ? 3 : 0);
        attachSocketFilter(settings.trace, fd, first, settings.rxFilter);
    } else if (minTtl != 0) {
        attachSocketFilter(settings.trace, fd, check, {});
    } else {
        socketOptionIs(fd, SOL_SOCKET, SO_DETACH_FILTER, 0, "setsockopt(SO_DETACH_FILTER)");
    }
}

void applyFilter(const SocketOptionChange& change) {
    filterIs(change.settings, change.fd, pamOf(change).rxMinTtl().value(), change.on);
}

void applyMinTtl(const SocketOptionChange& change) {
    const uint32_t minTtl = pamOf(change).rxMinTtl().value();
    if (minTtl != 0 && (change.settings.options & ipAttachFilter) == 0) {
        filterIs(change.settings, change.fd, minTtl, /*hasProgram=*/false);
    }
}

void applyTtl(const SocketOptionChange& change) {
    if (const IpTtl ttl = pamOf(change).txTtl(); ttl != IpTtl()) {
        change.settings.family->ttlIs(change.fd, ttl.value());
    }
    if (const IpTtl ttl = pamOf(change).txMcastTtl(); ttl != IpTtl()) {
        change.settings.family->mcastTtlIs(change.fd, ttl.value());
    }
}

void applyMcastIf(const SocketOptionChange& change) {
    if (const uint32_t ifIndex = pamOf(change).txMcastIfIndex()) {
        change.settings.family->mcastIfIndexIs(change.fd, ifIndex);
    }
}

// An interface whose name is too long is another one for the kernel, which cuts the name.
void applyDevice(const SocketOptionChange& change) {
    static constexpr char failure[] = "setsockopt(SO_BINDTODEVICE)";
    const Mox::String& device = pamOf(change).device();
    if (device.bytes() >= IFNAMSIZ) {
        throw Mox::ErrnoException(ENODEV, failure);
    }
    if (!device.empty()) {
        socketOptionIs(change.fd, SOL_SOCKET, SO_BINDTODEVICE, device.data(), device.bytes(),
                       failure);
    }
}

// A switch that is set at every enabling.
template <int value>
void applyAlways(const SocketOptionChange& change) {
    socketOptionIs(change.fd, change.option.level, change.option.number, value,
                   change.option.failure);
}

constexpr std::array<SocketOption, 2> reuseOptions{
    {{ipReuseAddr, SocketOptionSteps::plain, SOL_SOCKET, SO_REUSEADDR, "setsockopt(SO_REUSEADDR)"},
     {ipReusePort, SocketOptionSteps::plain, SOL_SOCKET, SO_REUSEPORT,
      "setsockopt(SO_REUSEPORT)"}}};

constexpr auto optionsOf(const IpOptionRows& family) {
    return joinedOptions(reuseOptions, family.first,
                         ipCommonOptions(family, {ipAttachFilter, applyFilter}, {none, applyTtl}),
                         std::array<SocketOption, 3>{
                             {{none, applyMinTtl}, {none, applyMcastIf}, {none, applyDevice}}});
}

constexpr auto ip4Options =
    joinedOptions(optionsOf(ip4OptionRows),
                  std::array{SocketOption{none, applyAlways<0>, IPPROTO_IP, IP_MULTICAST_ALL,
                                          "setsockopt(IP_MULTICAST_ALL)"}});
constexpr auto ip6Options = joinedOptions(
    optionsOf(ip6OptionRows),
    std::array<SocketOption, 2>{
        {{none, applyAlways<0>, IPPROTO_IPV6, IPV6_MULTICAST_ALL, "setsockopt(IPV6_MULTICAST_ALL)"},
         {none, applyAlways<1>, IPPROTO_IPV6, IPV6_V6ONLY, "setsockopt(IPV6_V6ONLY)"}}});

SocketOptionTable tableOf(const IpFamily& family) {
    return family.addressFamily() == ipv4 ? SocketOptionTable(ip4Options)
                                          : SocketOptionTable(ip6Options);
}

int kernelTtl(IpTtl ttl) {
    return ttl == IpTtl() ? -1 : int{ttl.value()};
}

}  // namespace

UdpPam::UdpPam(Mox::String name, NamespaceName netNs)
    : EntityOf(std::move(name), stepsOf<UdpPam>(), socketStepsOf<UdpPam>(), facility, "UdpPam"),
      netNs_(std::move(netNs)) {
    tapsWhatItSendsIs(true);
}

UdpPam::~UdpPam() = default;

void UdpPam::transportIs(std::unique_ptr<IpTransport> transport) {
    Mox::require(!enabled(), "!enabled()");
    transport_ = std::move(transport);
}

SocketOptionTable UdpPam::optionTable() const {
    return tableOf(*family_);
}

SocketSettings UdpPam::socketSettings() const {
    return {*this, facility, family_, options(), rxFilter_, rxBuf(), priority(), txTos_};
}

void UdpPam::open() {
    if (!transport_) {
        requireEventLoop();
    }
    const AddressFamily af = localAddr_.af() != ipunknown ? localAddr_.af() : remoteAddr_.af();
    if (af == ipunknown) {
        throw Mox::ErrnoException(EAFNOSUPPORT, "socketAt");
    }
    family_ = af == ipv4 ? &ip4Family() : &ip6Family();
    if (transport_) {
        boundPort_ = transport_->open(af, &socket());
    } else {
        openSocket();
    }
    peer_ = mode_ == Mode::client ? remote() : IpGenAddrAndPort();
}

void UdpPam::openSocket() {
    const int fd = socketAt(family_->names().domain, SOCK_DGRAM, 0, netNs_.value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    configureSocket(optionTable(), socketSettings(), fd);
    if (mode_ == Mode::client) {
        connectTo(fd);
    } else {
        bindTo(fd);
    }
    SockAddr bound;
    if (getsockname(fd, bound.get(), bound.room()) < 0) {
        Mox::throwErrnoException("getsockname");
    }
    descriptor->nonBlockingIs(true);
    receiver().formatIs(*family_);
    boundPort_ = bound.port();
    maxSegmentBytes_ = 0xffff;
    socket().fileDescIs(descriptor);
}

void UdpPam::bindTo(int fd) const {
    const AddressFamily af = family_->addressFamily();
    const SockAddr name(localAddr_.af() == af ? localAddr_ : IpGenAddr(af), localPort_);
    if (bind(fd, name.get(), name.length) < 0) {
        Mox::throwErrnoException("bind");
    }
}

// Datagrams that arrive before the socket is connected would stay in its queue, so it takes nothing
// until then.
void UdpPam::connectTo(int fd) const {
    if (remoteAddr_.af() != family_->addressFamily()) {
        throw Mox::ErrnoException(remoteAddr_.af() == ipunknown ? EDESTADDRREQ : EAFNOSUPPORT,
                                  "connect");
    }
    static constexpr sock_filter nothing[] = {{BPF_RET | BPF_K, 0, 0, 0}};
    attachSocketFilter(facility, fd, nothing, {});
    bindTo(fd);
    const SockAddr name(remoteAddr_, remotePort_);
    if (connect(fd, name.get(), name.length) < 0) {
        Mox::throwErrnoException("connect");
    }
    filterIs(socketSettings(), fd, rxMinTtl_.value(), (options() & ipAttachFilter) != 0);
}

void UdpPam::close() {
    boundPort_ = 0;
    peer_ = IpGenAddrAndPort();
    if (transport_) {
        transport_->close();
    }
    socket().close();
}

void UdpPam::rxFilterIs(uint8_t index, IpFilter instruction) {
    if (rxFilter_.is(index, instruction)) {
        notify(rxFilterAttr, index);
    }
}

void UdpPam::rxFlagsIs(int flags) {
    if (changed(rxFlags_, flags)) {
        socket().readIsPossibleAgain();
        notify(rxFlagsAttr);
    }
}

void UdpPam::handleMode() {}

void UdpPam::handleNetNs() {}

void UdpPam::handleTxTos() {
    if (socket().isOpen()) {
        socketTosIs(socketSettings(), socket().number());
    }
}

void UdpPam::modeIs(Mode mode) {
    const Mox::Ptr<UdpPam> hold(this);  // The handler may drop the endpoint.
    if (handled(mode_, mode, [this] { handleMode(); })) {
        notify(modeAttr);
    }
}

void UdpPam::netNsIs(const NamespaceName& netNs) {
    const Mox::Ptr<UdpPam> hold(this);  // The handler may drop the endpoint.
    if (handled(netNs_, netNs, [this] { handleNetNs(); })) {
        notify(netNsAttr);
    }
}

void UdpPam::txTosIs(IpDscp tos) {
    const Mox::Ptr<UdpPam> hold(this);  // The handler may drop the endpoint.
    if (handled(txTos_, tos, [this] { handleTxTos(); })) {
        notify(txTosAttr);
    }
}

void UdpPam::txTtlIs(IpTtl ttl) {
    if (applied(txTtl_, ttl, [&](int fd) { family_->ttlIs(fd, kernelTtl(ttl)); })) {
        notify(txTtlAttr);
    }
}

void UdpPam::txMcastTtlIs(IpTtl ttl) {
    if (applied(txMcastTtl_, ttl, [&](int fd) { family_->mcastTtlIs(fd, kernelTtl(ttl)); })) {
        notify(txMcastTtlAttr);
    }
}

void UdpPam::txMcastIfIndexIs(uint32_t ifIndex) {
    if (applied(txMcastIfIndex_, ifIndex, [&](int fd) { family_->mcastIfIndexIs(fd, ifIndex); })) {
        notify(txMcastIfIndexAttr);
    }
}

void UdpPam::rxMinTtlIs(IpTtl ttl) {
    const auto apply = [&](int fd) {
        filterIs(socketSettings(), fd, ttl.value(), (options() & ipAttachFilter) != 0);
    };
    if (applied(rxMinTtl_, ttl, apply)) {
        notify(rxMinTtlAttr);
    }
}

void UdpPam::remoteIs(const IpGenAddrAndPort& remote) {
    const Mox::Ptr<UdpPam> hold(this);
    const bool isOtherAddress = changed(remoteAddr_, remote.address());
    const bool isOtherPort = changed(remotePort_, remote.port());
    if (isOtherAddress) {
        notify(remoteAddrAttr);
    }
    if (isOtherPort) {
        notify(remotePortAttr);
    }
}

void UdpPam::membershipIs(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr* source,
                          bool member) {
    Mox::require(enabled(), "enabled()");
    const int fd = socket().isOpen() ? socket().number() : -1;  // While it is being disabled.
    if (transport_) {
        transport_->membershipIs(ifIndex, group, source, member);
    } else if (source == nullptr) {
        family_->membershipIs(fd, ifIndex, group, member);
    } else {
        family_->membershipIs(fd, ifIndex, group, *source, member);
    }
}

void UdpPam::doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group) {
    membershipIs(ifIndex, group, nullptr, /*member=*/true);
}

void UdpPam::doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group) {
    membershipIs(ifIndex, group, nullptr, /*member=*/false);
}

void UdpPam::doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr& source) {
    membershipIs(ifIndex, group, &source, /*member=*/true);
}

void UdpPam::doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr& source) {
    membershipIs(ifIndex, group, &source, /*member=*/false);
}

Mox::Ptr<UdpPam> udpPamFactory(Mox::String name, NamespaceName netNs) {
    return Mox::make<UdpPam>(std::move(name), std::move(netNs));
}

}  // namespace Pavo
