#include "Pavo/Pam.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/Ip6Pam.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/PamFdSm.h"

namespace Pavo {
namespace {

using Log = std::vector<std::string>;

// An endpoint that logs the calls of its handlers.
class FakePam : public Pam {
  public:
    explicit FakePam(Log* log) : Pam("fake"), log_(log) {}

    void handleReadableCount() override { log_->push_back("readable"); }
    void handleWritableCount() override { log_->push_back("writable"); }
    void doGetRxPkt() override {}

  private:
    Log* log_;
};

class PamTest : public testing::Test {
  protected:
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
    Mox::EventLoop loop;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const auto descriptor = Mox::fileDescriptorFactory(ends[0]);
    const auto peer = Mox::fileDescriptorFactory(ends[1]);
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(descriptor, pam_.ptr());
    const Mox::Ptr<PamFdSm> idle = PamFdSmIs(nullptr, pam_.ptr());
    EXPECT_EQ(log_, (Log{"readable", "writable"}));
    EXPECT_EQ(loop.turn(0), 0u);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(loop.turn(0), 1u);
    descriptor->writeMetNoRoom();
    EXPECT_EQ(loop.turn(0), 1u);
    EXPECT_EQ(log_, (Log{"readable", "writable", "readable", "writable"}));

    machine->hasNotificationActiveIs(false);
    descriptor->readTried(true);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(loop.turn(0), 0u);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(loop.turn(0), 1u);
    EXPECT_EQ(pam_->readableCount(), 3u);
}

TEST_F(PamTest, MisuseStopsTheProcess) {
    EXPECT_DEATH(pam_->rxPktBulk(), "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
    const auto ip = ipPamFactory("ip", IpProtocolNumber::icmp, NamespaceName());
    EXPECT_DEATH(ip->rxPkt(), "!\"IpPam doesn't use this interface.\"");
    const auto raw = ipSocketPamFactory("raw", IpProtocolNumber::icmp, NamespaceName());
    EXPECT_DEATH(raw->enabledIs(true), "enabling needs an event loop on this thread");
}

TEST_F(PamTest, GivesAttributesAndOptionsAsText) {
    const auto pam = ip6PamVrrpFactory("vrrp", 1, NamespaceName());
    EXPECT_EQ(attributeText(*pam, "txDstIpAddr"), "ff02::12");
    EXPECT_EQ(attributeText(*pam, "txTTL"), "255");
    EXPECT_EQ(attributeText(*pam, "enabled"), "false");
    EXPECT_EQ(attributeText(*pam, "savedPacket"), std::nullopt);  // A collection.
    EXPECT_EQ(ipSocketOptionsText(pam->options()), "ipPktInfo|ipRecvTOS|ipRecvTTL");
    EXPECT_EQ(ipSocketOptionsText(none), "none");
    EXPECT_EQ(ipSocketOptionsText(ipRecvDrops | 0x30000), "ipRecvDrops|196608");
}

}  // namespace
}  // namespace Pavo
