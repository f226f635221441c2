/// @file
/// Endpoints for the Ethernet frames of one device.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/IpSocketOptions.h"
#include "Pavo/pam/SocketPam.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

struct RxSettings;
struct TxResult;
class EthRing;

/// Frames of one network device, on a Linux packet socket (packet(7)). A packet is a frame from its
/// Ethernet header on, without the check sequence. A VLAN tag that the kernel has taken out of a
/// received frame is the separate tag of the packet, and a separate tag is put into the frame when
/// it is sent. `rxInfo` has the interface and the `pktType`. Frames that this host sends are not
/// received.
///
/// Enabling opens the socket in `netNs`, applies what the attributes ask for and binds it to the
/// device. It needs CAP_NET_RAW. `netNs`, `device`, `ifIndex`, `etherType` and the ring describe
/// that: a change of one takes effect at the next enabling. Disabling hands the socket to
/// `deferClose`. Where enabling fails, the exception names "socketAt", "ioctl(SIOCGIFINDEX)"
/// (ENODEV: no such device), "setsockopt(...)" (EINVAL of PACKET_RX_RING: an impossible size),
/// "mmap", "bind" (ENODEV: no such index) or "getsockname" (EAFNOSUPPORT: the frames of the device
/// are not those of Ethernet). Of the options these sockets have `ipRcvBuf`, `ipPriority` and
/// `ipRecvTimestamp`.
///
/// With a ring (`rxRingBlocks`) the kernel leaves frames in memory that it shares with the process,
/// from where reads copy them without a system call. It hands over a block of many frames at a
/// time, so a frame waits until its block is full, or until `rxRingTimeoutMs` have passed. Without
/// a ring a frame is there at once. All else is the same.
///
/// A device that is down, or goes down, is one failed read (ENETDOWN), which counts an `rxErrors`;
/// frames arrive again when it is up. A device that goes away is one too, and then the endpoint
/// receives nothing more: it can be disabled, and enabled on another device of that name.
/// Reads that find nothing are not counted. Why a send fails: ENETDOWN, ENXIO without the device,
/// EMSGSIZE above the MTU, EINVAL for less than a header.
class PAVO_EXPORT EthDevPam : public Mox::EntityOf<EthDevPam, SocketPam> {
  public:
    /// The `etherType` with which frames of every type are received.
    static constexpr uint16_t allTypes = 0x0003;

    static constexpr Mox::Attribute<EthDevPam> rxFilterAttr{19, "rxFilter"};
    static constexpr Mox::Attribute<EthDevPam> netNsAttr{20, "netNs"};
    static constexpr Mox::Attribute<EthDevPam> deviceAttr{21, "device"};
    static constexpr Mox::Attribute<EthDevPam> ifIndexAttr{22, "ifIndex"};
    static constexpr Mox::Attribute<EthDevPam> etherTypeAttr{23, "etherType"};
    static constexpr Mox::Attribute<EthDevPam> promiscuousAttr{24, "promiscuous"};
    static constexpr Mox::Attribute<EthDevPam> rxRingBlocksAttr{25, "rxRingBlocks"};
    static constexpr Mox::Attribute<EthDevPam> rxRingBlockBytesAttr{26, "rxRingBlockBytes"};
    static constexpr Mox::Attribute<EthDevPam> rxRingTimeoutMsAttr{27, "rxRingTimeoutMs"};
    static constexpr Mox::Attribute<EthDevPam> boundIfIndexAttr{28, "boundIfIndex"};
    static constexpr Mox::Attribute<EthDevPam> ethAddrAttr{29, "ethAddr"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::EthDevPam",
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
                                Mox::attribute(ethAddrAttr, &EthDevPam::ethAddr));
    }

    /// Disabled: for frames of all types.
    EthDevPam(Mox::String name, NamespaceName netNs);

    /// Frames that passed the filter, and that the kernel dropped for lack of room
    /// (PACKET_STATISTICS) or that were unread when the endpoint was disabled. Makes a system call
    /// while enabled. The sum of `rxPktCount` and `rxDrops` so has every frame that passed.
    uint32_t rxDrops() const override;
    void rxDropsIs(uint32_t drops) override;

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
    /// Receives the frames of a multicast MAC address, or no longer does. Memberships end with the
    /// socket. Leaving a group of which the endpoint is no member does nothing.
    /// @pre enabled (assertion "enabled()").
    /// @throws Mox::ErrnoException "setsockopt(PACKET_ADD_MEMBERSHIP)" or
    /// "setsockopt(PACKET_DROP_MEMBERSHIP)".
    /// @{
    void doJoinMcastGroup(const EthAddr& group);
    void doLeaveMcastGroup(const EthAddr& group);
    /// @}

  protected:
    ~EthDevPam() override;

  private:
    friend class FdPam;
    friend class SocketPam;

    void open();
    uint32_t wantedIfIndex(int fd) const;
    EthAddr bindTo(int fd, uint32_t ifIndex) const;
    void close();
    std::span<const SocketOption> optionTable() const;
    SocketSettings socketSettings() const;
    void membershipIs(int fd, uint32_t ifIndex, uint16_t type, const EthAddr& address,
                      bool member) const;
    bool addStatistics() const;

    RxSettings rxSettings() const;
    RxRound readOne(Mox::Ptr<Pkt>* pkt, RxInfo* info);
    std::unique_ptr<RxBatch> readBatch();
    TxResult send(int fd, std::span<const Mox::Ptr<Pkt>> pkts);

    NamespaceName netNs_;
    bool promiscuous_ = false;
    uint16_t etherType_ = allTypes;
    Mox::String device_;
    uint32_t ifIndex_ = 0;
    Mox::String rxFilter_;
    Mox::Array<IpFilter> program_;  // That of `rxFilter_`.
    uint32_t rxRingBlocks_ = 0;
    uint32_t rxRingBlockBytes_ = 65536;
    uint32_t rxRingTimeoutMs_ = 10;
    uint32_t boundIfIndex_ = 0;
    EthAddr ethAddr_;
    // The kernel's statistics begin anew with each look.
    mutable uint32_t drops_ = 0;
    mutable uint32_t unread_ = 0;    // Frames the kernel has reported, less those that were read.
    std::unique_ptr<EthRing> ring_;  // Null while there is none.
};

/// A disabled endpoint for frames of a device, which `deviceIs` or `ifIndexIs` names, in the
/// namespace `netNs`.
PAVO_EXPORT Mox::Ptr<EthDevPam> ethDevPamFactory(Mox::String name, NamespaceName netNs = {});

}  // namespace Pavo
