/// @file
/// What the endpoints of tap devices have in common.
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

namespace Pavo {

/// An endpoint of Ethernet frames on a tap device (the kernel's networking/tuntap.rst). What the
/// host sends out of the device is received here; what is sent here, the host receives on the
/// device. The kernel receives and sends frames in their whole length, with their VLAN tags and
/// without the frame check sequence.
///
/// Enabling opens the device, or takes its descriptor; it either succeeds whole or leaves no
/// descriptor. It needs an event loop on the calling thread. Disabling passes the descriptor to
/// `deferClose`: closing a device can take tens of milliseconds.
///
/// A send that fails is counted and dropped: EIO while the device is down, EINVAL for a frame of
/// fewer than 14 bytes. A separate VLAN tag is sent in its place in the frame. While the device is
/// down nothing is received. A device that is deleted by others is EBADFD for one read or two,
/// which are counted, and for every later send; the endpoint stays enabled, and may be disabled
/// and enabled again.
class PAVO_EXPORT TapPamBase : public Mox::EntityOf<TapPamBase, Pam> {
  public:
    static constexpr Mox::Attribute<TapPamBase> enabledAttr{8, "enabled"};
    static constexpr Mox::Attribute<TapPamBase> ifNameAttr{9, "ifName"};
    static constexpr Mox::Attribute<TapPamBase> maxRxPktDataAttr{10, "maxRxPktData"};
    static constexpr Mox::Attribute<TapPamBase> rxPktCountAttr{11, "rxPktCount"};
    static constexpr Mox::Attribute<TapPamBase> rxTruncatedPktsAttr{12, "rxTruncatedPkts"};
    static constexpr Mox::Attribute<TapPamBase> txPktCountAttr{13, "txPktCount"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TapPamBase",
                                Mox::attribute(enabledAttr, &TapPamBase::enabled),
                                Mox::attribute(ifNameAttr, &TapPamBase::ifName),
                                Mox::attribute(maxRxPktDataAttr, &TapPamBase::maxRxPktData),
                                Mox::attribute(rxPktCountAttr, &TapPamBase::rxPktCount),
                                Mox::attribute(rxTruncatedPktsAttr, &TapPamBase::rxTruncatedPkts),
                                Mox::attribute(txPktCountAttr, &TapPamBase::txPktCount));
    }

    /// @pre enabled (assertion "enabled()"), with a packet (assertion "pkt != nullptr").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;

    /// Whether the device is open.
    bool enabled() const { return enabled_; }
    /// @pre to enable: an event loop on this thread (assertion "EventLoop::current(): enabling
    /// needs an event loop on this thread").
    /// @throws Mox::ErrnoException naming the call that failed: those of the concrete endpoint, and
    /// "ioctl(TUNGETIFF)" (EBADFD: no device is attached; EINVAL: it is not a tap device, or it
    /// has IFF_VNET_HDR); the endpoint is then disabled.
    void enabledIs(bool enabled);

    /// The name that the device had when it was opened; empty while disabled. Changes with
    /// `enabled`, and notifies no observer of its own.
    const Mox::String& ifName() const { return ifName_; }
    /// The room for a frame, in bytes (1536). A longer frame arrives cut, with `RxInfo::truncated`.
    uint32_t maxRxPktData() const { return maxRxPktData_; }
    void maxRxPktDataIs(uint32_t bytes) { attributeIs(maxRxPktData_, bytes, maxRxPktDataAttr); }
    /// Frames received.
    uint64_t rxPktCount() const { return rxPktCount_; }
    void rxPktCountIs(uint64_t count) { attributeIs(rxPktCount_, count, rxPktCountAttr); }
    uint64_t rxPktCountInc(uint64_t delta) {
        return attributeInc(rxPktCount_, delta, rxPktCountAttr);
    }
    /// Frames received truncated, see `maxRxPktData`.
    uint32_t rxTruncatedPkts() const { return rxTruncatedPkts_; }
    void rxTruncatedPktsIs(uint32_t packets) {
        attributeIs(rxTruncatedPkts_, packets, rxTruncatedPktsAttr);
    }
    uint32_t rxTruncatedPktsInc(uint32_t delta) {
        return attributeInc(rxTruncatedPkts_, delta, rxTruncatedPktsAttr);
    }
    /// Frames sent.
    uint64_t txPktCount() const { return txPktCount_; }
    void txPktCountIs(uint64_t count) { attributeIs(txPktCount_, count, txPktCountAttr); }
    uint64_t txPktCountInc(uint64_t delta) {
        return attributeInc(txPktCount_, delta, txPktCountAttr);
    }

    /// The device and the machine that watches it; null while disabled.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return socket_.fileDesc(); }
    const Mox::Ptr<PamFdSm>& fdSm() const { return socket_.fdSm(); }
    /// @}

  protected:
    explicit TapPamBase(Mox::String name);
    ~TapPamBase() override;

    /// The device, open and ready for use; called when the endpoint is enabled.
    /// @throws Mox::ErrnoException naming the call that failed.
    virtual Mox::Ptr<Mox::FileDescriptor> newTap() = 0;
    /// Called after the device was given up, before `enabled` changes, and when enabling has
    /// failed.
    virtual void handleTapGone() = 0;

  private:
    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);

    void open();
    void start();
    void cleanup();

    bool enabled_ = false;
    Mox::String ifName_;
    uint32_t maxRxPktData_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxTruncatedPkts_ = 0;
    uint64_t rxPktCount_ = 0;
    uint64_t txPktCount_ = 0;
    PamSocket socket_;  // Last, so that it is closed first.
};

}  // namespace Pavo
