// The machine of ARP against the kernel and arping in another namespace.
#include <algorithm>
#include <cctype>
#include <optional>
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

// The machine is in "left", with addresses that the kernel there does not have.
class ArpKernelTest : public PamFixture {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        wire_.emplace();
        pam_ = ethDevPamFactory("eth", NamespaceName("left"));
        pam_->deviceIs("veth-left");
        pam_->etherTypeIs(EthType::arp);
        pam_->enabledIs(true);
        sm_ =
            arpSmFactory("arp", {pam_, table_, pam_->boundIfIndex(), pam_->ethAddr(), &timers_, 1});
        sm_->settingsIs({.reachableSeconds = 0.4, .retransSeconds = 0.1});
        sm_->addressIs(own_);
        sm_->enabledIs(true);
    }
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
        return text;
    }
    static bool isMacOfRight(EthAddr mac) {
        const std::string link = PavoTest::run({"ip", "-n", "right", "link", "show", "veth-right"});
        return link.find(mac.stringValue().c_str()) != link.npos;
    }

    const PavoTest::TempFolder folder_;
    const IpAddr own_{"192.0.2.10"}, right_{"192.0.2.2"};
    std::optional<Wire> wire_;
    Keel::TimerWheel timers_{loop_.clock()};
    Mox::Ptr<ArpTable> table_ = arpTableFactory("table");
    Mox::Ptr<EthDevPam> pam_;
    Mox::Ptr<ArpSm> sm_;
};

TEST_F(ArpKernelTest, TheKernelAndTheMachineResolveAndMonitorEachOther) {
    const std::string path = folder_.path + "/arp.pcapng";
    const auto file = captureFileFactory(path, {});
    pam_->tapIs(pamTapFactory(file, "veth-left"));
    const auto udp = udpPamFactory("udp", NamespaceName("right"));
    udp->localAddrIs(IpGenAddr(right_));
    udp->localPortIs(7000);
    udp->enabledIs(true);
    sm_->txPktIs(buildPkt(Ip{.src = own_, .dst = right_}, Udp{9, 7000}, "hello"), right_);
    EXPECT_EQ(receive(udp)->stringValue(), "hello");
    const auto entry = table_->entry({sm_->ifIndex(), right_});
    EXPECT_EQ(entry->state(), ArpState::reachable);
    EXPECT_TRUE(isMacOfRight(entry->mac()));
    uint32_t changes = 0;
    const Mox::Watch<ArpEntry> watch(entry, ArpEntry::stateAttr, [&] { ++changes; });
    const auto hop = sm_->nextHopIs(right_, 0.05);
    udp->remoteIs({IpGenAddr(own_), 9});
    udp->txPktIs(pktOf("an answer"));
    turnsUntil([&] {
        const std::string neighbour =
            PavoTest::run({"ip", "-n", "right", "neigh", "show", "192.0.2.10"});
        return neighbour.find(sm_->mac().stringValue().c_str()) != neighbour.npos;
    });

    sm_->proxy()->macIs(Prefix("192.0.2.20/32"), EthAddr("00:00:5e:00:01:07"));
    sm_->proxy()->macIs(Prefix("198.51.100.0/24"), EthAddr("00:00:5e:00:01:08"));
    sm_->announce(IpAddr("192.0.2.20"));
    const struct {
        std::vector<std::string> arguments;
        EthAddr mac;
        const char* responses;
    } cases[] = {
        {{"-c", "2", "192.0.2.10"}, sm_->mac(), "Received 2 resp"},
        {{"-c", "2", "-D", "192.0.2.10"}, sm_->mac(), "Received 1 resp"},
        {{"-c", "1", "192.0.2.20"}, EthAddr("00:00:5e:00:01:07"), "Received 1 resp"},
        {{"-c", "1", "198.51.100.7"}, EthAddr("00:00:5e:00:01:08"), "Received 1 resp"},
        {{"-c", "1", "-D", "198.51.100.7"}, {}, "Received 0 resp"},
        {{"-c", "1", "192.0.2.99"}, {}, "Received 0 resp"},
    };
    for (const auto& c : cases) {
        std::string text = arping(c.arguments);
        EXPECT_NE(text.find(c.responses), text.npos) << text;
        std::transform(text.begin(), text.end(), text.begin(), ::tolower);
        EXPECT_EQ(text.find('[' + std::string(c.mac.stringValue().view()) + ']') != text.npos,
                  c.mac != EthAddr())
            << text;
    }
    EXPECT_GE(entry->requestsSent(), 10u);
    EXPECT_EQ(changes, 0u);
    for (const char* change : {"del", "add"}) {
        const bool wasReachable = hop->reachable();
        PavoTest::run({"ip", "-n", "right", "addr", change, "192.0.2.2/24", "dev", "veth-right"});
        turnsUntil([&] { return hop->reachable() != wasReachable; });
    }
    EXPECT_TRUE(hop->reachable());
    pam_->tapIs(nullptr);
    file->flush();
    const auto frames = PavoTest::tshark(path, {"_ws.malformed", "_ws.expert.message"});
    EXPECT_EQ(frames, Texts(frames.size(), " "));
    EXPECT_GT(frames.size(), 15u);
}

}  // namespace
}  // namespace Pavo
