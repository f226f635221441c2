#include "Pavo/kernel/NetlinkPort.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Mox/FileDescriptor.h"
#include "Mox/Trace.h"

#include "Pavo/socket/SockBufUtils.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::NetlinkPort");

void throwIf(bool failed, const char* call) {
    if (failed) {
        Mox::throwErrnoException(call);
    }
}

Mox::Ptr<Mox::FileDescriptor> socketIn(const NamespaceName& netNs, int protocol) {
    const int fd = socketAt(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, protocol, netNs.value().c_str());
    if (fd < 0) {
        const int error = errno;
        const NamespaceName named = netNs ? netNs : NamespaceName::defaultNamespace();
        throw Mox::ErrnoException(error, "socketAt(" + named.value() + ")");
    }
    return Mox::fileDescriptorFactory(fd);
}

Mox::Clock* clockOfLoop() {
    Mox::EventLoop* const loop = Mox::EventLoop::current();
    Mox::require(loop != nullptr, "EventLoop::current(): a netlink socket needs an event loop");
    return loop->clock();
}

// The kernel works on requests of rtnetlink(7) inside send(2), and on the next part of a dump
// inside recv(2). So what is expected on a socket for requests is there in the next turn, and
// epoll(7) is left out of it, which makes a request 6 % faster. A socket on which
// something was expected and has not come is watched from then on, as the one for notifications is.
class NetlinkSocket final : public Mox::Described<NetlinkSocket, NetlinkPort> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::NetlinkSocket"); }

    NetlinkSocket(const NamespaceName& netNs, int protocol, NetlinkPortUse use,
                  uint32_t rcvBufBytes)
        : use_(use), soon_(clockOfLoop(), [this] { report(); }), fd_(socketIn(netNs, protocol)) {
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
        if (::send(number(), messages.data(), messages.size(), 0) < 0) {
            return errno;  // Never for lack of room, since the kernel has taken what came before.
        }
        isWatched() ? void() : reportSoon();
        return 0;
    }
    ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) override {
        sockaddr_nl from = {};
        socklen_t length = sizeof(from);
        const ssize_t bytes = recvfrom(number(), buffer.data(), buffer.size(), MSG_TRUNC,
                                       reinterpret_cast<sockaddr*>(&from), &length);
        *sender = from.nl_pid;
        isEmpty_ = bytes < 0 && errno == EAGAIN;
        return bytes;
    }
    void receiveTried(bool moreMayWait) override {
        if (isWatched()) {
            fd_->readTried(moreMayWait);
        } else if (moreMayWait) {
            reportSoon();
        } else if (isEmpty_ && readable_) {
            watchLate();
        }
    }
    void groupIs(uint32_t group, bool isMember) override {
        throwIf(setsockopt(number(), SOL_NETLINK,
                           isMember ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP, &group,
                           sizeof(group)) < 0,
                isMember ? "setsockopt(NETLINK_ADD_MEMBERSHIP)"
                         : "setsockopt(NETLINK_DROP_MEMBERSHIP)");
    }
    void readableIs(std::function<void()> readable) override {
        readable_ = std::move(readable);
        if (readable_ == nullptr) {
            watch_ = {};
            soon_.expiryIs(Mox::Clock::idle);
            fd_->notifyOnReadableIs(false);
        } else if (use_ == NetlinkPortUse::monitor) {
            watch();
        }
    }

  private:
    int number() const { return fd_->descriptor(); }
    bool isWatched() const { return fd_->notifyOnReadable(); }
    void watch() {
        watch_ = Mox::Watch<Mox::FileDescriptor>(fd_, Mox::FileDescriptor::readableCountAttr,
                                                 [this] { report(); });
        fd_->notifyOnReadableIs(true);
    }
    void watchLate() {
        try {
            watch();
        } catch (const Mox::ErrnoException& error) {  // Requests then meet their deadlines.
            MOX_TRACE(facility, 0, "a netlink socket cannot be watched: ", error.what());
        }
    }
    void reportSoon() { soon_.expiryIs(0); }
    void report() {
        if (const auto readable = readable_) {  // A copy, since the call may change it.
            readable();
        }
    }
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

    const NetlinkPortUse use_;
    Mox::Timer soon_;
    Mox::Ptr<Mox::FileDescriptor> fd_;
    Mox::Watch<Mox::FileDescriptor> watch_;
    std::function<void()> readable_;
    bool isEmpty_ = false;  // The last `receive` found nothing.
    uint32_t portId_ = 0;
    int rcvBufBytes_ = 0;
};

}  // namespace

NetlinkPort::~NetlinkPort() = default;

NetlinkPortOpener netlinkSocketOpener(NamespaceName netNs, int protocol, uint32_t rcvBufBytes) {
    return [netNs = std::move(netNs), protocol, rcvBufBytes](NetlinkPortUse use) {
        const bool isMonitor = use == NetlinkPortUse::monitor;
        return Mox::make<NetlinkSocket>(netNs, protocol, use, isMonitor ? rcvBufBytes : 0);
    };
}

}  // namespace Pavo
