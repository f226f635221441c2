#include "Pavo/tcp/TcpConnSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>

#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpConnSocket");

// One end of a connection.
struct End {
    IpGenAddr addr;
    Port port;
    uint32_t scope = 0;
};

End endFrom(const sockaddr_storage& name) {
    if (name.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(name);
        return {IpAddr(ntohl(v4.sin_addr.s_addr)), ntohs(v4.sin_port), 0};
    }
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(name);
    Ip6Addr addr;
    addr.copyFromBuffer(v6.sin6_addr.s6_addr);
    return {addr, ntohs(v6.sin6_port), v6.sin6_scope_id};
}

// Calls `ask`, which is getsockname(2) or getpeername(2).
template <class Ask>
std::optional<End> endOf(const TcpFileDescriptor& fd, const char* askName, Ask ask) {
    sockaddr_storage name{};
    socklen_t length = sizeof(name);
    if (ask(fd.descriptor(), reinterpret_cast<sockaddr*>(&name), &length) == 0) {
        return endFrom(name);
    }
    const int error = errno;
    int domain = AF_INET;
    length = sizeof(domain);
    MOX_TRACE(facility, 0, askName, " error: af=",
              getsockopt(fd.descriptor(), SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
                      domain == AF_INET6
                  ? "ipv6"
                  : "ipv4",
              " errno=", error);
    return std::nullopt;
}

std::optional<End> localEnd(const TcpFileDescriptor& fd) {
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
    return TcpConnSocket(fd, local->addr, local->port, serverAddr, serverPort, local->scope);
}

TcpConnSocket socketAccepted(const Mox::Ptr<TcpFileDescriptor>& fd) {
    const auto peer = endOf(*fd, "getpeername", getpeername);
    const auto local = peer ? localEnd(*fd) : std::nullopt;
    if (!local) {
        return TcpConnSocket();
    }
    MOX_TRACE(facility, 5, "Accepted: fileDescriptor=", fd->descriptor(), " addr=", peer->addr,
              " port=", peer->port);
    return TcpConnSocket(fd, local->addr, local->port, peer->addr, peer->port, local->scope);
}

}  // namespace Pavo
