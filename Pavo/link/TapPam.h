/// @file
/// Endpoints that make a tap device.
#pragma once

#include <cstdint>
#include <utility>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/link/TapPamBase.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// A tap device by its name, in a network namespace. Enabling makes the device, which ends when the
/// endpoint is disabled, with the process at the latest. A device of that name that was made to
/// persist (ip-tuntap(8)) is opened instead, and remains. Both need CAP_NET_ADMIN, or ownership of
/// the persistent device. Where the name is that of a device that this process has just given up,
/// enabling waits until `deferClose` has closed that.
///
/// `netNs` and `device` take effect at the next enabling. `mac`, `mtu` and `isUp` are set at
/// enabling, in this order; a change while enabled changes the device at once.
class PAVO_EXPORT TapPam : public Mox::EntityOf<TapPam, TapPamBase> {
  public:
    static constexpr Mox::Attribute<TapPam> netNsAttr{14, "netNs"};
    static constexpr Mox::Attribute<TapPam> deviceAttr{15, "device"};
    static constexpr Mox::Attribute<TapPam> macAttr{16, "mac"};
    static constexpr Mox::Attribute<TapPam> mtuAttr{17, "mtu"};
    static constexpr Mox::Attribute<TapPam> isUpAttr{18, "isUp"};
    static constexpr Mox::Attribute<TapPam> ifIndexAttr{19, "ifIndex"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TapPam", Mox::attribute(netNsAttr, &TapPam::netNs),
            Mox::attribute(deviceAttr, &TapPam::device), Mox::attribute(macAttr, &TapPam::mac),
            Mox::attribute(mtuAttr, &TapPam::mtu), Mox::attribute(isUpAttr, &TapPam::isUp),
            Mox::attribute(ifIndexAttr, &TapPam::ifIndex));
    }

    /// Disabled, for a device of that name in the namespace `netNs`.
    TapPam(Mox::String name, Mox::String device, NamespaceName netNs);

    /// The network namespace of the device.
    const NamespaceName& netNs() const { return netNs_; }
    void netNsIs(NamespaceName netNs) { attributeIs(netNs_, std::move(netNs), netNsAttr); }
    /// The name of the device, of at most 15 bytes. The kernel replaces "%d" in it by a free
    /// number, and an empty one by "tap%d"; `ifName` then has the whole name.
    const Mox::String& device() const { return device_; }
    void deviceIs(Mox::String device) { attributeIs(device_, std::move(device), deviceAttr); }
    /// The address of the host's end. Zero leaves it to the kernel, which draws one at random for
    /// each new device; set while enabled, it takes effect at the next enabling.
    /// @throws Mox::ErrnoException "ioctl(SIOCSIFHWADDR)" (EADDRNOTAVAIL: a group's); the attribute
    /// keeps its value.
    const EthAddr& mac() const { return mac_; }
    void macIs(const EthAddr& mac);
    /// The largest IP packet in bytes, 68 to 65521; 0 leaves it to the kernel (1500), as for `mac`.
    /// Frames are up to 18 bytes longer with one VLAN tag: `maxRxPktData` has to have room for
    /// them.
    /// @throws Mox::ErrnoException "ioctl(SIOCSIFMTU)" (EINVAL); the attribute keeps its value.
    uint32_t mtu() const { return mtu_; }
    void mtuIs(uint32_t bytes);
    /// Whether the device is set up, which it is by default, or down.
    /// @throws Mox::ErrnoException "ioctl(SIOCGIFFLAGS)" or "ioctl(SIOCSIFFLAGS)"; the attribute
    /// keeps its value.
    bool isUp() const { return isUp_; }
    void isUpIs(bool isUp);
    /// The index of the device in its namespace while enabled, else 0. Changes with `enabled`, and
    /// notifies no observer of its own.
    uint32_t ifIndex() const { return ifIndex_; }

  protected:
    ~TapPam() override;

    /// @throws Mox::ErrnoException "open(/dev/net/tun)"; "ioctl(TUNSETIFF)" (EBUSY: another
    /// descriptor is attached to the device; EINVAL: the name is not valid, or that of another kind
    /// of device); "socketAt"; "ioctl(SIOCGIFINDEX)"; those of `mac`, `mtu` and `isUp`.
    Mox::Ptr<Mox::FileDescriptor> newTap() override;
    void handleTapGone() override;

  private:
    NamespaceName netNs_;
    Mox::String device_;
    EthAddr mac_;
    uint32_t mtu_ = 0;
    bool isUp_ = true;
    uint32_t ifIndex_ = 0;
    Mox::Ptr<Mox::FileDescriptor> control_;  // A socket of the device's namespace, for requests.
};

/// Disabled, for a device of that name in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<TapPam> tapPamFactory(Mox::String name, Mox::String device,
                                           NamespaceName netNs = NamespaceName());

}  // namespace Pavo
