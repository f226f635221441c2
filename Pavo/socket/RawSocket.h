/// @file
/// Raw IPv4 sockets and Ethernet packet sockets.
#pragma once

#include <cstdint>

#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/socket/PktSocket.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// What raw sockets share. `IpSocket` and `EthSocket` open a socket of their own, in the network
/// namespace of the calling thread. A plain `RawSocket` has none until it is given one, for example
/// one that `socketAt` has opened in another namespace; until then each system call fails with
/// EBADF.
class PAVO_EXPORT RawSocket : public Mox::Described<RawSocket, PktSocket> {
  public:
    class Manager;

    /// A protocol of the socket's family, in host order unless a class says otherwise.
    using Protocol = uint16_t;
    /// No protocol given: each class has its own default.
    static constexpr Protocol noProtocol = 65535;
    static constexpr auto description() { return Mox::classRecord("Pavo::RawSocket"); }

    /// Opens nothing.
    RawSocket(Mox::String name, Protocol protocol);

    using PktSocket::fileDescriptorIs;
    using PktSocket::sendPkt;
    /// As `sendPkt` with a socket address, but writes nothing to standard error.
    /// @throws Mox::ErrnoException "sendmsg".
    virtual int32_t sendPkt(Mox::Ptr<Pkt> pkt, IpAddr dst);

    /// The protocol as it was given.
    Protocol protocol() const { return protocol_; }

    /// The size of the kernel's buffer in bytes: twice what was set (socket(7)).
    /// @throws Mox::ErrnoException "getsockopt(SO_SNDBUF)".
    uint32_t sendBufSize() const;
    /// At most the kernel's ceiling (net.core.wmem_max), silently.
    /// @throws Mox::ErrnoException "setsockopt(SO_SNDBUF)".
    void setSendBufSize(uint32_t bytes);
    /// @throws Mox::ErrnoException "getsockopt(SO_RCVBUF)".
    uint32_t recvBufSize() const;
    /// At most the kernel's ceiling (net.core.rmem_max), silently.
    /// @throws Mox::ErrnoException "setsockopt(SO_RCVBUF)".
    void setRecvBufSize(uint32_t bytes);

  protected:
    ~RawSocket() override;

    /// @throws Mox::ErrnoException "socket", "fcntl(F_GETFL)" or "fcntl(F_SETFL)".
    void open(int domain, Protocol protocol);

  private:
    Protocol protocol_;
};

/// A raw IPv4 socket (raw(7)). A received packet begins with its IP header; a sent one carries one
/// only with `hdrIncl`.
class PAVO_EXPORT IpSocket : public Mox::Described<IpSocket, RawSocket> {
  public:
    /// A set of bits.
    using Options = uint32_t;
    /// Bit 0: IP_HDRINCL, packets are sent with their own IP header. Where no protocol was given
    /// the kernel turns it on.
    static constexpr Options hdrIncl = 1;
    static constexpr auto description() { return Mox::classRecord("Pavo::IpSocket"); }

    /// For an IP protocol number. Without one, `IPPROTO_RAW`, which only sends.
    /// @throws Mox::ErrnoException "socket", "fcntl(F_GETFL)", "fcntl(F_SETFL)" or
    /// "setsockopt(IP_HDRINCL)".
    IpSocket(Mox::String name, Protocol protocol, Options options);

    /// The protocol that the socket has: 255 where none was given.
    Protocol effectiveProtocol() const { return effectiveProtocol_; }
    /// As it was made with.
    Options options() const { return options_; }

    /// The interface to which the socket is bound, empty for all.
    const Mox::String& device() const { return device_; }
    /// Binds to an interface, by its name; the empty name unbinds.
    /// @throws Mox::ErrnoException "setsockopt(SO_BINDTODEVICE)", with ENODEV for a name of more
    /// than 15 bytes, of which the kernel would take the first 15; the device is then unchanged.
    void deviceIs(Mox::String device);

    /// Receives packets to `addr` only, and sends from it.
    /// @throws Mox::ErrnoException "bind".
    void bind(IpAddr addr);

  protected:
    ~IpSocket() override;

  private:
    Mox::String device_;
    Protocol effectiveProtocol_;
    Options options_;
};

/// A packet socket on an Ethernet interface (packet(7)): it receives the interface's IPv4 frames
/// (EtherType 0x0800), whatever protocol was asked for, and sends frames as they are. Packets begin
/// with the Ethernet header.
///
/// An interface that goes down leaves ENETDOWN pending, for the next read to throw. A send is
/// retried once after ENETDOWN, since that error may be an old one.
///
/// The constructor opens a helper socket to look the interface up, and leaves it open for the life
/// of the process, also when it fails later on: each costs a descriptor.
class PAVO_EXPORT EthSocket : public Mox::Described<EthSocket, RawSocket> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::EthSocket"); }

    /// `protocol` goes to socket(2) as it stands: the caller converts an EtherType to network
    /// order. Without one, 3, which the kernel takes for EtherType 0x0300; so nothing is received
    /// before the socket is bound.
    /// @throws Mox::ErrnoException "socket", "fcntl(F_GETFL)", "fcntl(F_SETFL)",
    /// "ioctl(SIOCGIFINDEX)", "ioctl(SIOCGIFHWADDR)" or "bind". An unknown interface gives ENODEV,
    /// and so does a name of more than 15 bytes.
    EthSocket(Mox::String name, Mox::String device, Protocol protocol);

    /// The name of the interface.
    const Mox::String& device() const { return device_; }
    /// The interface's index.
    int32_t ifIndex() const { return ifIndex_; }

    /// Whether the socket only sends; at first false, and it receives whether or not it is read, so
    /// that up to a full receive buffer of frames waits in the kernel.
    bool sendOnly() const { return sendOnly_; }
    /// On: no frame is received, and those that wait are discarded. Off: frames are received again.
    /// @throws Mox::ErrnoException "setsockopt(SO_ATTACH_FILTER)" or
    /// "setsockopt(SO_DETACH_FILTER)"; nothing is then changed.
    void sendOnlyIs(bool sendOnly);

    /// Sends on the interface; the destination is in the frame, and `dest` is ignored.
    int32_t sendmsg(Mox::Ptr<Pkt> pkt, sockaddr_in dest) override;

  protected:
    ~EthSocket() override;

  private:
    void discardWaiting() const;

    Mox::String device_;
    int32_t ifIndex_ = 0;
    bool sendOnly_ = false;
};

/// Makes raw sockets.
class PAVO_EXPORT RawSocket::Manager : public Mox::Described<RawSocket::Manager> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::RawSocket::Manager"); }

    /// Make a new socket; they throw as the constructors do.
    /// @{
    Mox::Ptr<IpSocket> newIpSocket(Mox::String name, Protocol protocol, IpSocket::Options options);
    Mox::Ptr<EthSocket> newEthSocket(Mox::String name, Mox::String device, Protocol protocol);
    /// @}

  protected:
    ~Manager() override;
};

/// A new manager.
PAVO_EXPORT Mox::Ptr<RawSocket::Manager> RawSocketManagerFactory();

}  // namespace Pavo
