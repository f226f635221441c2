#include "Pavo/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "pam/PamFixture.h"
#include "tcp/TcpStreams.h"

namespace Pavo {
namespace {

using Strings = std::vector<std::string>;

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
        const auto loop = loopTcpRegistrationFactory();
        return isFramed ? Mox::Ptr<TcpPduPam>(framedTcpPduPamFactory(stream, loop, simpleFraming))
                        : simpleTcpPduPamFactory(stream, loop);
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

// For level- and edge-triggered descriptors, without read-ahead and with it, into buffers of which
// half is left after the messages of a turn, or nothing.
class TcpPduPamTest : public testing::TestWithParam<std::tuple<bool, uint32_t>> {
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
    Stream stream_{std::get<0>(GetParam())};
    PduAgent agent_{stream_.near, both, std::get<1>(GetParam())};
    const Mox::Ptr<TcpPduPam> pam_ = agent_.pam;
};

INSTANTIATE_TEST_SUITE_P(EdgeAndAhead, TcpPduPamTest,
                         testing::Combine(testing::Bool(),
                                          testing::Values(0u, 3200u, 6400u, 65536u)));

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

TEST_P(TcpPduPamTest, APduThatIsNotTakenIsReportedOnce) {
    agent_.takes = false;
    stream_.write(pduOf(30) + pduOf(31));
    turns();
    EXPECT_EQ(pam_->readableCount(), 1u);
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

TEST_P(TcpPduPamTest, MisuseStopsTheProcess) {
    EXPECT_DEATH(pam_->getPduSize(), "pkt");
    EXPECT_DEATH(pam_->enableModeIs(static_cast<TcpPduPamEnableMode>(4)), "Unexpected value");
    const auto bare = tcpPduPamFactory(stream_.near, pam_->fdFactory());
    EXPECT_DEATH(bare->getPduSize(), "Need to implement getRemainingLength in a derived class");
}

}  // namespace
}  // namespace Pavo
