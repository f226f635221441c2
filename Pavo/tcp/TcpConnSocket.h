/// @file
/// An established TCP connection, as a machine hands it over.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Mox/Record.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

/// A descriptor has a text form that cannot be read back.
template <>
struct Mox::Codec<Mox::Ptr<Pavo::TcpFileDescriptor>> {
    static void print(TextWriter& out, const Ptr<Pavo::TcpFileDescriptor>& fd) {
        out.text(Pavo::valueToStrep(fd));
    }
};

namespace Pavo {

/// An established connection: its descriptor, which this value shares, and its two ends; "src" is
/// the local one. The default value is empty and stands for no connection.
///
/// Members: those of the constructor.
class TcpConnSocket : public Mox::ValueType<TcpConnSocket> {
  public:
    TcpConnSocket() = default;
    TcpConnSocket(Mox::Ptr<TcpFileDescriptor> fileDescriptor, const IpGenAddr& srcIpAddr,
                  Port srcPort, const IpGenAddr& dstIpAddr, Port dstPort, uint32_t ifIndex)
        : fileDescriptor_(std::move(fileDescriptor)),
          srcIpAddr_(srcIpAddr),
          srcPort_(srcPort),
          dstIpAddr_(dstIpAddr),
          dstPort_(dstPort),
          ifIndex_(ifIndex) {}

    const Mox::Ptr<TcpFileDescriptor>& fileDescriptor() const { return fileDescriptor_; }
    const IpGenAddr& srcIpAddr() const { return srcIpAddr_; }
    Port srcPort() const { return srcPort_; }
    const IpGenAddr& dstIpAddr() const { return dstIpAddr_; }
    Port dstPort() const { return dstPort_; }
    /// The scope of an IPv6 link-local connection, else 0.
    uint32_t ifIndex() const { return ifIndex_; }

    /// Not the default value.
    explicit operator bool() const { return *this != TcpConnSocket(); }

    /// "192.0.2.1 port 179 -> 192.0.2.2 port 40000 fd 7"; the number is -1 without a descriptor.
    PAVO_EXPORT Mox::String toStrep() const;

    friend bool operator==(const TcpConnSocket&, const TcpConnSocket&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::TcpConnSocket",
                           Mox::field("fileDescriptor", &TcpConnSocket::fileDescriptor_),
                           Mox::field("srcIpAddr", &TcpConnSocket::srcIpAddr_),
                           Mox::field("srcPort", &TcpConnSocket::srcPort_),
                           Mox::field("dstIpAddr", &TcpConnSocket::dstIpAddr_),
                           Mox::field("dstPort", &TcpConnSocket::dstPort_),
                           Mox::field("ifIndex", &TcpConnSocket::ifIndex_));
    }

  private:
    Mox::Ptr<TcpFileDescriptor> fileDescriptor_;
    IpGenAddr srcIpAddr_;
    Port srcPort_;
    IpGenAddr dstIpAddr_;
    Port dstPort_;
    uint32_t ifIndex_ = 0;
};

/// The connection that `fd` has made to a server, with the local end from the kernel; empty, with
/// `errno` set, on failure.
PAVO_EXPORT TcpConnSocket socketConnected(const Mox::Ptr<TcpFileDescriptor>& fd,
                                          const IpGenAddr& serverAddr, const Port& serverPort);
/// The connection that was accepted as `fd`, with both ends from the kernel; empty, with `errno`
/// set, on failure: ENOTCONN when the peer has already reset it. An IPv4 peer of an IPv6 listener
/// has its v4-mapped address.
PAVO_EXPORT TcpConnSocket socketAccepted(const Mox::Ptr<TcpFileDescriptor>& fd);

}  // namespace Pavo
