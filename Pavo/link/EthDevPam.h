/// @file
/// Endpoints for the Ethernet frames of one device.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/IpSocketOptions.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

struct RxBatch;
struct RxRound;
struct RxSettings;
struct SocketSettings;
struct TxHead;
class EthRing;
class PktReceiver;

/// Frames of one network device, on a Linux packet socket (packet(7)). A packet is a frame from its
/// Ethernet header on, without the check sequence. A VLAN tag that the kernel has taken out of a
/// received frame is the separate tag of the packet, and a separate tag is put into the frame when
/// it is sent. `rxInfo` has the interface and the `pktType`. Frames that this host sends are not
/// received.
///
/// Enabling opens the socket in `netNs`, applies what the attributes ask for and binds it to the
/// device; it either succeeds whole or leaves no descriptor. It needs an event loop on the calling
/// thread, and CAP_NET_RAW. `netNs`, `device`, `ifIndex`, `etherType` and the ring describe that: a
/// change of one takes effect at the next enabling. Disabling hands the socket to `deferClose`.
///
/// With a ring (`rxRingBlocks`) the kernel leaves frames in memory that it shares with the process,
/// from where reads copy them without a system call. It hands over a block of many frames at a
/// time, so a frame waits until its block is full, or until `rxRingTimeoutMs` have passed. Without
/// a ring a frame is there at once. All else is the same.
///
/// A device that is down, or goes down, is one failed read (ENETDOWN), which counts an `rxErrors`;
/// frames arrive again when it is up. A device that goes away is one too, and then the endpoint
/// receives nothing more: it can be disabled, and enabled on another device of that name.
/// Reads that find nothing are not counted. A send that fails is counted and dropped (ENETDOWN,
/// ENXIO without the device, EMSGSIZE above the MTU, EINVAL for less than a header); when there was
/// no room, `writableCount` is incremented once, as soon as there is some.
class PAVO_EXPORT EthDevPam : public Mox::EntityOf<EthDevPam, Pam> {
  public:
    /// The `etherType` with which frames of every type are received.
    static constexpr uint16_t allTypes = 0x0003;

    static constexpr Mox::Attribute<EthDevPam> enabledAttr{8, "enabled"};
    static constexpr Mox::Attribute<EthDevPam> optionsAttr{9, "options"};
    static constexpr Mox::Attribute<EthDevPam> enableBulkReadAttr{10, "enableBulkRead"};
    static constexpr Mox::Attribute<EthDevPam> socketReadLimitAttr{11, "socketReadLimit"};
    static constexpr Mox::Attribute<EthDevPam> maxRxPktDataAttr{12, "maxRxPktData"};
    static constexpr Mox::Attribute<EthDevPam> rxBufferBytesAttr{13, "rxBufferBytes"};
    static constexpr Mox::Attribute<EthDevPam> rxBufAttr{14, "rxBuf"};
    static constexpr Mox::Attribute<EthDevPam> priorityAttr{15, "priority"};
    static constexpr Mox::Attribute<EthDevPam> rxFilterAttr{16, "rxFilter"};
    static constexpr Mox::Attribute<EthDevPam> netNsAttr{17, "netNs"};
    static constexpr Mox::Attribute<EthDevPam> deviceAttr{18, "device"};
    static constexpr Mox::Attribute<EthDevPam> ifIndexAttr{19, "ifIndex"};
    static constexpr Mox::Attribute<EthDevPam> etherTypeAttr{20, "etherType"};
    static constexpr Mox::Attribute<EthDevPam> promiscuousAttr{21, "promiscuous"};
    static constexpr Mox::Attribute<EthDevPam> rxRingBlocksAttr{22, "rxRingBlocks"};
    static constexpr Mox::Attribute<EthDevPam> rxRingBlockBytesAttr{23, "rxRingBlockBytes"};
    static constexpr Mox::Attribute<EthDevPam> rxRingTimeoutMsAttr{24, "rxRingTimeoutMs"};
    static constexpr Mox::Attribute<EthDevPam> boundIfIndexAttr{25, "boundIfIndex"};
    static constexpr Mox::Attribute<EthDevPam> ethAddrAttr{26, "ethAddr"};
    static constexpr Mox::Attribute<EthDevPam> txPktCountAttr{27, "txPktCount"};
    static constexpr Mox::Attribute<EthDevPam> rxPktCountAttr{28, "rxPktCount"};
    static constexpr Mox::Attribute<EthDevPam> rxTruncatedPktsAttr{29, "rxTruncatedPkts"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::EthDevPam", Mox::attribute(enabledAttr, &EthDevPam::enabled),
                                Mox::attribute(optionsAttr, &EthDevPam::options),
                                Mox::attribute(enableBulkReadAttr, &EthDevPam::enableBulkRead),
                                Mox::attribute(socketReadLimitAttr, &EthDevPam::socketReadLimit),
                                Mox::attribute(maxRxPktDataAttr, &EthDevPam::maxRxPktData),
                                Mox::attribute(rxBufferBytesAttr, &EthDevPam::rxBufferBytes),
                                Mox::attribute(rxBufAttr, &EthDevPam::rxBuf),
                                Mox::attribute(priorityAttr, &EthDevPam::priority),
                                Mox::attribute(rxFilterAttr, &EthDevPam::rxFilter),
                                Mox::attribute(netNsAttr, &EthDevPam::netNs),
                                Mox::attribute(deviceAttr, &EthDevPam::device),
                                Mox::attribute(ifIndexAttr, &EthDevPam::ifIndex),
                                Mox::attribute(etherTypeAttr, &EthDevPam::etherType),
                                Mox::attribute(promiscuousAttr, &EthDevPam::promiscuous),
                                Mox::attribute(rxRingBlocksAttr, &EthDevPam::rxRingBlocks),
                                Mox::attribute(rxRingBlockBytesAttr, &EthDevPam::rxRingBlockBytes),
                                Mox::attribute(rxRingTimeoutMsAttr, &EthDevPam::rxRingTimeoutMs),
                                Mox::attribute(boundIfIndexAttr, &EthDevPam::boundIfIndex),
                                Mox::attribute(ethAddrAttr, &EthDevPam::ethAddr),
                                Mox::attribute(txPktCountAttr, &EthDevPam::txPktCount),
                                Mox::attribute(rxPktCountAttr, &EthDevPam::rxPktCount),
                                Mox::attribute(rxTruncatedPktsAttr, &EthDevPam::rxTruncatedPkts));
    }

    /// Disabled: for frames of all types.
    EthDevPam(Mox::String name, NamespaceName netNs);

    /// @pre enabled (assertion "enabled()"), with a packet (assertion "pkt != nullptr").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    int32_t doGetBulkRxPkt() override;

    /// Frames that passed the filter, and that the kernel dropped for lack of room
    /// (PACKET_STATISTICS) or that were unread when the endpoint was disabled. Makes a system call
    /// while enabled. The sum of `rxPktCount` and `rxDrops` so has every frame that passed.
    uint32_t rxDrops() const override;
    void rxDropsIs(uint32_t drops) override;

    /// Whether the socket is open.
    bool enabled() const { return enabled_; }
    /// @pre to enable: an event loop on this thread (assertion "EventLoop::current(): enabling
    /// needs an event loop on this thread").
    /// @throws Mox::ErrnoException naming the call that failed: "socketAt", "ioctl(SIOCGIFINDEX)"
    /// (ENODEV: no such device), "setsockopt(...)" (EINVAL of PACKET_RX_RING: an impossible size),
    /// "mmap", "bind" (ENODEV: no such index) or "getsockname" (EAFNOSUPPORT: the frames of the
    /// device are not those of Ethernet); the endpoint is then disabled.
    void enabledIs(bool enabled);
    /// The options that are wanted: of `IpSocketOptions` these sockets have `ipRcvBuf`,
    /// `ipPriority` and `ipRecvTimestamp`. Other bits change nothing.
    uint32_t options() const { return options_; }
    /// @throws Mox::ErrnoException naming the option that failed; `options` then describes the
    /// socket. A socket that refuses `ipPriority` is closed.
    void optionsIs(uint32_t options);

    /// As `IpPam` has them: reading in batches, the most packets of a batch (32), the room for a
    /// packet and the size of its buffer in bytes (1536 each), the receive buffer of `ipRcvBuf`,
    /// the priority of `ipPriority`.
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

    /// The network namespace of the device.
    const NamespaceName& netNs() const { return netNs_; }
    void netNsIs(const NamespaceName& netNs) { attributeIs(netNs_, netNs, netNsAttr); }
    /// The device by name, or while the name is empty by index.
    /// @{
    const Mox::String& device() const { return device_; }
    void deviceIs(Mox::String device) { attributeIs(device_, std::move(device), deviceAttr); }
    uint32_t ifIndex() const { return ifIndex_; }
    void ifIndexIs(uint32_t index) { attributeIs(ifIndex_, index, ifIndexAttr); }
    /// @}
    /// The type of the frames that are received, one of `EthType`, or `allTypes`, which is the
    /// default. Frames with a VLAN identifier come to an endpoint of one type without their tag,
    /// and `pktType` is then `otherHost`; only an endpoint of all types has the tag.
    uint16_t etherType() const { return etherType_; }
    void etherTypeIs(uint16_t type) { attributeIs(etherType_, type, etherTypeAttr); }
    /// Whether the device delivers frames for other hosts too, with the `pktType` `otherHost`; off
    /// by default. Virtual devices and tap devices always deliver them.
    /// @throws Mox::ErrnoException "setsockopt(PACKET_ADD_MEMBERSHIP)" or
    /// "setsockopt(PACKET_DROP_MEMBERSHIP)"; the attribute keeps its value.
    bool promiscuous() const { return promiscuous_; }
    void promiscuousIs(bool promiscuous);
    /// The expression (pcap-filter(7)) that a frame has to pass in the kernel; all do with an empty
    /// one. It does not see the separate tag, so `vlan` does not match that: see
    /// `ethFilterFromText`.
    const Mox::String& rxFilter() const { return rxFilter_; }
    /// Sets it, also while enabled, for frames that arrive from now on. Returns an empty string, or
    /// the text of what is wrong with the expression; the filter is then unchanged.
    /// @throws Mox::ErrnoException "setsockopt(SO_ATTACH_FILTER)" or
    /// "setsockopt(SO_DETACH_FILTER)"; the filter is then unchanged.
    [[nodiscard]] Mox::String tryRxFilter(const Mox::String& expression);

    /// The receive ring (the kernel's packet_mmap.rst): the number of its blocks, 0 for no ring,
    /// which is the default; the size of a block, a multiple of the page size (65536); the longest
    /// time in milliseconds that a block is filled (10), which the kernel rounds up to its timer,
    /// and chooses itself for 0. A frame takes its length and some 100 bytes more, and one that is
    /// longer than a block is cut. Frames that find all blocks full are dropped. With a ring
    /// `ipRcvBuf` has no effect.
    /// @{
    uint32_t rxRingBlocks() const { return rxRingBlocks_; }
    void rxRingBlocksIs(uint32_t blocks) { attributeIs(rxRingBlocks_, blocks, rxRingBlocksAttr); }
    uint32_t rxRingBlockBytes() const { return rxRingBlockBytes_; }
    void rxRingBlockBytesIs(uint32_t bytes) {
        attributeIs(rxRingBlockBytes_, bytes, rxRingBlockBytesAttr);
    }
    uint32_t rxRingTimeoutMs() const { return rxRingTimeoutMs_; }
    void rxRingTimeoutMsIs(uint32_t milliseconds) {
        attributeIs(rxRingTimeoutMs_, milliseconds, rxRingTimeoutMsAttr);
    }
    /// @}

    /// The index and the MAC address that the device had when the endpoint was enabled, else 0.
    /// They change with `enabled`, and notify no observer of their own.
    /// @{
    uint32_t boundIfIndex() const { return boundIfIndex_; }
    const EthAddr& ethAddr() const { return ethAddr_; }
    /// @}
    /// Packets sent.
    uint64_t txPktCount() const { return txPktCount_; }
    void txPktCountIs(uint64_t count) { attributeIs(txPktCount_, count, txPktCountAttr); }
    uint64_t txPktCountInc(uint64_t delta) {
        return attributeInc(txPktCount_, delta, txPktCountAttr);
    }
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

    /// Receives the frames of a multicast MAC address, or no longer does. Memberships end with the
    /// socket. Leaving a group of which the endpoint is no member does nothing.
    /// @pre enabled (assertion "enabled()").
    /// @throws Mox::ErrnoException "setsockopt(PACKET_ADD_MEMBERSHIP)" or
    /// "setsockopt(PACKET_DROP_MEMBERSHIP)".
    /// @{
    void doJoinMcastGroup(const EthAddr& group);
    void doLeaveMcastGroup(const EthAddr& group);
    /// @}

    /// The socket and the machine that watches it; null while disabled.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return socket_.fileDesc(); }
    const Mox::Ptr<PamFdSm>& fdSm() const { return socket_.fdSm(); }
    /// @}

  protected:
    ~EthDevPam() override;

  private:
    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);

    SocketSettings socketSettings() const;
    void open();
    uint32_t wantedIfIndex(int fd) const;
    EthAddr bindTo(int fd, uint32_t ifIndex) const;
    void start();
    void cleanup();
    void membershipIs(int fd, uint32_t ifIndex, uint16_t type, const EthAddr& address,
                      bool member) const;
    bool addStatistics() const;

    RxSettings rxSettings() const;
    void readSingle();
    int32_t readBulk();
    std::unique_ptr<RxBatch> readBatch();
    void countRead(const RxRound& round);
    TxHead txHead() const;

    NamespaceName netNs_;
    bool enabled_ = false;
    bool enableBulkRead_ = false;
    bool promiscuous_ = false;
    uint8_t socketReadLimit_ = 32;
    uint8_t bulkSlots_ = 0;
    uint16_t etherType_ = allTypes;
    uint32_t options_ = 0;
    uint32_t maxRxPktData_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxBufferBytes_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxBuf_ = 0;
    uint32_t priority_ = 0;
    Mox::String device_;
    uint32_t ifIndex_ = 0;
    Mox::String rxFilter_;
    std::vector<IpFilter> program_;  // That of `rxFilter_`.
    uint32_t rxRingBlocks_ = 0;
    uint32_t rxRingBlockBytes_ = 65536;
    uint32_t rxRingTimeoutMs_ = 10;
    uint32_t boundIfIndex_ = 0;
    EthAddr ethAddr_;
    uint64_t txPktCount_ = 0;
    uint64_t rxPktCount_ = 0;
    uint32_t rxTruncatedPkts_ = 0;
    // The kernel's statistics begin anew with each look.
    mutable uint32_t drops_ = 0;
    mutable uint32_t unread_ = 0;  // Frames the kernel has reported, less those that were read.
    PamSocket socket_;
    std::unique_ptr<PktReceiver> receiver_;
    std::unique_ptr<EthRing> ring_;  // Null while there is none.
};

/// A disabled endpoint for frames of a device, which `deviceIs` or `ifIndexIs` names, in the
/// namespace `netNs`.
PAVO_EXPORT Mox::Ptr<EthDevPam> ethDevPamFactory(Mox::String name, NamespaceName netNs = {});

}  // namespace Pavo
