// Endpoints for the frames of a device: each test runs with and without a ring.
#include "Pavo/EthDevPam.h"

#include <cerrno>

#include "Pavo/BuildControl.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/Describe.h"
#include "Pavo/EthHdr.h"
#include "Pavo/UdpPam.h"
#include "Pavo/deferClose.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

constexpr uint16_t testType = 0x88b5;  // For experiments (IEEE 802-2014, 9.2.3).
const std::string header("\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x88\xb5", 14);

class EthDevPamTest : public PamFixture, public testing::WithParamInterface<bool> {
  protected:
    static bool hasRing() { return GetParam(); }
    static Mox::Ptr<EthDevPam> newPam(const char* device, const char* netNs,
                                      uint16_t type = testType) {
        const auto pam = ethDevPamFactory(device, NamespaceName(netNs));
        pam->deviceIs(device);
        pam->etherTypeIs(type);
        pam->rxRingBlocksIs(hasRing() ? 4 : 0);
        pam->rxRingTimeoutMsIs(1);
        return pam;
    }
    static Mox::Ptr<EthDevPam> openPam(const char* device, const char* netNs,
                                       uint16_t type = testType) {
        const auto pam = newPam(device, netNs, type);
        pam->enabledIs(true);
        return pam;
    }
    static void send(const Mox::Ptr<EthDevPam>& pam, const std::string& bytes, int error = 0) {
        pam->txPktIs(pktOf(bytes));
        EXPECT_EQ(pam->txErrno(), error) << bytes.size();
    }
    std::string bytesFrom(const Mox::Ptr<EthDevPam>& pam) {
        return std::string(receive(pam)->stringValueMaybeWithVlan());
    }
    // Turns until the counts say so, at most 500 times.
    template <class Done>
    void turnsUntil(Done done) {
        for (int i = 0; i < 500 && !done(); ++i) {
            loop_.turn(0.01);
        }
    }
    static std::string padded(const char* text) { return header + text + std::string(46, '.'); }
};

INSTANTIATE_TEST_SUITE_P(Way, EthDevPamTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "ring" : "recvmsg"; });

// The kernel takes the tag that was sent in the bytes out of them again.
TEST_P(EthDevPamTest, FramesArriveWithTheirTagBesideThem) {
    const Wire wire;
    const auto left = openPam("veth-left", "left");
    const auto right = openPam("veth-right", "right", EthDevPam::allTypes);
    EXPECT_EQ(right->tryRxFilter("ether dst 02:00:00:00:00:02"), "");
    for (const uint32_t privateBytes : {0u, 6u, 14u, 60u, 61u}) {
        for (const uint16_t tpid : std::initializer_list<uint16_t>{0, 0x8100, 0x88a8}) {
            const std::string bytes = padded("a frame");
            const auto pkt = pktOf(bytes.substr(privateBytes));
            uint8_t* const front = pkt->newPrivateHeadData(privateBytes);
            std::copy_n(bytes.begin(), privateBytes, front);
            if (tpid != 0) {
                pkt->newSeparateVlanTag(0xb005, tpid);
            }
            const bool inBatch = privateBytes == 6;
            inBatch ? (void)left->txPktsIs(std::vector(1, pkt)) : left->txPktIs(pkt);
            const auto received = receive(right);
            EXPECT_EQ(received->stringValue(), bytes);
            EXPECT_EQ(received->stringValueMaybeWithVlan(), pkt->stringValueMaybeWithVlan());
            EXPECT_EQ(received->hasSeparateVlanTag(), tpid != 0);
            EXPECT_EQ(right->rxInfo().pktType, RxPktType::otherHost);
            EXPECT_EQ(right->rxInfo().ifIndex, wire.index("right"));
        }
    }
    EXPECT_EQ(left->txPktCount(), 15u);
    EXPECT_EQ(left->rxPkt(), nullptr);  // Its own frames.
}

TEST_P(EthDevPamTest, TheKernelAnswersAndItsPendingChecksumsAreMarked) {
    const Wire wire;
    const auto arp = openPam("veth-right", "right", EthType::arp);
    const EthAddr own = arp->ethAddr();
    arp->txPktIs(buildPkt(
        Eth{.dst = EthAddr(0xffff, 0xffff, 0xffff), .src = own},
        Arp{.senderMac = own, .senderIp = IpAddr("192.0.2.2"), .targetIp = IpAddr("192.0.2.1")}));
    const auto answer = receive(arp);
    EXPECT_NE(describe(answer).view().find("192.0.2.1 is-at"), std::string_view::npos)
        << describe(answer);
    EXPECT_EQ(arp->rxInfo().pktType, RxPktType::host);
    EXPECT_FALSE(arp->rxInfo().isChecksumPending);

    const auto ip = openPam("veth-right", "right", EthType::ip);
    const auto udp = udpPamFactory("udp", NamespaceName("left"));
    udp->remoteIs({addr("192.0.2.2"), 9});
    udp->enabledIs(true);
    udp->txPktIs(pktOf("datagram"));
    EXPECT_EQ(receive(ip)->totalBytes(), 14u + 20 + 8 + 8);
    EXPECT_TRUE(ip->rxInfo().isChecksumPending);
}

TEST_P(EthDevPamTest, FramesOfEverySizeAreSentAndCutAndCounted) {
    const Wire wire;
    const auto left = openPam("veth-left", "left");
    const auto right = openPam("veth-right", "right");
    right->maxRxPktDataIs(1000);
    std::vector<Mox::Ptr<Pkt>> frames;
    std::string expected;
    for (const uint32_t bytes : {13u, 14u, 60u, 1000u, 1001u, 1514u, 1515u, 15u}) {
        frames.push_back(pktOf((header + std::string(1501, 'x')).substr(0, bytes)));
        if (bytes >= 14 && bytes <= 1514) {
            expected += std::to_string(std::min(bytes, 1000u)) + (bytes > 1000 ? " cut " : " ");
        }
    }
    EXPECT_EQ(left->txPktsIs(frames), 8u);  // The first is no frame, and one is above the MTU.
    EXPECT_EQ(left->txErrors(), 2u);
    EXPECT_EQ(left->txErrno(), EMSGSIZE);
    const auto read = [&] {
        std::string seen;
        while (seen.size() < expected.size()) {
            seen += std::to_string(receive(right)->totalBytes());
            seen += right->rxInfo().truncated ? " cut " : " ";
        }
        EXPECT_EQ(seen, expected);
    };
    read();
    EXPECT_EQ(right->rxTruncatedPkts(), 2u);
    {
        const PavoTest::FailSyscall full(3, EAGAIN, "sendmmsg");
        const uint32_t rooms = left->writableCount();
        EXPECT_EQ(left->txPktsIs(frames), 6u);  // One call, which names no reason, for each run.
        EXPECT_EQ(left->txErrors(), 2u + 3);
        turnsUntil([&] { return left->writableCount() != rooms; });
        EXPECT_EQ(left->writableCount(), rooms + 1);
    }
}

// Bursts are small enough for the queue between the devices, whose drops no endpoint sees.
TEST_P(EthDevPamTest, EveryFrameOfAFloodIsReceivedOrCounted) {
    constexpr uint32_t all = 20'000;
    const Wire wire;
    const auto left = openPam("veth-left", "left");
    const auto right = newPam("veth-right", "right");
    right->optionsIs(ipRcvBuf);
    right->rxBufIs(100'000);
    right->rxRingBlockBytesIs(8192);
    right->enabledIs(true);
    right->enableBulkReadIs(true);
    const std::vector<Mox::Ptr<Pkt>> burst(50, pktOf(padded("flood")));
    uint64_t received = 0;
    for (uint32_t sent = 0; sent < all; sent += 50) {
        ASSERT_EQ(left->txPktsIs(burst), 50u);
        EXPECT_EQ(left->txErrno(), 0);
        if (sent % 1000 == 0) {
            received += static_cast<uint32_t>(right->rxPktBulk());
        }
    }
    const auto sum = [&] { return right->rxPktCount() + right->rxDrops(); };
    turnsUntil([&] { return right->rxPktBulk() == 0 && right->rxPktBulk() == 0 && sum() == all; });
    EXPECT_EQ(sum(), all);
    EXPECT_GT(right->rxDrops(), 100u);
    EXPECT_GT(right->rxPktCount(), 100u);

    // What is unread when the endpoint is disabled is counted too.
    right->rxDropsIs(0);
    right->rxPktCountIs(0);
    left->txPktsIs(burst);
    turnsUntil([&] { return right->rxPktBulk() != 0; });
    EXPECT_LT(right->rxPktCount(), 50u);
    right->enabledIs(false);
    EXPECT_EQ(sum(), 50u);
}

TEST_P(EthDevPamTest, AnObserverMayDisableWhileABatchIsHandedOver) {
    const Wire wire;
    const auto left = openPam("veth-left", "left");
    const auto right = newPam("veth-right", "right");
    right->socketReadLimitIs(10);
    right->enableBulkReadIs(true);
    right->enabledIs(true);
    left->txPktsIs(std::vector(20, pktOf(padded("frame"))));
    const Mox::Watch<EthDevPam> watch(right, Pam::savedPacketRxAttr,
                                      [&](uint32_t) { right->enabledIs(false); });
    int32_t received = 0;
    turnsUntil([&] { return (received = right->rxPktBulk()) != 0; });
    EXPECT_EQ(received, 10);
    EXPECT_FALSE(right->enabled());
    EXPECT_EQ(right->savedPacket(9)->stringValue(), padded("frame"));
    EXPECT_EQ(right->rxPktCount(), 10u);
    EXPECT_EQ(right->rxDrops(), 10u);
}

TEST_P(EthDevPamTest, ADeviceMayGoDownAndAwayAndComeBack) {
    const Wire wire;
    const auto left = openPam("veth-left", "left");
    const auto right = openPam("veth-right", "right");
    std::string seen;
    const Mox::Watch<EthDevPam> readable(right, Pam::readableCountAttr, [&] {
        while (const auto pkt = right->rxPkt()) {
            seen += pkt->stringValue().view().substr(14, 3);
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
        send(right, padded("nowhere"), txError);
    };
    const auto expectWorks = [&](const char* text) {
        seen.clear();
        turnsUntil([&] {
            send(left, padded(text));  // Lost where the device is up and its queue is not yet.
            return !seen.empty();
        });
        EXPECT_EQ(seen.substr(0, 3), text);
    };
    expectWorks("one");
    EXPECT_EQ(right->rxErrors(), 0u);
    PavoTest::run({"ip", "-n", "right", "link", "set", "veth-right", "down"});
    expectFails(1, ENETDOWN);
    PavoTest::setUp("right", "veth-right");
    expectWorks("two");
    PavoTest::cutWire();
    expectFails(2, ENXIO);
    EXPECT_EQ(errorOf([&] { right->promiscuousIs(true); }),
              thrown("setsockopt(PACKET_ADD_MEMBERSHIP)", ENODEV));
    EXPECT_FALSE(right->promiscuous());
    PavoTest::connectWire();
    for (const auto& pam : {left, right}) {
        pam->enabledIs(false);
        pam->enabledIs(true);
    }
    expectWorks("new");
}

TEST_P(EthDevPamTest, TheDeviceDeliversWhatIsAskedForWhileTheEndpointIsEnabled) {
    const Wire wire;
    const auto pam = openPam("veth-right", "right");
    const auto expectDevice = [&](bool isMember, bool isPromiscuous) {
        const std::string groups = PavoTest::run({"ip", "-n", "right", "maddr", "show"});
        EXPECT_EQ(groups.find("01:80:c2:00:00:0e") != std::string::npos, isMember) << groups;
        const std::string link = PavoTest::run({"ip", "-n", "right", "-d", "link", "show"});
        EXPECT_EQ(link.find("promiscuity 1") != std::string::npos, isPromiscuous) << link;
    };
    const EthAddr group("01:80:c2:00:00:0e");
    pam->doJoinMcastGroup(group);
    pam->promiscuousIs(true);
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
    const Wire wire;
    const auto left = openPam("veth-left", "left");
    const auto right = newPam("veth-right", "right");
    const auto expectPasses = [&](const std::string& expected) {
        for (const char* text : {"one", "two", "end"}) {
            send(left, padded(text));
        }
        std::string seen;
        do {
            seen += bytesFrom(right).substr(14, 3);
        } while (seen.find("end") == std::string::npos && seen.size() < 20);
        EXPECT_EQ(seen, expected);
    };
    EXPECT_EQ(right->tryRxFilter("ether[14] != 0x6f"), "");  // Not "o".
    right->enabledIs(true);
    expectPasses("twoend");
    EXPECT_EQ(right->tryRxFilter("ether[14"), "can't parse filter expression: syntax error");
    EXPECT_EQ(right->rxFilter(), "ether[14] != 0x6f");
    {
        const PavoTest::FailSyscall fail(1, ENOMEM, "setsockopt");
        EXPECT_EQ(errorOf([&] { (void)right->tryRxFilter(""); }),
                  thrown("setsockopt(SO_DETACH_FILTER)", ENOMEM));
    }
    expectPasses("twoend");
    EXPECT_EQ(right->tryRxFilter("ether[14] != 0x74"), "");  // Not "t".
    expectPasses("oneend");
    EXPECT_EQ(right->tryRxFilter(""), "");
    expectPasses("onetwoend");
}

TEST_P(EthDevPamTest, EnablingSucceedsWholeOrLeavesNothing) {
    deferCloseWait();
    const auto before = PavoTest::openDescriptors();
    const auto pam = newPam("lo", "");
    pam->optionsIs(ipRcvBuf | ipPriority | ipRecvTimestamp);
    pam->promiscuousIs(true);
    EXPECT_EQ(pam->tryRxFilter("arp"), "");
    const unsigned failures = PavoTest::failEachSyscall(
        EPERM, [&] { return errorOf([&] { pam->enabledIs(true); }); },
        [&](const auto& fail, const std::string& error, int) {
            const std::string name = fail.name();
            EXPECT_NE(error.find(name == "stat" ? "socketAt" : name), std::string::npos) << error;
            EXPECT_FALSE(pam->enabled());
            EXPECT_EQ(pam->boundIfIndex(), 0u);
            deferCloseWait();
            EXPECT_EQ(PavoTest::openDescriptors(), before);
        });
    EXPECT_GT(failures, hasRing() ? 14u : 12u);
    EXPECT_EQ(pam->boundIfIndex(), 1u);
    pam->enabledIs(false);

    const auto expectError = [&](const char* call, int error) {
        EXPECT_EQ(errorOf([&] { pam->enabledIs(true); }), thrown(call, error));
        EXPECT_EQ(pam->fileDesc(), nullptr);
    };
    for (const char* name : {"nothing", "a-name-that-is-too-long"}) {
        pam->deviceIs(name);
        expectError("ioctl(SIOCGIFINDEX)", ENODEV);
    }
    pam->deviceIs("");
    for (const uint32_t index : {0u, 0x7fffffffu, 0xffffffffu}) {
        pam->ifIndexIs(index);
        expectError("bind", ENODEV);
    }
    PavoTest::run({"ip", "tuntap", "add", "dev", "tun0", "mode", "tun"});
    pam->deviceIs("tun0");
    expectError("getsockname", EAFNOSUPPORT);
    PavoTest::run({"ip", "link", "del", "tun0"});
    pam->ifIndexIs(1);
    pam->deviceIs("");
    for (const uint32_t bytes : {0u, 4095u, 0xfffff000u}) {
        pam->rxRingBlocksIs(4);
        pam->rxRingBlockBytesIs(bytes);
        expectError("setsockopt(PACKET_RX_RING)", EINVAL);
    }
}

}  // namespace
}  // namespace Pavo
