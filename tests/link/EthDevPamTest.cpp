// Endpoints for the frames of a device: each test runs with and without a ring.
#include "Pavo/EthDevPam.h"

#include <cerrno>
#include <optional>

#include "Pavo/UdpPam.h"
#include "Pavo/deferClose.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

constexpr uint16_t testType = 0x88b5;  // For experiments (IEEE 802-2014, 9.2.3).
const std::string header("\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x88\xb5", 14);

class EthDevPamTest : public PamFixture, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        wire_.emplace();
        left_ = opened(newPam("veth-left", "left"));
    }
    static Mox::Ptr<EthDevPam> newPam(const char* device, const char* netNs,
                                      uint16_t type = testType) {
        const auto pam = ethDevPamFactory(device, NamespaceName(netNs));
        pam->deviceIs(device);
        pam->etherTypeIs(type);
        pam->rxRingBlocksIs(GetParam() ? 4 : 0);
        pam->rxRingTimeoutMsIs(1);
        return pam;
    }
    static void send(const Mox::Ptr<EthDevPam>& pam, const char* text, int error = 0) {
        pam->txPktIs(pktOf(header + text));
        EXPECT_EQ(pam->txErrno(), error);
    }
    template <class Done>
    void turnsUntil(Done done) {
        EXPECT_TRUE(PavoTest::turnsUntil(loop_, done));
    }

    std::optional<Wire> wire_;
    Mox::Ptr<EthDevPam> left_;
};

INSTANTIATE_TEST_SUITE_P(Way, EthDevPamTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "ring" : "recvmsg"; });

// The kernel takes the tag that was sent in the bytes out of them again.
TEST_P(EthDevPamTest, FramesArriveWithTheirTagBesideThem) {
    const auto right = newPam("veth-right", "right", EthDevPam::allTypes);
    EXPECT_EQ(right->tryRxFilter("ether dst 02:00:00:00:00:02"), "");
    right->enabledIs(true);
    for (const uint32_t privateBytes : {0u, 6u, 14u, 60u, 61u}) {
        for (const uint16_t tpid : std::initializer_list<uint16_t>{0, 0x8100, 0x88a8}) {
            const std::string bytes = header + std::string(60, 'x');
            const auto pkt = pktOf(bytes.substr(privateBytes));
            std::copy_n(bytes.begin(), privateBytes, pkt->newPrivateHeadData(privateBytes));
            if (tpid != 0) {
                pkt->newSeparateVlanTag(0xb005, tpid);
            }
            left_->txPktIs(pkt);
            const auto received = receive(right);
            EXPECT_EQ(received->stringValue(), bytes);
            EXPECT_EQ(received->stringValueMaybeWithVlan(), pkt->stringValueMaybeWithVlan());
            EXPECT_EQ(received->hasSeparateVlanTag(), tpid != 0);
            EXPECT_EQ(right->rxInfo().pktType, RxPktType::otherHost);
            EXPECT_EQ(right->rxInfo().ifIndex, wire_->index("right"));
        }
    }
    EXPECT_EQ(left_->txPktCount(), 15u);
    right->txPktIs(pktOf(header));
    EXPECT_EQ(right->txPktCount(), 1u);
    EXPECT_EQ(right->rxPkt(), nullptr);  // Its own.

    // The kernel's stack leaves checksums to the device.
    EXPECT_EQ(right->tryRxFilter("udp"), "");
    const auto udp = udpPamFactory("udp", NamespaceName("left"));
    udp->remoteIs({addr("192.0.2.2"), 9});
    udp->enabledIs(true);
    udp->txPktIs(pktOf("datagram"));
    EXPECT_EQ(receive(right)->totalBytes(), 14u + 20 + 8 + 8);
    EXPECT_EQ(right->rxInfo().pktType, RxPktType::host);
    EXPECT_TRUE(right->rxInfo().isChecksumPending);
}

TEST_P(EthDevPamTest, FramesLongerThanTheRoomAreCutAndCounted) {
    const auto right = opened(newPam("veth-right", "right"));
    right->maxRxPktDataIs(1000);
    for (const uint32_t bytes : {14u, 1000u, 1001u, 1514u}) {
        left_->txPktIs(pktOf((header + std::string(1500, 'x')).substr(0, bytes)));
        EXPECT_EQ(receive(right)->totalBytes(), std::min(bytes, 1000u));
        EXPECT_EQ(right->rxInfo().truncated, bytes > 1000);
    }
    EXPECT_EQ(right->rxTruncatedPkts(), 2u);
    left_->txPktIs(pktOf(header.substr(1)));
    EXPECT_EQ(left_->txErrno(), EINVAL);
}

// Bursts are small enough for the queue between the devices, whose drops no endpoint sees.
TEST_P(EthDevPamTest, EveryFrameOfAFloodIsReceivedOrCounted) {
    constexpr uint32_t all = 20'000;
    const auto right = newPam("veth-right", "right");
    right->optionsIs(ipRcvBuf);
    right->rxBufIs(100'000);
    right->rxRingBlockBytesIs(8192);
    right->enabledIs(true);
    right->enableBulkReadIs(true);
    const std::vector<Mox::Ptr<Pkt>> burst(50, pktOf(header + "flood"));
    for (uint32_t sent = 0; sent < all; sent += 50) {
        ASSERT_EQ(left_->txPktsIs(burst), 50u);
        EXPECT_EQ(left_->txErrno(), 0);
        sent % 1000 == 0 ? (void)right->rxPktBulk() : void();
    }
    const auto sum = [&] { return right->rxPktCount() + right->rxDrops(); };
    turnsUntil([&] { return right->rxPktBulk() == 0 && sum() == all; });
    EXPECT_EQ(sum(), all);
    EXPECT_GT(right->rxDrops(), 100u);
    EXPECT_GT(right->rxPktCount(), 100u);

    // An observer disables the endpoint while a batch is handed over; some frames are unread.
    right->rxDropsIs(0);
    right->rxPktCountIs(0);
    left_->txPktsIs(burst);
    const Mox::Watch<EthDevPam> watch(right, Pam::savedPacketRxAttr,
                                      [&](uint32_t) { right->enabledIs(false); });
    turnsUntil([&] { return right->rxPktBulk() != 0; });
    EXPECT_FALSE(right->enabled());
    EXPECT_EQ(right->savedPacket(0)->stringValue(), header + "flood");
    EXPECT_GT(right->rxDrops(), 0u);
    EXPECT_EQ(sum(), 50u);
}

TEST_P(EthDevPamTest, ADeviceMayGoDownAndAwayAndComeBack) {
    const auto right = opened(newPam("veth-right", "right"));
    std::string seen;
    const Mox::Watch<EthDevPam> readable(right, Pam::readableCountAttr, [&] {
        while (const auto pkt = right->rxPkt()) {
            seen = pkt->stringValue().view().substr(14);
        }
    });
    const auto expectFails = [&](uint32_t rxErrors, int txError) {
        turnsUntil([&] { return right->rxErrors() == rxErrors; });
        uint32_t reports = 0;
        for (int i = 0; i < 1000; ++i) {
            reports += loop_.turn(0);
        }
        EXPECT_LT(reports, 5u);
        EXPECT_EQ(right->rxErrors(), rxErrors);
        send(right, "nowhere", txError);
    };
    const auto expectWorks = [&](const char* text) {
        turnsUntil([&] {
            send(left_, text);  // Lost where the device is up and its queue is not yet.
            return seen == text;
        });
        EXPECT_EQ(seen, text);
    };
    expectWorks("one");
    EXPECT_EQ(right->rxErrors(), 0u);
    PavoTest::run({"ip", "-n", "right", "link", "set", "veth-right", "down"});
    expectFails(1, ENETDOWN);
    PavoTest::setUp("right", "veth-right");
    expectWorks("two");
    PavoTest::cutWire();
    expectFails(2, ENXIO);
    PavoTest::connectWire();
    for (const auto& pam : {left_, right}) {
        pam->enabledIs(false);
        pam->enabledIs(true);
    }
    expectWorks("three");
}

TEST_P(EthDevPamTest, TheDeviceDeliversWhatIsAskedForWhileTheEndpointIsEnabled) {
    const auto pam = opened(newPam("veth-right", "right"));
    const auto expectDevice = [&](bool isMember, bool isPromiscuous) {
        const std::string groups = PavoTest::run({"ip", "-n", "right", "maddr", "show"});
        EXPECT_EQ(groups.find("01:80:c2:00:00:0e") != std::string::npos, isMember) << groups;
        const std::string link = PavoTest::run({"ip", "-n", "right", "-d", "link", "show"});
        EXPECT_EQ(link.find("promiscuity 1") != std::string::npos, isPromiscuous) << link;
    };
    const EthAddr group("01:80:c2:00:00:0e");
    pam->promiscuousIs(true);
    pam->doJoinMcastGroup(group);
    expectDevice(true, true);
    pam->doLeaveMcastGroup(group);
    expectDevice(false, true);
    pam->enabledIs(false);
    deferCloseWait();
    expectDevice(false, false);
    pam->enabledIs(true);
    expectDevice(false, true);
}

TEST_P(EthDevPamTest, AFilterIsChangedWhileFramesArrive) {
    const auto right = newPam("veth-right", "right");
    const auto expectPasses = [&](const std::string& expected) {
        for (const char* text : {"one ", "two ", "end "}) {
            send(left_, text);
        }
        std::string seen;
        while (seen.find("end") == std::string::npos && seen.size() < 20) {
            seen += receive(right)->stringValue().view().substr(14);
        }
        EXPECT_EQ(seen, expected);
    };
    EXPECT_EQ(right->tryRxFilter("ether[14] != 0x6f"), "");  // Not "o".
    right->enabledIs(true);
    EXPECT_EQ(right->tryRxFilter("ether[14"), "can't parse filter expression: syntax error");
    EXPECT_EQ(errorOfFailing(1, ENOMEM, [&] { (void)right->tryRxFilter(""); }),
              thrown("setsockopt(SO_DETACH_FILTER)", ENOMEM));
    EXPECT_EQ(right->rxFilter(), "ether[14] != 0x6f");
    expectPasses("two end ");
    EXPECT_EQ(right->tryRxFilter(""), "");
    expectPasses("one two end ");
}

TEST_P(EthDevPamTest, EnablingSucceedsWholeOrLeavesNothing) {
    const auto pam = newPam("lo", "");
    pam->optionsIs(ipRcvBuf | ipPriority | ipRecvTimestamp);
    pam->promiscuousIs(true);
    EXPECT_EQ(pam->tryRxFilter("arp"), "");
    EXPECT_GT(enableWhole(pam, "socketAt"), GetParam() ? 14u : 12u);
    EXPECT_EQ(pam->boundIfIndex(), 1u);
    pam->enabledIs(false);

    PavoTest::run({"ip", "tuntap", "add", "dev", "tun0", "mode", "tun"});
    const struct {
        const char* device;
        uint32_t ifIndex;
        uint32_t ringBlockBytes;
        const char* call;
        int error;
    } cases[] = {
        {"nothing", 1, 4096, "ioctl(SIOCGIFINDEX)", ENODEV},
        {"", 0, 4096, "bind", ENODEV},
        {"", 0xffffffff, 4096, "bind", ENODEV},
        {"tun0", 0, 4096, "getsockname", EAFNOSUPPORT},
        {"lo", 0, 0, "setsockopt(PACKET_RX_RING)", EINVAL},
        {"lo", 0, 4095, "setsockopt(PACKET_RX_RING)", EINVAL},
        {"lo", 0, 0xfffff000, "setsockopt(PACKET_RX_RING)", EINVAL},
    };
    pam->rxRingBlocksIs(4);
    for (const auto& c : cases) {
        pam->deviceIs(c.device);
        pam->ifIndexIs(c.ifIndex);
        pam->rxRingBlockBytesIs(c.ringBlockBytes);
        expectRefuses(pam, c.call, c.error);
    }
    PavoTest::run({"ip", "link", "del", "tun0"});
}

}  // namespace
}  // namespace Pavo
