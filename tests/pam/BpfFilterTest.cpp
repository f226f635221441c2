// Filter expressions compared with the kernel.
#include "Pavo/BpfFilter.h"

#include <random>

#include "Mox/Trace.h"
#include "Pavo/IpSocketPam.h"
#include "pam/PamFixture.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using std::string_literals::operator""s;

// Expressions for IP packets, none for fragments: a raw socket never receives one.
constexpr const char* expressions[] = {"tcp port 179",
                                       "udp dst portrange 50-80",
                                       "tcp[tcpflags] & (tcp-syn|tcp-rst) != 0",
                                       "src host 127.0.0.2 and not dst net 127.0.0.2/31",
                                       "ip[0] & 0xf > 5",
                                       "ip[2:2] > 70 or ip[8] < 9",
                                       "ip and not (port 80 or icmp)"};

// A random packet whose length the kernel fills in; one in three has options. Its payload is valid
// as TCP, UDP and ICMP, also after the four bytes of options.
std::string packet(std::mt19937& random) {
    const auto any = [&](const std::string& bytes) {
        return bytes.substr(random() % bytes.size(), 1);
    };
    const std::string ports = any("\0\x08"s) + any("5P\xb3") + "\0"s + any("5P\xb3");
    return any("EEF") + "\0\0\0\0\1\0\0"s + any("\1\x08@") + any("\1\6\x11\xfd") + "\0\0\x7f\0\0"s +
           any("\1\2\3\4") + "\x7f\0\0"s + any("\1\2\3\4") + ports + ports + "\0\0\0\0\x50"s +
           any("\2\4\x10") + std::string(random() % 2 == 0 ? 66 : 6, '\0');
}

const std::string ipFrameHead = std::string(12, '\0') + "\x08\0"s;

class BpfFilterTest : public PamFixture {
  protected:
    Mox::Ptr<IpSocketPam> open(IpProtocolNumber number, uint32_t options, const char* expression) {
        auto pam = ipSocketPamFactory("pam", number, NamespaceName());
        EXPECT_EQ(rxFilterFromText(expression, pam), "");
        pam->optionsIs(options);
        pam->enabledIs(true);
        return pam;
    }

    Mox::Ptr<BpfFilter> filter_ = bpfFilterFactory("f");
};

TEST_F(BpfFilterTest, MatchesThePacketsThatTheKernelPasses) {
    const auto sender = open(protocol, ipHdrIncl, "");
    sender->txDstIpAddrIs(addr("127.0.0.1"));
    for (const uint32_t seed : PavoTest::Seeds(7)) {
        std::mt19937 random{seed};
        const char* const expression = expressions[seed % std::size(expressions)];
        SCOPED_TRACE(expression);
        EXPECT_EQ(filter_->tryCompile(expression), "");
        uint32_t passed = 0;
        for (const auto number :
             {IpProtocolNumber::tcp, IpProtocolNumber::udp, IpProtocolNumber::icmp}) {
            const auto everything = open(number, none, "");
            const auto filtered = open(number, ipAttachFilter, expression);
            for (int i = 0; i < 250; ++i) {
                sender->txPktIs(pktOf(packet(random)));
            }
            while (const auto pkt = everything->rxPkt()) {
                const Mox::String bytes = pkt->stringValue();
                const auto whole = pktOf(ipFrameHead + std::string(bytes.view()));
                pkt->newPrivateHeadData(14);  // In two pieces.
                ipFrameHead.copy(reinterpret_cast<char*>(pkt->frontData()), 14);
                ASSERT_EQ(filter_->match(pkt), filter_->match(whole));
                if (filter_->match(pkt)) {
                    const auto same = filtered->rxPkt();
                    ASSERT_EQ(same ? same->stringValue() : "nothing", bytes);
                    ++passed;
                }
            }
            EXPECT_EQ(filtered->rxPkt(), nullptr);
        }
        EXPECT_GE(passed, 5u);
    }
}

TEST_F(BpfFilterTest, ReportsTheErrorAndKeepsTheFilter) {
    std::string most = "tcp";
    for (int ttl = 1; ttl <= 240; ++ttl) {
        most += " or ip[8] = " + std::to_string(ttl);
    }
    const std::string syntax = "can't parse filter expression: syntax error";
    const struct {
        std::string text, error, ipError;
    } cases[] = {
        {"tcp port", syntax, syntax},
        {"arp\0or ip"s, "a zero byte in the expression", "a zero byte in the expression"},
        {"vlan 5", "", "no VLAN support for Raw IP"},
        {"ip protochain 6", "", "a loop, which the kernel does not take"},
        {most + " or ip[8] = 241", "", "257 instructions, and a receive filter has 256 at most"},
        {most, "", ""},
        {"", "", ""},
    };
    const auto pam = ipSocketPamFactory("pam", protocol, NamespaceName());
    std::vector<IpFilter> wanted;
    for (const auto& c : cases) {
        filter_->bpfFilterStringIs("arp");
        EXPECT_EQ(filter_->tryCompile(c.text), c.error);
        EXPECT_EQ(filter_->bpfFilterString(), c.error.empty() ? c.text : "arp");
        EXPECT_EQ(filter_->match(pktOf(std::string(12, '\0') + "\x08\6"s)), !c.error.empty());
        EXPECT_EQ(ipFilterFromText(c.text, &wanted), c.ipError);
        EXPECT_EQ(rxFilterFromText(c.text, pam), c.ipError);
        EXPECT_EQ(pam->rxFilter().members(), wanted.size());
    }
    Mox::traceSettingsIs("Pavo::BpfFilter/0");
    EXPECT_DEATH(filter_->bpfFilterStringIs("tcp port"),
                 "f compilation failed with error: " + syntax + ".*false");
}

}  // namespace
}  // namespace Pavo
