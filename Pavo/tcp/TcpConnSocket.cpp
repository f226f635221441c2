#include "Pavo/tcp/TcpConnSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <optional>

#include "Mox/Trace.h"
#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpConnSocket");

// Calls `ask`, which is getsockname(2) or getpeername(2).
template <class Ask>
std::optional<SockAddr> endOf(const TcpFileDescriptor& fd, const char* askName, Ask ask) {
    SockAddr name;
    if (ask(fd.descriptor(), name.get(), name.room()) == 0) {
        return name;
    }
    const int error = errno;
    int domain = AF_INET;
    socklen_t length = sizeof(domain);
    MOX_TRACE(facility, 0, askName, " error: af=",
              getsockopt(fd.descriptor(), SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
                      domain == AF_INET6
                  ? "ipv6"
                  : "ipv4",
              " errno=", error);
    return std::nullopt;
}

std::optional<SockAddr> localEnd(const TcpFileDescriptor& fd) {
    return endOf(fd, "getsockname", getsockname);
}

}  // namespace

Mox::String TcpConnSocket::toStrep() const {
    return Mox::printedString([this](Mox::TextWriter& out) {
        srcIpAddr_.print(out);
        out.text(" port ");
        out.decimal(srcPort_.value());
        out.text(" -> ");
        dstIpAddr_.print(out);
        out.text(" port ");
        out.decimal(dstPort_.value());
        out.text(" fd ");
        out.decimalSigned(fileDescriptor_ ? fileDescriptor_->descriptor() : -1);
    });
}

TcpConnSocket socketConnected(const Mox::Ptr<TcpFileDescriptor>& fd, const IpGenAddr& serverAddr,
                              const Port& serverPort) {
    const auto local = localEnd(*fd);
    if (!local) {
        return TcpConnSocket();
    }
    MOX_TRACE(facility, 5, "Connected: fileDescriptor=", fd->descriptor(), " addr=", serverAddr,
              " port=", serverPort);
    return TcpConnSocket(fd, local->address(), local->port(), serverAddr, serverPort,
                         local->scopeId());
}

TcpConnSocket socketAccepted(const Mox::Ptr<TcpFileDescriptor>& fd) {
    const auto peer = endOf(*fd, "getpeername", getpeername);
    const auto local = peer ? localEnd(*fd) : std::nullopt;
    if (!local) {
        return TcpConnSocket();
    }
    MOX_TRACE(facility, 5, "Accepted: fileDescriptor=", fd->descriptor(), " addr=", peer->address(),
              " port=", peer->port());
    return TcpConnSocket(fd, local->address(), local->port(), peer->address(), peer->port(),
                         local->scopeId());
}

}  // namespace Pavo
