/// @file
/// The configuration of TCP machines.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The members of `TcpSocketOptions`, each with the name of the configuration's attribute that it
/// turns on.
enum TcpSocketOption : uint8_t {
    optionTxTtl = 0x01,
    optionTxDs = 0x02,
    optionRxMinTtl = 0x04,
    optionMd5Auth = 0x08,
    optionSockMaxSegSize = 0x10,
    optionPathMtuDiscovery = 0x20,
    optionDontRoute = 0x40,
};

/// The set of values of a configuration that are applied to sockets, made with "|" of
/// `TcpSocketOption`. When a member is removed, the kernel's default is restored. Ordered as a
/// byte. Text is that of a record of seven booleans.
class TcpSocketOptions : public Mox::ValueType<TcpSocketOptions> {
  public:
    /// Every option.
    static constexpr uint8_t all = 0x7f;

    static constexpr auto description() {
        return Mox::record("Pavo::TcpSocketOptions",
                           Mox::field("value", &TcpSocketOptions::value_));
    }

    constexpr TcpSocketOptions() = default;
    constexpr TcpSocketOptions(TcpSocketOption option) : value_(option) {}
    /// @throws Mox::RangeException "Invalid TcpSocketOptions" past 0x7f
    constexpr explicit TcpSocketOptions(uint8_t value) { valueIs(value); }
    TcpSocketOptions(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit TcpSocketOptions(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid TcpSocketOptions" past 0x7f
    TcpSocketOptions(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The bits of the members.
    constexpr uint8_t value() const { return value_; }
    /// @throws Mox::RangeException "Invalid TcpSocketOptions" past 0x7f; nothing is then changed.
    constexpr void valueIs(uint8_t value) {
        if (value > all) {
            Mox::throwRangeException(invalidText);
        }
        value_ = value;
    }

    /// Whether it is a member.
    constexpr bool option(TcpSocketOption option) const { return (value_ & option) != 0; }
    /// Adds the member, or with false removes it.
    constexpr void optionIs(TcpSocketOption option, bool on) {
        value_ = static_cast<uint8_t>(on ? value_ | option : value_ & ~option);
    }

    /// Not empty.
    constexpr explicit operator bool() const { return value_ != 0; }

    /// The members of both.
    friend constexpr TcpSocketOptions operator|(TcpSocketOptions a, TcpSocketOptions b) {
        return TcpSocketOptions(static_cast<uint8_t>(a.value_ | b.value_));
    }
    friend constexpr auto operator<=>(const TcpSocketOptions&, const TcpSocketOptions&) = default;

    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;
    constexpr const char* check() const { return value_ > all ? invalidText : nullptr; }

  private:
    uint8_t value_ = 0;
};
static_assert(std::is_trivially_copyable_v<TcpSocketOptions> && sizeof(TcpSocketOptions) == 1);

/// The set of the two.
constexpr TcpSocketOptions operator|(TcpSocketOption a, TcpSocketOption b) {
    return TcpSocketOptions(a) | TcpSocketOptions(b);
}

/// The members' names without "option", as "TxTtl|Md5Auth"; "none" for the empty set.
PAVO_EXPORT Mox::String tcpOptionsToStrep(const TcpSocketOptions& options);

/// The configuration that both kinds of machine share. The owner writes it, at any time; the
/// machine reads it. A change of `options` or of an option's value reaches a live socket at once;
/// the other attributes take effect with the next socket, or the next start of a timer.
class PAVO_EXPORT TcpConfigBase : public Mox::EntityOf<TcpConfigBase> {
  public:
    static constexpr Mox::Attribute<TcpConfigBase> networkNamespaceAttr{0, "networkNamespace"};
    static constexpr Mox::Attribute<TcpConfigBase> retryIntervalAttr{1, "retryInterval"};
    static constexpr Mox::Attribute<TcpConfigBase> timeoutAttr{2, "timeout"};
    static constexpr Mox::Attribute<TcpConfigBase> optionsAttr{3, "options"};
    static constexpr Mox::Attribute<TcpConfigBase> txTtlAttr{4, "txTtl"};
    static constexpr Mox::Attribute<TcpConfigBase> txDsAttr{5, "txDs"};
    static constexpr Mox::Attribute<TcpConfigBase> rxMinTtlAttr{6, "rxMinTtl"};
    static constexpr Mox::Attribute<TcpConfigBase, IpGenAddrWithMask> md5AuthAttr{7, "md5Auth"};
    static constexpr Mox::Attribute<TcpConfigBase> sockMaxSegSizeAttr{8, "sockMaxSegSize"};
    static constexpr Mox::Attribute<TcpConfigBase> pathMtuDiscoveryAttr{9, "pathMtuDiscovery"};
    static constexpr Mox::Attribute<TcpConfigBase> edgeTriggeredFileDescriptorAttr{
        10, "edgeTriggeredFileDescriptor"};
    static constexpr Mox::Attribute<TcpConfigBase> dstIntfIfIndexAttr{11, "dstIntfIfIndex"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpConfigBase",
            Mox::attribute(networkNamespaceAttr, &TcpConfigBase::networkNamespace),
            Mox::attribute(retryIntervalAttr, &TcpConfigBase::retryInterval),
            Mox::attribute(timeoutAttr, &TcpConfigBase::timeout),
            Mox::attribute(optionsAttr, &TcpConfigBase::options),
            Mox::attribute(txTtlAttr, &TcpConfigBase::txTtl),
            Mox::attribute(txDsAttr, &TcpConfigBase::txDs),
            Mox::attribute(rxMinTtlAttr, &TcpConfigBase::rxMinTtl), Mox::attribute(md5AuthAttr),
            Mox::attribute(sockMaxSegSizeAttr, &TcpConfigBase::sockMaxSegSize),
            Mox::attribute(pathMtuDiscoveryAttr, &TcpConfigBase::pathMtuDiscovery),
            Mox::attribute(edgeTriggeredFileDescriptorAttr,
                           &TcpConfigBase::edgeTriggeredFileDescriptor),
            Mox::attribute(dstIntfIfIndexAttr, &TcpConfigBase::dstIntfIfIndex));
    }

    /// Where sockets are opened; at first the namespace in which the process started.
    const NamespaceName& networkNamespace() const { return networkNamespace_; }
    void networkNamespaceIs(const NamespaceName& name) {
        attributeIs(networkNamespace_, name, networkNamespaceAttr);
    }
    /// Seconds from a failure to the next attempt; at first 1.
    uint32_t retryInterval() const { return retryInterval_; }
    void retryIntervalIs(uint32_t seconds) {
        attributeIs(retryInterval_, seconds, retryIntervalAttr);
    }
    /// Seconds from the start after which a client gives up, and a listener stops even while it
    /// listens; 0, the default, is never.
    double timeout() const { return timeout_; }
    void timeoutIs(double seconds) { attributeIs(timeout_, seconds, timeoutAttr); }
    /// Which of the values below are applied.
    TcpSocketOptions options() const { return options_; }
    void optionsIs(TcpSocketOptions options) { attributeIs(options_, options, optionsAttr); }
    /// TTL, or unicast hop limit, of sent segments.
    IpTtl txTtl() const { return txTtl_; }
    void txTtlIs(IpTtl ttl) { attributeIs(txTtl_, ttl, txTtlAttr); }
    /// TOS byte, or traffic class, of sent segments.
    IpDscp txDs() const { return txDs_; }
    void txDsIs(IpDscp dscp) { attributeIs(txDs_, dscp, txDsAttr); }
    /// The smallest TTL, or hop limit, that is accepted: segments below it are dropped silently.
    /// With `txTtl` and `rxMinTtl` 255 and both options on at both ends, only the segments of a
    /// direct neighbour are accepted (GTSM, RFC 5082).
    IpTtl rxMinTtl() const { return rxMinTtl_; }
    void rxMinTtlIs(IpTtl ttl) { attributeIs(rxMinTtl_, ttl, rxMinTtlAttr); }
    /// The largest segment announced, in bytes: 88 to 32767, or 0 for the interface's limit.
    uint16_t sockMaxSegSize() const { return sockMaxSegSize_; }
    void sockMaxSegSizeIs(uint16_t bytes) {
        attributeIs(sockMaxSegSize_, bytes, sockMaxSegSizeAttr);
    }
    /// At first true.
    bool pathMtuDiscovery() const { return pathMtuDiscovery_; }
    void pathMtuDiscoveryIs(bool on) { attributeIs(pathMtuDiscovery_, on, pathMtuDiscoveryAttr); }
    /// Whether descriptors are watched edge-triggered; a listener's never is.
    bool edgeTriggeredFileDescriptor() const { return edgeTriggeredFileDescriptor_; }
    void edgeTriggeredFileDescriptorIs(bool on) {
        attributeIs(edgeTriggeredFileDescriptor_, on, edgeTriggeredFileDescriptorAttr);
    }
    /// The interface by which segments leave, for `optionDontRoute` of IPv6.
    uint32_t dstIntfIfIndex() const { return dstIntfIfIndex_; }
    void dstIntfIfIndexIs(uint32_t ifIndex) {
        attributeIs(dstIntfIfIndex_, ifIndex, dstIntfIfIndexAttr);
    }

    /// The keys of TCP MD5 signatures by peer, or prefix of peers (RFC 2385). A listener for both
    /// families applies keys of both; any other socket skips keys of the other family. A missing or
    /// wrong key on either side makes segments vanish, also those that refuse a connection: a
    /// client then notices only `kernelTcpTimeout`.
    ///
    /// While `optionMd5Auth` is on, an empty key is fatal when it is next applied to a socket
    /// ("!key.empty()"), and so is one of 80 bytes or more ("key.bytes() < 80"); `checkMd5Key` says
    /// so before. While it is off, keys are ignored, which the status says in its `diagnosis`.
    const Mox::Map<IpGenAddrWithMask, Mox::String>& md5Auth() const { return md5Auth_; }
    /// The key of exactly this peer or prefix; empty when there is none.
    Mox::String md5Auth(const IpGenAddrWithMask& addrWithMask) const;
    void md5AuthIs(const IpGenAddrWithMask& addrWithMask, const Mox::String& key);
    void md5AuthDel(const IpGenAddrWithMask& addrWithMask) {
        memberDel(md5Auth_, addrWithMask, md5AuthAttr);
    }
    void md5AuthDelAll() { memberDelAll(md5Auth_, md5AuthAttr); }

  protected:
    TcpConfigBase();
    ~TcpConfigBase() override;

  private:
    NamespaceName networkNamespace_;
    uint32_t retryInterval_ = 1;
    uint32_t dstIntfIfIndex_ = 0;
    double timeout_ = 0;
    Mox::Map<IpGenAddrWithMask, Mox::String> md5Auth_;
    TcpSocketOptions options_;
    IpTtl txTtl_;
    IpDscp txDs_;
    IpTtl rxMinTtl_;
    uint16_t sockMaxSegSize_ = 0;
    bool pathMtuDiscovery_ = true;
    bool edgeTriggeredFileDescriptor_ = false;
};

/// The configuration of a `TcpClientSm`: where to connect to, from where, and how long to try.
class PAVO_EXPORT TcpClientConfig : public Mox::EntityOf<TcpClientConfig, TcpConfigBase> {
  public:
    /// The default of `kernelTcpTimeout`, in seconds.
    static constexpr uint32_t kernelTcpTimeoutDefault = 20;

    static constexpr Mox::Attribute<TcpClientConfig> clientIpAddrAttr{12, "clientIpAddr"};
    static constexpr Mox::Attribute<TcpClientConfig> ifIndexAttr{13, "ifIndex"};
    static constexpr Mox::Attribute<TcpClientConfig> exponentialBackoffRetriesAttr{
        14, "exponentialBackoffRetries"};
    static constexpr Mox::Attribute<TcpClientConfig> kernelTcpTimeoutAttr{15, "kernelTcpTimeout"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpClientConfig",
            Mox::attribute(clientIpAddrAttr, &TcpClientConfig::clientIpAddr),
            Mox::attribute(ifIndexAttr, &TcpClientConfig::ifIndex),
            Mox::attribute(exponentialBackoffRetriesAttr,
                           &TcpClientConfig::exponentialBackoffRetries),
            Mox::attribute(kernelTcpTimeoutAttr, &TcpClientConfig::kernelTcpTimeout));
    }

    TcpClientConfig(const IpGenAddr& serverIpAddr, Port serverPort)
        : serverIpAddr_(serverIpAddr), serverPort_(serverPort) {}

    /// Determines the family of the connection.
    const IpGenAddr& serverIpAddr() const { return serverIpAddr_; }
    /// In host order, as every `Port`.
    Port serverPort() const { return serverPort_; }
    /// The local address. The kernel chooses one if this is the wildcard, or of unknown family, as
    /// it is at first.
    const IpGenAddr& clientIpAddr() const { return clientIpAddr_; }
    void clientIpAddrIs(const IpGenAddr& addr) {
        attributeIs(clientIpAddr_, addr, clientIpAddrAttr);
    }
    /// The scope of an IPv6 link-local address of either end.
    uint32_t ifIndex() const { return ifIndex_; }
    void ifIndexIs(uint32_t ifIndex) { attributeIs(ifIndex_, ifIndex, ifIndexAttr); }
    /// After this many failed attempts the delay returns to `retryInterval`; until then it doubles
    /// with each attempt. With 3 and an interval of 2 s the delays are 2, 4, 8, 2, 4 s and so on.
    /// With 0, as at first, it never doubles.
    uint32_t exponentialBackoffRetries() const { return exponentialBackoffRetries_; }
    void exponentialBackoffRetriesIs(uint32_t retries) {
        attributeIs(exponentialBackoffRetries_, retries, exponentialBackoffRetriesAttr);
    }
    /// Seconds after which a pending connect is abandoned and the next attempt starts.
    uint32_t kernelTcpTimeout() const { return kernelTcpTimeout_; }
    void kernelTcpTimeoutIs(uint32_t seconds) {
        attributeIs(kernelTcpTimeout_, seconds, kernelTcpTimeoutAttr);
    }

  protected:
    ~TcpClientConfig() override;

  private:
    IpGenAddr serverIpAddr_;
    Port serverPort_;
    IpGenAddr clientIpAddr_;
    uint32_t ifIndex_ = 0;
    uint32_t exponentialBackoffRetries_ = 0;
    uint32_t kernelTcpTimeout_ = kernelTcpTimeoutDefault;
};

/// The configuration of a `TcpServerSm`: where to listen.
class PAVO_EXPORT TcpServerConfig : public Mox::EntityOf<TcpServerConfig, TcpConfigBase> {
  public:
    static constexpr Mox::Attribute<TcpServerConfig, IpGenAddrWithMask> peerRxMinTtlAttr{
        12, "peerRxMinTtl"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpServerConfig", Mox::attribute(peerRxMinTtlAttr));
    }

    TcpServerConfig(const IpGenAddr& listenIpAddr, Port listenPort)
        : listenIpAddr_(listenIpAddr), listenPort_(listenPort) {}

    /// Determines the family of the listener. For both families it is ::, with `v6Only` of the
    /// machine off; IPv4 peers then have mapped addresses (`IpGenAddr::getMappedV4Addr`).
    const IpGenAddr& listenIpAddr() const { return listenIpAddr_; }
    /// The machine refuses 0.
    Port listenPort() const { return listenPort_; }

    /// The smallest TTL, or hop limit, of single peers or prefixes of peers, of which the longest
    /// counts; a listener has one `rxMinTtl` for all. No option turns these on. A connection whose
    /// SYN came with less is closed before the owner sees it, and counted; so is one whose SYN the
    /// kernel has not kept, since it was sent before the first of these was set, or the kernel used
    /// SYN cookies. The segments of a connection that is let in are then held to the same TTL by
    /// the kernel. 0 exempts a peer from the prefix around it. A change holds for connections that
    /// are accepted later. IPv4 peers of a listener for both families are IPv4 here too.
    const Mox::Map<IpGenAddrWithMask, IpTtl>& peerRxMinTtl() const { return peerRxMinTtl_; }
    /// That of exactly this peer or prefix; 0 when there is none.
    IpTtl peerRxMinTtl(const IpGenAddrWithMask& addrWithMask) const;
    /// That of the longest prefix that contains the peer, a v4-mapped one by its IPv4 address; 0
    /// when there is none.
    IpTtl peerRxMinTtlOf(const IpGenAddr& peer) const;
    void peerRxMinTtlIs(const IpGenAddrWithMask& addrWithMask, IpTtl ttl);
    void peerRxMinTtlDel(const IpGenAddrWithMask& addrWithMask) {
        memberDel(peerRxMinTtl_, addrWithMask, peerRxMinTtlAttr);
    }
    void peerRxMinTtlDelAll() { memberDelAll(peerRxMinTtl_, peerRxMinTtlAttr); }

  protected:
    ~TcpServerConfig() override;

  private:
    IpGenAddr listenIpAddr_;
    Port listenPort_;
    Mox::Map<IpGenAddrWithMask, IpTtl> peerRxMinTtl_;
};

PAVO_EXPORT Mox::Ptr<TcpClientConfig> tcpClientConfigFactory(const IpGenAddr& serverIpAddr,
                                                             Port serverPort);
PAVO_EXPORT Mox::Ptr<TcpServerConfig> tcpServerConfigFactory(const IpGenAddr& listenIpAddr,
                                                             Port listenPort);

}  // namespace Pavo
