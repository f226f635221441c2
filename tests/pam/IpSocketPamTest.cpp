#include "Pavo/IpSocketPam.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Pavo/IpHdr.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

const IpAddr loopback(0x7f000001);
constexpr uint32_t allOptions = ipFreeBind | ipHdrIncl | ipMulticastLoop | ipPktInfo | ipRecvErr |
                                ipRecvOrigDstAddr | ipRecvTOS | ipRecvTTL | ipRouterAlert |
                                ipTransparent | ipAttachFilter | ipRcvBuf | ipPriority;
const IpFilter acceptAll(BPF_RET | BPF_K, 0, 0, 0xffff);
const IpFilter dropAll(BPF_RET | BPF_K, 0, 0, 0);

Mox::Ptr<Pkt> pktOf(const char* text) {
    const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(text, /*atTail=*/true);
    return pkt;
}

// A packet with its own IP header, for an endpoint with `ipHdrIncl`.
Mox::Ptr<Pkt> pktWithHeader(const char* text, uint8_t ttl, IpAddr source, IpAddr destination) {
    const auto pkt = pktOf(text);
    const auto header = ipHdrWrapperFactory(pkt, pkt->newSharedHeadData(20) - pkt->frontData());
    *header->header() = IpHdr();
    header->header()->versionIs(4);
    header->header()->headerBytesIs(20);
    header->header()->ttlIs(ttl);
    header->header()->protocolNumIs(IpProtocolNumber::experiment1);
    header->header()->srcIs(source);
    header->header()->dstIs(destination);
    return pkt;
}

// What was thrown, as "text (errno)"; "" for nothing.
std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Mox::ErrnoException& error) {
        return std::string(error.message().view()) + " (" + std::to_string(error.errnoValue()) +
               ")";
    }
    return "";
}

std::string thrown(const std::string& text, int error) {
    return text + " (" + std::to_string(error) + ")";
}

// Endpoints for an experimental protocol on the sandbox's own loopback interface.
class IpSocketPamTest : public PavoTest::SandboxTest {
  protected:
    static constexpr IpProtocolNumber protocol = IpProtocolNumber::experiment1;

    Mox::Ptr<IpSocketPam> newPam(IpProtocolNumber number = protocol) {
        return ipSocketPamFactory("test", number, NamespaceName());
    }

    // An enabled endpoint that sends to itself.
    Mox::Ptr<IpSocketPam> openPam(uint32_t options = none, IpProtocolNumber number = protocol) {
        const auto pam = newPam(number);
        pam->optionsIs(options);
        pam->txDstIpAddrIs(loopback);
        pam->enabledIs(true);
        return pam;
    }

    // Turns until a packet has come; loopback delivers within the send, so one turn is enough.
    Mox::Ptr<Pkt> receive(const Mox::Ptr<IpSocketPam>& pam) {
        for (int i = 0; i < 10; ++i) {
            if (const auto pkt = pam->rxPkt()) {
                return pkt;
            }
            loop_.turn(0.2);
        }
        ADD_FAILURE() << "no packet";
        return pktOf("none");
    }

    static std::string payload(const Mox::Ptr<Pkt>& pkt) {
        return std::string(pkt->stringValue().view().substr(20));
    }

    static int readBack(const Mox::Ptr<IpSocketPam>& pam, int level, int option) {
        int value = 0;
        socklen_t length = sizeof(value);
        EXPECT_EQ(getsockopt(pam->fileDesc()->descriptor(), level, option, &value, &length), 0);
        return value;
    }

    Mox::EventLoop loop_;
};

TEST_F(IpSocketPamTest, AppliesEachOptionWhenEnabledAndWhenChanged) {
    const struct {
        uint32_t bit;
        int level, option;
        int on, off;
        const char* enablingFails;
        const char* turningOnFails;
        const char* turningOffFails;
    } cases[] = {
        {ipHdrIncl, IPPROTO_IP, IP_HDRINCL, 1, 0, "setsockopt(IP_HDRINCL)", nullptr, nullptr},
        {ipPktInfo, IPPROTO_IP, IP_PKTINFO, 1, 0, "setsockopt(IP_PKTINFO)", nullptr, nullptr},
        {ipFreeBind, IPPROTO_IP, IP_FREEBIND, 1, 0, "setsockopt(IP_FREEBIND)", nullptr, nullptr},
        {ipMulticastLoop, IPPROTO_IP, IP_MULTICAST_LOOP, 1, 0, "setsockopt(IP_MULTICAST_LOOP)",
         nullptr, nullptr},
        {ipRecvErr, IPPROTO_IP, IP_RECVERR, 1, 0, "setsockopt(IP_RECVERR)", nullptr, nullptr},
        {ipRecvOrigDstAddr, IPPROTO_IP, IP_RECVORIGDSTADDR, 1, 0, "setsockopt(IP_RECVORIGDSTADD)",
         nullptr, nullptr},
        {ipRecvTOS, IPPROTO_IP, IP_RECVTOS, 1, 0, "setsockopt(IP_RECVTOS)", nullptr, nullptr},
        {ipRecvTTL, IPPROTO_IP, IP_RECVTTL, 1, 0, "setsockopt(IP_RECVTTL)", nullptr, nullptr},
        // Cannot be read back; a change that is none would fail (EADDRINUSE, ENOBUFS).
        {ipRouterAlert, IPPROTO_IP, 0, 0, 0, "setsockopt(IP_ROUTER_ALERT)", nullptr, nullptr},
        {ipTransparent, IPPROTO_IP, IP_TRANSPARENT, 1, 0, "setsockopt(IP_TRANSPARENT)", nullptr,
         nullptr},
        {ipRcvBuf, SOL_SOCKET, SO_RCVBUF, 400000, 2304, "setsockopt(SO_RCVBUFFORCE)",
         "setsockopt(SO_RCVBUFFIRCE)", "setsockopt(SO_RCVBUFFORCE)"},
        {ipPriority, SOL_SOCKET, SO_PRIORITY, tcPrioControl, 0, "setsockopt(SO_PRIORITY)", nullptr,
         nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.enablingFails);
        const auto pam = newPam();
        pam->rxBufIs(200000);
        pam->priorityIs(tcPrioControl);
        pam->optionsIs(c.bit);
        {
            PavoTest::FailSyscall fail(1, EACCES, "setsockopt");
            EXPECT_EQ(errorOf([&] { pam->enabledIs(true); }), thrown(c.enablingFails, EACCES));
        }
        EXPECT_FALSE(pam->enabled());
        pam->enabledIs(true);
        if (c.option != 0) {
            EXPECT_EQ(readBack(pam, c.level, c.option), c.on);
        }

        // Of these two, a socket on which the change failed is not kept.
        const bool closes = c.bit == ipTransparent || c.bit == ipPriority;
        for (const bool on : {false, true}) {
            const char* text = on ? c.turningOnFails : c.turningOffFails;
            const uint32_t before = pam->options();
            {
                PavoTest::FailSyscall fail(1, EACCES, "setsockopt");
                EXPECT_EQ(errorOf([&] { pam->optionsIs(on ? c.bit : none); }),
                          thrown(text != nullptr ? text : c.enablingFails, EACCES));
            }
            EXPECT_EQ(pam->options(), before);
            EXPECT_EQ(pam->enabled(), !closes);
            pam->enabledIs(true);
            pam->optionsIs(on ? c.bit : none);
            if (c.option != 0) {
                EXPECT_EQ(readBack(pam, c.level, c.option), on ? c.on : c.off);
            }
        }
    }
}

TEST_F(IpSocketPamTest, AFailedEnablingLeavesNothingAndTheNextOneWorks) {
    const auto before = PavoTest::openDescriptors();
    const auto pam = newPam();
    pam->rxFilterIs(0, acceptAll);
    pam->rxBufIs(100000);
    pam->txTOSIs(0x10);
    pam->txTTLIs(9);
    pam->ipPktOptionIs(ipPktRouterAlert, true);
    pam->optionsIs(allOptions);
    std::vector<std::string> texts;
    const unsigned failures = PavoTest::failEachSyscall(
        ENOBUFS, [&] { return errorOf([&] { pam->enabledIs(true); }); },
        [&](const PavoTest::FailSyscall& fail, const std::string& error, int) {
            EXPECT_NE(error.find(" (" + std::to_string(ENOBUFS) + ")"), std::string::npos)
                << fail.name();
            EXPECT_FALSE(pam->enabled());
            EXPECT_EQ(pam->fileDesc(), nullptr);
            EXPECT_EQ(pam->fdSm(), nullptr);
            EXPECT_EQ(pam->readableCount(), 0u);
            EXPECT_EQ(PavoTest::openDescriptors(), before);
            texts.push_back(error.substr(0, error.find(" (")));
        });
    EXPECT_EQ(failures, texts.size());
    EXPECT_TRUE(pam->enabled());
    // The options in their order; then what makes the descriptor one that the loop can watch.
    const std::vector<std::string> options = {"setsockopt(IP_HDRINCL)",
                                              "setsockopt(IP_PKTINFO)",
                                              "setsockopt(IP_FREEBIND)",
                                              "setsockopt(IP_MULTICAST_LOOP)",
                                              "setsockopt(IP_RECVERR)",
                                              "setsockopt(IP_RECVORIGDSTADD)",
                                              "setsockopt(IP_RECVTOS)",
                                              "setsockopt(IP_RECVTTL)",
                                              "setsockopt(IP_ROUTER_ALERT)",
                                              "setsockopt(SO_ATTACH_FILTER)",
                                              "setsockopt(SO_RCVBUFFORCE)",
                                              "setsockopt(IP_TOS)",
                                              "setsockopt(IP_TTL)",
                                              "setsockopt(IP_TRANSPARENT)",
                                              "setsockopt(SO_PRIORITY)",
                                              "setsockopt(IP_OPTIONS)",
                                              "fcntl(F_SETFL)",
                                              "fcntl(F_SETFL)",
                                              "epoll_ctl"};
    const auto first = std::find(texts.begin(), texts.end(), options.front());
    EXPECT_EQ(std::vector<std::string>(first, texts.end()), options);
    pam->enabledIs(false);
    EXPECT_EQ(PavoTest::openDescriptors(), before);
}

TEST_F(IpSocketPamTest, SaysWhichNamespaceOrFilterIsMissing) {
    const auto lost = ipSocketPamFactory("lost", protocol, NamespaceName("nowhere"));
    EXPECT_EQ(errorOf([&] { lost->enabledIs(true); }), thrown("socketAt", ENOENT));

    const char* const noFilter = "SO_ATTACH_FILTER option must be supplied with a valid filter";
    const auto pam = openPam();
    EXPECT_EQ(errorOf([&] { pam->optionsIs(ipAttachFilter); }), thrown(noFilter, EINVAL));
    EXPECT_EQ(pam->options(), none);
    pam->rxFilterIs(0, dropAll);
    pam->optionsIs(ipAttachFilter);
    pam->txPktIs(pktOf("dropped"));
    EXPECT_EQ(pam->rxPkt(), nullptr);
    {
        PavoTest::FailSyscall fail(1, ENOMEM, "setsockopt");
        EXPECT_EQ(errorOf([&] { pam->optionsIs(none); }),
                  thrown("setsockopt(SO_DETACH_FILTER)", ENOMEM));
    }
    pam->optionsIs(none);
    pam->txPktIs(pktOf("passed"));
    EXPECT_EQ(payload(receive(pam)), "passed");
}

TEST_F(IpSocketPamTest, TellsEverythingAboutAReceivedPacket) {
    const auto pam = openPam(ipPktInfo | ipRecvTTL | ipRecvTOS | ipRecvOrigDstAddr);
    const IpAddr other(0x7f000002);
    pam->txSrcIpAddrIs(other);
    pam->txTOSIs(0xb9);  // The two congestion bits too.
    pam->txTTLIs(77);
    pam->txPktIs(pktOf("hello"));
    const auto pkt = receive(pam);
    EXPECT_EQ(payload(pkt), "hello");
    EXPECT_EQ(pkt->totalBytes(), 25u);
    EXPECT_EQ(pam->rxSrcIpAddr(), IpGenAddr(other));
    EXPECT_EQ(pam->rxDstIpAddr(), IpGenAddr(loopback));
    EXPECT_EQ(pam->rxOrigDstIpAddr(), IpGenAddr(loopback));
    EXPECT_EQ(pam->rxIfIndex(), if_nametoindex("lo"));
    EXPECT_EQ(pam->rxTOS(), 0xb9);
    EXPECT_EQ(pam->rxTTL(), 77);
    EXPECT_EQ(pam->rxPktCount(), 1u);
    EXPECT_EQ(pam->txPktCount(), 1u);

    // What the next packet does not carry stays as it was.
    pam->optionsIs(none);
    pam->txTTLIs(0);
    pam->txSrcIpAddrIs(IpGenAddr());
    pam->txPktIs(pktOf("again"));
    EXPECT_EQ(payload(receive(pam)), "again");
    EXPECT_EQ(pam->rxSrcIpAddr(), IpGenAddr(loopback));
    EXPECT_EQ(pam->rxTTL(), 77);
    EXPECT_EQ(readBack(pam, IPPROTO_IP, IP_TTL), 64);
}

TEST_F(IpSocketPamTest, LeavesOutAControlMessageThatWasCutShort) {
    const auto pam = openPam(ipPktInfo | ipRecvTTL | ipRecvTOS | ipRecvOrigDstAddr);
    const int on = 1;  // A message that nobody planned for takes the room of the last one.
    ASSERT_EQ(setsockopt(pam->fileDesc()->descriptor(), SOL_SOCKET, SO_TIMESTAMP, &on, sizeof(on)),
              0);
    pam->txTTLIs(33);
    pam->txPktIs(pktOf("hello"));
    EXPECT_EQ(payload(receive(pam)), "hello");
    EXPECT_EQ(pam->rxTTL(), 33);
    EXPECT_EQ(pam->rxDstIpAddr(), IpGenAddr(loopback));
    EXPECT_EQ(pam->rxOrigDstIpAddr(), IpGenAddr());
}

TEST_F(IpSocketPamTest, ReadsWhatIsThereAndCountsWhatIsNot) {
    const auto pam = openPam();
    EXPECT_EQ(pam->rxPkt(), nullptr);
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(pam->rxPktCount(), 0u);

    pam->maxRxPktDataIs(24);  // A longer packet is cut off there.
    pam->txPktIs(pktOf("longer than that"));
    pam->txPktIs(pktOf(""));
    EXPECT_EQ(payload(receive(pam)), "long");
    EXPECT_EQ(receive(pam)->totalBytes(), 20u);
    pam->maxRxPktDataIs(1537);
    EXPECT_DEATH(pam->rxPkt(), "maxSize >= maxRxPktData\\(\\)");
    pam->enabledIs(false);
    EXPECT_EQ(pam->rxPkt(), nullptr);
    EXPECT_DEATH(pam->txPktIs(pktOf("x")), "enabled\\(\\)");
}

TEST_F(IpSocketPamTest, ReadsBatchesWithWhatIsKnownOfEachPacket) {
    const auto pam = openPam(ipRecvTTL);
    pam->socketReadLimitIs(3);
    pam->enableBulkReadIs(true);
    EXPECT_EQ(pam->savedPacket().members(), 3u);
    const char* const texts[] = {"one", "two", "three", "four"};
    for (unsigned i = 0; i < 4; ++i) {
        pam->txTTLIs(10 + i);
        pam->txPktIs(pktOf(texts[i]));
    }
    EXPECT_EQ(pam->rxPktBulk(), 3);
    Mox::Ptr<Pkt> kept = pam->savedPacket(0);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(pam->savedPacketRx(i));
        EXPECT_EQ(payload(pam->savedPacket(i)), texts[i]);
        EXPECT_EQ(pam->savedPacketInfo(i).ttl, 10 + i);
        EXPECT_EQ(pam->savedPacketInfo(i).srcIpAddr, IpGenAddr(loopback));
    }
    EXPECT_EQ(pam->rxPktBulk(), 1);
    EXPECT_EQ(payload(pam->savedPacket(0)), "four");
    EXPECT_EQ(payload(kept), "one");
    EXPECT_FALSE(pam->savedPacketRx(1));
    EXPECT_EQ(pam->rxPktBulk(), 0);
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(pam->rxPktCount(), 4u);
    pam->enableBulkReadIs(false);
    EXPECT_EQ(pam->savedPacket().members(), 0u);
}

TEST_F(IpSocketPamTest, ReadsABatchIntoSlotsThatObserversTakeAway) {
    const auto pam = openPam();
    pam->socketReadLimitIs(3);
    pam->enableBulkReadIs(true);
    EXPECT_EQ(pam->rxPktBulk(), 0);
    const Mox::Watch<IpSocketPam> taken(pam, Pam::savedPacketRxAttr,
                                        [&pam](uint32_t) { pam->savedPacketDelAll(); });
    for (int round = 0; round < 3; ++round) {
        for (const char* text : {"a", "b", "c"}) {
            pam->txPktIs(pktOf(text));
        }
        EXPECT_EQ(pam->rxPktBulk(), 3);
        pam->savedPacketDelAll();
    }
    const Mox::Watch<IpSocketPam> closed(pam, IpPam::rxPktCountAttr,
                                         [&pam] { pam->enabledIs(false); });
    pam->txPktIs(pktOf("last"));
    EXPECT_EQ(pam->rxPktBulk(), 1);
    EXPECT_FALSE(pam->enabled());
    EXPECT_EQ(pam->rxPktBulk(), 0);
    EXPECT_FALSE(pam->savedPacketRx(0));
}

TEST_F(IpSocketPamTest, ReadsBatchesIntoTheSameBuffers) {
    const auto pam = openPam();
    pam->socketReadLimitIs(2);
    pam->enableBulkReadIs(true);
    const Pkt* first = nullptr;
    for (int round = 0; round < 3; ++round) {
        pam->txPktIs(pktOf("again"));
        ASSERT_EQ(pam->rxPktBulk(), 1);
        const Pkt* pkt = pam->savedPacket(0).ptr();
        EXPECT_EQ(pkt->stringValue().view().substr(20), "again");
        EXPECT_EQ(pkt->maxSharedData(), Pkt::Manager::defaultBufferSize);
        first = round == 0 ? pkt : first;
        EXPECT_EQ(pkt, first);
    }
}

TEST_F(IpSocketPamTest, CountsEverySendThatFails) {
    const auto pam = openPam();
    const struct {
        const char* what;
        std::function<void()> prepare;
        int error;
    } cases[] = {
        {"no route", [&] { pam->txDstIpAddrIs(IpAddr(0xc6336401)); }, ENETUNREACH},
        {"broadcast", [&] { pam->txDstIpAddrIs(IpAddr(0x7fffffff)); }, EACCES},
        {"unknown interface", [&] { pam->txIfIndexIs(4711); }, ENODEV},
        {"unknown name", [&] { pam->txIfNameIs("nowhere0"); }, ENODEV},
        {"impossible name", [&] { pam->txIfNameIs("a-name-that-is-too-long"); }, ENODEV},
        {"foreign source", [&] { pam->txSrcIpAddrIs(IpAddr(0x08080808)); }, ENETUNREACH},
    };
    uint32_t errors = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        pam->txDstIpAddrIs(loopback);
        pam->txIfIndexIs(0);
        pam->txIfNameIs("");
        pam->txSrcIpAddrIs(IpGenAddr());
        c.prepare();
        pam->txPktIs(pktOf("x"));
        EXPECT_EQ(pam->txErrno(), c.error);
        EXPECT_EQ(pam->txErrors(), ++errors);
        EXPECT_EQ(pam->txPktCount(), 0u);
    }
    pam->txSrcIpAddrIs(IpGenAddr());
    pam->txIfNameIs("lo");
    const auto huge = globalPktManager()->newPkt();
    huge->newSharedTailData(65530);
    pam->txPktIs(huge);
    EXPECT_EQ(pam->txErrno(), EMSGSIZE);
    pam->txPktIs(pktOf("x"));
    EXPECT_EQ(pam->txErrno(), 0);
    EXPECT_EQ(pam->txPktCount(), 1u);
}

TEST_F(IpSocketPamTest, SendsPacketsOfTwoPiecesAndWithTheirOwnHeader) {
    const auto pam = openPam();
    const auto pieces = pktOf("rear");
    std::copy_n("front ", 6, pieces->newPrivateHeadData(6));
    pam->txPktIs(pieces);
    EXPECT_EQ(payload(receive(pam)), "front rear");

    pam->optionsIs(ipHdrIncl | ipRecvTTL);
    const auto whole = pktWithHeader("mine", 5, loopback, loopback);
    pam->txPktIs(whole);
    EXPECT_EQ(payload(receive(pam)), "mine");
    EXPECT_EQ(pam->rxTTL(), 5);
}

TEST_F(IpSocketPamTest, KeepsItsPriorityWhenTheKernelOverwritesItWithTheTos) {
    const auto pam = newPam();
    pam->priorityIs(tcPrioInteractive);
    pam->optionsIs(ipPriority);
    pam->txTOSIs(0x08);
    pam->enabledIs(true);
    EXPECT_EQ(readBack(pam, SOL_SOCKET, SO_PRIORITY), tcPrioInteractive);
    pam->txTOSIs(0x10);
    EXPECT_EQ(readBack(pam, SOL_SOCKET, SO_PRIORITY), tcPrioInteractive);
    EXPECT_EQ(readBack(pam, IPPROTO_IP, IP_TOS), 0x10);
    {
        PavoTest::FailSyscall fail(1, EPERM, "setsockopt");
        EXPECT_EQ(errorOf([&] { pam->txTOSIs(0x20); }), thrown("setsockopt(IP_TOS)", EPERM));
        EXPECT_EQ(pam->txTOS(), IpDscp(0x10));
    }
    pam->ipPktOptionIs(ipPktRouterAlert, true);
    pam->txDstIpAddrIs(loopback);
    pam->txPktIs(pktOf("x"));
    EXPECT_EQ(receive(pam)->totalBytes(), 25u);  // Four more in the header.
}

TEST_F(IpSocketPamTest, CostsNoEventsWhileItIsIdleOrNobodyReads) {
    for (const bool unread : {false, true}) {
        SCOPED_TRACE(unread);
        const auto pam = openPam();
        (void)pam->rxPkt();
        if (unread) {
            pam->txPktIs(pktOf("unread"));
            EXPECT_EQ(loop_.turn(0), 1u);
        }
        const uint32_t readable = pam->readableCount();
        const uint32_t errors = pam->rxErrors();
        for (int i = 0; i < 1000; ++i) {
            ASSERT_EQ(loop_.turn(0), 0u);
        }
        EXPECT_EQ(pam->readableCount(), readable);
        EXPECT_EQ(pam->writableCount(), 1u);
        EXPECT_EQ(pam->rxErrors(), errors);
    }
}

TEST_F(IpSocketPamTest, IsCalledAgainWhileMoreWaits) {
    const auto pam = openPam();
    std::vector<std::string> seen;
    const Mox::Watch<IpSocketPam> readable(pam, Pam::readableCountAttr, [&] {
        if (const auto pkt = pam->rxPkt()) {
            seen.push_back(payload(pkt));
        }
    });
    for (const char* text : {"a", "b", "c"}) {
        pam->txPktIs(pktOf(text));
    }
    for (unsigned turn = 1; turn <= 3; ++turn) {
        EXPECT_EQ(loop_.turn(0), 1u);
        EXPECT_EQ(seen.size(), turn);  // One packet a turn, and a turn for each.
    }
    EXPECT_EQ(loop_.turn(0), 1u);  // The read that meets nothing.
    EXPECT_EQ(loop_.turn(0), 0u);
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(IpSocketPamTest, TellsOnceWhenThereIsRoomAgain) {
    // Packets for a neighbour that does not answer wait in the sender's buffer.
    PavoTest::makeVethPair("a0", "", "b0", "");
    PavoTest::addAddress("", "a0", "10.9.0.1/24");
    PavoTest::setUp("", "a0");
    PavoTest::setUp("", "b0");
    const IpAddr neighbour(0x0a090002);
    const auto pam = openPam(ipHdrIncl);
    pam->txDstIpAddrIs(neighbour);
    const int small = 0;
    ASSERT_EQ(setsockopt(pam->fileDesc()->descriptor(), SOL_SOCKET, SO_SNDBUFFORCE, &small,
                         sizeof(small)),
              0);
    for (int i = 0; i < 100 && pam->txErrno() == 0; ++i) {
        pam->txPktIs(pktWithHeader("waits", 9, IpAddr(0x0a090001), neighbour));
    }
    ASSERT_EQ(pam->txErrno(), EAGAIN);
    EXPECT_EQ(loop_.turn(0), 0u);
    EXPECT_EQ(pam->writableCount(), 1u);

    PavoTest::run(
        {"ip", "neigh", "replace", "10.9.0.2", "lladdr", "02:00:00:00:00:02", "dev", "a0"});
    loop_.turn(2);
    EXPECT_EQ(pam->writableCount(), 2u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(loop_.turn(0), 0u);
    }
    EXPECT_EQ(pam->writableCount(), 2u);
    pam->txPktIs(pktWithHeader("goes", 9, IpAddr(0x0a090001), neighbour));
    EXPECT_EQ(pam->txErrno(), 0);
    PavoTest::run({"ip", "link", "del", "a0"});
}

TEST_F(IpSocketPamTest, MayBeDisabledOrDroppedFromInsideANotification) {
    const auto before = PavoTest::openDescriptors();
    (void)globalPktManager();  // Lives on, and must not be taken for a leak.
    const uint32_t objects = Mox::liveObjects();
    enum class Act { disable, reopen, drop, fail };
    for (const Act act : {Act::disable, Act::reopen, Act::drop, Act::fail}) {
        for (const bool atBirth : {true, false}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(act) << " " << atBirth);
            Mox::Ptr<IpSocketPam> pam = newPam();
            pam->txDstIpAddrIs(loopback);
            bool armed = atBirth;
            Mox::Watch<IpSocketPam> watch(pam, Pam::readableCountAttr, [&] {
                if (!std::exchange(armed, false)) {
                    return;
                }
                switch (act) {
                    case Act::disable:
                        pam->enabledIs(false);
                        break;
                    case Act::reopen:
                        pam->enabledIs(false);
                        pam->enabledIs(true);
                        break;
                    case Act::drop:
                        pam->enabledIs(false);
                        pam = nullptr;
                        break;
                    case Act::fail:
                        throw std::runtime_error("agent");
                }
            });
            bool failed = false;
            try {
                pam->enabledIs(true);
                if (!atBirth) {
                    armed = true;
                    pam->txPktIs(pktOf("x"));
                    loop_.turn(1);
                }
            } catch (const std::runtime_error&) {
                failed = true;
            }
            EXPECT_EQ(failed, act == Act::fail);
            if (pam) {
                const bool open = act == Act::reopen || (act == Act::fail && !atBirth);
                EXPECT_EQ(pam->enabled(), open);
                EXPECT_EQ(pam->fdSm() != nullptr, open);
                EXPECT_EQ(pam->fileDesc() != nullptr, open);
            }
            loop_.turn(0);
        }
    }
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    EXPECT_EQ(Mox::liveObjects(), objects);
}

// Two namespaces and a wire.
class TwoNamespacesTest : public IpSocketPamTest {
  protected:
    void SetUp() override {
        IpSocketPamTest::SetUp();
        if (!IsSkipped()) {
            PavoTest::makeWire();
        }
    }
    void TearDown() override {
        if (!IsSkipped()) {
            PavoTest::removeWire();
        }
    }

    Mox::Ptr<IpSocketPam> openIn(const char* netNs, uint32_t options) {
        const auto pam = ipSocketPamFactory(netNs, protocol, NamespaceName(netNs));
        pam->optionsIs(options);
        pam->txDstIpAddrIs(IpAddr(0xc0000202));
        pam->enabledIs(true);
        return pam;
    }
};

TEST_F(TwoNamespacesTest, EachEndpointLivesInItsOwn) {
    const auto left = openIn("left", none);
    const auto right = openIn("right", ipPktInfo);
    left->txIfNameIs("veth-left");  // A name of that namespace, not of this one.
    left->txPktIs(pktOf("across"));
    EXPECT_EQ(left->txErrno(), 0);
    EXPECT_EQ(payload(receive(right)), "across");
    EXPECT_EQ(right->rxSrcIpAddr(), IpGenAddr(IpAddr(0xc0000201)));
    const PavoTest::ScopedNetns inside("right");
    EXPECT_EQ(right->rxIfIndex(), if_nametoindex("veth-right"));
}

TEST_F(TwoNamespacesTest, TheErrorQueueIsDrainedAndCounted) {
    const auto left = openIn("left", ipRecvErr);
    const Mox::Watch<IpSocketPam> readable(left, Pam::readableCountAttr,
                                           [&left] { (void)left->rxPkt(); });
    for (int i = 0; i < 3; ++i) {
        left->txPktIs(pktOf("nobody speaks this"));  // Answered "protocol unreachable".
    }
    loop_.turn(2);
    for (int i = 0; i < 10; ++i) {
        loop_.turn(0);
    }
    // Three errors, and at least one read that met them.
    EXPECT_GE(left->rxErrors(), 4u);
    EXPECT_EQ(left->rxPktCount(), 0u);
    const uint32_t errors = left->rxErrors();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(loop_.turn(0), 0u);
    }
    EXPECT_EQ(left->rxErrors(), errors);
}

}  // namespace
}  // namespace Pavo
