#include "Pavo/PktSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "Pavo/RawSocket.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

constexpr RawSocket::Protocol experiment = 253;  // RFC 3692.
constexpr IpSocket::Options noOptions = 0;
const IpAddr loopback(0x7f000001);
const IpAddr leftAddr(0xc0000201);
const IpAddr rightAddr(0xc0000202);

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
    // Helper sockets stay open for the life of the process, but not beyond a test.
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

    const std::map<int, std::string> before_ = PavoTest::openDescriptors();
    const Mox::Ptr<RawSocket::Manager> manager_ = RawSocketManagerFactory();
};

TEST_F(PktSocketTest, AsksForTheProtocolAsItStandsAndAFailureLeavesOnlyTheHelperOpen) {
    const Texts ip = {"socket", "fcntl(F_GETFL)", "fcntl(F_SETFL)", "fcntl(F_SETFL)",
                      "setsockopt(IP_HDRINCL)"};
    const Texts eth = {"socket", "fcntl(F_GETFL)",      "fcntl(F_SETFL)",       "fcntl(F_SETFL)",
                       "socket", "ioctl(SIOCGIFINDEX)", "ioctl(SIOCGIFHWADDR)", "bind"};
    const struct {
        const char* device;  // Null for an IP socket.
        RawSocket::Protocol given;
        int asked;
    } cases[] = {
        {nullptr, experiment, 253}, {nullptr, RawSocket::noProtocol, 255}, {"lo", 3, 3},
        {"lo", 0x0800, 0x0800},     {"lo", RawSocket::noProtocol, 3},
    };
    for (const auto& c : cases) {
        const Texts& texts = c.device == nullptr ? ip : eth;
        Mox::Ptr<PktSocket> made;
        const auto make = [&] {
            made = nullptr;
            if (c.device == nullptr) {
                made = manager_->newIpSocket("ip", c.given, IpSocket::hdrIncl);
            } else {
                made = manager_->newEthSocket("eth", c.device, c.given);
            }
        };
        // The first one makes the packet manager, and sanitizers look its types up with system
        // calls of their own.
        make();
        made = nullptr;
        const uint32_t objects = Mox::liveObjects();
        std::size_t descriptors = PavoTest::openDescriptors().size();
        std::size_t at = 0;
        PavoTest::failEachSyscall(
            ENOBUFS, [&] { return errorOf(make); },
            [&](const PavoTest::FailSyscall& fail, const std::string& error, int) {
                ASSERT_LT(at, texts.size());
                EXPECT_EQ(error, thrown(texts[at], ENOBUFS));
                EXPECT_EQ(at == 0 ? fail.argument(2) : c.asked, c.asked);
                descriptors += at >= 5;  // From here on with the helper.
                EXPECT_EQ(PavoTest::openDescriptors().size(), descriptors);
                EXPECT_EQ(Mox::liveObjects(), objects);
                ++at;
            });
        EXPECT_EQ(at, texts.size());
        ASSERT_TRUE(made);
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

// A socket whose system calls give what a test says.
class ScriptedSocket : public TapPktSocket {
  public:
    explicit ScriptedSocket(int fd) : TapPktSocket("scripted", Mox::fileDescriptorFactory(fd)) {}

    int32_t recvfrom(int, void*, uint32_t, int, sockaddr*, uint32_t*) override { return act(); }
    int32_t sendmsg(Mox::Ptr<Pkt>, sockaddr_in) override { return act(); }

    int32_t result = -1;
    int error = 0;

  private:
    int32_t act() const {
        errno = error;
        return result;
    }
};

TEST_F(PktSocketTest, SaysWhatFailed) {
    const auto scripted =
        Mox::make<ScriptedSocket>(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto raw = ipSocket();
    const auto receiving = [&] { EXPECT_EQ(scripted->recvPkt(nullptr), nullptr); };
    const auto sending = [&] { EXPECT_EQ(scripted->sendPkt(pktOf("x"), sockaddr_in{}), -1); };
    const auto sendingRaw = [&] {  // The system call itself fails, as the script says.
        PavoTest::FailSyscall fail(1, scripted->error, "sendmsg");
        EXPECT_EQ(raw->sendPkt(pktOf("x"), loopback), -1);
    };
    const struct {
        std::function<void()> call;
        int result, error;
        std::string thrown, written;
    } cases[] = {
        {receiving, -1, EAGAIN, "", ""},
        {receiving, -1, EBADF, "recvfrom (9)", " error is  9 Bad file descriptor\n"},
        {receiving, 0, 0, "read from tap socket returned 0", ""},
        {sending, -1, EAGAIN, "", ""},
        {sending, -1, EINTR, "sendmsg (4)", "error sending pkt:4 Interrupted system call\n"},
        {sending, -1, ENOBUFS, "sendmsg (105)",
         "error sending pkt:105 No buffer space available\n"},
        {sendingRaw, -1, EAGAIN, "", ""},
        {sendingRaw, -1, ENOBUFS, "sendmsg (105)", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << &c - cases);
        scripted->result = c.result;
        scripted->error = c.error;
        testing::internal::CaptureStderr();
        EXPECT_EQ(errorOf(c.call), c.thrown);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.written);
    }
    scripted->result = -1;
    scripted->error = EINTR;
    EXPECT_DEATH(scripted->recvPkt(nullptr), "\\(\\*__errno_location \\(\\)\\) != 4");
    scripted->fileDescriptor()->nonBlockingIs(false);
    EXPECT_DEATH(scripted->recvPkt(nullptr), "fileDescriptor_->nonBlocking\\(\\)");
}

TEST_F(PktSocketTest, BufferSizesAreThoseOfTheKernel) {
    const auto socket = ipSocket();
    socket->setSendBufSize(10000);
    socket->setRecvBufSize(9000);
    EXPECT_EQ(socket->sendBufSize(), 20000u);  // Twice what was set.
    EXPECT_EQ(socket->recvBufSize(), 18000u);
    const auto expectError = [](const std::string& call, const char* option, auto function) {
        PavoTest::FailSyscall fail(1, EPERM, call);
        EXPECT_EQ(errorOf(function), thrown(call + option, EPERM));
    };
    expectError("setsockopt", "(SO_SNDBUF)", [&] { socket->setSendBufSize(1); });
    expectError("setsockopt", "(SO_RCVBUF)", [&] { socket->setRecvBufSize(1); });
    expectError("getsockopt", "(SO_SNDBUF)", [&] { socket->sendBufSize(); });
    expectError("getsockopt", "(SO_RCVBUF)", [&] { socket->recvBufSize(); });
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

    EXPECT_EQ(errorOf([&] { socket->bind(leftAddr); }), thrown("bind", EADDRNOTAVAIL));
}

// Two namespaces and a wire.
class PktSocketWireTest : public PktSocketTest {
  protected:
    Mox::Ptr<IpSocket> ipSocketIn(const char* netNs) {
        const PavoTest::ScopedNetns inside(netNs);
        return ipSocket();
    }
    Mox::Ptr<EthSocket> ethSocketIn(const char* netNs, const char* device) {
        const PavoTest::ScopedNetns inside(netNs);
        return manager_->newEthSocket("eth", device, RawSocket::noProtocol);
    }
};

TEST_F(PktSocketWireTest, IpSocketsHearTheirDeviceOnly) {
    const Wire wire;
    const auto left = ipSocketIn("left");
    const auto right = ipSocketIn("right");
    const auto anyDevice = ipSocketIn("right");
    static constexpr char failure[] = "setsockopt(SO_BINDTODEVICE)";
    right->deviceIs("lo");
    PavoTest::makeVethPair("fifteen-bytes-0", "right", "other", "right");
    for (const char* const name : {"r1", "fifteen-bytes-00"}) {
        EXPECT_EQ(errorOf([&] { right->deviceIs(name); }), thrown(failure, ENODEV));
        EXPECT_EQ(right->device(), "lo");
    }
    sockaddr_in dest{};
    dest.sin_family = AF_INET;
    dest.sin_addr.s_addr = htonl(rightAddr.value());
    EXPECT_EQ(left->sendPkt(pktOf("elsewhere"), dest), 9);
    sockaddr_in from{};
    EXPECT_EQ(receive(*anyDevice, 20, &from), "elsewhere");
    EXPECT_EQ(from.sin_addr.s_addr, htonl(leftAddr.value()));
    EXPECT_EQ(right->recvPkt(nullptr), nullptr);
    right->deviceIs("veth-right");
    left->sendPkt(pktOf("heard"), rightAddr);
    EXPECT_EQ(receive(*right, 20), "heard");
    right->deviceIs("");
    char device[IFNAMSIZ] = "x";
    socklen_t length = sizeof(device);
    getsockopt(right->fileDescriptor()->descriptor(), SOL_SOCKET, SO_BINDTODEVICE, device, &length);
    EXPECT_EQ(length, 0u);
}

TEST_F(PktSocketWireTest, EthSocketsHearIpv4OfTheirDevice) {
    const Wire wire;
    const auto left = ethSocketIn("left", "veth-left");
    const auto right = ethSocketIn("right", "veth-right");
    sockaddr_ll name{};
    socklen_t length = sizeof(name);
    getsockname(right->fileDescriptor()->descriptor(), reinterpret_cast<sockaddr*>(&name), &length);
    EXPECT_EQ(name.sll_ifindex, right->ifIndex());
    EXPECT_EQ(name.sll_protocol, htons(0x0800));

    const std::string frame = frameOf(0x0800, "not really IPv4");
    EXPECT_EQ(left->sendPkt(pktOf(frameOf(0x88b5, "local experiment")), sockaddr_in{}), 30);
    EXPECT_EQ(left->sendPkt(pktOf(frame), loopback), 29);  // The frame says where to.
    EXPECT_EQ(receive(*right, 0), frame);
    EXPECT_EQ(right->recvPkt(nullptr), nullptr);
}

TEST_F(PktSocketWireTest, EthSocketsSayThatTheirDeviceIsDownOrGone) {
    const Wire wire;
    for (const char* const device : {"", "veth-wrong", "veth-right-and-no-device"}) {
        EXPECT_EQ(errorOf([&] { ethSocketIn("right", device); }),
                  thrown("ioctl(SIOCGIFINDEX)", ENODEV));
    }
    testing::internal::CaptureStderr();
    PavoTest::run({"ip", "-n", "left", "link", "set", "dev", "veth-left", "down"});
    const auto left = ethSocketIn("left", "veth-left");
    const auto right = ethSocketIn("right", "veth-right");
    const auto readLeft = [&] { EXPECT_EQ(left->recvPkt(nullptr), nullptr); };
    const auto sendLeft = [&] { left->sendPkt(pktOf(frameOf(0x0800, "")), loopback); };
    for (const std::string& error : {thrown("recvfrom", ENETDOWN), std::string()}) {
        EXPECT_EQ(errorOf(readLeft), error);
    }
    EXPECT_EQ(errorOf(sendLeft), thrown("sendmsg", ENETDOWN));
    PavoTest::setUp("left", "veth-left");
    EXPECT_EQ(errorOf(sendLeft), "");
    EXPECT_EQ(receive(*right, 14), "");

    PavoTest::run({"ip", "-n", "right", "link", "del", "veth-right"});
    for (const std::string& error : {thrown("recvfrom", ENETDOWN), std::string()}) {
        EXPECT_EQ(errorOf(readLeft), error);
    }
    EXPECT_EQ(errorOf(sendLeft), thrown("sendmsg", ENXIO));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " error is  100 Network is down\n error is  100 Network is down\n");
}

TEST_F(PktSocketTest, TapSocketsAreTheOtherEndOfTheirInterface) {
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        GTEST_SKIP() << "needs /dev/net/tun: " << std::strerror(errno);
    }
    ifreq request{};
    std::strcpy(request.ifr_name, "tap0");
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    ASSERT_EQ(ioctl(fd, TUNSETIFF, &request), 0) << std::strerror(errno);
    const Mox::Ptr<TapPktSocket> tap =
        Mox::make<TapPktSocket>("tap", Mox::fileDescriptorFactory(fd));
    PavoTest::run({"ip", "link", "set", "dev", "tap0", "addrgenmode", "none"});
    EXPECT_EQ(errorOf([&] { tap->sendPkt(pktOf(frameOf(0x0800, "")), sockaddr_in{}); }),
              thrown("sendmsg", EIO));  // While the interface is down.
    PavoTest::setUp("", "tap0");
    const auto eth = manager_->newEthSocket("eth", "tap0", RawSocket::noProtocol);

    EXPECT_EQ(tap->recvPkt(nullptr), nullptr);
    const auto pieces = pktOf("payload");
    std::memcpy(pieces->newPrivateHeadData(14), frameOf(0x0800, "").data(), 14);
    EXPECT_EQ(tap->sendPkt(pieces, sockaddr_in{}), 21);
    EXPECT_EQ(receive(*eth, 0), frameOf(0x0800, "payload"));
    eth->sendPkt(pktOf(frameOf(0x88b5, "back")), loopback);
    EXPECT_EQ(receive(*tap, 0), frameOf(0x88b5, "back"));
}

}  // namespace
}  // namespace Pavo
