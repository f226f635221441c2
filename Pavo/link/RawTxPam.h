/// @file
/// Endpoints that send frames on any interface.
#pragma once

#include <cstdint>
#include <span>
#include <utility>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/FdPam.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// An endpoint that sends whole Ethernet frames, each out of the interface that the agent names by
/// its index, on one packet socket (packet(7)). It never receives, so that frames of the host cost
/// it nothing: its socket is bound to no protocol. `rxPkt` returns null.
///
/// Enabling opens the socket in `netNs`, whose change takes effect at the next enabling. It needs
/// CAP_NET_RAW. Where it fails, the exception names "socketAt" or
/// "setsockopt(PACKET_QDISC_BYPASS)". Disabling passes the descriptor to `deferClose`.
///
/// Why a send fails: ENXIO for an unknown interface, ENETDOWN for one that is down, EMSGSIZE for a
/// frame longer than its MTU and the header (with a tag of TPID 0x8100, 4 bytes more are allowed),
/// EINVAL for one of fewer than 14 bytes. A separate VLAN tag is sent in its place in the frame.
/// EAGAIN, a full send buffer, and ENOBUFS, a full queue of the interface, are announced by
/// `writableCount` when there is room; the kernel does not report room in the queue of an
/// interface, so after ENOBUFS this is in the next turn of the loop. A frame that the device itself
/// drops, such as a tap that nobody reads, counts as sent; with `bypassesQdisc` it is ENOBUFS.
class PAVO_EXPORT RawTxPam : public Mox::EntityOf<RawTxPam, FdPam> {
  public:
    static constexpr Mox::Attribute<RawTxPam> netNsAttr{13, "netNs"};
    static constexpr Mox::Attribute<RawTxPam> txIfIndexAttr{14, "txIfIndex"};
    static constexpr Mox::Attribute<RawTxPam> bypassesQdiscAttr{15, "bypassesQdisc"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::RawTxPam", Mox::attribute(netNsAttr, &RawTxPam::netNs),
                                Mox::attribute(txIfIndexAttr, &RawTxPam::txIfIndex),
                                Mox::attribute(bypassesQdiscAttr, &RawTxPam::bypassesQdisc));
    }

    /// Disabled, for the interfaces of the namespace `netNs`.
    RawTxPam(Mox::String name, NamespaceName netNs);

    void doGetRxPkt() override;

    /// The network namespace in which the socket is opened.
    const NamespaceName& netNs() const { return netNs_; }
    void netNsIs(NamespaceName netNs) { attributeIs(netNs_, std::move(netNs), netNsAttr); }

    /// The interface of the next frame or batch, as an index in the namespace.
    uint32_t txIfIndex() const { return txIfIndex_; }
    void txIfIndexIs(uint32_t index) { attributeIs(txIfIndex_, index, txIfIndexAttr); }
    /// Sets `txIfIndex`, and sends a batch there, before observers are notified of the index.
    uint32_t txPktsIs(uint32_t ifIndex, std::span<const Mox::Ptr<Pkt>> pkts);
    using Pam::txPktsIs;

    /// Whether frames go to the driver past the queueing discipline of the interface
    /// (PACKET_QDISC_BYPASS): faster, and unknown to the traffic control of the host. What the
    /// driver has no room for is ENOBUFS.
    /// @throws Mox::ErrnoException "setsockopt(PACKET_QDISC_BYPASS)"; the attribute keeps its
    /// value.
    bool bypassesQdisc() const { return bypassesQdisc_; }
    void bypassesQdiscIs(bool bypasses);

  protected:
    ~RawTxPam() override;

  private:
    friend class FdPam;

    void open();
    void close();
    TxResult send(int fd, std::span<const Mox::Ptr<Pkt>> pkts);

    bool bypassesQdisc_ = false;
    uint32_t txIfIndex_ = 0;
    NamespaceName netNs_;
};

/// Disabled, for the interfaces of the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<RawTxPam> rawTxPamFactory(Mox::String name,
                                               NamespaceName netNs = NamespaceName());

}  // namespace Pavo
