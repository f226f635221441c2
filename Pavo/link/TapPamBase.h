/// @file
/// The common part of the endpoints of tap devices.
#pragma once

#include <span>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/FdPam.h"

namespace Pavo {

/// An endpoint of Ethernet frames on a tap device (the kernel's networking/tuntap.rst). What the
/// host sends out of the device is received here; what is sent here, the host receives on the
/// device. The kernel receives and sends frames in their whole length, with their VLAN tags and
/// without the frame check sequence.
///
/// Enabling opens the device, or takes its descriptor. Where it fails, the exception names one of
/// the calls that the concrete endpoint lists, or "ioctl(TUNGETIFF)" (EBADFD: no device is
/// attached; EINVAL: it is not a tap device, or it has IFF_VNET_HDR). Disabling passes the
/// descriptor to `deferClose`: closing a device can take tens of milliseconds.
///
/// Why a send fails: EIO while the device is down, EINVAL for a frame of
/// fewer than 14 bytes. A separate VLAN tag is sent in its place in the frame. While the device is
/// down nothing is received. A device that is deleted by others is EBADFD for one read or two,
/// which are counted, and for every later send; the endpoint stays enabled, and may be disabled
/// and enabled again.
class PAVO_EXPORT TapPamBase : public Mox::EntityOf<TapPamBase, FdPam> {
  public:
    static constexpr Mox::Attribute<TapPamBase> ifNameAttr{13, "ifName"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TapPamBase",
                                Mox::attribute(ifNameAttr, &TapPamBase::ifName));
    }

    void doGetRxPkt() override;

    /// The name that the device had when it was opened; empty while disabled. Changes with
    /// `enabled`, and notifies no observer of its own.
    const Mox::String& ifName() const { return ifName_; }

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
    friend class FdPam;

    void open();
    void close();
    TxResult send(int fd, std::span<const Mox::Ptr<Pkt>> pkts);

    Mox::String ifName_;
};

}  // namespace Pavo
