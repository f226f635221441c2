// UDP endpoints: each test runs for IPv4 and for IPv6.
#include "Pavo/UdpPam.h"

#include <cerrno>
#include <ctime>

#include "pam/PamFixture.h"

namespace Pavo {
namespace {

class UdpPamTest : public FamilyFixture {
  protected:
    static Mox::Ptr<UdpPam> newServer(const IpGenAddr& address, const char* netNs = "",
                                      uint32_t options = none) {
        const auto pam = udpPamFactory("server", NamespaceName(netNs));
        pam->localAddrIs(address);
        pam->optionsIs(options);
        return pam;
    }
    static Mox::Ptr<UdpPam> newClient(const IpGenAddrAndPort& remote) {
        const auto pam = udpPamFactory("client");
        pam->modeIs(UdpPam::Mode::client);
        pam->remoteIs(remote);
        return pam;
    }
    static IpGenAddrAndPort endOf(const IpGenAddr& address, const Mox::Ptr<UdpPam>& pam) {
        return {address, pam->boundPort()};
    }
    std::string textFrom(const Mox::Ptr<UdpPam>& pam) {
        return std::string(receive(pam)->stringValue());
    }
};

INSTANTIATE_TEST_SUITE_P(Family, UdpPamTest, testing::Values(ipv4, ipv6), FamilyFixture::nameOf);

TEST_P(UdpPamTest, DatagramsOfEverySizeArrive) {
    const uint32_t largest = pick(65507u, 65527u);
    const auto server = opened(newServer(loopback()));
    const auto client = opened(newClient(endOf(loopback(), server)));
    const auto expectPasses = [&](uint32_t bytes, uint32_t arrives) {
        const std::string text(bytes, 'x');
        client->txPktIs(pktOf(text));
        EXPECT_EQ(receive(server)->totalBytes(), arrives);
        EXPECT_EQ(server->rxInfo().truncated, arrives != bytes);
    };
    expectPasses(0, 0);
    expectPasses(1536, 1536);
    expectPasses(1537, 1536);
    server->rxFlagsIs(MSG_TRUNC);  // The kernel then returns a length beyond the buffer.
    expectPasses(largest, 1536);
    EXPECT_EQ(server->rxTruncatedPkts(), 2u);
    server->rxBufferBytesIs(largest);
    server->maxRxPktDataIs(largest);
    expectPasses(largest, largest);
    client->txPktIs(pktOf(std::string(largest + 1, 'x')));
    EXPECT_EQ(client->txErrno(), EMSGSIZE);
}

TEST_P(UdpPamTest, KnowsTheTimeOfEachPacketAndTheInterfaceOfLinkLocalAddresses) {
    const Wire wire;
    const auto right = opened(newServer(IpGenAddr(GetParam()), "right", ipRecvTimestamp));
    const auto left = newServer(addr(pick("192.0.2.1", "fe80::1")), "left");
    left->deviceIs("veth-left");  // The kernel needs it to bind.
    left->enabledIs(true);
    const int64_t before = int64_t{std::time(nullptr)} * 1'000'000'000;
    left->remoteIs(endOf(addr(pick("192.0.2.2", "fe80::2")), right));
    left->txPktIs(pktOf("near"));
    EXPECT_EQ(textFrom(right), "near");
    EXPECT_EQ(right->rxInfo().source(), endOf(left->localAddr(), left));
    EXPECT_GE(right->rxInfo().timestampNs, before);
    EXPECT_LT(right->rxInfo().timestampNs, before + int64_t{60} * 1'000'000'000);
}

TEST_P(UdpPamTest, TheErrorQueueNamesTheDestinationThatFailed) {
    const auto gone = opened(newServer(loopback()));
    const IpGenAddrAndPort nobody = endOf(loopback(), gone);
    gone->enabledIs(false);
    const auto pam = opened(newServer(loopback(), "", ipRecvErr));
    const Mox::Watch<UdpPam> readable(pam, Pam::readableCountAttr, [&] { (void)pam->rxPkt(); });
    (void)turnsUntilQuiet();
    const uint32_t errors = pam->rxErrors();
    pam->remoteIs(nobody);
    pam->txPktIs(pktOf("nobody listens"));
    std::vector<QueuedError> seen;
    const Mox::Watch<UdpPam> failed(pam, Pam::rxErrorsAttr, [&] {
        seen.insert(seen.end(), pam->queuedErrors().begin(), pam->queuedErrors().end());
    });
    EXPECT_LT(turnsUntilQuiet(), 5u);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].error, ECONNREFUSED);
    EXPECT_EQ(IpGenAddrAndPort(seen[0].dstIpAddr, seen[0].dstPort), nobody);
    EXPECT_EQ(seen[0].reporter, loopback());
    EXPECT_EQ(seen[0].icmpType, pick(3, 1));  // Destination unreachable.
    EXPECT_EQ(seen[0].icmpCode, pick(3, 4));  // The port.
    EXPECT_EQ(pam->rxErrors(), errors + 2);   // The failed read, and the error of the queue.
}

TEST_P(UdpPamTest, EnablingSucceedsWholeOrLeavesNothing) {
    const auto pam = newClient({loopback(), 9});
    pam->optionsIs(ipPktInfo | ipRecvTTL | ipRecvTimestamp | ipReuseAddr | ipRecvErr | ipPriority);
    pam->txTosIs(4);
    pam->txTtlIs(5);
    pam->txMcastTtlIs(6);
    pam->txMcastIfIndexIs(1);
    pam->rxMinTtlIs(7);
    pam->deviceIs("lo");
    EXPECT_GT(enableWhole(pam, "socketAt"), 20u);
    EXPECT_NE(pam->boundPort(), 0);

    const auto second = newServer(loopback());
    const auto taken = opened(newServer(loopback()));
    second->localPortIs(taken->boundPort());
    expectRefuses(second, "bind", EADDRINUSE);
    expectRefuses(udpPamFactory("no family"), "socketAt", EAFNOSUPPORT);
    expectRefuses(newServer(loopback(), "nowhere"), "socketAt", ENOENT);
    const auto mixed = newClient({addr(pick("::1", "127.0.0.1")), 9});
    mixed->localAddrIs(loopback());
    expectRefuses(mixed, "connect", EAFNOSUPPORT);
    EXPECT_EQ(mixed->boundPort(), 0);
    second->deviceIs("a-name-that-is-too-long");
    expectRefuses(second, "setsockopt(SO_BINDTODEVICE)", ENODEV);
}

TEST_P(UdpPamTest, BatchesArriveInOrderAndEachPacketIsCounted) {
    const auto server = opened(newServer(loopback()));
    server->socketReadLimitIs(255);
    server->enableBulkReadIs(true);
    const auto client = opened(newClient(endOf(loopback(), server)));
    // Equal sizes, which are segmented, among others; one that is too large.
    std::vector<uint32_t> sizes(70, 100);
    sizes.insert(sizes.end(), {0, 66000, 300, 300, 299, 0});
    std::vector<Mox::Ptr<Pkt>> pkts;
    Texts sent;
    for (const uint32_t bytes : sizes) {
        const std::string text(bytes, static_cast<char>(pkts.size()));
        pkts.push_back(pktOf(text));
        bytes == 66000 ? void() : sent.push_back(text);
    }
    const auto expectArrives = [&] {
        EXPECT_EQ(client->txPktsIs(pkts), 76u);
        Texts seen(static_cast<uint32_t>(server->rxPktBulk()));
        for (uint32_t slot = 0; slot < seen.size(); ++slot) {
            seen[slot] = server->savedPacket(slot)->stringValue().view();
        }
        EXPECT_EQ(seen, sent);
    };
    expectArrives();
    EXPECT_EQ(client->txErrno(), EMSGSIZE);
    EXPECT_EQ(client->txErrors(), 1u);
    EXPECT_EQ(client->txPktCount(), 75u);
    for (const int error : {EIO, EINVAL, EMSGSIZE}) {  // Where the kernel refuses segments.
        const PavoTest::FailSyscall refuses(1, error, "sendmsg");
        expectArrives();
        EXPECT_TRUE(refuses.happened());
        client->enabledIs(false);
        client->enabledIs(true);
    }
    const PavoTest::FailSyscall full(2, EAGAIN, "sendmsg");  // After the first 64.
    EXPECT_EQ(client->txPktsIs(pkts), 64u);
    EXPECT_EQ(client->txErrors(), 4u + 12);
    EXPECT_EQ(client->txErrno(), EAGAIN);
    const uint32_t reports = client->writableCount();
    loop_.turn(0.2);
    EXPECT_EQ(client->writableCount(), reports + 1);
}

TEST_P(UdpPamTest, AReaderThatStopsIsNotReportedAndLosesNothingUncounted) {
    const auto server = opened(newServer(loopback(), "", ipRecvDrops));
    const auto client = opened(newClient(endOf(loopback(), server)));
    const std::vector<Mox::Ptr<Pkt>> pkts(50, pktOf("flood"));
    for (int i = 0; i < 400; ++i) {
        EXPECT_EQ(client->txPktsIs(pkts), 50u);
    }
    turnsUntilQuiet();
    const uint32_t reports = server->readableCount();
    for (int turns = 0; turns < 1000; ++turns) {
        EXPECT_EQ(loop_.turn(0), 0u);
    }
    EXPECT_EQ(server->readableCount(), reports);
    while (server->rxPkt()) {
    }
    for (int i = 0; i < 2; ++i) {  // Each later packet has the sum of all drops.
        client->txPktIs(pktOf("after it"));
        EXPECT_EQ(textFrom(server), "after it");
    }
    EXPECT_GT(server->rxDrops(), 0u);
    EXPECT_EQ(server->rxPktCount() + server->rxDrops(), 20002u);
    EXPECT_EQ(client->txPktCount(), 20002u);
}

TEST_P(UdpPamTest, AppliesTheOptionsOfUdpWhenEnabledAndWhenChanged) {
    const auto shared = opened(newServer(loopback(), "", ipReusePort));
    for (const bool on : {true, false, true}) {
        shared->optionsIs(on ? ipReusePort : none);
        EXPECT_EQ(optionOf(*shared, SOL_SOCKET, SO_REUSEPORT), on);
    }
    const auto pam = opened(newServer(loopback(), "", ipPriority));
    EXPECT_EQ(errorOf([&] { pam->doJoinMcastGroup(1, loopback(), IpGenAddr()); }),
              thrown("setsockopt(MCAST_JOIN_SOURCE_GROUP)", EAFNOSUPPORT));
    pam->priorityIs(tcPrioControl);
    pam->txTosIs(0x10);  // With which the kernel of IPv4 overwrites the priority.
    EXPECT_EQ(optionOf(*pam, SOL_SOCKET, SO_PRIORITY), tcPrioControl);
    EXPECT_EQ(errorOfFailing(1, EPERM, [&] { pam->rxMinTtlIs(9); }),
              thrown("setsockopt(SO_ATTACH_FILTER)", EPERM));
    EXPECT_EQ(pam->rxMinTtl(), IpTtl());
    EXPECT_EQ(errorOfFailing(1, EPERM, [&] { pam->optionsIs(none); }),
              thrown("setsockopt(SO_PRIORITY)", EPERM));
    EXPECT_FALSE(pam->enabled());
}

}  // namespace
}  // namespace Pavo
