#include "Pavo/PktSocket.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Pavo/RawSocket.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

constexpr RawSocket::Protocol experiment = 253;  // RFC 3692.
const IpAddr loopback(0x7f000001);

// A packet from `offset` on, or what was thrown; "" for neither.
std::string read(PktSocket& socket, uint32_t offset, sockaddr_in* from = nullptr) {
    std::string bytes;
    const std::string error = errorOf([&] {
        const auto pkt = socket.recvPkt(from);
        bytes = pkt ? std::string(pkt->stringValue().view().substr(offset)) : "";
    });
    return bytes + error;
}

// The same, after waiting for a packet.
std::string receive(PktSocket& socket, uint32_t offset, sockaddr_in* from = nullptr) {
    pollfd waiting{socket.fileDescriptor()->descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, /*milliseconds=*/10000), 1);
    return read(socket, offset, from);
}

// Reads at each report of 1000 turns.
Texts reportedReads(PktSocket& socket) {
    Mox::EventLoop loop;
    Texts reads;
    const Mox::Watch<Mox::FileDescriptor> readable(socket.fileDescriptor(),
                                                   Mox::FileDescriptor::readableCountAttr,
                                                   [&] { reads.push_back(read(socket, 0)); });
    socket.fileDescriptor()->notifyOnReadableIs(true);
    for (int i = 0; i < 1000; ++i) {
        loop.turn(0);
    }
    return reads;
}

using PktSocketTest = PavoTest::SandboxTest;

TEST_F(PktSocketTest, SendsAndReceivesOnLoopback) {
    const auto socket = Mox::make<IpSocket>("ip", experiment, 0u);
    EXPECT_EQ(socket->recvPkt(nullptr), nullptr);
    const auto pieces = pktOf("rear");
    std::memcpy(pieces->newPrivateHeadData(6), "front ", 6);
    EXPECT_EQ(socket->sendPkt(pieces, loopback), 10);
    EXPECT_EQ(receive(*socket, 20), "front rear");
    // Cut off at the end of the packet's buffer.
    EXPECT_EQ(socket->sendPkt(pktOf(std::string(2000, 'a')), loopback), 2000);
    EXPECT_EQ(receive(*socket, 20), std::string(1516, 'a'));
    const IpAddr own(0x7f000002);
    socket->bind(own);
    socket->sendPkt(pktOf("elsewhere"), loopback);
    socket->sendPkt(pktOf("here"), own);
    sockaddr_in from{};
    EXPECT_EQ(receive(*socket, 20, &from), "here");
    EXPECT_EQ(from.sin_addr.s_addr, htonl(own.value()));
    EXPECT_EQ(read(*socket, 0), "");
}

TEST_F(PktSocketTest, ReportsTheCallThatFailed) {
    const auto socket = Mox::make<RawSocket>("without a descriptor", experiment);
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(*socket, 0), thrown("recvfrom", EBADF));
    EXPECT_EQ(errorOf([&] { socket->sendPkt(pktOf("x"), sockaddr_in{}); }),
              thrown("sendmsg", EBADF));
    EXPECT_EQ(errorOf([&] { socket->sendPkt(pktOf("x"), loopback); }), thrown("sendmsg", EBADF));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " error is  9 Bad file descriptor\nerror sending pkt:9 Bad file descriptor\n");
    socket->fileDescriptorIs(
        Mox::fileDescriptorFactory(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, experiment)));
    EXPECT_EQ(socket->sendPkt(pktOf("x"), loopback), 1);
    EXPECT_EQ(receive(*socket, 20), "x");
    const PavoTest::FailSyscall full(1, EAGAIN, "sendmsg");
    EXPECT_EQ(socket->sendPkt(pktOf("x"), loopback), -1);
    const PavoTest::FailSyscall interrupted(1, EINTR, "recvfrom");
    EXPECT_DEATH(read(*socket, 0), "\\(\\*__errno_location \\(\\)\\) != 4");
    socket->fileDescriptor()->nonBlockingIs(false);
    EXPECT_DEATH(read(*socket, 0), "fileDescriptor_->nonBlocking\\(\\)");
}

// The other end of a socket pair stands for the interface.
TEST_F(PktSocketTest, ATapIsReadAtEachReportAndAnErrorThatStaysIsReportedTwice) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const auto tap = Mox::make<TapPktSocket>("tap", Mox::fileDescriptorFactory(ends[0]));
    EXPECT_EQ(tap->sendPkt(pktOf("frame"), sockaddr_in{}), 5);
    char sent[6] = {};
    EXPECT_EQ(::read(ends[1], sent, sizeof(sent)), 5);
    EXPECT_STREQ(sent, "frame");
    EXPECT_EQ(write(ends[1], "one", 3) + write(ends[1], "two", 3), 6);
    EXPECT_EQ(reportedReads(*tap), (Texts{"one", "two", ""}));
    close(ends[1]);
    EXPECT_EQ(reportedReads(*tap), Texts(2, "read from tap socket returned 0"));
}

TEST_F(PktSocketTest, SocketsOfADeviceReceiveItsPacketsAndOutliveItsFailures) {
    PavoTest::makeVethPair("left", "", "fifteen-bytes-0", "");
    PavoTest::setUp("", "fifteen-bytes-0");
    const auto bound = Mox::make<IpSocket>("ip", experiment, 0u);
    for (const std::string device : {"left", "lo", "left", ""}) {
        bound->deviceIs(device);
        EXPECT_EQ(errorOf([&] { bound->deviceIs("fifteen-bytes-00"); }),
                  thrown("setsockopt(SO_BINDTODEVICE)", ENODEV));
        Mox::make<IpSocket>("sender", experiment, 0u)->sendPkt(pktOf("over lo"), loopback);
        EXPECT_EQ(read(*bound, 20), device == "left" ? "" : "over lo") << device;
    }

    const auto manager = RawSocketManagerFactory();
    const auto ethSocket = [&](const char* device) {
        return manager->newEthSocket("eth", device, RawSocket::noProtocol);
    };
    EXPECT_EQ(errorOf([&] { ethSocket("l"); }), thrown("ioctl(SIOCGIFINDEX)", ENODEV));
    const auto left = ethSocket("left");
    const auto right = ethSocket("fifteen-bytes-0");
    const std::string macs = std::string(6, '\xff') + "\2secr:";  // A broadcast.
    const std::string frame = macs + std::string("\x08\0not really IPv4", 17);
    const auto send = [&](const auto& socket) {
        EXPECT_EQ(socket->sendPkt(pktOf(frame), loopback), 29);  // The frame has the destination.
    };
    EXPECT_EQ(errorOf([&] { send(left); }), thrown("sendmsg", ENETDOWN));
    PavoTest::setUp("", "left");
    PavoTest::run({"ip", "link", "set", "left", "down"});  // Leaves ENETDOWN pending.
    PavoTest::setUp("", "left");
    int bytes = 0;  // Of a frame: the kernel drops those that come before it noticed the carrier.
    for (int i = 0; i < 1000000 && bytes == 0; ++i) {
        send(right);
        ioctl(left->fileDescriptor()->descriptor(), SIOCINQ, &bytes);
    }
    const Texts reads = reportedReads(*left);
    EXPECT_EQ(reads.at(0), thrown("recvfrom", ENETDOWN));
    EXPECT_EQ(reads.at(1), frame);

    send(right);
    left->sendOnlyIs(true);
    send(right);
    EXPECT_EQ(read(*left, 0), "");
    left->sendOnlyIs(false);
    right->sendPkt(pktOf(macs + "\x88\xb5 local experiment"), sockaddr_in{});  // Only IPv4 comes.
    send(right);
    EXPECT_EQ(receive(*left, 0), frame);
    PavoTest::run({"ip", "link", "del", "left"});
    EXPECT_EQ(errorOf([&] { send(left); }), thrown("sendmsg", ENXIO));
}

}  // namespace
}  // namespace Pavo
