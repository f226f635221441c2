/// @file
/// Streams whose ends a test holds, and the messages that pass them.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>

#include "Pavo/FramedTcpPduPam.h"

namespace Pavo {

// That of `SimpleTcpPduPam`.
constexpr TcpFraming simpleFraming{.headerBytes = 20, .lengthAt = 2};

// A message of `bytes` bytes that differ from their neighbours, whose length field has `length`.
inline std::string messageOf(const TcpFraming& framing, uint64_t length, uint32_t bytes,
                             uint32_t seed) {
    std::string message(bytes, '\0');
    for (uint32_t i = 0; i < bytes; ++i) {
        message[i] = static_cast<char>(seed + i * 7 + (i >> 8));
    }
    for (uint32_t i = framing.lengthBytes; i > 0; --i, length >>= 8) {
        message[framing.lengthAt + i - 1] = static_cast<char>(length);
    }
    return message;
}

// For an endpoint at the near end, with a small buffer, so that a packet leaves in many pieces, and
// plain calls at the far one. Without TCP a send delivers at once.
struct Stream {
    explicit Stream(bool edgeTriggered, bool isTcp = false) {
        int ends[2] = {-1, -1};
        if (isTcp) {
            connectTcp(ends);
        } else {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        }
        const int bytes = 8192;
        EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)), 0);
        near = tcpFileDescriptorFactory(ends[0], edgeTriggered);
        far = tcpFileDescriptorFactory(ends[1], false);
    }

    // How many bytes there was room for.
    std::size_t write(std::string_view bytes) const {
        const int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
        const ssize_t sent = send(far->descriptor(), bytes.data(), bytes.size(), flags);
        return static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
    }
    // What has arrived at the far end; nothing after the end, which it says.
    std::string read(bool* isEnd = nullptr) const {
        std::string all(1 << 18, '\0');
        const ssize_t got =
            ::read(far->descriptor(), all.data(), all.size());  // Never made to fail.
        if (isEnd != nullptr) {
            *isEnd = got == 0 || (got < 0 && errno != EAGAIN);
        }
        all.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return all;
    }

    Mox::Ptr<TcpFileDescriptor> near;
    Mox::Ptr<TcpFileDescriptor> far;

  private:
    // The kernel takes up to 16 kB on behalf of a reader that does not read.
    static void connectTcp(int (&ends)[2]) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(name);
        auto* const address = reinterpret_cast<sockaddr*>(&name);
        const int bytes = 16384;
        const auto listener =
            tcpFileDescriptorFactory(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), false);
        ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setsockopt(listener->descriptor(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
        EXPECT_EQ(bind(listener->descriptor(), address, length), 0);
        EXPECT_EQ(listen(listener->descriptor(), 1), 0);
        EXPECT_EQ(getsockname(listener->descriptor(), address, &length), 0);
        EXPECT_EQ(connect(ends[0], address, length), 0);
        ends[1] = accept4(listener->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    }
};

}  // namespace Pavo
