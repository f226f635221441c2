#include "Pavo/socket/RawSocket.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Mox/Exception.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

constexpr RawSocket::Protocol defaultEthProtocol = 3;

// A name that is too long would be cut, and what is left may be the name of another interface.
void requireDeviceName(const Mox::String& device, const char* failure) {
    if (device.bytes() >= IFNAMSIZ) {
        throw Mox::ErrnoException(ENODEV, failure);
    }
}

uint32_t bufferSize(int fd, int option, const char* failure) {
    int bytes = 0;
    socklen_t length = sizeof(bytes);
    if (getsockopt(fd, SOL_SOCKET, option, &bytes, &length) < 0) {
        Mox::throwErrnoException(failure);
    }
    return static_cast<uint32_t>(bytes);
}

void setBufferSize(int fd, int option, uint32_t bytes, const char* failure) {
    if (setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof(bytes)) < 0) {
        Mox::throwErrnoException(failure);
    }
}

// The address that binds a packet socket to the interface's IPv4 frames.
sockaddr_ll lookUpDevice(const Mox::String& device) {
    // Left open on purpose, as the class comment says.
    const int helper = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (helper < 0) {
        Mox::throwErrnoException("socket");
    }
    requireDeviceName(device, "ioctl(SIOCGIFINDEX)");
    ifreq request{};
    std::copy(device.begin(), device.end(), request.ifr_name);
    if (ioctl(helper, SIOCGIFINDEX, &request) < 0) {
        Mox::throwErrnoException("ioctl(SIOCGIFINDEX)");
    }
    sockaddr_ll name{};
    name.sll_family = AF_PACKET;
    name.sll_protocol = htons(ETH_P_IP);
    name.sll_ifindex = request.ifr_ifindex;
    name.sll_hatype = ARPHRD_ETHER;
    name.sll_halen = ETH_ALEN;
    if (ioctl(helper, SIOCGIFHWADDR, &request) < 0) {
        Mox::throwErrnoException("ioctl(SIOCGIFHWADDR)");
    }
    std::copy_n(request.ifr_hwaddr.sa_data, ETH_ALEN, name.sll_addr);
    return name;
}

}  // namespace

RawSocket::RawSocket(Mox::String name, Protocol protocol)
    : Described(std::move(name)), protocol_(protocol) {}

RawSocket::~RawSocket() = default;

void RawSocket::open(int domain, Protocol protocol) {
    const int fd = socket(domain, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        Mox::throwErrnoException("socket");
    }
    fileDescriptorIs(Mox::fileDescriptorFactory(fd));
}

int32_t RawSocket::sendPkt(Mox::Ptr<Pkt> pkt, IpAddr dst) {
    const int32_t sent = sendmsg(pkt, sockaddrInFrom(dst));
    if (sent < 0 && errno != EAGAIN) {
        Mox::throwErrnoException("sendmsg");
    }
    return sent;
}

uint32_t RawSocket::sendBufSize() const {
    return bufferSize(fd(), SO_SNDBUF, "getsockopt(SO_SNDBUF)");
}

void RawSocket::setSendBufSize(uint32_t bytes) {
    setBufferSize(fd(), SO_SNDBUF, bytes, "setsockopt(SO_SNDBUF)");
}

uint32_t RawSocket::recvBufSize() const {
    return bufferSize(fd(), SO_RCVBUF, "getsockopt(SO_RCVBUF)");
}

void RawSocket::setRecvBufSize(uint32_t bytes) {
    setBufferSize(fd(), SO_RCVBUF, bytes, "setsockopt(SO_RCVBUF)");
}

IpSocket::IpSocket(Mox::String name, Protocol protocol, Options options)
    : Described(std::move(name), protocol),
      effectiveProtocol_(protocol == noProtocol ? Protocol{IPPROTO_RAW} : protocol),
      options_(options) {
    open(AF_INET, effectiveProtocol_);
    const int on = 1;
    if ((options_ & hdrIncl) != 0 &&
        setsockopt(fd(), IPPROTO_IP, IP_HDRINCL, &on, sizeof(on)) < 0) {
        Mox::throwErrnoException("setsockopt(IP_HDRINCL)");
    }
}

IpSocket::~IpSocket() = default;

void IpSocket::deviceIs(Mox::String device) {
    static constexpr char failure[] = "setsockopt(SO_BINDTODEVICE)";
    requireDeviceName(device, failure);
    if (setsockopt(fd(), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), device.bytes() + 1) < 0) {
        Mox::throwErrnoException(failure);
    }
    device_ = std::move(device);
}

void IpSocket::bind(IpAddr addr) {
    const sockaddr_in name = sockaddrInFrom(addr, effectiveProtocol_);
    if (::bind(fd(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)) < 0) {
        Mox::throwErrnoException("bind");
    }
}

EthSocket::EthSocket(Mox::String name, Mox::String device, Protocol protocol)
    : Described(std::move(name), protocol), device_(std::move(device)) {
    open(AF_PACKET, protocol == noProtocol ? defaultEthProtocol : protocol);
    const sockaddr_ll bound = lookUpDevice(device_);
    ifIndex_ = bound.sll_ifindex;
    if (::bind(fd(), reinterpret_cast<const sockaddr*>(&bound), sizeof(bound)) < 0) {
        Mox::throwErrnoException("bind");
    }
}

EthSocket::~EthSocket() = default;

// A filter costs less than a buffer that fills up, and unlike a binding it can be undone: the
// kernel takes a bound protocol of 0 for the one that the socket was opened with.
void EthSocket::sendOnlyIs(bool sendOnly) {
    if (sendOnly == sendOnly_) {
        return;
    }
    sock_filter nothing{BPF_RET | BPF_K, 0, 0, 0};
    const sock_fprog program{1, &nothing};
    const int ignored = 0;
    if (sendOnly) {
        if (setsockopt(fd(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) < 0) {
            Mox::throwErrnoException("setsockopt(SO_ATTACH_FILTER)");
        }
        discardWaiting();
    } else if (setsockopt(fd(), SOL_SOCKET, SO_DETACH_FILTER, &ignored, sizeof(ignored)) < 0) {
        Mox::throwErrnoException("setsockopt(SO_DETACH_FILTER)");
    }
    sendOnly_ = sendOnly;
}

// Ends, since no frame is added any more, and a pending error is reported once.
void EthSocket::discardWaiting() const {
    char byte;
    while (recv(fd(), &byte, sizeof(byte), MSG_DONTWAIT) >= 0 || errno == ENETDOWN) {
    }
}

// The kernel refuses an IP address as the destination of a packet socket (EINVAL); without any, it
// takes the interface to which the socket is bound. A pending ENETDOWN fails the first call even
// when the interface is up again.
int32_t EthSocket::sendmsg(Mox::Ptr<Pkt> pkt, sockaddr_in) {
    const int32_t sent = sendTo(*pkt, nullptr, 0);
    return sent < 0 && errno == ENETDOWN ? sendTo(*pkt, nullptr, 0) : sent;
}

RawSocket::Manager::~Manager() = default;

Mox::Ptr<IpSocket> RawSocket::Manager::newIpSocket(Mox::String name, Protocol protocol,
                                                   IpSocket::Options options) {
    return Mox::make<IpSocket>(std::move(name), protocol, options);
}

Mox::Ptr<EthSocket> RawSocket::Manager::newEthSocket(Mox::String name, Mox::String device,
                                                     Protocol protocol) {
    return Mox::make<EthSocket>(std::move(name), std::move(device), protocol);
}

Mox::Ptr<RawSocket::Manager> RawSocketManagerFactory() {
    return Mox::make<RawSocket::Manager>();
}

}  // namespace Pavo
