#include "Pavo/link/TapPam.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/socket/SocketAt.h"
#include "Pavo/socket/deferClose.h"
#include "netns/netns.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TapPam");

// The request for a device of that name, which has at most 15 bytes.
ifreq requestFor(const Mox::String& name) {
    ifreq request{};
    std::memcpy(request.ifr_name, name.data(), name.bytes());
    return request;
}

void requestIs(int fd, unsigned long number, ifreq* request, const char* failure) {
    if (ioctl(fd, number, request) < 0) {
        Mox::throwErrnoException(failure);
    }
}

// Attaches the descriptor to a device, and returns the name that it has. The device of an endpoint
// that was disabled a moment ago has its name until its descriptor is closed.
Mox::String attachTo(int fd, const Mox::String& name) {
    static constexpr char failure[] = "ioctl(TUNSETIFF)";
    if (name.bytes() >= IFNAMSIZ) {
        throw Mox::ErrnoException(EINVAL, failure);
    }
    ifreq request = requestFor(name);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(fd, TUNSETIFF, &request) == 0) {
        return request.ifr_name;
    }
    if (errno != EBUSY) {
        Mox::throwErrnoException(failure);
    }
    deferCloseWait();
    requestIs(fd, TUNSETIFF, &request, failure);
    return request.ifr_name;
}

void deviceMacIs(int fd, const Mox::String& name, const EthAddr& mac) {
    ifreq request = requestFor(name);
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    mac.copyToBuffer(reinterpret_cast<unsigned char*>(request.ifr_hwaddr.sa_data));
    requestIs(fd, SIOCSIFHWADDR, &request, "ioctl(SIOCSIFHWADDR)");
}

void deviceMtuIs(int fd, const Mox::String& name, uint32_t mtu) {
    ifreq request = requestFor(name);
    request.ifr_mtu = static_cast<int>(mtu);
    requestIs(fd, SIOCSIFMTU, &request, "ioctl(SIOCSIFMTU)");
}

void deviceUpIs(int fd, const Mox::String& name, bool isUp) {
    ifreq request = requestFor(name);
    requestIs(fd, SIOCGIFFLAGS, &request, "ioctl(SIOCGIFFLAGS)");
    const int flags = isUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP;
    request.ifr_flags = static_cast<short>(flags);
    requestIs(fd, SIOCSIFFLAGS, &request, "ioctl(SIOCSIFFLAGS)");
}

}  // namespace

TapPam::TapPam(Mox::String name, Mox::String device, NamespaceName netNs)
    : EntityOf(std::move(name)), netNs_(std::move(netNs)), device_(std::move(device)) {}

TapPam::~TapPam() = default;

Mox::Ptr<Mox::FileDescriptor> TapPam::newTap() {
    static constexpr char path[] = "/dev/net/tun";
    const char* const netNs = netNs_.value().c_str();
    const int fd = netnsOpenAt(path, O_RDWR | O_NONBLOCK, netNs);
    if (fd < 0) {
        MOX_TRACE(facility, 0, "netnsOpenAt failed : ", netnsGetTracebuffer());
        Mox::throwErrnoException("open(/dev/net/tun)");
    }
    const Mox::Ptr<Mox::FileDescriptor> tap = Mox::fileDescriptorFactory(fd);
    const Mox::String ifName = attachTo(fd, device_);
    const int control = socketAt(AF_INET, SOCK_DGRAM, 0, netNs);
    if (control < 0) {
        Mox::throwErrnoException("socketAt");
    }
    control_ = Mox::fileDescriptorFactory(control);
    ifreq request = requestFor(ifName);
    requestIs(control, SIOCGIFINDEX, &request, "ioctl(SIOCGIFINDEX)");
    ifIndex_ = static_cast<uint32_t>(request.ifr_ifindex);
    if (mac_ != EthAddr()) {
        deviceMacIs(control, ifName, mac_);
    }
    if (mtu_ != 0) {
        deviceMtuIs(control, ifName, mtu_);
    }
    deviceUpIs(control, ifName, isUp_);
    return tap;
}

void TapPam::handleTapGone() {
    control_ = nullptr;
    ifIndex_ = 0;
}

void TapPam::macIs(const EthAddr& mac) {
    const auto apply = [&](int fd) {
        if (mac != EthAddr()) {
            deviceMacIs(fd, ifName(), mac);
        }
    };
    if (appliedOn(control_, mac_, mac, apply)) {
        notify(macAttr);
    }
}

void TapPam::mtuIs(uint32_t bytes) {
    const auto apply = [&](int fd) {
        if (bytes != 0) {
            deviceMtuIs(fd, ifName(), bytes);
        }
    };
    if (appliedOn(control_, mtu_, bytes, apply)) {
        notify(mtuAttr);
    }
}

void TapPam::isUpIs(bool isUp) {
    if (appliedOn(control_, isUp_, isUp, [&](int fd) { deviceUpIs(fd, ifName(), isUp); })) {
        notify(isUpAttr);
    }
}

Mox::Ptr<TapPam> tapPamFactory(Mox::String name, Mox::String device, NamespaceName netNs) {
    return Mox::make<TapPam>(std::move(name), std::move(device), std::move(netNs));
}

}  // namespace Pavo
