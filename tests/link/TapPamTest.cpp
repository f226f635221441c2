// Endpoints of tap devices and the one that only sends, with the kernel between them.
#include "Pavo/TapPam.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "Pavo/BuildPkt.h"
#include "Pavo/RawTxPam.h"
#include "Pavo/TapFdPam.h"
#include "Pavo/deferClose.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

using testing::HasSubstr;

// In a namespace "left", whose kernel sends nothing by itself.
class TapPamTest : public PamFixture {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        PavoTest::makeNetns("left");
        const ScopedNetNs inside("left");
        std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
    }
    void TearDown() override {
        if (PavoTest::Sandbox::isEntered()) {
            PavoTest::removeNetns("left");
        }
    }

    static std::string ip(std::vector<std::string> command) {
        command.insert(command.begin(), {"ip", "-n", "left", "-o"});
        return PavoTest::run(command);
    }
    static Mox::Ptr<TapPam> newTap(const char* device) {
        return tapPamFactory("tap", device, NamespaceName("left"));
    }
    // An endpoint on a descriptor of a device that is up, or on one without a device.
    static Mox::Ptr<TapFdPam> newFdTap(const char* device, int flags) {
        const ScopedNetNs inside("left");
        const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
        ifreq request{};
        std::strcpy(request.ifr_name, device);
        request.ifr_flags = static_cast<short>(flags);
        if (flags != 0) {
            EXPECT_EQ(ioctl(fd, TUNSETIFF, &request), 0);
            ip({"link", "set", device, "up", "mtu", "2000"});
        }
        return tapFdPamFactory("given", fd);
    }
    // A frame to all that begins with a text.
    static Mox::Ptr<Pkt> frame(std::string text, uint32_t bytes = 60) {
        text.resize(bytes - sizeof(EthHdr), '.');
        const EthAddr all(0xffff, 0xffff, 0xffff);
        return buildPkt(Eth{.dst = all, .src = EthAddr(0x0200, 0, 1), .type = 0x88b5}, text);
    }
    static Mox::Ptr<Pkt> tagged(const Mox::Ptr<Pkt>& pkt) {
        pkt->newSeparateVlanTag(0x6005, EthType::dot1Q);
        return pkt;
    }
    static std::string bytesOf(const Mox::Ptr<Pkt>& pkt) {
        return std::string(pkt->stringValueMaybeWithVlan().view());
    }
    void expectReceives(const Mox::Ptr<TapPam>& tap, const std::vector<Mox::Ptr<Pkt>>& pkts) {
        for (const auto& each : pkts) {
            const auto pkt = receive(tap);
            ASSERT_EQ(bytesOf(pkt), bytesOf(each).substr(0, tap->maxRxPktData()));
            EXPECT_EQ(tap->rxInfo().truncated, bytesOf(each).size() > tap->maxRxPktData());
            EXPECT_FALSE(pkt->hasSeparateVlanTag());
        }
    }
};

TEST_F(TapPamTest, FramesPassThroughTheHostInTheirWholeLength) {
    const auto left = newTap("tap%d");
    left->mtuIs(2000);
    EXPECT_EQ(opened(left)->ifName(), "tap0");
    const auto right = opened(newFdTap("right", IFF_TAP | IFF_NO_PI));
    ip({"link", "add", "br0", "up", "type", "bridge", "mcast_snooping", "0"});
    ip({"link", "set", "tap0", "master", "br0"});
    ip({"link", "set", "right", "master", "br0"});
    const std::vector<Mox::Ptr<Pkt>> batch{frame("least", 14), frame("fits", 1536),
                                           frame("is cut", 1537), pktOf("too short"),
                                           tagged(frame("tagged"))};
    EXPECT_EQ(right->txPktsIs(batch), 5u);
    EXPECT_EQ(right->txErrno(), EINVAL);
    EXPECT_EQ(right->txErrors(), 1u);
    EXPECT_EQ(right->txPktCount(), 4u);
    expectReceives(left, {batch[0], batch[1], batch[2], batch[4]});
    left->maxRxPktDataIs(9000);
    right->txPktIs(frame("larger", 2000));
    expectReceives(left, {frame("larger", 2000)});
    EXPECT_EQ(left->rxPktCount(), 5u);
    EXPECT_EQ(left->rxTruncatedPkts(), 1u);
    EXPECT_EQ(left->rxErrors(), 0u);  // A read that finds nothing is none.

    const PavoTest::FailSyscall full(2, EAGAIN, "writev");
    EXPECT_EQ(right->txPktsIs(batch), 1u);
    EXPECT_EQ(right->txErrors(), 5u);
    const uint32_t reports = right->writableCount();
    (void)turnsUntilQuiet();
    EXPECT_EQ(right->writableCount(), reports + 1);
}

TEST_F(TapPamTest, TheDeviceIsAsTheAttributesSay) {
    const auto tap = newTap("tap0");
    tap->macIs(EthAddr(0x0200, 0, 9));
    tap->mtuIs(2000);
    tap->enabledIs(true);
    const auto expectLink = [&](const char* flags, const char* mtu, const char* mac) {
        EXPECT_THAT(ip({"link", "show", "tap0"}),
                    AllOf(HasSubstr(std::to_string(tap->ifIndex()) + ": tap0: <" + flags),
                          HasSubstr(mtu), HasSubstr(mac)));
    };
    expectLink("BROADCAST,MULTICAST,UP", "mtu 2000 ", "link/ether 02:00:00:00:00:09 ");
    tap->macIs(EthAddr(0x0200, 0, 10));
    tap->mtuIs(68);
    tap->isUpIs(false);
    expectLink("BROADCAST,MULTICAST>", "mtu 68 ", "link/ether 02:00:00:00:00:0a ");
    EXPECT_EQ(errorOf([&] { tap->mtuIs(67); }), thrown("ioctl(SIOCSIFMTU)", EINVAL));
    EXPECT_EQ(errorOf([&] { tap->macIs(EthAddr(0x0100, 0, 1)); }),
              thrown("ioctl(SIOCSIFHWADDR)", EADDRNOTAVAIL));
    EXPECT_EQ(tap->mtu(), 68u);
    EXPECT_EQ(tap->mac(), EthAddr(0x0200, 0, 10));
}

TEST_F(TapPamTest, ADeviceThatGoesDownOrAwayIsCountedAndComesBack) {
    const auto tap = newTap("tap0");
    const Mox::Watch<TapPam> readable(tap, Pam::readableCountAttr, [&] { (void)tap->rxPkt(); });
    const auto expectSends = [&](int error) {
        tap->txPktIs(frame("to the host"));
        EXPECT_EQ(tap->txErrno(), error);
        EXPECT_LT(turnsUntilQuiet(), 5u);
    };
    for (int i = 0; i < 10; ++i) {  // Each time the same name, which is taken until it is closed.
        tap->enabledIs(false);
        tap->enabledIs(true);
    }
    expectSends(0);
    tap->isUpIs(false);
    expectSends(EIO);
    tap->isUpIs(true);
    expectSends(0);
    EXPECT_EQ(tap->rxErrors(), 0u);
    ip({"link", "del", "tap0"});
    EXPECT_LT(turnsUntilQuiet(), 5u);
    EXPECT_EQ(tap->rxErrors(), 2u);
    expectSends(EBADFD);
    EXPECT_TRUE(tap->enabled());
    tap->enabledIs(false);
    tap->enabledIs(true);
    expectSends(0);
}

// Past the queueing discipline, a tap device holds 1000 frames that nobody reads.
TEST_F(TapPamTest, RawTxSendsOutOfAnyInterfaceAndLaterWhatFindsNoRoom) {
    const auto tap = opened(newTap("one"));
    const auto two = opened(newTap("two"));
    const auto raw = rawTxPamFactory("raw", NamespaceName("left"));
    raw->bypassesQdiscIs(true);
    EXPECT_GT(enableWhole(raw, "socketAt"), 5u);
    std::vector<Mox::Ptr<Pkt>> batch{tagged(frame("tagged", 1514)), frame("too long", 1515)};
    for (int i = 0; i < 1500; ++i) {
        batch.push_back(frame(std::to_string(i), i == 0 ? 14 : 60));
    }
    auto arriving = batch;
    arriving.erase(arriving.begin() + 1);
    std::span<const Mox::Ptr<Pkt>> rest = batch;
    rest = rest.subspan(raw->txPktsIs(tap->ifIndex(), rest));
    EXPECT_EQ(rest.size(), 501u);
    EXPECT_EQ(raw->txErrno(), ENOBUFS);
    EXPECT_EQ(raw->txErrors(), 1u + 501);
    EXPECT_EQ(raw->txPktCount(), 1000u);
    const Mox::Watch<RawTxPam> writable(raw, Pam::writableCountAttr, [&] {
        rest = rest.empty() ? rest : rest.subspan(raw->txPktsIs(rest));
    });
    expectReceives(tap, arriving);
    const auto expectFails = [&](uint32_t ifIndex, const Mox::Ptr<Pkt>& pkt, int error) {
        raw->txPktsIs(ifIndex, std::vector{pkt});
        EXPECT_EQ(raw->txErrno(), error);
    };
    expectFails(two->ifIndex(), pktOf("thirteen byte"), EINVAL);
    expectFails(two->ifIndex(), frame("too long", 1515), EMSGSIZE);
    expectFails(99999, frame("nowhere"), ENXIO);
    two->isUpIs(false);
    expectFails(two->ifIndex(), frame("down"), ENETDOWN);
    tap->txPktIs(frame("to the host"));
    EXPECT_LT(turnsUntilQuiet(), 5u);
    EXPECT_EQ(raw->rxPkt(), nullptr);
    EXPECT_EQ(two->rxPkt(), nullptr);
}

TEST_F(TapPamTest, EnablingSucceedsWholeOrLeavesNothing) {
    const auto tap = newTap("tap0");
    tap->macIs(EthAddr(0x0200, 0, 1));
    tap->mtuIs(1400);
    EXPECT_GT(enableWhole(tap, "open(/dev/net/tun) or socketAt"), 5u);

    const auto before = PavoTest::openDescriptors();
    expectRefuses(newTap("tap0"), "ioctl(TUNSETIFF)", EBUSY);
    expectRefuses(newTap("lo"), "ioctl(TUNSETIFF)", EINVAL);
    expectRefuses(newTap("a name of 16 byt"), "ioctl(TUNSETIFF)", EINVAL);
    expectRefuses(tapPamFactory("tap", "", NamespaceName("none")), "open(/dev/net/tun)", ENOENT);
    const int noDevice = open("/dev/null", O_RDWR | O_CLOEXEC);
    expectRefuses(tapFdPamFactory("given", noDevice), "ioctl(TUNGETIFF)", ENOTTY);
    expectRefuses(newFdTap("", 0), "ioctl(TUNGETIFF)", EBADFD);
    expectRefuses(newFdTap("tun", IFF_TUN | IFF_NO_PI), "ioctl(TUNGETIFF)", EINVAL);
    expectRefuses(newFdTap("vnet", IFF_TAP | IFF_NO_PI | IFF_VNET_HDR), "ioctl(TUNGETIFF)", EINVAL);
    const auto once = opened(newFdTap("once", IFF_TAP | IFF_NO_PI));
    EXPECT_EQ(once->ifName(), "once");
    once->enabledIs(false);
    expectRefuses(once, "tapFd", EBADF);
    EXPECT_EQ(errorOf([&] { once->tapFdIs(-1); }), thrown("fcntl(F_GETFL)", EBADF));
    deferCloseWait();
    EXPECT_EQ(PavoTest::openDescriptors(), before);
}

}  // namespace
}  // namespace Pavo
