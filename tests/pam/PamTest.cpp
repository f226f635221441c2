#include "Pavo/Pam.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/Ip6Pam.h"
#include "Pavo/IpPam.h"
#include "Pavo/PamFdSm.h"

namespace Pavo {
namespace {

// An endpoint that writes down what it is asked.
class FakePam : public Pam {
  public:
    explicit FakePam(std::vector<std::string>* log) : Pam("fake"), log_(log) {}
    ~FakePam() override { log_->push_back("gone"); }

    void handleReadableCount() override { log_->push_back("readable"); }
    void handleWritableCount() override { log_->push_back("writable"); }
    void doGetRxPkt() override { rxPktIs(next); }

    Mox::Ptr<Pkt> next;

  private:
    std::vector<std::string>* log_;
};

class PamTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_), 0);
        descriptor_ = Mox::fileDescriptorFactory(ends_[0]);
    }
    void TearDown() override { close(ends_[1]); }

    Mox::EventLoop loop_;
    int ends_[2] = {-1, -1};
    Mox::Ptr<Mox::FileDescriptor> descriptor_;
    std::vector<std::string> log_;
    Mox::Ptr<FakePam> pam_ = Mox::make<FakePam>(&log_);
};

using Log = std::vector<std::string>;

TEST_F(PamTest, AnEndpointReadsItsPacketBeforeAnybodyHearsOfTheCount) {
    const Mox::Watch<FakePam> readable(pam_, Pam::readableCountAttr,
                                       [this] { log_.push_back("observer"); });
    pam_->readableCountIs(0);
    EXPECT_EQ(log_, Log());
    EXPECT_EQ(pam_->readableCountInc(2), 2u);
    EXPECT_EQ(log_, (Log{"readable", "observer"}));
}

TEST_F(PamTest, TheMachineBumpsBothCountsAtBirthAndOnEachReport) {
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(descriptor_, pam_.ptr());
    EXPECT_EQ(log_, (Log{"readable", "writable"}));
    EXPECT_EQ(loop_.turn(0), 0u);

    ASSERT_EQ(send(ends_[1], "x", 1, 0), 1);
    EXPECT_EQ(loop_.turn(0), 1u);
    EXPECT_EQ(pam_->readableCount(), 2u);

    descriptor_->writeMetNoRoom();
    EXPECT_EQ(loop_.turn(0), 1u);
    EXPECT_EQ(pam_->writableCount(), 2u);

    machine->hasNotificationActiveIs(false);
    descriptor_->readTried(true);
    ASSERT_EQ(send(ends_[1], "x", 1, 0), 1);
    EXPECT_EQ(loop_.turn(0), 0u);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(loop_.turn(0), 1u);
    EXPECT_EQ(pam_->readableCount(), 3u);

    const Mox::Ptr<PamFdSm> idle = PamFdSmIs(nullptr, pam_.ptr());
    EXPECT_EQ(pam_->readableCount(), 3u);
}

TEST_F(PamTest, AnAgentMayDropTheEndpointWhileItIsTold) {
    const uint32_t before = Mox::liveObjects();
    {
        Mox::Ptr<FakePam> pam = Mox::make<FakePam>(&log_);
        Mox::Ptr<PamFdSm> machine = PamFdSmIs(descriptor_, pam.ptr());
        const Mox::Watch<FakePam> readable(pam, Pam::readableCountAttr, [&] {
            machine = nullptr;
            log_.push_back("dropped");
        });
        ASSERT_EQ(send(ends_[1], "x", 1, 0), 1);
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

TEST_F(PamTest, SlotsTellOfRealChangesOnly) {
    uint32_t told = 0;
    const Mox::Watch<FakePam> packets(pam_, Pam::savedPacketRxAttr,
                                      [&told](uint32_t slot) { told = 10 * told + slot + 1; });
    pam_->savedPacketRxIs(3, false);
    EXPECT_EQ(pam_->savedPacketRx().members(), 0u);
    EXPECT_EQ(pam_->savedPacketRx().version(), 0u);
    pam_->savedPacketRxIs(1, true);
    pam_->savedPacketRxIs(1, true);
    pam_->savedPacketRxIs(0, false);
    EXPECT_EQ(pam_->savedPacketRx().version(), 1u);
    EXPECT_EQ(told, 2u);
    pam_->savedPacketRxDelAll();
    EXPECT_EQ(told, 212u);
}

TEST_F(PamTest, OperationsThatAClassDoesNotOfferStopTheProcess) {
    EXPECT_DEATH(pam_->rxPktBulk(), "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
    const auto ip = ipPamFactory("ip", IpProtocolNumber::icmp, NamespaceName());
    EXPECT_DEATH(ip->rxPkt(), "!\"IpPam doesn't use this interface.\"");
}

TEST_F(PamTest, AttributeNumbersAreDenseAlongAChainOfClasses) {
    const Mox::Ptr<Pam> longest = ip6PamVrrpFactory("vrrp", 1, NamespaceName());
    std::vector<int> numbers(64);
    std::size_t count = 0;
    for (const Mox::FwkType* type = longest->fwkType(); type != nullptr; type = type->base) {
        count += type->attributes.size();
        for (const Mox::AttributeBase* attribute : type->attributes) {
            EXPECT_EQ(++numbers.at(attribute->number), 1) << attribute->name;
        }
    }
    EXPECT_EQ(std::count(numbers.begin(), numbers.begin() + count, 1), count);
}

}  // namespace
}  // namespace Pavo
