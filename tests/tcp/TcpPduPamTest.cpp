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
#include "tcp/TcpStreams.h"

namespace Pavo {
namespace {

using Strings = std::vector<std::string>;

constexpr auto none = tcpEnableModeNone;
constexpr auto readOnly = tcpEnableModeReadOnly;
constexpr auto writeOnly = tcpEnableModeWriteOnly;
constexpr auto both = tcpEnableModeReadWrite;

std::string pduOf(uint16_t length) {
    return messageOf(simpleFraming, length, length, length);
}

// Sends messages, and takes one of those that came at each notification.
struct PduAgent {
    explicit PduAgent(const Mox::Ptr<TcpFileDescriptor>& stream, TcpPduPamEnableMode mode = both,
                      uint32_t ahead = 0)
        : pam(newPam(stream, ahead != 0)) {
        pam->readAheadBytesIs(ahead);
        pam->enableModeIs(mode);
    }
    void send(std::string_view bytes) const { pam->txPktIs(pktOf(bytes)); }

    static Mox::Ptr<TcpPduPam> newPam(const Mox::Ptr<TcpFileDescriptor>& stream, bool isFramed) {
        const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
        if (isFramed) {
            return framedTcpPduPamFactory(stream, factory, simpleFraming);
        }
        return simpleTcpPduPamFactory(stream, factory);
    }

    const Mox::Ptr<TcpPduPam> pam;
    Strings taken;
    bool takes = true;
    Mox::Watch<TcpPduPam> readable{
        pam, Pam::readableCountAttr, [this] {
            if (const Mox::Ptr<Pkt> pkt = takes ? pam->rxPkt() : nullptr) {
                taken.emplace_back(pkt->stringValue().view());
            }
        }};
};

struct Reading {
    const char* name;
    bool isEdge = false;
    uint32_t ahead = 0;

    // Else the name of a test has the bytes of the pointer.
    friend std::ostream& operator<<(std::ostream& out, const Reading& reading) {
        return out << reading.name;
    }
};

// For level- and edge-triggered descriptors, with read-ahead into buffers of which half is left
// after the messages of a turn, or nothing.
class TcpPduPamTest : public testing::TestWithParam<Reading> {
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
    Stream stream_{GetParam().isEdge};
    PduAgent agent_{stream_.near, both, GetParam().ahead};
    const Mox::Ptr<TcpPduPam> pam_ = agent_.pam;
};

INSTANTIATE_TEST_SUITE_P(Reading, TcpPduPamTest,
                         testing::Values(Reading{"Level"}, Reading{"Edge", true},
                                         Reading{"AheadOfATurn", false, 3200},
                                         Reading{"AheadOfTwoTurns", false, 6400},
                                         Reading{"AheadOfAll", true, 65536}),
                         [](const auto& test) { return test.param.name; });

TEST_P(TcpPduPamTest, ServesALimitedNumberOfPdusATurn) {
    for (uint32_t i = 0; i < 200; ++i) {
        stream_.write(pduOf(100));
    }
    std::vector<std::size_t> served;
    while (loop_.turn(0) != 0) {
        served.push_back(agent_.taken.size());
    }
    EXPECT_THAT(served, testing::IsSupersetOf({32, 64, 96, 128, 160, 192, 200}));
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
    pam_->maxPduLengthIs(9600);
    stream_.write(pduOf(30) + messageOf(simpleFraming, 65535, 20, 0));
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
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), GetParam().isEdge);
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
