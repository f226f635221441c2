#include "Pavo/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "pam/PamFixture.h"

namespace Pavo {
namespace {

using Strings = std::vector<std::string>;

constexpr auto none = tcpEnableModeNone;
constexpr auto readOnly = tcpEnableModeReadOnly;
constexpr auto writeOnly = tcpEnableModeWriteOnly;
constexpr auto both = tcpEnableModeReadWrite;

// A message of `bytes` bytes that differ from their neighbours, whose length field has `length`.
std::string pduOf(uint16_t length, uint32_t bytes) {
    std::string pdu(bytes, '\0');
    for (uint32_t i = 0; i < bytes; ++i) {
        pdu[i] = static_cast<char>(length + i * 7 + (i >> 8));
    }
    pdu[2] = static_cast<char>(length >> 8);
    pdu[3] = static_cast<char>(length);
    return pdu;
}
std::string pduOf(uint16_t length) {
    return pduOf(length, length);
}

// Sends messages, and takes one of those that came at each notification.
struct PduAgent {
    explicit PduAgent(const Mox::Ptr<TcpFileDescriptor>& stream, TcpPduPamEnableMode mode = both)
        : pam(simpleTcpPduPamFactory(stream,
                                     tcpFileDescriptorEventRegistrationFactoryMoxcFactory())) {
        pam->enableModeIs(mode);
    }
    void send(std::string_view bytes) const { pam->txPktIs(pktOf(bytes)); }

    const Mox::Ptr<SimpleTcpPduPam> pam;
    Strings taken;
    bool takes = true;
    Mox::Watch<SimpleTcpPduPam> readable{
        pam, Pam::readableCountAttr, [this] {
            if (const Mox::Ptr<Pkt> pkt = takes ? pam->rxPkt() : nullptr) {
                taken.emplace_back(pkt->stringValue().view());
            }
        }};
};

// A stream with an endpoint at one end and plain calls at the other, which delivers within the
// send.
struct Stream {
    explicit Stream(bool edgeTriggered) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const int bytes = 8192;  // So that a packet leaves in many pieces.
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
    // What has arrived at the far end.
    std::string read() const {
        std::string all(1 << 18, '\0');
        const ssize_t got = recv(far->descriptor(), all.data(), all.size(), MSG_DONTWAIT);
        all.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return all;
    }

    Mox::Ptr<TcpFileDescriptor> near;
    Mox::Ptr<TcpFileDescriptor> far;
};

// For level- and edge-triggered descriptors.
class TcpPduPamTest : public testing::TestWithParam<bool> {
  protected:
    void turns(const std::function<void()>& beforeEach = [] {}) {
        int left = 1000;
        do {
            beforeEach();
            ASSERT_GT(--left, 0) << "it spins";
        } while (loop_.turn(0) != 0);
    }
    // Sends until the socket takes no more, and ends in the first of two pieces.
    static void fill(const PduAgent& agent) {
        std::string pdu = pduOf(50000);
        SocketIovec pieces[] = {{pdu.data(), 40000}, {pdu.data() + 40000, 10000}};
        for (int left = 1000; agent.pam->writable() && left > 0; --left) {
            agent.pam->sendIov(pieces, 2);
        }
        EXPECT_FALSE(agent.pam->writable());
    }

    Mox::EventLoop loop_;
    Stream stream_{GetParam()};
    PduAgent agent_{stream_.near};
    const Mox::Ptr<SimpleTcpPduPam> pam_ = agent_.pam;
};

INSTANTIATE_TEST_SUITE_P(Watching, TcpPduPamTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Edge" : "Level"; });

TEST_P(TcpPduPamTest, ServesALimitedNumberOfPdusATurn) {
    for (uint16_t length = 20; length < 120; ++length) {
        stream_.write(pduOf(length));
    }
    std::vector<std::size_t> served;
    while (loop_.turn(0) != 0) {
        served.push_back(agent_.taken.size());
    }
    EXPECT_THAT(served, testing::IsSupersetOf({32, 64, 96, 100}));
}

// Lengths up to the default limit are part of the random programs.
TEST_P(TcpPduPamTest, TakesTheLongestPduThereIs) {
    pam_->maxPduLengthIs(65535);
    stream_.write(pduOf(65535));
    turns();
    EXPECT_EQ(agent_.taken, Strings{pduOf(65535)});
}

TEST_P(TcpPduPamTest, APduThatIsNotTakenIsReportedOnce) {
    agent_.takes = false;
    stream_.write(pduOf(30) + pduOf(31));
    turns();
    EXPECT_EQ(pam_->readableCount(), 1u);
}

TEST_P(TcpPduPamTest, CountsNothingFromInsideRxPkt) {
    stream_.write(pduOf(30) + pduOf(65535, 20));
    EXPECT_EQ(pam_->rxPkt()->stringValue(), pduOf(30));
    EXPECT_EQ(pam_->rxPkt(), nullptr);
    EXPECT_EQ(pam_->rxErrorReason(), "PDU length too big");
    EXPECT_EQ(pam_->rxErrors() + pam_->readableCount(), 0u);
    turns();
    EXPECT_EQ(pam_->rxErrors(), 1u);
    agent_.send("still");
    EXPECT_EQ(stream_.read(), "still");
}

TEST_P(TcpPduPamTest, APacketWithoutRoomWaitsAndTheNextOneStopsTheProcess) {
    fill(agent_);
    EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
    EXPECT_LT(pam_->txRemainingLength(), pam_->writeLength());
    EXPECT_DEATH(agent_.send("x"), "!txPktHolderShadow\\(\\)");
    turns([&] { stream_.read(); });
    pam_->enableModeIs(readOnly);
    EXPECT_DEATH(agent_.send("x"), "\"?writable\\(\\)");
}

TEST_P(TcpPduPamTest, APacketThatNoCallCanSendIsAnErrorAfterWhichWritingGoesOn) {
    pam_->txPktIs(nullptr);
    pam_->txPktIs(Mox::make<Pkt>());
    EXPECT_EQ(pam_->txErrors(), 0u);
    agent_.send(std::string(65536, '?'));
    EXPECT_EQ(pam_->txErrno(), EMSGSIZE);
    char byte = 'x';
    std::vector<SocketIovec> pieces(IOV_MAX + 1, SocketIovec{&byte, 1});
    pam_->sendIov(pieces.data(), IOV_MAX + 1);
    EXPECT_EQ(pam_->txErrors(), 2u);
    EXPECT_EQ(pam_->txErrorReason(), "Send failed with Message too long");
    pam_->sendIov(pieces.data(), IOV_MAX);
    EXPECT_EQ(pam_->txErrno(), 0);
    EXPECT_EQ(stream_.read(), std::string(IOV_MAX, 'x'));
    pam_->enabledIs(false);
    pam_->sendIov(pieces.data(), 1);
    EXPECT_EQ(pam_->txDrops(), 1u);
}

// A loop watches a descriptor once: the second endpoint that needs it fails.
TEST_P(TcpPduPamTest, ASocketThatCannotBeWatchedIsAnError) {
    const PduAgent second(stream_.near, writeOnly);
    EXPECT_THROW(second.pam->enableModeIs(both), Mox::ErrnoException);
    EXPECT_FALSE(second.pam->enabled());
    second.pam->enableModeIs(writeOnly);
    fill(second);
    EXPECT_EQ(second.pam->txErrorReason(), "Epoll_ctl failed with File exists");
    EXPECT_EQ(second.pam->txErrno(), EEXIST);
    EXPECT_EQ(second.pam->txErrors(), 1u);
}

TEST_P(TcpPduPamTest, AResetIsTheReasonOfBothDirections) {
    agent_.send("never read");
    stream_.write(pduOf(40).substr(0, 39));
    turns();
    EXPECT_EQ(pam_->rxRemainingLength(), 1u);
    pam_->enableModeIs(writeOnly);
    stream_.far = nullptr;
    turns();
    EXPECT_EQ(pam_->rxErrorReason(), "Recv failed with Connection reset by peer");
    EXPECT_EQ(pam_->rxErrors(), 1u);
    EXPECT_EQ(pam_->enableMode(), writeOnly);  // Pending until the end of the PDU.
    agent_.send("last words");
    EXPECT_EQ(pam_->txErrorReason(), "Send failed with Broken pipe");
    EXPECT_FALSE(pam_->writable());
}

TEST_P(TcpPduPamTest, AppliesKeepaliveAndCountsWhatFails) {
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), GetParam());
    const PduAgent agent(fd, none);
    const auto option = [&fd](int level, int number) {
        int value = -1;
        socklen_t length = sizeof(value);
        getsockopt(fd->descriptor(), level, number, &value, &length);
        return value;
    };
    agent.pam->keepaliveOptsIs({40000, 12, 13});  // The first is above what Linux takes.
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 12);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 13);
    EXPECT_EQ(agent.pam->tcpOptErrors(), 1u);
    EXPECT_EQ(agent.pam->tcpOptErrorReason(), "Setsockopt failed with Invalid argument");
    agent.pam->keepaliveOptsIs({11, 12, 13});
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 11);
    agent.pam->keepaliveOptsIs(TcpKeepaliveOptions::keepaliveDisabled);
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0);
}

TEST_P(TcpPduPamTest, MisuseStopsTheProcess) {
    EXPECT_DEATH(pam_->getPduSize(), "pkt");
    EXPECT_DEATH(pam_->enableModeIs(static_cast<TcpPduPamEnableMode>(4)), "Unexpected value");
    const auto bare = tcpPduPamFactory(stream_.near, pam_->fdFactory());
    EXPECT_DEATH(bare->getPduSize(), "Need to implement getRemainingLength in a derived class");
}

}  // namespace
}  // namespace Pavo
