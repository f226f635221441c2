#include "Pavo/PktSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

#include "Pavo/RawSocket.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

constexpr RawSocket::Protocol experiment = 253;  // RFC 3692.
const IpAddr loopback(0x7f000001);

// A broadcast frame, which every interface takes.
std::string frameOf(uint16_t etherType, const std::string& payload) {
    std::string frame(6, '\xff');
    frame += std::string("\x02\0\0\0\0\x01", 6);
    frame += {static_cast<char>(etherType >> 8), static_cast<char>(etherType)};
    return frame + payload;
}

// Waits for a packet and returns its bytes from `offset` on.
std::string receive(PktSocket& socket, uint32_t offset, sockaddr_in* from = nullptr) {
    pollfd waiting{socket.fileDescriptor()->descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, /*milliseconds=*/10000), 1);
    const auto pkt = socket.recvPkt(from);
    return pkt ? std::string(pkt->stringValue().view().substr(offset)) : "nothing";
}

Mox::Ptr<Pkt> inTwoPieces() {
    const auto pkt = pktOf("rear");
    std::memcpy(pkt->newPrivateHeadData(6), "front ", 6);
    return pkt;
}

class PktSocketTest : public PavoTest::SandboxTest {
  protected:
    // Closes the helper sockets, which otherwise stay open until the process ends.
    void TearDown() override {
        for (const auto& [fd, file] : PavoTest::openDescriptors()) {
            if (before_.count(fd) == 0 && file.starts_with("socket:")) {
                close(fd);
            }
        }
    }

    Mox::Ptr<IpSocket> ipSocket() { return manager_->newIpSocket("ip", experiment, 0); }
    Mox::Ptr<EthSocket> ethSocket(const char* device) {
        return manager_->newEthSocket("eth", device, RawSocket::noProtocol);
    }

    const std::map<int, std::string> before_ = PavoTest::openDescriptors();
    const Mox::Ptr<RawSocket::Manager> manager_ = RawSocketManagerFactory();
};

TEST_F(PktSocketTest, SendsAndReceivesOnLoopback) {
    const auto socket = ipSocket();
    const uint32_t objects = Mox::liveObjects();
    EXPECT_EQ(socket->recvPkt(nullptr), nullptr);
    EXPECT_EQ(Mox::liveObjects(), objects);
    EXPECT_EQ(socket->sendPkt(inTwoPieces(), loopback), 10);
    EXPECT_EQ(receive(*socket, 20), "front rear");
    // Cut off at the end of the packet's buffer.
    const std::string large = std::string(1516, 'a') + std::string(1000, 'b');
    EXPECT_EQ(socket->sendPkt(pktOf(large), loopback), 2516);
    EXPECT_EQ(receive(*socket, 20), large.substr(0, 1516));

    const IpAddr own(0x7f000002);
    socket->bind(own);
    socket->sendPkt(pktOf("elsewhere"), loopback);
    socket->sendPkt(pktOf("here"), own);
    sockaddr_in from{};
    EXPECT_EQ(receive(*socket, 20, &from), "here");
    EXPECT_EQ(from.sin_addr.s_addr, htonl(own.value()));
    EXPECT_EQ(socket->recvPkt(nullptr), nullptr);
}

// A plain socket has no descriptor until it is given one.
TEST_F(PktSocketTest, ReportsTheCallThatFailed) {
    const auto socket = Mox::make<RawSocket>("plain", experiment);
    testing::internal::CaptureStderr();
    EXPECT_EQ(errorOf([&] { socket->recvPkt(nullptr); }), thrown("recvfrom", EBADF));
    EXPECT_EQ(errorOf([&] { socket->sendPkt(pktOf("x"), sockaddr_in{}); }),
              thrown("sendmsg", EBADF));
    EXPECT_EQ(errorOf([&] { socket->sendPkt(pktOf("x"), loopback); }), thrown("sendmsg", EBADF));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " error is  9 Bad file descriptor\nerror sending pkt:9 Bad file descriptor\n");
    socket->fileDescriptorIs(
        Mox::fileDescriptorFactory(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, experiment)));
    EXPECT_EQ(socket->sendPkt(pktOf("x"), loopback), 1);
    EXPECT_EQ(receive(*socket, 20), "x");
    {
        const PavoTest::FailSyscall full(1, EAGAIN, "sendmsg");
        EXPECT_EQ(socket->sendPkt(pktOf("x"), loopback), -1);
    }
    const auto interrupted = [&] {
        const PavoTest::FailSyscall fail(1, EINTR, "recvfrom");
        socket->recvPkt(nullptr);
    };
    EXPECT_DEATH(interrupted(), "\\(\\*__errno_location \\(\\)\\) != 4");
    socket->fileDescriptor()->nonBlockingIs(false);
    EXPECT_DEATH(socket->recvPkt(nullptr), "fileDescriptor_->nonBlocking\\(\\)");
}

// Reads at each report, and returns how the reads of many turns ended, joined by blanks.
std::string reportedReads(PktSocket& socket, const std::function<void()>& beforeTurns) {
    Mox::EventLoop loop;
    std::string reads;
    const Mox::Watch<Mox::FileDescriptor> readable(
        socket.fileDescriptor(), Mox::FileDescriptor::readableCountAttr, [&] {
            std::string end;
            const std::string error = errorOf([&] {
                const auto pkt = socket.recvPkt(nullptr);
                end = pkt ? std::string(pkt->stringValue().view().substr(0, 60)) : "nothing";
            });
            reads += (error.empty() ? end : error) + ", ";
        });
    socket.fileDescriptor()->notifyOnReadableIs(true);
    beforeTurns();
    for (int i = 0; i < 100; ++i) {
        loop.turn(0);
    }
    return reads;
}

// The other end of a socket pair stands for the interface.
TEST_F(PktSocketTest, TapSocketsTransferWholePacketsAndAnErrorThatStaysIsReportedTwice) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const auto tap = Mox::make<TapPktSocket>("tap", Mox::fileDescriptorFactory(ends[0]));
    EXPECT_EQ(tap->sendPkt(inTwoPieces(), sockaddr_in{}), 10);
    char sent[11] = {};
    EXPECT_EQ(read(ends[1], sent, sizeof(sent)), 10);
    EXPECT_STREQ(sent, "front rear");
    EXPECT_EQ(reportedReads(*tap,
                            [&] {
                                EXPECT_EQ(write(ends[1], "one", 3), 3);
                                EXPECT_EQ(write(ends[1], "two", 3), 3);
                            }),
              "one, two, nothing, ");
    const std::string end = "read from tap socket returned 0, ";
    EXPECT_EQ(reportedReads(*tap, [&] { close(ends[1]); }), end + end);
}

TEST_F(PktSocketTest, SocketsOfADeviceReceiveItsPacketsAndOutliveItsFailures) {
    PavoTest::makeVethPair("left", "", "fifteen-bytes-0", "");
    PavoTest::setUp("", "fifteen-bytes-0");
    const auto bounce = [] {
        PavoTest::setUp("", "left");
        PavoTest::run({"ip", "link", "set", "left", "down"});
    };
    const auto bound = ipSocket();
    const auto unbound = ipSocket();
    for (const std::string device : {"left", "lo", "left", ""}) {
        bound->deviceIs(device);
        EXPECT_EQ(errorOf([&] { bound->deviceIs("fifteen-bytes-00"); }),
                  thrown("setsockopt(SO_BINDTODEVICE)", ENODEV));
        unbound->sendPkt(pktOf("over lo"), loopback);
        EXPECT_EQ(receive(*unbound, 20), "over lo");
        EXPECT_EQ(bound->recvPkt(nullptr) != nullptr, device != "left") << device;
    }

    EXPECT_EQ(errorOf([&] { ethSocket("l"); }), thrown("ioctl(SIOCGIFINDEX)", ENODEV));
    PavoTest::FailSyscall fail(2, EBADF, "socket");  // The helper, after the socket itself.
    EXPECT_EQ(errorOf([&] { ethSocket("left"); }), thrown("socket", EBADF));
    fail.disarm();
    const auto left = ethSocket("left");
    const auto right = ethSocket("fifteen-bytes-0");
    const std::string frame = frameOf(0x0800, "not really IPv4");
    const auto send = [&](const auto& socket) {
        EXPECT_EQ(socket->sendPkt(pktOf(frame), loopback), 29);  // The frame has the destination.
    };
    bounce();
    EXPECT_EQ(errorOf([&] { send(left); }), thrown("sendmsg", ENETDOWN));
    bounce();
    PavoTest::setUp("", "left");
    left->sendPkt(pktOf(frameOf(0x88b5, "local experiment")), sockaddr_in{});  // Not IPv4.
    bounce();
    PavoTest::setUp("", "left");
    send(left);  // Although ENETDOWN is pending.
    EXPECT_EQ(receive(*right, 0), frame);
    EXPECT_EQ(right->recvPkt(nullptr), nullptr);
    bounce();
    PavoTest::setUp("", "left");
    EXPECT_EQ(reportedReads(*left, [&] { send(right); }),
              thrown("recvfrom", ENETDOWN) + ", " + frame + ", nothing, ");

    send(right);
    left->sendOnlyIs(true);
    send(right);
    EXPECT_EQ(left->recvPkt(nullptr), nullptr);
    left->sendOnlyIs(false);
    send(right);
    EXPECT_EQ(receive(*left, 0), frame);
    PavoTest::run({"ip", "link", "del", "left"});
    EXPECT_EQ(errorOf([&] { send(left); }), thrown("sendmsg", ENXIO));
}

}  // namespace
}  // namespace Pavo
