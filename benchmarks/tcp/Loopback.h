/// @file
/// TCP connections of a benchmark to itself.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "ThreadTime.h"

namespace PavoBench {

inline void check(bool ok, const char* what) {
    if (!ok) {
        std::perror(what);
        std::exit(1);
    }
}

/// Makes connections on the loopback interface, with large socket buffers on request.
class Loopback {
  public:
    explicit Loopback(int bufferBytes = 0) : bufferBytes_(bufferBytes), listener_(newSocket()) {
        name_.sin_family = AF_INET;
        name_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(name_);
        check(bind(listener_, address(), length) == 0 && listen(listener_, 16) == 0 &&
                  getsockname(listener_, address(), &length) == 0,
              "listen");
    }
    Loopback(const Loopback&) = delete;
    Loopback& operator=(const Loopback&) = delete;
    ~Loopback() { close(listener_); }

    /// A connection's ends, the caller's; the second one is non-blocking. The first waits in the
    /// kernel for the second to be accepted.
    /// @{
    int connectOne() {
        const int near = newSocket();
        check(connect(near, address(), sizeof(name_)) == 0, "connect");
        return near;
    }
    int acceptOne() const {
        const int far = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        check(far >= 0, "accept4");
        return far;
    }
    /// @}
    /// Sends small messages at once, also while earlier ones are on their way.
    static void noDelay(int fd) {
        const int on = 1;
        check(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0, "TCP_NODELAY");
    }

  private:
    sockaddr* address() { return reinterpret_cast<sockaddr*>(&name_); }
    int newSocket() const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        check(fd >= 0, "socket");
        for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
            if (bufferBytes_ != 0) {
                check(setsockopt(fd, SOL_SOCKET, option, &bufferBytes_, sizeof(bufferBytes_)) == 0,
                      "setsockopt");
            }
        }
        return fd;
    }

    const int bufferBytes_;
    const int listener_;
    sockaddr_in name_{};
};

}  // namespace PavoBench
