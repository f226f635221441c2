/// @file
/// The attributes and options of a raw IP endpoint.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Collections.h"
#include "Mox/Enum.h"
#include "Mox/FileDescriptor.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/pam/IpSocketOptions.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// IP options that sent packets carry.
enum IpPktOption : uint32_t {
    ipPktRouterAlert = 0,  ///< RFC 2113, RFC 2711
};

constexpr auto enumDescription(IpPktOption) {
    return Mox::enumeration<IpPktOption>("Invalid IpPktOption",
                                         {{ipPktRouterAlert, "ipPktRouterAlert"}});
}

/// A packet endpoint on a raw IP socket: one per IP protocol and network namespace. It holds what
/// the endpoints of both families have in common; `RawIpPam` does the work.
///
/// The `tx` attributes describe the next packet sent, the `rx` attributes the last one received. An
/// `rx` attribute that a packet does not carry keeps its value; `rxInfo` describes one packet
/// alone.
class PAVO_EXPORT IpPam : public Mox::EntityOf<IpPam, Pam> {
  public:
    static constexpr Mox::Attribute<IpPam> enabledAttr{8, "enabled"};
    static constexpr Mox::Attribute<IpPam> optionsAttr{9, "options"};
    static constexpr Mox::Attribute<IpPam> enableBulkReadAttr{10, "enableBulkRead"};
    static constexpr Mox::Attribute<IpPam> socketReadLimitAttr{11, "socketReadLimit"};
    static constexpr Mox::Attribute<IpPam> maxRxPktDataAttr{12, "maxRxPktData"};
    static constexpr Mox::Attribute<IpPam> rxBufAttr{13, "rxBuf"};
    static constexpr Mox::Attribute<IpPam> priorityAttr{14, "priority"};
    static constexpr Mox::Attribute<IpPam, uint8_t> rxFilterAttr{15, "rxFilter"};
    static constexpr Mox::Attribute<IpPam> txIfNameAttr{16, "txIfName"};
    static constexpr Mox::Attribute<IpPam> txIfIndexAttr{17, "txIfIndex"};
    static constexpr Mox::Attribute<IpPam> txTOSAttr{18, "txTOS"};
    static constexpr Mox::Attribute<IpPam> txTTLAttr{19, "txTTL"};
    static constexpr Mox::Attribute<IpPam> txFlagsAttr{20, "txFlags"};
    static constexpr Mox::Attribute<IpPam> txSrcIpAddrAttr{21, "txSrcIpAddr"};
    static constexpr Mox::Attribute<IpPam> txDstIpAddrAttr{22, "txDstIpAddr"};
    static constexpr Mox::Attribute<IpPam> txPktCountAttr{23, "txPktCount"};
    static constexpr Mox::Attribute<IpPam> rxFlagsAttr{24, "rxFlags"};
    static constexpr Mox::Attribute<IpPam> rxSrcIpAddrAttr{25, "rxSrcIpAddr"};
    static constexpr Mox::Attribute<IpPam> rxDstIpAddrAttr{26, "rxDstIpAddr"};
    static constexpr Mox::Attribute<IpPam> rxOrigDstIpAddrAttr{27, "rxOrigDstIpAddr"};
    static constexpr Mox::Attribute<IpPam> rxIfIndexAttr{28, "rxIfIndex"};
    static constexpr Mox::Attribute<IpPam> rxTOSAttr{29, "rxTOS"};
    static constexpr Mox::Attribute<IpPam> rxTTLAttr{30, "rxTTL"};
    static constexpr Mox::Attribute<IpPam> rxPktCountAttr{31, "rxPktCount"};
    static constexpr Mox::Attribute<IpPam> rxBufferBytesAttr{32, "rxBufferBytes"};
    static constexpr Mox::Attribute<IpPam> rxTruncatedPktsAttr{33, "rxTruncatedPkts"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::IpPam", Mox::attribute(enabledAttr, &IpPam::enabled),
            Mox::attribute(optionsAttr, &IpPam::options),
            Mox::attribute(enableBulkReadAttr, &IpPam::enableBulkRead),
            Mox::attribute(socketReadLimitAttr, &IpPam::socketReadLimit),
            Mox::attribute(maxRxPktDataAttr, &IpPam::maxRxPktData),
            Mox::attribute(rxBufAttr, &IpPam::rxBuf),
            Mox::attribute(priorityAttr, &IpPam::priority), Mox::attribute(rxFilterAttr),
            Mox::attribute(txIfNameAttr, &IpPam::txIfName),
            Mox::attribute(txIfIndexAttr, &IpPam::txIfIndex),
            Mox::attribute(txTOSAttr, &IpPam::txTOS), Mox::attribute(txTTLAttr, &IpPam::txTTL),
            Mox::attribute(txFlagsAttr, &IpPam::txFlags),
            Mox::attribute(txSrcIpAddrAttr, &IpPam::txSrcIpAddr),
            Mox::attribute(txDstIpAddrAttr, &IpPam::txDstIpAddr),
            Mox::attribute(txPktCountAttr, &IpPam::txPktCount),
            Mox::attribute(rxFlagsAttr, &IpPam::rxFlags),
            Mox::attribute(rxSrcIpAddrAttr, &IpPam::rxSrcIpAddr),
            Mox::attribute(rxDstIpAddrAttr, &IpPam::rxDstIpAddr),
            Mox::attribute(rxOrigDstIpAddrAttr, &IpPam::rxOrigDstIpAddr),
            Mox::attribute(rxIfIndexAttr, &IpPam::rxIfIndex),
            Mox::attribute(rxTOSAttr, &IpPam::rxTOS), Mox::attribute(rxTTLAttr, &IpPam::rxTTL),
            Mox::attribute(rxPktCountAttr, &IpPam::rxPktCount),
            Mox::attribute(rxBufferBytesAttr, &IpPam::rxBufferBytes),
            Mox::attribute(rxTruncatedPktsAttr, &IpPam::rxTruncatedPkts));
    }

    /// Disabled, for `protocol` in the namespace `netNs`.
    IpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs);

    /// Fails with the assertion "!\"IpPam doesn't use this interface.\"".
    void doGetRxPkt() override;

    /// Called when the attribute has changed, before any observer; the base does nothing. When one
    /// throws, the attribute keeps the value it had.
    /// @{
    virtual void handleTxTOS();
    virtual void handleTxTTL();
    virtual void handlePriority();
    /// @}
    /// Makes the change; the base only stores it.
    /// @{
    virtual void optionsIsImpl(uint32_t options);
    virtual void enabledIsImpl(bool enabled);
    /// @}

    /// As it was made with.
    IpProtocolNumber protocol() const { return protocol_; }
    /// The network namespace in which the socket is opened.
    const NamespaceName& netNs() const { return netNs_; }

    /// Whether the socket is open.
    bool enabled() const { return enabled_; }
    /// @throws Mox::ErrnoException naming the call that failed; the endpoint is then disabled.
    void enabledIs(bool enabled);
    /// The options that are wanted, bits of `IpSocketOptions`; they describe the socket while it is
    /// open.
    uint32_t options() const { return options_; }
    /// @throws Mox::ErrnoException naming the option that failed; `options` then describes the
    /// socket. A socket that refuses `ipPriority` is closed.
    void optionsIs(uint32_t options);

    /// Whether packets are read in batches. While it is on, call only `rxPktBulk`: `rxPkt` returns
    /// null, and the packets that it read are in `savedPacket`. While it is off, `rxPktBulk` reads
    /// nothing.
    bool enableBulkRead() const { return bulk_.isOn; }
    void enableBulkReadIs(bool enable);
    /// The most packets a batch may have, 32 by default. Takes effect when bulk reading is next
    /// enabled.
    uint8_t socketReadLimit() const { return socketReadLimit_; }
    void socketReadLimitIs(uint8_t packets) {
        attributeIs(socketReadLimit_, packets, socketReadLimitAttr);
    }
    /// Bytes offered to the kernel for a packet, 1536 by default. A longer packet is cut off there;
    /// `rxInfo().truncated` and `rxTruncatedPkts` report it. More than `rxBufferBytes` is fatal at
    /// the next read: "maxSize >= maxRxPktData()".
    uint32_t maxRxPktData() const { return maxRxPktData_; }
    void maxRxPktDataIs(uint32_t bytes) { attributeIs(maxRxPktData_, bytes, maxRxPktDataAttr); }
    /// The size of the buffers that packets are read into, 1536 by default. Buffers of that size
    /// and of `Pkt::largeBufferSize` are recycled, others are allocated for each packet.
    uint32_t rxBufferBytes() const { return rxBufferBytes_; }
    void rxBufferBytesIs(uint32_t bytes) { attributeIs(rxBufferBytes_, bytes, rxBufferBytesAttr); }
    /// The receive buffer in bytes, applied with the option `ipRcvBuf`, which needs CAP_NET_ADMIN;
    /// the kernel doubles it (socket(7)).
    uint32_t rxBuf() const { return rxBuf_; }
    void rxBufIs(uint32_t bytes) { attributeIs(rxBuf_, bytes, rxBufAttr); }
    /// The socket priority, see `IpTrafficControl`. A change takes effect when the option
    /// `ipPriority` is next applied: when the bit is set, at the next enabling with it, or after
    /// the next change of `txTOS` while it is set.
    uint32_t priority() const { return priority_; }
    void priorityIs(uint32_t priority);

    /// The program that `ipAttachFilter` attaches; member i is instruction i.
    IpFilter rxFilter(uint8_t index) const { return rxFilter_.at(index); }
    const Mox::Array<IpFilter>& rxFilter() const { return rxFilter_; }
    void rxFilterIs(uint8_t index, IpFilter instruction);
    void rxFilterDel(uint8_t index) { memberDel(rxFilter_, index, rxFilterAttr); }
    void rxFilterDelAll() { memberDelAll(rxFilter_, rxFilterAttr); }

    /// The outgoing interface of the next packet, by name; it is looked up at each send, and only
    /// when `txIfIndex` is 0.
    const Mox::String& txIfName() const { return txIfName_; }
    void txIfNameIs(Mox::String name) { attributeIs(txIfName_, std::move(name), txIfNameAttr); }
    /// The same by index; 0 is none.
    uint32_t txIfIndex() const { return txIfIndex_; }
    void txIfIndexIs(uint32_t index) { attributeIs(txIfIndex_, index, txIfIndexAttr); }
    /// The TOS byte of sent packets.
    IpDscp txTOS() const { return txTOS_; }
    void txTOSIs(IpDscp tos);
    /// The TTL of sent packets, for IPv4 of unicast packets only; 0 leaves it to the kernel.
    IpTtl txTTL() const { return txTTL_; }
    void txTTLIs(IpTtl ttl);
    /// Flags for sendmsg(2).
    int txFlags() const { return txFlags_; }
    void txFlagsIs(int flags) { attributeIs(txFlags_, flags, txFlagsAttr); }
    /// The source of the next packet; unspecified leaves it to the kernel.
    const IpGenAddr& txSrcIpAddr() const { return txSrcIpAddr_; }
    void txSrcIpAddrIs(const IpGenAddr& address) {
        attributeIs(txSrcIpAddr_, address, txSrcIpAddrAttr);
    }
    /// The destination of the next packet. A send without one fails with EDESTADDRREQ; 0.0.0.0 and
    /// :: go to the kernel as they are.
    const IpGenAddr& txDstIpAddr() const { return txDstIpAddr_; }
    void txDstIpAddrIs(const IpGenAddr& address) {
        attributeIs(txDstIpAddr_, address, txDstIpAddrAttr);
    }
    /// Packets sent.
    uint64_t txPktCount() const { return txPktCount_; }
    void txPktCountIs(uint64_t count) { attributeIs(txPktCount_, count, txPktCountAttr); }
    uint64_t txPktCountInc(uint64_t delta) {
        return attributeInc(txPktCount_, delta, txPktCountAttr);
    }

    /// Flags for recvmsg(2).
    int rxFlags() const { return rxFlags_; }
    void rxFlagsIs(int flags);
    /// The source in the header.
    const IpGenAddr& rxSrcIpAddr() const { return rxSrcIpAddr_; }
    void rxSrcIpAddrIs(const IpGenAddr& address) {
        attributeIs(rxSrcIpAddr_, address, rxSrcIpAddrAttr);
    }
    /// The destination in the header; needs `ipPktInfo`.
    const IpGenAddr& rxDstIpAddr() const { return rxDstIpAddr_; }
    void rxDstIpAddrIs(const IpGenAddr& address) {
        attributeIs(rxDstIpAddr_, address, rxDstIpAddrAttr);
    }
    /// The destination before any redirection; needs `ipRecvOrigDstAddr`.
    const IpGenAddr& rxOrigDstIpAddr() const { return rxOrigDstIpAddr_; }
    void rxOrigDstIpAddrIs(const IpGenAddr& address) {
        attributeIs(rxOrigDstIpAddr_, address, rxOrigDstIpAddrAttr);
    }
    /// The arrival interface; needs `ipPktInfo`.
    uint32_t rxIfIndex() const { return rxIfIndex_; }
    void rxIfIndexIs(uint32_t index) { attributeIs(rxIfIndex_, index, rxIfIndexAttr); }
    /// Needs `ipRecvTOS`.
    uint8_t rxTOS() const { return rxTOS_; }
    void rxTOSIs(uint8_t tos) { attributeIs(rxTOS_, tos, rxTOSAttr); }
    /// Needs `ipRecvTTL`.
    uint8_t rxTTL() const { return rxTTL_; }
    void rxTTLIs(uint8_t ttl) { attributeIs(rxTTL_, ttl, rxTTLAttr); }
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

    /// The socket and the machine that watches it; null while disabled.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return socket_.fileDesc(); }
    const Mox::Ptr<PamFdSm>& fdSm() const { return socket_.fdSm(); }
    /// @}

  protected:
    ~IpPam() override;

    /// Stores the attribute and notifies, without opening or closing anything.
    /// @{
    void enabledStore(bool enabled) { attributeIs(enabled_, enabled, enabledAttr); }
    void optionsStore(uint32_t options) { attributeIs(options_, options, optionsAttr); }
    /// @}
    void fileDescIs(Mox::Ptr<Mox::FileDescriptor> fd) { socket_.fileDescIs(std::move(fd)); }
    /// Makes the machine that watches `fileDesc`, unless there is none. It increments both counts
    /// at once; observers of these may disable the endpoint or open it again.
    void fdSmIs() { socket_.watchFor(this); }
    /// Drops the machine and closes the socket.
    void fileDescDel() { socket_.close(); }
    /// The socket, for what reads from it.
    /// @{
    PamSocket& pamSocket() { return socket_; }
    const PamSocket& pamSocket() const { return socket_; }
    /// @}
    /// The slots of a bulk read: `socketReadLimit` as it was when bulk reading was enabled.
    uint32_t bulkSlots() const { return bulk_.slots; }

    /// For every attempt to read.
    /// @{
    using ReadEnd = PamSocket::ReadEnd;
    void readEnded(ReadEnd end) { socket_.readEnded(end); }
    /// @}

  private:
    IpProtocolNumber protocol_;
    NamespaceName netNs_;
    bool enabled_ = false;
    Bulk bulk_;
    uint8_t socketReadLimit_ = 32;
    uint8_t rxTOS_ = 0;
    uint8_t rxTTL_ = 0;
    IpDscp txTOS_;
    IpTtl txTTL_;
    uint32_t options_ = none;
    uint32_t maxRxPktData_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxBufferBytes_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxTruncatedPkts_ = 0;
    uint32_t rxBuf_ = 0;
    uint32_t priority_ = 0;
    Mox::Array<IpFilter> rxFilter_;
    Mox::String txIfName_;
    uint32_t txIfIndex_ = 0;
    int txFlags_ = 0;
    int rxFlags_ = 0;
    uint32_t rxIfIndex_ = 0;
    IpGenAddr txSrcIpAddr_;
    IpGenAddr txDstIpAddr_;
    IpGenAddr rxSrcIpAddr_;
    IpGenAddr rxDstIpAddr_;
    IpGenAddr rxOrigDstIpAddr_;
    uint64_t txPktCount_ = 0;
    uint64_t rxPktCount_ = 0;
    PamSocket socket_;  // Last, so that it is closed first.
};

/// A disabled endpoint for `protocol` in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<IpPam> ipPamFactory(Mox::String name, IpProtocolNumber protocol,
                                         NamespaceName netNs);

}  // namespace Pavo
