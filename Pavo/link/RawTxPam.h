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
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// An endpoint that sends whole Ethernet frames, each out of the interface that the agent names by
/// its index, on one packet socket (packet(7)). It never receives, so that frames of the host cost
/// it nothing: its socket is bound to no protocol. `rxPkt` returns null.
///
/// Enabling opens the socket in `netNs`, whose change takes effect at the next enabling; it either
/// succeeds whole or leaves no descriptor. It needs CAP_NET_RAW and an event loop on the calling
/// thread. Disabling passes the descriptor to `deferClose`.
///
/// A send that fails is counted and dropped: ENXIO for an unknown interface, ENETDOWN for one that
/// is down, EMSGSIZE for a frame longer than its MTU and the header (with a tag of TPID 0x8100, 4
/// bytes more are allowed), EINVAL for one of fewer than 14 bytes. A separate VLAN tag is sent in
/// its place in the frame. EAGAIN, a full send buffer, and ENOBUFS, a full queue of the interface,
/// are announced by `writableCount` when there is room; the kernel does not report room in the
/// queue of an interface, so after ENOBUFS this is in the next turn of the loop.
class PAVO_EXPORT RawTxPam : public Mox::EntityOf<RawTxPam, Pam> {
  public:
    static constexpr Mox::Attribute<RawTxPam> enabledAttr{8, "enabled"};
    static constexpr Mox::Attribute<RawTxPam> netNsAttr{9, "netNs"};
    static constexpr Mox::Attribute<RawTxPam> txIfIndexAttr{10, "txIfIndex"};
    static constexpr Mox::Attribute<RawTxPam> bypassesQdiscAttr{11, "bypassesQdisc"};
    static constexpr Mox::Attribute<RawTxPam> txPktCountAttr{12, "txPktCount"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::RawTxPam", Mox::attribute(enabledAttr, &RawTxPam::enabled),
                                Mox::attribute(netNsAttr, &RawTxPam::netNs),
                                Mox::attribute(txIfIndexAttr, &RawTxPam::txIfIndex),
                                Mox::attribute(bypassesQdiscAttr, &RawTxPam::bypassesQdisc),
                                Mox::attribute(txPktCountAttr, &RawTxPam::txPktCount));
    }

    /// Disabled, for the interfaces of the namespace `netNs`.
    RawTxPam(Mox::String name, NamespaceName netNs);

    /// Sends on the interface `txIfIndex`.
    /// @pre enabled (assertion "enabled()"), with a packet (assertion "pkt != nullptr").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;

    /// Whether the socket is open.
    bool enabled() const { return enabled_; }
    /// @pre to enable: an event loop on this thread (assertion "EventLoop::current(): enabling
    /// needs an event loop on this thread").
    /// @throws Mox::ErrnoException "socketAt" or "setsockopt(PACKET_QDISC_BYPASS)"; the endpoint
    /// is then disabled.
    void enabledIs(bool enabled);
    /// The network namespace in which the socket is opened.
    const NamespaceName& netNs() const { return netNs_; }
    void netNsIs(NamespaceName netNs) { attributeIs(netNs_, std::move(netNs), netNsAttr); }

    /// The interface of the next frame or batch, as an index in the namespace.
    uint32_t txIfIndex() const { return txIfIndex_; }
    void txIfIndexIs(uint32_t index) { attributeIs(txIfIndex_, index, txIfIndexAttr); }
    /// Sets `txIfIndex`, and sends a batch there.
    uint32_t txPktsIs(uint32_t ifIndex, std::span<const Mox::Ptr<Pkt>> pkts) {
        txIfIndexIs(ifIndex);
        return txPktsIs(pkts);
    }
    using Pam::txPktsIs;

    /// Whether frames go to the driver past the queueing discipline of the interface
    /// (PACKET_QDISC_BYPASS): faster, and unknown to the traffic control of the host. What the
    /// driver has no room for is ENOBUFS.
    /// @throws Mox::ErrnoException "setsockopt(PACKET_QDISC_BYPASS)"; the attribute keeps its
    /// value.
    bool bypassesQdisc() const { return bypassesQdisc_; }
    void bypassesQdiscIs(bool bypasses);
    /// Frames sent.
    uint64_t txPktCount() const { return txPktCount_; }
    void txPktCountIs(uint64_t count) { attributeIs(txPktCount_, count, txPktCountAttr); }
    uint64_t txPktCountInc(uint64_t delta) {
        return attributeInc(txPktCount_, delta, txPktCountAttr);
    }

    /// The socket and the machine that watches it; null while disabled.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return socket_.fileDesc(); }
    const Mox::Ptr<PamFdSm>& fdSm() const { return socket_.fdSm(); }
    /// @}

  protected:
    ~RawTxPam() override;

  private:
    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);

    void open();
    void start();
    void cleanup();

    bool enabled_ = false;
    bool bypassesQdisc_ = false;
    uint32_t txIfIndex_ = 0;
    uint64_t txPktCount_ = 0;
    NamespaceName netNs_;
    PamSocket socket_;  // Last, so that it is closed first.
};

/// Disabled, for the interfaces of the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<RawTxPam> rawTxPamFactory(Mox::String name,
                                               NamespaceName netNs = NamespaceName());

}  // namespace Pavo
