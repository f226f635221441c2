// The machine of ARP against the kernel and arping in another namespace.
#include <algorithm>
#include <cctype>
#include <string>

#include "Keel/TimerWheel.h"
#include "Pavo/ArpSm.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/EthDevPam.h"
#include "Pavo/PamTap.h"
#include "Pavo/UdpPam.h"
#include "pam/PamFixture.h"
#include "support/Tshark.h"

namespace Pavo {
namespace {

class ArpKernelTest : public PamFixture {
  protected:
    template <class Done>
    void turnsUntil(Done done) {
        EXPECT_TRUE(PavoTest::turnsUntil(loop_, done));
    }
    // What arping says in "right".
    std::string arping(std::vector<std::string> arguments) {
        const std::string path = folder_.path + "/arping.log";
        arguments.insert(arguments.begin(), {"arping", "-I", "veth-right"});
        const PavoSandbox::Daemon asks("right", arguments, path);
        std::string text;
        turnsUntil([&] {
            text = PavoTest::fileText(path);
            return text.find("Received ") != text.npos;
        });
        std::transform(text.begin(), text.end(), text.begin(), ::tolower);
        return text;
    }

    const PavoTest::TempFolder folder_;
};

// The machine is in "left", with addresses that the kernel there does not have.
TEST_F(ArpKernelTest, TheKernelAndTheMachineResolveAndMonitorEachOther) {
    const IpAddr own("192.0.2.10"), right("192.0.2.2");
    const Wire wire;
    const std::string path = folder_.path + "/arp.pcapng";
    const auto file = captureFileFactory(path, {});
    const auto pam = ethDevPamFactory("eth", NamespaceName("left"));
    pam->deviceIs("veth-left");
    pam->etherTypeIs(EthType::arp);
    pam->tapIs(pamTapFactory(file, "veth-left"));
    pam->enabledIs(true);
    Keel::TimerWheel timers(loop_.clock());
    const auto table = arpTableFactory("table");
    const auto sm =
        arpSmFactory("arp", {pam, table, pam->boundIfIndex(), pam->ethAddr(), &timers, 1});
    sm->settingsIs({.reachableSeconds = 0.4, .retransSeconds = 0.1});
    sm->addressIs(own);
    sm->enabledIs(true);
    const auto udp = udpPamFactory("udp", NamespaceName("right"));
    udp->localAddrIs(IpGenAddr(right));
    udp->localPortIs(7000);
    udp->enabledIs(true);
    sm->txPktIs(buildPkt(Ip{.src = own, .dst = right}, Udp{9, 7000}, "hello"), right);
    EXPECT_EQ(receive(udp)->stringValue(), "hello");
    const auto entry = table->entry({sm->ifIndex(), right});
    EXPECT_EQ(entry->state(), ArpState::reachable);
    const std::string link = PavoTest::run({"ip", "-n", "right", "link", "show", "veth-right"});
    EXPECT_NE(link.find(entry->mac().stringValue().c_str()), link.npos);
    const auto hop = sm->nextHopIs(right, 0.05);
    udp->remoteIs({IpGenAddr(own), 9});
    udp->txPktIs(pktOf("an answer"));
    turnsUntil([&] {
        const std::string neighbour =
            PavoTest::run({"ip", "-n", "right", "neigh", "show", "192.0.2.10"});
        return neighbour.find(sm->mac().stringValue().c_str()) != neighbour.npos;
    });

    sm->proxy()->macIs(Prefix("192.0.2.20/32"), EthAddr("00:00:5e:00:01:07"));
    sm->proxy()->macIs(Prefix("198.51.100.0/24"), EthAddr("00:00:5e:00:01:08"));
    sm->announce(IpAddr("192.0.2.20"));
    const struct {
        std::vector<std::string> arguments;
        EthAddr mac;
        const char* responses;
    } cases[] = {
        {{"-c", "2", "192.0.2.10"}, sm->mac(), "received 2 resp"},
        {{"-c", "2", "-D", "192.0.2.10"}, sm->mac(), "received 1 resp"},
        {{"-c", "1", "192.0.2.20"}, EthAddr("00:00:5e:00:01:07"), "received 1 resp"},
        {{"-c", "1", "198.51.100.7"}, EthAddr("00:00:5e:00:01:08"), "received 1 resp"},
        {{"-c", "1", "-D", "198.51.100.7"}, {}, "received 0 resp"},
        {{"-c", "1", "192.0.2.99"}, {}, "received 0 resp"},
    };
    for (const auto& c : cases) {
        const std::string text = arping(c.arguments);
        EXPECT_NE(text.find(c.responses), text.npos) << text;
        EXPECT_EQ(text.find('[' + std::string(c.mac.stringValue().view()) + ']') != text.npos,
                  c.mac != EthAddr())
            << text;
    }
    EXPECT_GE(entry->requestsSent(), 10u);
    EXPECT_TRUE(hop->reachable());
    for (const char* change : {"del", "add"}) {
        const bool wasReachable = hop->reachable();
        PavoTest::run({"ip", "-n", "right", "addr", change, "192.0.2.2/24", "dev", "veth-right"});
        turnsUntil([&] { return hop->reachable() != wasReachable; });
    }
    EXPECT_TRUE(hop->reachable());
    pam->tapIs(nullptr);
    file->flush();
    const auto frames = PavoTest::tshark(path, {"_ws.malformed", "_ws.expert.message"});
    EXPECT_EQ(frames, Texts(frames.size(), " "));
    EXPECT_GT(frames.size(), 15u);
}

}  // namespace
}  // namespace Pavo
