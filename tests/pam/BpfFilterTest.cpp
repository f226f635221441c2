// Filter expressions compared with tcpdump(8) and with the kernel.
#include "Pavo/BpfFilter.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "Mox/Trace.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

using std::string_literals::operator""s;

constexpr const char* frameExpressions =
    "arp, vlan, vlan 5 and tcp port 179, ether host 02:00:00:00:00:02, ether multicast, "
    "greater 100, ip6 proto 17, ip6 protochain 17, host ::3 or host 127.0.0.3, "
    "ip[6:2] & 0x3fff != 0, not ip and not arp";
// Expressions that a raw socket supports too. It never receives a fragment.
constexpr const char* ipExpressions =
    "tcp port 179, udp dst portrange 50-80, icmp[icmptype] == icmp-echo, "
    "tcp[tcpflags] & (tcp-syn|tcp-rst) != 0, src host 127.0.0.2 and not dst net 127.0.0.2/31, "
    "ip[0] & 0xf > 5, ip[2:2] > 70 or ip[8] < 9, tcp or (udp and src port 53), "
    "ip and not (port 80 or icmp)";

Texts listOf(const std::string& text) {
    std::istringstream in(text);
    Texts list;
    for (std::string each; std::getline(in >> std::ws, each, ',');) {
        list.push_back(each);
    }
    return list;
}

// Random frames and packets.
class Traffic {
  public:
    // A frame with up to two tags; one in two is cut short, some inside a header.
    std::string frame() {
        const std::string tags[] = {"", "", "\x81\0\0"s + any("\5\6"), "\x81\0\0\5\x81\0\0\6"s};
        const std::string ip4 = "\x08\0"s + ip(any("\0\0\x20"s) + any("\0\0\1"s));
        const std::string kinds[] = {ip4, ip4, "\x86\xdd" + ip6(),
                                     "\x08\6\0\1\x08\0\6\4\0\1"s + rest()};
        const std::string bytes = any("\1\2") + "\0\0\0\0\1\2\0\0\0\0"s + any("\2\3") +
                                  tags[random_() % 4] + kinds[random_() % 4];
        return bytes.substr(0, random_() % 2 == 0 ? bytes.size() : random_() % 120);
    }
    // A packet whose length the kernel fills in; one in three has options.
    std::string ip(const std::string& fragment = "\0\0"s) {
        return any("EEF") + "\0\0\0\0\1"s + fragment + any("\1\x08@") + any("\1\6\x11\xfd") +
               "\0\0\x7f\0\0"s + any("\1\2\3\4") + "\x7f\0\0"s + any("\1\2\3\4") + rest();
    }

  private:
    std::string any(const std::string& bytes) { return {bytes[random_() % bytes.size()]}; }
    std::string ip6() {  // One in four has options.
        const std::string options[] = {"", "\x11\0\1\4\0\0\0\0"s};
        return "\x60\0\0\0\0P"s + any("\6\x11:\0"s) + "@" + std::string(15, '\0') + any("\1\2\3") +
               std::string(15, '\0') + any("\1\2\3") + options[random_() % 2] + rest();
    }
    // A header that is valid as TCP, UDP and ICMP, also after four bytes of options.
    std::string rest() {
        const std::string ports = any("\0\x08"s) + any("5P\xb3") + "\0"s + any("5P\xb3");
        return ports + ports + "\0\0\0\0\x50"s + any("\2\4\x10") +
               std::string(random_() % 2 == 0 ? 66 : 6, '\0');
    }

    std::mt19937 random_{179};
};

class BpfFilterTest : public PamFixture {
  protected:
    void filterIs(const std::string& expression) { EXPECT_EQ(filter_->tryCompile(expression), ""); }

    Mox::Ptr<BpfFilter> filter_ = bpfFilterFactory("f");
    Traffic traffic_;
};

// One character for each frame, '1' where it passes.
std::string tcpdumpsVerdicts(const std::string& path, const std::string& expression,
                             size_t frames) {
    // tcpdump drops root, which fails in the sandbox of an ordinary user.
    const std::string command = "tcpdump -tt -nq -r " + path + " '" + expression + "'";
    std::istringstream lines(
        PavoSandbox::run({"sh", "-c", command + " -Z root || unshare -U --map-user=1 " + command}));
    std::string all(frames, '0');
    for (std::string line; std::getline(lines, line);) {
        if (isdigit(line[0]) != 0) {
            all.at(std::stoul(line)) = '1';  // The seconds are the number of the frame.
        }
    }
    return all;
}

TEST_F(BpfFilterTest, MatchesTheFramesThatTcpdumpPrints) {
    std::vector<Mox::Ptr<Pkt>> whole;
    std::vector<Mox::Ptr<Pkt>> split;
    const std::string path = std::filesystem::temp_directory_path() /
                             ("pavo-filter-" + std::to_string(getpid()) + ".pcap");
    std::ofstream file(path, std::ios::binary);
    const auto write = [&file](std::initializer_list<uint32_t> words) {
        file.write(reinterpret_cast<const char*>(words.begin()), std::streamsize(words.size() * 4));
    };
    write({0xa1b2c3d4, 0x00040002, 0, 0, 65535, DLT_EN10MB});
    for (uint32_t i = 0; i < 2500; ++i) {
        const std::string frame = traffic_.frame();
        const auto bytes = static_cast<uint32_t>(frame.size());
        write({i, 0, bytes, bytes});
        file << frame;
        whole.push_back(pktOf(frame));
        const uint32_t head = std::min(bytes, i % (Pkt::privateAreaBytes + 1));
        split.push_back(pktOf(frame.substr(head)));
        frame.copy(reinterpret_cast<char*>(split.back()->newPrivateHeadData(head)), head);
    }
    file.close();
    const auto ours = [this](const std::vector<Mox::Ptr<Pkt>>& pkts) {
        std::string all;
        for (const auto& pkt : pkts) {
            all += filter_->match(pkt) ? '1' : '0';
        }
        return all;
    };
    EXPECT_EQ(ours(whole), std::string(whole.size(), '0'));  // Without an expression.
    for (const std::string& each : listOf(frameExpressions + ", "s + ipExpressions)) {
        SCOPED_TRACE(each);
        filterIs(each);
        const std::string theirs = tcpdumpsVerdicts(path, each, whole.size());
        EXPECT_NE(theirs.find('1'), std::string::npos);
        EXPECT_EQ(ours(whole), theirs);
        EXPECT_EQ(ours(split), theirs);
    }
    std::filesystem::remove(path);
}

TEST_F(BpfFilterTest, MatchesThePacketsThatTheKernelPasses) {
    const auto open = [](IpProtocolNumber number, uint32_t options, const std::string& expression) {
        auto pam = ipSocketPamFactory("pam", number, NamespaceName());
        EXPECT_EQ(rxFilterFromText(expression, pam), "");
        pam->optionsIs(options);
        pam->enabledIs(true);
        return pam;
    };
    const auto sender = open(protocol, ipHdrIncl, "");
    sender->txDstIpAddrIs(addr("127.0.0.1"));
    for (const std::string& expression : listOf(ipExpressions)) {
        SCOPED_TRACE(expression);
        filterIs(expression);
        uint32_t passed = 0;
        for (const auto number :
             {IpProtocolNumber::tcp, IpProtocolNumber::udp, IpProtocolNumber::icmp}) {
            const auto everything = open(number, none, "");
            const auto filtered = open(number, ipAttachFilter, expression);
            for (int i = 0; i < 250; ++i) {
                sender->txPktIs(pktOf(traffic_.ip()));
            }
            while (const auto pkt = everything->rxPkt()) {
                const Mox::String bytes = pkt->stringValue();
                pkt->stringValueIs(std::string(12, '\0') + "\x08\0"s, /*atTail=*/false);
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
        {"ether host 02:00:00:00:00:01", "",
         "ethernet addresses supported only on ethernet/FDDI/token ring/802.11/ATM LANE/Fibre "
         "Channel"},
        {"vlan 5", "", "no VLAN support for Raw IP"},
        {"ip protochain 6", "", "a loop, which the kernel does not take"},
        {most + " or ip[8] = 241", "", "257 instructions, and a receive filter has 256 at most"},
        {most, "", ""},
        {"udp", "", ""},
    };
    const auto pam = ipSocketPamFactory("pam", protocol, NamespaceName());
    std::vector<IpFilter> wanted;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        filter_->bpfFilterStringIs("arp");
        EXPECT_EQ(filter_->tryCompile(c.text), c.error);
        EXPECT_EQ(filter_->bpfFilterString(), c.error.empty() ? c.text : "arp");
        EXPECT_EQ(filter_->match(pktOf(std::string(12, '\0') + "\x08\6"s)), !c.error.empty());
        EXPECT_EQ(ipFilterFromText(c.text, &wanted), c.ipError);
        EXPECT_EQ(rxFilterFromText(c.text, pam), c.ipError);
        ASSERT_EQ(pam->rxFilter().members(), wanted.size());
        for (uint32_t i = 0; i < wanted.size(); ++i) {
            EXPECT_EQ(pam->rxFilter().at(i), wanted[i]);
        }
    }
    Mox::traceSettingsIs("Pavo::BpfFilter/0");
    EXPECT_DEATH(filter_->bpfFilterStringIs("tcp port"),
                 "f compilation failed with error: " + syntax + ".*false");
}

}  // namespace
}  // namespace Pavo
