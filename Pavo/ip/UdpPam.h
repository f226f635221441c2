/// @file
/// UDP endpoints.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Enum.h"
#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/IpPam.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrAndPort.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

struct IpTxSettings;
struct RxSettings;
struct SocketSettings;
struct TxHead;
struct TxInfo;
struct TxResult;
class IpFamily;
class IpHost;
class IpTransport;
class PktReceiver;

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
/// client connects it; it either succeeds whole or leaves no descriptor. It needs an event loop on
/// the calling thread. `netNs`, `mode`, `device`, `localAddr` and `localPort` describe that: a
/// change of one takes effect at the next enabling, and so does a change of a client's `remoteAddr`
/// and `remotePort`. Memberships end with the socket. The endpoint receives what is sent to a group
/// only where it is itself a member.
///
/// A failed read counts an `rxErrors`, also where there was nothing to read. A send that fails is
/// counted and dropped; when there was no room, `writableCount` is incremented once, as soon as
/// there is some. A missing destination is EDESTADDRREQ, an address of the other family
/// EAFNOSUPPORT. Packets of equal size that are sent together (`txPktsIs`) leave as segments of one
/// large datagram, which the kernel or the device cuts, where the socket can do so.
class PAVO_EXPORT UdpPam : public Mox::EntityOf<UdpPam, Pam> {
  public:
    /// Whose packets are received, and where packets go.
    enum class Mode : uint32_t { server, client };

    static constexpr Mox::Attribute<UdpPam> enabledAttr{8, "enabled"};
    static constexpr Mox::Attribute<UdpPam> optionsAttr{9, "options"};
    static constexpr Mox::Attribute<UdpPam> enableBulkReadAttr{10, "enableBulkRead"};
    static constexpr Mox::Attribute<UdpPam> socketReadLimitAttr{11, "socketReadLimit"};
    static constexpr Mox::Attribute<UdpPam> maxRxPktDataAttr{12, "maxRxPktData"};
    static constexpr Mox::Attribute<UdpPam> rxBufferBytesAttr{13, "rxBufferBytes"};
    static constexpr Mox::Attribute<UdpPam> rxBufAttr{14, "rxBuf"};
    static constexpr Mox::Attribute<UdpPam> priorityAttr{15, "priority"};
    static constexpr Mox::Attribute<UdpPam, uint8_t> rxFilterAttr{16, "rxFilter"};
    static constexpr Mox::Attribute<UdpPam> modeAttr{17, "mode"};
    static constexpr Mox::Attribute<UdpPam> netNsAttr{18, "netNs"};
    static constexpr Mox::Attribute<UdpPam> deviceAttr{19, "device"};
    static constexpr Mox::Attribute<UdpPam> localAddrAttr{20, "localAddr"};
    static constexpr Mox::Attribute<UdpPam> localPortAttr{21, "localPort"};
    static constexpr Mox::Attribute<UdpPam> boundPortAttr{22, "boundPort"};
    static constexpr Mox::Attribute<UdpPam> remoteAddrAttr{23, "remoteAddr"};
    static constexpr Mox::Attribute<UdpPam> remotePortAttr{24, "remotePort"};
    static constexpr Mox::Attribute<UdpPam> txSrcIpAddrAttr{25, "txSrcIpAddr"};
    static constexpr Mox::Attribute<UdpPam> txIfNameAttr{26, "txIfName"};
    static constexpr Mox::Attribute<UdpPam> txIfIndexAttr{27, "txIfIndex"};
    static constexpr Mox::Attribute<UdpPam> txTosAttr{28, "txTos"};
    static constexpr Mox::Attribute<UdpPam> txTtlAttr{29, "txTtl"};
    static constexpr Mox::Attribute<UdpPam> txMcastTtlAttr{30, "txMcastTtl"};
    static constexpr Mox::Attribute<UdpPam> txMcastIfIndexAttr{31, "txMcastIfIndex"};
    static constexpr Mox::Attribute<UdpPam> txFlagsAttr{32, "txFlags"};
    static constexpr Mox::Attribute<UdpPam> txPktCountAttr{33, "txPktCount"};
    static constexpr Mox::Attribute<UdpPam> rxFlagsAttr{34, "rxFlags"};
    static constexpr Mox::Attribute<UdpPam> rxMinTtlAttr{35, "rxMinTtl"};
    static constexpr Mox::Attribute<UdpPam> rxPktCountAttr{36, "rxPktCount"};
    static constexpr Mox::Attribute<UdpPam> rxTruncatedPktsAttr{37, "rxTruncatedPkts"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::UdpPam", Mox::attribute(enabledAttr, &UdpPam::enabled),
            Mox::attribute(optionsAttr, &UdpPam::options),
            Mox::attribute(enableBulkReadAttr, &UdpPam::enableBulkRead),
            Mox::attribute(socketReadLimitAttr, &UdpPam::socketReadLimit),
            Mox::attribute(maxRxPktDataAttr, &UdpPam::maxRxPktData),
            Mox::attribute(rxBufferBytesAttr, &UdpPam::rxBufferBytes),
            Mox::attribute(rxBufAttr, &UdpPam::rxBuf),
            Mox::attribute(priorityAttr, &UdpPam::priority), Mox::attribute(rxFilterAttr),
            Mox::attribute(modeAttr, &UdpPam::mode), Mox::attribute(netNsAttr, &UdpPam::netNs),
            Mox::attribute(deviceAttr, &UdpPam::device),
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
            Mox::attribute(txPktCountAttr, &UdpPam::txPktCount),
            Mox::attribute(rxFlagsAttr, &UdpPam::rxFlags),
            Mox::attribute(rxMinTtlAttr, &UdpPam::rxMinTtl),
            Mox::attribute(rxPktCountAttr, &UdpPam::rxPktCount),
            Mox::attribute(rxTruncatedPktsAttr, &UdpPam::rxTruncatedPkts));
    }

    /// Disabled: a server on a port that the kernel picks, in the namespace `netNs`.
    UdpPam(Mox::String name, NamespaceName netNs);

    /// @pre enabled (assertion "enabled()"), with a packet (assertion "pkt != nullptr").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    int32_t doGetBulkRxPkt() override;

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

    /// Whether the socket is open.
    bool enabled() const { return enabled_; }
    /// @pre to enable: an event loop on this thread (assertion "EventLoop::current(): enabling
    /// needs an event loop on this thread").
    /// @throws Mox::ErrnoException naming the call that failed: "socketAt", "setsockopt(...)",
    /// "bind" (EADDRINUSE: the port is taken; EINVAL: a link-local address without `device`),
    /// "connect" or "getsockname"; the endpoint is then disabled. EAFNOSUPPORT where no address
    /// has a family ("socketAt"), or a client's remote address another one ("connect").
    void enabledIs(bool enabled);
    /// The options that are wanted, bits of `IpSocketOptions`; they describe the socket while it is
    /// open. `ipReuseAddr` and `ipReusePort` count when it is bound. `ipHdrIncl`, `ipRouterAlert`
    /// and `ipv6Checksum` change nothing.
    uint32_t options() const { return options_; }
    /// @throws Mox::ErrnoException naming the option that failed; `options` then describes the
    /// socket. A socket that refuses `ipPriority` or `ipTransparent` is closed.
    void optionsIs(uint32_t options);

    /// As `IpPam` has them: reading in batches, the most packets of a batch (32), the room for a
    /// packet and the size of its buffer in bytes (1536 each; a datagram of IPv4 carries up to
    /// 65507), the receive buffer of `ipRcvBuf`, the priority of `ipPriority`.
    /// @{
    bool enableBulkRead() const { return enableBulkRead_; }
    void enableBulkReadIs(bool enable);
    uint8_t socketReadLimit() const { return socketReadLimit_; }
    void socketReadLimitIs(uint8_t packets) {
        attributeIs(socketReadLimit_, packets, socketReadLimitAttr);
    }
    uint32_t maxRxPktData() const { return maxRxPktData_; }
    void maxRxPktDataIs(uint32_t bytes) { attributeIs(maxRxPktData_, bytes, maxRxPktDataAttr); }
    uint32_t rxBufferBytes() const { return rxBufferBytes_; }
    void rxBufferBytesIs(uint32_t bytes) { attributeIs(rxBufferBytes_, bytes, rxBufferBytesAttr); }
    uint32_t rxBuf() const { return rxBuf_; }
    void rxBufIs(uint32_t bytes) { attributeIs(rxBuf_, bytes, rxBufAttr); }
    uint32_t priority() const { return priority_; }
    void priorityIs(uint32_t priority) { attributeIs(priority_, priority, priorityAttr); }
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
    /// Packets sent.
    uint64_t txPktCount() const { return txPktCount_; }
    void txPktCountIs(uint64_t count) { attributeIs(txPktCount_, count, txPktCountAttr); }
    uint64_t txPktCountInc(uint64_t delta) {
        return attributeInc(txPktCount_, delta, txPktCountAttr);
    }

    /// Flags for recvmsg(2).
    int rxFlags() const { return rxFlags_; }
    void rxFlagsIs(int flags);
    /// The least TTL or hop limit with which a packet is received (RFC 5082: 255 for neighbours); 0
    /// for any. The kernel drops the others, and counts them where `ipRecvDrops` asks for it.
    /// @throws Mox::ErrnoException "setsockopt(SO_ATTACH_FILTER)" or
    /// "setsockopt(SO_DETACH_FILTER)"; the attribute keeps its value.
    IpTtl rxMinTtl() const { return rxMinTtl_; }
    void rxMinTtlIs(IpTtl ttl);
    /// Packets received.
    uint64_t rxPktCount() const { return rxPktCount_; }
    void rxPktCountIs(uint64_t count) { attributeIs(rxPktCount_, count, rxPktCountAttr); }
    uint64_t rxPktCountInc(uint64_t delta) {
        return attributeInc(rxPktCount_, delta, rxPktCountAttr);
    }
    /// Packets received truncated, see `maxRxPktData`.
    uint32_t rxTruncatedPkts() const { return rxTruncatedPkts_; }
    void rxTruncatedPktsIs(uint32_t packets) {
        attributeIs(rxTruncatedPkts_, packets, rxTruncatedPktsAttr);
    }
    uint32_t rxTruncatedPktsInc(uint32_t delta) {
        return attributeInc(rxTruncatedPkts_, delta, rxTruncatedPktsAttr);
    }
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

    /// The socket and the machine that watches it; null while disabled.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return socket_.fileDesc(); }
    const Mox::Ptr<PamFdSm>& fdSm() const { return socket_.fdSm(); }
    /// @}

  protected:
    ~UdpPam() override;

  private:
    friend class IpHost;

    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);

    SocketSettings socketSettings() const;
    void transportIs(std::unique_ptr<IpTransport> transport);
    void open();
    void openSocket();
    void bindTo(int fd) const;
    void connectTo(int fd) const;
    void start();
    void cleanup();
    void membershipIs(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr* source,
                      bool member);
    template <class Field, class Apply>
    bool applied(Field& field, Field value, Apply apply);

    RxSettings rxSettings() const;
    RxInfo newRxInfo() const;
    void readSingle();
    int32_t readBulk();

    IpTxSettings txSettings() const;
    int txHeadIs(TxHead* head, int fd) const;
    TxInfo txInfo() const;
    int send(const Mox::Ptr<Mox::FileDescriptor>& fd, const Pkt& pkt);
    void tapTx(const Pkt& pkt) const;
    TxResult sendRun(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> run);
    TxResult sendAll(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts);

    Mode mode_ = Mode::server;
    NamespaceName netNs_;
    bool enabled_ = false;
    bool enableBulkRead_ = false;
    uint8_t socketReadLimit_ = 32;
    uint8_t bulkSlots_ = 0;
    IpDscp txTos_;
    IpTtl txTtl_;
    IpTtl txMcastTtl_;
    IpTtl rxMinTtl_;
    Port localPort_;
    Port boundPort_;
    Port remotePort_;
    uint32_t options_ = none;
    uint32_t maxRxPktData_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxBufferBytes_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxTruncatedPkts_ = 0;
    uint32_t rxBuf_ = 0;
    uint32_t priority_ = 0;
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
    uint64_t txPktCount_ = 0;
    uint64_t rxPktCount_ = 0;
    const IpFamily* family_ = nullptr;  // Of the socket that was opened last.
    std::unique_ptr<PktReceiver> receiver_;
    std::unique_ptr<IpTransport> transport_;  // In place of a socket, where there is one.
    PamSocket socket_;                        // Last, so that it is closed first.
};

constexpr auto enumDescription(UdpPam::Mode) {
    using enum UdpPam::Mode;
    return Mox::enumeration<UdpPam::Mode>("Invalid UdpPam::Mode",
                                          {{server, "server"}, {client, "client"}});
}

/// A disabled server on a port that the kernel picks, in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<UdpPam> udpPamFactory(Mox::String name, NamespaceName netNs = NamespaceName());

}  // namespace Pavo
