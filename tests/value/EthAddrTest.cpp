#include "Pavo/EthAddr.h"

#include <gtest/gtest.h>

#include "Pavo/EthUtils.h"
#include "Pavo/IpMcastAddr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

const EthAddr sampleMac(0x0011, 0x220a, 0x0b0c);

constexpr auto mac = Mox::fromText<EthAddr>;

TEST(EthAddr, KeepsTheValueLaws) {
    expectValueLaws<EthAddr>({EthAddr(), EthAddr(0, 0, 1), sampleMac, EthAddr(0x0012, 0, 0),
                              EthAddr(0xffff, 0xffff, 0xffff)});
}

TEST(EthAddr, ReadsOneSeparatorThroughout) {
    expectReads<EthAddr>({
        {"0-11-22-A-b-c", "00:11:22:0a:0b:0c"},
        {"0011.220a.0b0c", "00:11:22:0a:0b:0c"},
        {"0000011:000022:a:b:c:d", "11:22:0a:0b:0c:0d"},
        {"102.304.000000506", "01:02:03:04:05:06"},
        {"ff:ff:ff:ff:ff:00ff", "ff:ff:ff:ff:ff:ff"},
        {"00:11:22:0a:0b:0c0", "00:11:22:0a:0b:c0"},
    });
    expectReads<Eui64>({
        {"0-11-22-33-44-55-66-77", "00:11:22:33:44:55:66:77"},
        {"11.2233.4455.6677", "00:11:22:33:44:55:66:77"},
    });
    expectRefuses(
        EthAddr(1, 2, 3),
        {{"Invalid EthAddr", {"00:11:22:0a:0b:0\x8a", "0g:11:22:0a:0b:0c", "00:1/:22:0a:0b:0c"}},
         {"Invalid EthAddr",
          {"100:2:3:4:5:6", "00:11:22:0a:0b:1ff", "00:11:22:0a:0b:100000001", "10203.0304.0506",
           "0011.22:0a:0b:0c", "00:11-22:0a:0b:0c", "00:11:22:0a:0b-0c", "00/11/22/0a/0b/0c",
           "00:11:22:0a:0b:0c:00", "0011.220a.0b0c.0d0e", "00:11:22:0a:0b:0c ", " 0:11:22:0a:0b:0c",
           "00:11:22:0a:0b:", "00:11:22::0b:0c", "00:11:22:0a:0b", "0011.220a", "001122", ":"}}});
    expectRefuses(Eui64(9, 9, 9, 9),
                  {{"Invalid Eui64", {"00:11:22:33:44:55:66:77:", "0011.2233.4455.6677 "}},
                   {"Invalid EthAddr",
                    {"00:11:22:33:44:55:66", "00:11:22:33:44:55:66:100", "0011.2233.4455"}}});
}

TEST(EthAddr, SortsMacsIntoTheirKinds) {
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"unicast ", {"00:11:22:0a:0b:0c", "fe:ff:ff:ff:ff:ff"}},
        {"broadcast ", {"ff:ff:ff:ff:ff:ff"}},
        {"multicast ", {"ff:ff:ff:ff:ff:fe", "33:32:00:00:00:01", "01:80:c1:ff:ff:ff"}},
        {"multicast ", {"01:00:5e:80:00:00", "01:00:5f:00:00:00"}},
        {"multicast ", {"01:80:c2:00:00:10", "01:00:0c:cc:cc:cc"}},
        {"multicast IPv6 ", {"33:33:00:00:00:01"}},
        {"multicast IPv4 IPv4-local ", {"01:00:5e:00:00:00", "01:00:5e:00:00:ff"}},
        {"multicast IPv4 ", {"01:00:5e:00:01:00", "01:00:5e:7f:ff:ff"}},
        {"multicast constrained ", {"01:80:c2:00:00:00", "01:80:c2:00:00:0f", "01:00:0c:cc:cc:cd"}},
    };
    for (const auto& [expected, macs] : cases) {
        for (const char* text : macs) {
            const EthAddr value = mac(text);
            std::string kinds;
            kinds += value.isUnicast() ? "unicast " : "";
            kinds += value.isBroadcast() ? "broadcast " : "";
            kinds += value.isMulticast() ? "multicast " : "";
            kinds += value.isIp6Multicast() ? "IPv6 " : "";
            kinds += isIpMcastMacAddr(value) ? "IPv4 " : "";
            kinds += value.isIp4LinkLocalMulticast() ? "IPv4-local " : "";
            kinds += value.isIEEELinkConstrained() ? "constrained " : "";
            EXPECT_EQ(kinds, expected) << text;
        }
    }
}

TEST(EthAddr, ReachesBytesAndWordsInTransmissionOrder) {
    EthAddr value = sampleMac;
    EXPECT_EQ(value.word(1) << 8 | value.byte(5), 0x220a0c);
    value.wordIs(2, 0xbeef);
    value.byteIs(0, 0x02);
    value.byteDel(3);
    value.wordDel(0);
    EXPECT_EQ(value.displayString(), "0000.2200.beef");
    EXPECT_TRUE(value.oui() == 0x22 && value.station() == 0xbeef);

    Eui64 eui = sampleMac.eui64();
    EXPECT_EQ(eui, Eui64(0x0011, 0x22ff, 0xff0a, 0x0b0c));
    EXPECT_EQ(eui.word(2) << 8 | eui.byte(6), 0xff0a0b);
    eui.byteIs(1, 0xaa);
    eui.wordIs(2, 0xbeef);
    EXPECT_EQ(eui, Eui64(0x00aa, 0x22ff, 0xbeef, 0x0b0c));
}

TEST(EthAddr, IsDerivedFromAnOuiAndFromAGroup) {
    EXPECT_EQ(ethAddrFromOuiStation(0x12001122, 0x0a0b0c), sampleMac);
    EXPECT_EQ(ethAddrFromOuiStation(0x001122, 0x800a0b0c), mac("00:11:a2:0a:0b:0c"));
    EXPECT_EQ(ipMcastMacAddr(IpAddr(0xffffffff)), mac("01:00:5e:7f:ff:ff"));
}

}  // namespace
}  // namespace Pavo
