/// @file
/// UDP endpoints.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Enum.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/IpSocketOptions.h"
#include "Pavo/pam/SocketPam.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrAndPort.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

struct IpTxSettings;
struct QueuedError;
struct RxSettings;
struct TxHead;
struct TxInfo;
struct TxResult;
class IpFamily;
class IpHost;
class IpTransport;

/// A UDP endpoint of either family on a Linux socket (udp(7)). A packet is what one datagram
/// carries, possibly no byte; its addresses, ports and header fields are in `rxInfo`. The family is
/// that of `localAddr`, or that of `remoteAddr` where the former has none; an IPv6 endpoint does
/// not receive IPv4 packets.
///
/// A server receives from every host, and sends to `remoteAddr` and `remotePort` as they are at
/// each send: `remoteIs(rxInfo().source())` before an answer. A client is connected: the kernel
/// drops what others send, and each ICMP error fails one later read or send (ECONNREFUSED), which
/// is counted.
///
/// Enabling opens the socket in `netNs`, applies what the attributes ask for, binds it, and for a
/// client connects it. `netNs`, `mode`, `device`, `localAddr` and `localPort` describe that: a
/// change of one takes effect at the next enabling, and so does a change of a client's `remoteAddr`
/// and `remotePort`. Memberships end with the socket. The endpoint receives what is sent to a group
/// only where it is itself a member.
///
/// Where that fails, the exception names "socketAt", "setsockopt(...)", "bind" (EADDRINUSE: the
/// port is taken; EINVAL: a link-local address without `device`), "connect" or "getsockname"; it is
/// EAFNOSUPPORT where no address has a family ("socketAt"), or a client's remote address another
/// one ("connect"). The options `ipReuseAddr` and `ipReusePort` count when this socket is bound,
/// and when another one is bound to the port later; `ipHdrIncl`, `ipRouterAlert` and `ipv6Checksum`
/// change nothing. `ipPktInfo` fills `rxInfo().ifIndex` and `.dstIpAddr`; without `ipBroadcast` a
/// send to a broadcast address fails with EACCES.
///
/// A failed read counts an `rxErrors`, one that found nothing counts none. A missing destination
/// of a send is EDESTADDRREQ, an address of the other family EAFNOSUPPORT. A datagram of IPv4
/// carries up to 65507 bytes. Packets of equal size that are sent together (`txPktsIs`) leave as
/// segments of one large datagram, which the kernel or the device cuts, where the socket can do so.
class PAVO_EXPORT UdpPam : public Mox::EntityOf<UdpPam, SocketPam> {
  public:
    /// Whose packets are received, and where packets go.
    enum class Mode : uint32_t { server, client };

    static constexpr Mox::Attribute<UdpPam, uint8_t> rxFilterAttr{19, "rxFilter"};
    static constexpr Mox::Attribute<UdpPam> modeAttr{20, "mode"};
    static constexpr Mox::Attribute<UdpPam> netNsAttr{21, "netNs"};
    static constexpr Mox::Attribute<UdpPam> deviceAttr{22, "device"};
    static constexpr Mox::Attribute<UdpPam> localAddrAttr{23, "localAddr"};
    static constexpr Mox::Attribute<UdpPam> localPortAttr{24, "localPort"};
    static constexpr Mox::Attribute<UdpPam> boundPortAttr{25, "boundPort"};
    static constexpr Mox::Attribute<UdpPam> remoteAddrAttr{26, "remoteAddr"};
    static constexpr Mox::Attribute<UdpPam> remotePortAttr{27, "remotePort"};
    static constexpr Mox::Attribute<UdpPam> txSrcIpAddrAttr{28, "txSrcIpAddr"};
    static constexpr Mox::Attribute<UdpPam> txIfNameAttr{29, "txIfName"};
    static constexpr Mox::Attribute<UdpPam> txIfIndexAttr{30, "txIfIndex"};
    static constexpr Mox::Attribute<UdpPam> txTosAttr{31, "txTos"};
    static constexpr Mox::Attribute<UdpPam> txTtlAttr{32, "txTtl"};
    static constexpr Mox::Attribute<UdpPam> txMcastTtlAttr{33, "txMcastTtl"};
    static constexpr Mox::Attribute<UdpPam> txMcastIfIndexAttr{34, "txMcastIfIndex"};
    static constexpr Mox::Attribute<UdpPam> txFlagsAttr{35, "txFlags"};
    static constexpr Mox::Attribute<UdpPam> rxFlagsAttr{36, "rxFlags"};
    static constexpr Mox::Attribute<UdpPam> rxMinTtlAttr{37, "rxMinTtl"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::UdpPam", Mox::attribute(rxFilterAttr), Mox::attribute(modeAttr, &UdpPam::mode),
            Mox::attribute(netNsAttr, &UdpPam::netNs), Mox::attribute(deviceAttr, &UdpPam::device),
            Mox::attribute(localAddrAttr, &UdpPam::localAddr),
            Mox::attribute(localPortAttr, &UdpPam::localPort),
            Mox::attribute(boundPortAttr, &UdpPam::boundPort),
            Mox::attribute(remoteAddrAttr, &UdpPam::remoteAddr),
            Mox::attribute(remotePortAttr, &UdpPam::remotePort),
            Mox::attribute(txSrcIpAddrAttr, &UdpPam::txSrcIpAddr),
            Mox::attribute(txIfNameAttr, &UdpPam::txIfName),
            Mox::attribute(txIfIndexAttr, &UdpPam::txIfIndex),
            Mox::attribute(txTosAttr, &UdpPam::txTos), Mox::attribute(txTtlAttr, &UdpPam::txTtl),
            Mox::attribute(txMcastTtlAttr, &UdpPam::txMcastTtl),
            Mox::attribute(txMcastIfIndexAttr, &UdpPam::txMcastIfIndex),
            Mox::attribute(txFlagsAttr, &UdpPam::txFlags),
            Mox::attribute(rxFlagsAttr, &UdpPam::rxFlags),
            Mox::attribute(rxMinTtlAttr, &UdpPam::rxMinTtl));
    }

    /// Disabled: a server on a port that the kernel picks, in the namespace `netNs`.
    UdpPam(Mox::String name, NamespaceName netNs);

    /// Called when the attribute has changed, before any observer: applies `txTos`, and after it
    /// the priority, which the kernel overwrites with the TOS. When it throws, the attribute keeps
    /// the value it had.
    /// @throws Mox::ErrnoException "setsockopt(IP_TOS)" or "setsockopt(IPV6_TCLASS)", or
    /// "setsockopt(SO_PRIORITY)".
    virtual void handleTxTos();
    /// Called when the attribute has changed, before any observer; do nothing, since the change
    /// takes effect at the next enabling.
    /// @{
    virtual void handleMode();
    virtual void handleNetNs();
    /// @}

    /// The program that `ipAttachFilter` attaches; it sees the UDP header first. Member i is
    /// instruction i.
    /// @{
    IpFilter rxFilter(uint8_t index) const { return rxFilter_.at(index); }
    const Mox::Array<IpFilter>& rxFilter() const { return rxFilter_; }
    void rxFilterIs(uint8_t index, IpFilter instruction);
    void rxFilterDel(uint8_t index) { memberDel(rxFilter_, index, rxFilterAttr); }
    void rxFilterDelAll() { memberDelAll(rxFilter_, rxFilterAttr); }
    /// @}

    /// Server by default.
    Mode mode() const { return mode_; }
    void modeIs(Mode mode);
    /// The network namespace in which the socket is opened.
    const NamespaceName& netNs() const { return netNs_; }
    void netNsIs(const NamespaceName& netNs);
    /// The only interface on which the endpoint sends and receives, by name; empty for any. It is
    /// also the interface of link-local addresses.
    const Mox::String& device() const { return device_; }
    void deviceIs(Mox::String device) { attributeIs(device_, std::move(device), deviceAttr); }
    /// The address that is bound; 0.0.0.0 and :: are any of the host's.
    const IpGenAddr& localAddr() const { return localAddr_; }
    void localAddrIs(const IpGenAddr& address) { attributeIs(localAddr_, address, localAddrAttr); }
    /// The port that is bound; with 0 the kernel picks one.
    Port localPort() const { return localPort_; }
    void localPortIs(Port port) { attributeIs(localPort_, port, localPortAttr); }
    /// The port that is bound while enabled, else 0. Changes with `enabled`, and notifies no
    /// observer of its own.
    Port boundPort() const { return boundPort_; }
    /// Where packets go.
    /// @{
    const IpGenAddr& remoteAddr() const { return remoteAddr_; }
    void remoteAddrIs(const IpGenAddr& address) {
        attributeIs(remoteAddr_, address, remoteAddrAttr);
    }
    Port remotePort() const { return remotePort_; }
    void remotePortIs(Port port) { attributeIs(remotePort_, port, remotePortAttr); }
    IpGenAddrAndPort remote() const { return {remoteAddr_, remotePort_}; }
    /// Both are set before an observer of either is notified.
    void remoteIs(const IpGenAddrAndPort& remote);
    /// @}

    /// The source of the next packet; unspecified leaves it to the socket.
    const IpGenAddr& txSrcIpAddr() const { return txSrcIpAddr_; }
    void txSrcIpAddrIs(const IpGenAddr& address) {
        attributeIs(txSrcIpAddr_, address, txSrcIpAddrAttr);
    }
    /// The outgoing interface of the next packet, as `IpPam` has it.
    /// @{
    const Mox::String& txIfName() const { return txIfName_; }
    void txIfNameIs(Mox::String name) { attributeIs(txIfName_, std::move(name), txIfNameAttr); }
    uint32_t txIfIndex() const { return txIfIndex_; }
    void txIfIndexIs(uint32_t index) { attributeIs(txIfIndex_, index, txIfIndexAttr); }
    /// @}
    /// The TOS byte or traffic class of sent packets.
    /// @throws Mox::ErrnoException as `handleTxTos` does.
    IpDscp txTos() const { return txTos_; }
    void txTosIs(IpDscp tos);
    /// The TTL or hop limit of packets to one host, and that of packets to groups; 0 leaves it to
    /// the kernel (64, and 1 for groups).
    /// @throws Mox::ErrnoException "setsockopt(IP_TTL)", "setsockopt(IP_MULTICAST_TTL)",
    /// "setsockopt(IPV6_UNICAST_HOPS)" or "setsockopt(IPV6_MULTICAST_HOPS)"; the attribute keeps
    /// its value.
    /// @{
    IpTtl txTtl() const { return txTtl_; }
    void txTtlIs(IpTtl ttl);
    IpTtl txMcastTtl() const { return txMcastTtl_; }
    void txMcastTtlIs(IpTtl ttl);
    /// @}
    /// The interface of packets to groups, where the packet does not say; 0 leaves it to the
    /// routes.
    /// @throws Mox::ErrnoException "setsockopt(IP_MULTICAST_IF)" or
    /// "setsockopt(IPV6_MULTICAST_IF)"; the attribute keeps its value.
    uint32_t txMcastIfIndex() const { return txMcastIfIndex_; }
    void txMcastIfIndexIs(uint32_t ifIndex);
    /// Flags for sendmsg(2).
    int txFlags() const { return txFlags_; }
    void txFlagsIs(int flags) { attributeIs(txFlags_, flags, txFlagsAttr); }
    /// Flags for recvmsg(2).
    int rxFlags() const { return rxFlags_; }
    void rxFlagsIs(int flags);
    /// The least TTL or hop limit with which a packet is received (RFC 5082: 255 for neighbours); 0
    /// for any. The kernel drops the others, and counts them where `ipRecvDrops` asks for it.
    /// @throws Mox::ErrnoException "setsockopt(SO_ATTACH_FILTER)" or
    /// "setsockopt(SO_DETACH_FILTER)"; the attribute keeps its value.
    IpTtl rxMinTtl() const { return rxMinTtl_; }
    void rxMinTtlIs(IpTtl ttl);
    /// With the option `ipRecvErr`, what the last failed read took from the socket's error queue:
    /// which destinations could not be reached, and why. The read counted each as an `rxErrors`.
    const std::vector<QueuedError>& queuedErrors() const;

    /// Joins a multicast group on an interface of the endpoint's namespace (0: the kernel's
    /// choice), or leaves it; with a source, for what that one sends (RFC 4607).
    /// @pre enabled (assertion "enabled()").
    /// @throws Mox::ErrnoException as `RawIpPam::doJoinMcastGroup`; with a source
    /// "setsockopt(MCAST_JOIN_SOURCE_GROUP)" or "setsockopt(MCAST_LEAVE_SOURCE_GROUP)".
    /// @{
    void doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group);
    void doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group);
    void doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr& source);
    void doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr& source);
    /// @}

  protected:
    ~UdpPam() override;

  private:
    friend class FdPam;
    friend class IpHost;
    friend class SocketPam;

    void transportIs(std::unique_ptr<IpTransport> transport);
    void open();
    void openSocket();
    void bindTo(int fd) const;
    void connectTo(int fd) const;
    void close();
    std::span<const SocketOption> optionTable() const;
    SocketSettings socketSettings() const;
    void membershipIs(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr* source,
                      bool member);

    RxSettings rxSettings() const;
    void describe(RxInfo* info) const;
    RxRound readOne(Mox::Ptr<Pkt>* pkt, RxInfo* info);
    std::unique_ptr<RxBatch> readBatch();

    IpTxSettings txSettings() const;
    int txHeadIs(TxHead* head, int fd) const;
    TxInfo txInfo() const;
    TxResult send(int fd, std::span<const Mox::Ptr<Pkt>> pkts);
    TxResult sendRun(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> run);
    TxResult sendAll(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts);

    Mode mode_ = Mode::server;
    NamespaceName netNs_;
    IpDscp txTos_;
    IpTtl txTtl_;
    IpTtl txMcastTtl_;
    IpTtl rxMinTtl_;
    Port localPort_;
    Port boundPort_;
    Port remotePort_;
    uint32_t txIfIndex_ = 0;
    uint32_t txMcastIfIndex_ = 0;
    uint32_t maxSegmentBytes_ = 0;  // As far as known, what the kernel cuts large datagrams into.
    int txFlags_ = 0;
    int rxFlags_ = 0;
    Mox::Array<IpFilter> rxFilter_;
    Mox::String device_;
    Mox::String txIfName_;
    IpGenAddr localAddr_;
    IpGenAddr remoteAddr_;
    IpGenAddr txSrcIpAddr_;
    IpGenAddrAndPort peer_;  // To which the socket is connected; of no family for a server.
    const IpFamily* family_ = nullptr;        // That of the socket that was opened last.
    std::unique_ptr<IpTransport> transport_;  // In place of a socket, where there is one.
};

constexpr auto enumDescription(UdpPam::Mode) {
    using enum UdpPam::Mode;
    return Mox::enumeration<UdpPam::Mode>("Invalid UdpPam::Mode",
                                          {{server, "server"}, {client, "client"}});
}

/// A disabled server on a port that the kernel picks, in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<UdpPam> udpPamFactory(Mox::String name, NamespaceName netNs = NamespaceName());

}  // namespace Pavo
