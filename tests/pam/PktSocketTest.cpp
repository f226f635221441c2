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
#include <utility>

#include "Pavo/RawSocket.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

using std::string_literals::operator""s;

constexpr RawSocket::Protocol experiment = 253;  // RFC 3692.
constexpr IpSocket::Options noOptions = 0;
const IpAddr loopback(0x7f000001);

// A broadcast frame, which every interface takes.
std::string frameOf(uint16_t etherType, const std::string& payload) {
    std::string frame(6, '\xff');
    frame += std::string("\x02\0\0\0\0\x01", 6);
    frame += {static_cast<char>(etherType >> 8), static_cast<char>(etherType)};
    return frame + payload;
}

// Waits for a packet and gives its bytes from `offset` on.
std::string receive(PktSocket& socket, uint32_t offset, sockaddr_in* from = nullptr) {
    pollfd waiting{socket.fileDescriptor()->descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, /*milliseconds=*/10000), 1);
    const auto pkt = socket.recvPkt(from);
    return pkt ? std::string(pkt->stringValue().view().substr(offset)) : "nothing";
}

class PktSocketTest : public PavoTest::SandboxTest {
  protected:
    // Helper sockets stay open until the process ends, so they are closed here.
    void TearDown() override {
        if (!IsSkipped()) {
            for (const auto& [fd, file] : PavoTest::openDescriptors()) {
                if (before_.count(fd) == 0 && file.starts_with("socket:")) {
                    close(fd);
                }
            }
        }
    }

    Mox::Ptr<IpSocket> ipSocket(IpSocket::Options options = noOptions) {
        return manager_->newIpSocket("ip", experiment, options);
    }
    Mox::Ptr<EthSocket> ethSocket(const char* device) {
        return manager_->newEthSocket("eth", device, RawSocket::noProtocol);
    }

    const std::map<int, std::string> before_ = PavoTest::openDescriptors();
    const Mox::Ptr<RawSocket::Manager> manager_ = RawSocketManagerFactory();
};

TEST_F(PktSocketTest, OpensTheGivenProtocolAndAFailureLeavesOnlyTheHelperOpen) {
    const struct {
        const char* device;  // Null for an IP socket.
        RawSocket::Protocol given;
        int opened;
    } cases[] = {
        {nullptr, experiment, 253}, {nullptr, RawSocket::noProtocol, 255}, {"lo", 3, 3},
        {"lo", 0x0800, 0x0800},     {"lo", RawSocket::noProtocol, 3},
    };
    for (const auto& c : cases) {
        const auto make = [&]() -> Mox::Ptr<PktSocket> {
            if (c.device == nullptr) {
                return manager_->newIpSocket("ip", c.given, IpSocket::hdrIncl);
            }
            return manager_->newEthSocket("eth", c.device, c.given);
        };
        // The first one creates the packet manager, and sanitizers look up its types with system
        // calls of their own.
        make();
        const uint32_t objects = Mox::liveObjects();
        std::size_t descriptors = PavoTest::openDescriptors().size();
        Mox::Ptr<PktSocket> made;
        bool isFirst = true;
        PavoTest::failEachSyscall(
            ENOBUFS, [&] { return errorOf([&] { made = make(); }); },
            [&](const PavoTest::FailSyscall& fail, const std::string& error, int) {
                EXPECT_TRUE(error.starts_with(fail.name()) && error.ends_with(" (105)")) << error;
                EXPECT_TRUE(!std::exchange(isFirst, false) || fail.argument(2) == c.opened);
                // These calls come after the helper socket was opened.
                descriptors += fail.name() == "ioctl"s || fail.name() == "bind"s;
                EXPECT_EQ(PavoTest::openDescriptors().size(), descriptors);
                EXPECT_EQ(Mox::liveObjects(), objects);
            });
        EXPECT_EQ(fcntl(made->fileDescriptor()->descriptor(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        for (const auto& [fd, file] : PavoTest::openDescriptors()) {
            EXPECT_TRUE(before_.count(fd) != 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) << file;
        }
        made = nullptr;
        EXPECT_EQ(PavoTest::openDescriptors().size(), descriptors + (c.device != nullptr));
    }
}

TEST_F(PktSocketTest, SendsAndReceivesOnLoopback) {
    const auto socket = ipSocket();
    const uint32_t objects = Mox::liveObjects();
    EXPECT_EQ(socket->recvPkt(nullptr), nullptr);
    EXPECT_EQ(Mox::liveObjects(), objects);

    const auto pieces = pktOf("rear");
    std::memcpy(pieces->newPrivateHeadData(6), "front ", 6);
    EXPECT_EQ(socket->sendPkt(pieces, loopback), 10);
    EXPECT_EQ(receive(*socket, 20), "front rear");
    // Cut off at the end of the packet's buffer.
    const std::string large = std::string(1516, 'a') + std::string(1000, 'b');
    EXPECT_EQ(socket->sendPkt(pktOf(large), loopback), 2516);
    EXPECT_EQ(receive(*socket, 20), large.substr(0, 1516));
}

TEST_F(PktSocketTest, ReadinessIsReportedWhilePacketsWait) {
    Mox::EventLoop loop;
    const auto socket = ipSocket();
    std::vector<bool> reads;
    const Mox::Watch<Mox::FileDescriptor> readable(
        socket->fileDescriptor(), Mox::FileDescriptor::readableCountAttr,
        [&] { reads.push_back(socket->recvPkt(nullptr) != nullptr); });
    socket->fileDescriptor()->notifyOnReadableIs(true);
    socket->sendPkt(pktOf("one"), loopback);
    socket->sendPkt(pktOf("two"), loopback);
    for (int i = 0; i < 5; ++i) {
        loop.turn(0);
    }
    EXPECT_EQ(reads, (std::vector<bool>{true, true, false}));
}

TEST_F(PktSocketTest, ReportsTheCallThatFailed) {
    const auto socket = ipSocket();
    const auto receiving = [&] { EXPECT_EQ(socket->recvPkt(nullptr), nullptr); };
    const auto sending = [&] {
        EXPECT_EQ(socket->PktSocket::sendPkt(pktOf("x"), sockaddr_in{}), -1);
    };
    const auto sendingRaw = [&] { EXPECT_EQ(socket->sendPkt(pktOf("x"), loopback), -1); };
    const struct {
        std::function<void()> call;
        const char* name;
        int error;
        const char* written;
    } cases[] = {
        {receiving, "recvfrom", EAGAIN, ""},
        {receiving, "recvfrom", EBADF, " error is  9 Bad file descriptor\n"},
        {sending, "sendmsg", EAGAIN, ""},
        {sending, "sendmsg", EINTR, "error sending pkt:4 Interrupted system call\n"},
        {sendingRaw, "sendmsg", EAGAIN, ""},
        {sendingRaw, "sendmsg", ENOBUFS, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << &c - cases);
        testing::internal::CaptureStderr();
        PavoTest::FailSyscall fail(1, c.error, c.name);
        EXPECT_EQ(errorOf(c.call), c.error == EAGAIN ? "" : thrown(c.name, c.error));
        fail.disarm();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.written);
    }
    const auto interrupted = [&] {
        PavoTest::FailSyscall fail(1, EINTR, "recvfrom");
        socket->recvPkt(nullptr);
    };
    EXPECT_DEATH(interrupted(), "\\(\\*__errno_location \\(\\)\\) != 4");
    socket->fileDescriptor()->nonBlockingIs(false);
    EXPECT_DEATH(socket->recvPkt(nullptr), "fileDescriptor_->nonBlocking\\(\\)");
}

// The other end of a socket pair stands for the interface.
TEST_F(PktSocketTest, TapSocketsReadAndWriteWholePackets) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const auto tap = Mox::make<TapPktSocket>("tap", Mox::fileDescriptorFactory(ends[0]));
    EXPECT_EQ(tap->recvPkt(nullptr), nullptr);
    const auto pieces = pktOf("rear");
    std::memcpy(pieces->newPrivateHeadData(6), "front ", 6);
    EXPECT_EQ(tap->sendPkt(pieces, sockaddr_in{}), 10);
    char sent[11] = {};
    EXPECT_EQ(read(ends[1], sent, sizeof(sent)), 10);
    EXPECT_STREQ(sent, "front rear");
    EXPECT_EQ(write(ends[1], "back", 4), 4);
    EXPECT_EQ(receive(*tap, 0), "back");
    close(ends[1]);
    EXPECT_EQ(errorOf([&] { tap->recvPkt(nullptr); }), "read from tap socket returned 0");
}

TEST_F(PktSocketTest, BufferSizesAreThoseOfTheKernel) {
    const auto socket = ipSocket();
    socket->setSendBufSize(10000);
    socket->setRecvBufSize(9000);
    EXPECT_EQ(socket->sendBufSize(), 20000u);  // Twice the size that was set.
    EXPECT_EQ(socket->recvBufSize(), 18000u);
    EXPECT_EQ(errorOfFailing(1, EPERM, [&] { socket->setRecvBufSize(1); }),
              thrown("setsockopt(SO_RCVBUF)", EPERM));
}

TEST_F(PktSocketTest, BindsToAnAddress) {
    const auto socket = ipSocket();
    const IpAddr own(0x7f000002);
    socket->bind(own);
    socket->sendPkt(pktOf("elsewhere"), loopback);
    socket->sendPkt(pktOf("here"), own);
    sockaddr_in from{};
    EXPECT_EQ(receive(*socket, 20, &from), "here");
    EXPECT_EQ(from.sin_addr.s_addr, htonl(own.value()));
    EXPECT_EQ(socket->recvPkt(nullptr), nullptr);

    EXPECT_EQ(errorOf([&] { socket->bind(IpAddr(0xc0000201)); }), thrown("bind", EADDRNOTAVAIL));
}

TEST_F(PktSocketTest, IpSocketsReceiveOnTheirDeviceOnly) {
    PavoTest::makeVethPair("fifteen-bytes-0", "", "other", "");
    const auto bound = ipSocket();
    const auto unbound = ipSocket();
    bound->deviceIs("other");
    for (const char* const name : {"o", "fifteen-bytes-00"}) {
        EXPECT_EQ(errorOf([&] { bound->deviceIs(name); }),
                  thrown("setsockopt(SO_BINDTODEVICE)", ENODEV));
        EXPECT_EQ(bound->device(), "other");
    }
    const struct {
        const char* device;
        bool receives;
    } cases[] = {{"other", false}, {"lo", true}, {"other", false}, {"", true}};
    for (const auto& c : cases) {
        bound->deviceIs(c.device);
        unbound->sendPkt(pktOf("over lo"), loopback);
        EXPECT_EQ(receive(*unbound, 20), "over lo");
        EXPECT_EQ(bound->recvPkt(nullptr) != nullptr, c.receives) << c.device;
    }
    PavoTest::run({"ip", "link", "del", "other"});
}

TEST_F(PktSocketTest, EthSocketsReceiveIpv4OfTheirDeviceAndReportThatItIsDownOrGone) {
    PavoTest::makeVethPair("left", "", "right", "");
    PavoTest::setUp("", "right");
    for (const char* const device : {"", "r", "right-and-no-device"}) {
        EXPECT_EQ(errorOf([&] { ethSocket(device); }), thrown("ioctl(SIOCGIFINDEX)", ENODEV));
    }
    const auto left = ethSocket("left");
    const auto right = ethSocket("right");
    EXPECT_EQ(static_cast<uint32_t>(right->ifIndex()), if_nametoindex("right"));
    const std::string frame = frameOf(0x0800, "not really IPv4");
    const auto sendLeft = [&] {
        EXPECT_EQ(left->sendPkt(pktOf(frame), loopback), 29);  // The frame says where to.
    };
    const auto expectDown = [&](int sendingError) {
        testing::internal::CaptureStderr();
        for (const std::string& error : {thrown("recvfrom", ENETDOWN), std::string()}) {
            EXPECT_EQ(errorOf([&] { EXPECT_EQ(left->recvPkt(nullptr), nullptr); }), error);
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), " error is  100 Network is down\n");
        EXPECT_EQ(errorOf(sendLeft), thrown("sendmsg", sendingError));
    };
    expectDown(ENETDOWN);
    PavoTest::setUp("", "left");
    left->sendPkt(pktOf(frameOf(0x88b5, "local experiment")), sockaddr_in{});
    sendLeft();
    EXPECT_EQ(receive(*right, 0), frame);
    EXPECT_EQ(right->recvPkt(nullptr), nullptr);
    PavoTest::run({"ip", "link", "del", "right"});
    expectDown(ENXIO);
}

}  // namespace
}  // namespace Pavo
