#include "Pavo/kernel/NetlinkPort.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "Mox/Entity.h"
#include "Mox/Exception.h"
#include "Mox/FileDescriptor.h"

#include "Pavo/socket/SockBufUtils.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

void throwIf(bool failed, const char* call) {
    if (failed) {
        Mox::throwErrnoException(call);
    }
}

Mox::Ptr<Mox::FileDescriptor> socketIn(const NamespaceName& netNs, int protocol) {
    const int fd = socketAt(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, protocol, netNs.value().c_str());
    throwIf(fd < 0, "socketAt");
    return Mox::fileDescriptorFactory(fd);
}

class NetlinkSocket final : public Mox::Described<NetlinkSocket, NetlinkPort> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::NetlinkSocket"); }

    NetlinkSocket(const NamespaceName& netNs, int protocol, uint32_t rcvBufBytes)
        : fd_(socketIn(netNs, protocol)) {
        for (const int option : {NETLINK_EXT_ACK, NETLINK_CAP_ACK}) {
            optionIs(option);
        }
        if (protocol == NETLINK_ROUTE) {
            optionIs(NETLINK_GET_STRICT_CHK);
        }
        if (rcvBufBytes != 0) {
            const auto bytes = static_cast<int>(std::min<uint32_t>(rcvBufBytes, INT_MAX));
            throwIf(setOptWithFallback(number(), bytes, receiveBufferOpt) < 0,
                    "setsockopt(SO_RCVBUF)");
        }
        bind();
        socklen_t length = sizeof(rcvBufBytes_);
        throwIf(getsockopt(number(), SOL_SOCKET, SO_RCVBUF, &rcvBufBytes_, &length) < 0,
                "getsockopt(SO_RCVBUF)");
    }

    uint32_t portId() const override { return portId_; }
    uint32_t rcvBufBytes() const override { return static_cast<uint32_t>(rcvBufBytes_); }

    int send(std::span<const uint8_t> messages) override {
        // The kernel works on requests inside the call: there is no room to wait for.
        return ::send(number(), messages.data(), messages.size(), 0) < 0 ? errno : 0;
    }
    ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) override {
        sockaddr_nl from = {};
        socklen_t length = sizeof(from);
        const ssize_t bytes = recvfrom(number(), buffer.data(), buffer.size(), MSG_TRUNC,
                                       reinterpret_cast<sockaddr*>(&from), &length);
        *sender = from.nl_pid;
        return bytes;
    }
    void receiveTried(bool moreMayWait) override { fd_->readTried(moreMayWait); }
    void groupIs(uint32_t group, bool isMember) override {
        throwIf(setsockopt(number(), SOL_NETLINK,
                           isMember ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP, &group,
                           sizeof(group)) < 0,
                isMember ? "setsockopt(NETLINK_ADD_MEMBERSHIP)"
                         : "setsockopt(NETLINK_DROP_MEMBERSHIP)");
    }
    void readableIs(std::function<void()> readable) override {
        const bool isWatched = readable != nullptr;
        watch_ = !isWatched ? Mox::Watch<Mox::FileDescriptor>()
                            : Mox::Watch<Mox::FileDescriptor>(
                                  fd_, Mox::FileDescriptor::readableCountAttr, std::move(readable));
        fd_->notifyOnReadableIs(isWatched);
    }

  private:
    int number() const { return fd_->descriptor(); }
    // An older kernel works without.
    void optionIs(int option) const {
        constexpr int on = 1;
        (void)setsockopt(number(), SOL_NETLINK, option, &on, sizeof(on));
    }
    void bind() {
        sockaddr_nl local = {};
        local.nl_family = AF_NETLINK;
        socklen_t length = sizeof(local);
        auto* const address = reinterpret_cast<sockaddr*>(&local);
        throwIf(::bind(number(), address, length) < 0, "bind");
        throwIf(getsockname(number(), address, &length) < 0, "getsockname");
        portId_ = local.nl_pid;
    }

    Mox::Ptr<Mox::FileDescriptor> fd_;
    Mox::Watch<Mox::FileDescriptor> watch_;
    uint32_t portId_ = 0;
    int rcvBufBytes_ = 0;
};

}  // namespace

NetlinkPort::~NetlinkPort() = default;

Mox::Ptr<NetlinkPort> netlinkSocketFactory(const NamespaceName& netNs, int protocol,
                                           uint32_t rcvBufBytes) {
    return Mox::make<NetlinkSocket>(netNs, protocol, rcvBufBytes);
}

NetlinkPortOpener netlinkSocketOpener(NamespaceName netNs, int protocol, uint32_t rcvBufBytes) {
    return [netNs = std::move(netNs), protocol, rcvBufBytes](NetlinkPortUse use) {
        const bool isMonitor = use == NetlinkPortUse::monitor;
        return netlinkSocketFactory(netNs, protocol, isMonitor ? rcvBufBytes : 0);
    };
}

}  // namespace Pavo
