#include "Pavo/Pam.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/Ip6Pam.h"
#include "Pavo/IpPam.h"
#include "Pavo/PamFdSm.h"

namespace Pavo {
namespace {

using Log = std::vector<std::string>;

// An endpoint that logs the calls of its handlers.
class FakePam : public Pam {
  public:
    explicit FakePam(Log* log) : Pam("fake"), log_(log) {}
    ~FakePam() override { log_->push_back("gone"); }

    void handleReadableCount() override { log_->push_back("readable"); }
    void handleWritableCount() override { log_->push_back("writable"); }
    void doGetRxPkt() override { rxPktIs(next); }

    Mox::Ptr<Pkt> next;

  private:
    Log* log_;
};

class PamTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_), 0);
        descriptor_ = Mox::fileDescriptorFactory(ends_[0]);
    }
    void TearDown() override { close(ends_[1]); }
    void send() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }

    Mox::EventLoop loop_;
    int ends_[2] = {-1, -1};
    Mox::Ptr<Mox::FileDescriptor> descriptor_;
    Log log_;
    Mox::Ptr<FakePam> pam_ = Mox::make<FakePam>(&log_);
};

TEST_F(PamTest, TheHandlerRunsBeforeObserversOfTheCount) {
    const Mox::Watch<FakePam> readable(pam_, Pam::readableCountAttr,
                                       [this] { log_.push_back("observer"); });
    pam_->readableCountIs(0);
    EXPECT_EQ(log_, Log());
    EXPECT_EQ(pam_->readableCountInc(2), 2u);
    EXPECT_EQ(log_, (Log{"readable", "observer"}));
}

TEST_F(PamTest, TheMachineIncrementsBothCountsAtCreationAndOnEachReport) {
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(descriptor_, pam_.ptr());
    const Mox::Ptr<PamFdSm> idle = PamFdSmIs(nullptr, pam_.ptr());
    EXPECT_EQ(log_, (Log{"readable", "writable"}));
    EXPECT_EQ(loop_.turn(0), 0u);
    send();
    EXPECT_EQ(loop_.turn(0), 1u);
    descriptor_->writeMetNoRoom();
    EXPECT_EQ(loop_.turn(0), 1u);
    EXPECT_EQ(log_, (Log{"readable", "writable", "readable", "writable"}));

    machine->hasNotificationActiveIs(false);
    descriptor_->readTried(true);
    send();
    EXPECT_EQ(loop_.turn(0), 0u);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(loop_.turn(0), 1u);
    EXPECT_EQ(pam_->readableCount(), 3u);
}

TEST_F(PamTest, AnObserverMayDropTheEndpoint) {
    const uint32_t before = Mox::liveObjects();
    {
        Mox::Ptr<FakePam> pam = Mox::make<FakePam>(&log_);
        Mox::Ptr<PamFdSm> machine = PamFdSmIs(descriptor_, pam.ptr());
        const Mox::Watch<FakePam> readable(pam, Pam::readableCountAttr, [&] {
            machine = nullptr;
            log_.push_back("dropped");
        });
        send();
        pam = nullptr;
        EXPECT_EQ(loop_.turn(0), 1u);
        EXPECT_EQ(log_, (Log{"readable", "writable", "readable", "dropped"}));
    }
    EXPECT_EQ(log_.back(), "gone");
    EXPECT_EQ(Mox::liveObjects(), before);
}

TEST_F(PamTest, TheReadPacketLeavesTheEndpoint) {
    const Mox::Ptr<Pkt> pkt = pktFactory();
    pam_->next = pkt;
    EXPECT_EQ(pam_->rxPkt(), pkt);
    pam_->next = nullptr;
    EXPECT_EQ(pam_->rxPkt(), nullptr);
    EXPECT_EQ(pkt->references(), 1u);

    pam_->txPktIs(pkt);  // The base only keeps it.
    EXPECT_EQ(pam_->txPkt(), pkt);
}

TEST_F(PamTest, SlotsNotifyOfRealChangesOnly) {
    uint32_t notified = 0;
    const Mox::Watch<FakePam> packets(pam_, Pam::savedPacketRxAttr, [&notified](uint32_t slot) {
        notified = 10 * notified + slot + 1;
    });
    pam_->savedPacketRxIs(3, false);
    EXPECT_EQ(pam_->savedPacketRx().members(), 0u);
    pam_->savedPacketRxIs(1, true);
    pam_->savedPacketRxIs(1, true);
    pam_->savedPacketRxIs(0, false);
    EXPECT_EQ(notified, 2u);
    pam_->savedPacketRxDelAll();
    EXPECT_EQ(notified, 221u);  // From the last slot to the first.
}

TEST_F(PamTest, OperationsThatAClassDoesNotOfferStopTheProcess) {
    EXPECT_DEATH(pam_->rxPktBulk(), "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
    const auto ip = ipPamFactory("ip", IpProtocolNumber::icmp, NamespaceName());
    EXPECT_DEATH(ip->rxPkt(), "!\"IpPam doesn't use this interface.\"");
}

TEST_F(PamTest, GivesEachAttributeAsText) {
    const auto pam = ip6PamVrrpFactory("vrrp", 1, NamespaceName());
    pam->txDstIpAddrIs(Mox::fromText<Ip6Addr>("ff02::12"));
    pam->txTTLIs(IpTtl(255));
    pam->txErrnoIs(-1);
    EXPECT_EQ(attributeText(*pam, "txDstIpAddr"), "ff02::12");
    EXPECT_EQ(attributeText(*pam, "txTTL"), "255");
    EXPECT_EQ(attributeText(*pam, "txErrno"), "-1");
    EXPECT_EQ(attributeText(*pam, "enabled"), "false");
    EXPECT_EQ(attributeText(*pam, "txIfName"), "");
    EXPECT_EQ(attributeText(*pam, "savedPacket"), std::nullopt);  // A collection.
}

}  // namespace
}  // namespace Pavo
