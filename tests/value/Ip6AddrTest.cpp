#include "Pavo/Ip6Addr.h"

#include <gtest/gtest.h>

#include "Pavo/EthAddr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr auto ip6 = Mox::fromText<Ip6Addr>;

TEST(Ip6Addr, KeepsTheValueLaws) {
    expectValueLawsOf<Ip6Addr>({"::", "::1", "::102:304", "::ffff:10.1.2.3", "::1:0:0:0:0",
                                "1:0:0:1::1", "2001:db8::1", "8000::", "fe80::1",
                                "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"});
}

// The fuzz target compares more forms with what the C library reads and prints.
TEST(Ip6Addr, ReadsEveryFormAndPrintsOne) {
    expectReads<Ip6Addr>({
        {"2001:DB8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"1:0:0:1:0:0:0:1", "1:0:0:1::1"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
        {"00ab:0::0abc:abcd", "ab::abc:abcd"},
        {"::ffff:0:0", "::ffff:0.0.0.0"},
        {"::001.02.3.004", "::102:304"},
        {"64:ff9b::10.1.2.3", "64:ff9b::a01:203"},
        {"1:2:3:4:5::7.8.9.10", "1:2:3:4:5:0:708:90a"},
    });
}

TEST(Ip6Addr, ReportsTheFirstFaultFromTheLeft) {
    expectRefuses(
        Ip6Addr(7, 7),
        {
            {"Ip6Addr: leading hex digit expected", {"", " ::1", "g::", "-1::"}},
            {"Ip6Addr: hex digit expected", {"1:", "1:g::", "1:2:3:4:5:6:7:", "::1:"}},
            {"Ip6Addr: too many consecutive hex digits",
             {"12345::", "00001::", "::12345", "1:2:3:4:5:6:7:88888", "::00001.2.3.4"}},
            {"Ip6Addr: ':' expected", {":", ":1::", "1 ", "1:2:3/48", "1.2.3.4"}},
            {"Ip6Addr: too many colons", {":::", "1:::2", "1:2:3:4:5:6:7:::"}},
            {"Ip6Addr: only one '::' allowed", {"1::2::3", "::1::", "1::2:::3"}},
            {"Ip6Addr: incomplete ipv6 address", {"1:2:3", "1:2:3:4:5:6:7", "1", "1:2:3.4.5.6"}},
            {"Ip6Addr: decimal value too large", {"::1.2.3.256", "::1.2.3.2567", "::300.2.3.4"}},
            {"Ip6Addr: too many consecutive decimal digits", {"::1.2.3.0001", "::0001.2.3.4"}},
            {"Ip6Addr: decimal digit expected", {"::1.", "::1.2..4", "::a.2.3.4", "::1.a.3.4"}},
            {"Ip6Addr: expected '.'", {"::1.2.3", "::1.2:3.4", "::1a.2.3.4"}},
            {"Ip6Addr: unexpected trailing characters",
             {":: ", "::g", "fe80::1/64", "fe80::1%eth0", "::1.2.3.4.5", "1:2:3:4:5:6:7:8:9",
              "1:2:3:4:5:6:7:8::", "1:2:3:4:5:6:7::8", "::1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:1.2.3.4",
              "1:2:3:4:5:6::1.2.3.4"}},
        });
}

TEST(Ip6Addr, ReadsOnlyTheExpandedForm) {
    Ip6Addr value(7, 7);
    for (const char* text :
         {"2001:0db8:0000:0000:0000:00ff:fe00:001", "2001:0db8:0000:0000:0000:0ff:fe00:00001",
          "2001:0db8:0000:0000:0000:00ff:0.0.0.001"}) {
        EXPECT_EQ(rangeErrorOf([&] { value.stringValueExpandedIs(text); }),
                  "Ip6Addr: address is not expanded");
        EXPECT_EQ(value, Ip6Addr(7, 7));
    }
    value.stringValueExpandedIs("2001:0db8:0000:0000:0000:00FF:fe00:0001");
    EXPECT_EQ(value, ip6("2001:db8::ff:fe00:1"));
}

TEST(Ip6Addr, SlicesAreNumbersInHostOrder) {
    Ip6Addr value = ip6("1:203::fe80:a0b:c0d");
    EXPECT_TRUE(value.u8(3) == 3 && value.u16(5) == 0xfe80 && value.u32(0) == 0x00010203);
    EXPECT_EQ(value.u64(1), 0x0000fe800a0b0c0dull);
    value.u64Is(0, 9);
    value.u32Is(3, 0x55667788);
    value.u16Is(2, 0x1234);
    value.u8Is(15, 0xff);
    EXPECT_EQ(value, ip6("0:0:1234:9:0:fe80:5566:77ff"));
}

TEST(Ip6Addr, DerivesOtherAddresses) {
    const EthAddr mac(0x0011, 0x220a, 0x0b0c);
    EXPECT_EQ(ip6LinkLocalFromMac(mac), ip6("fe80::211:22ff:fe0a:b0c"));
    EXPECT_EQ(ip6("2001:db8::1:2345:6789").solicitedNodeMulticastAddr(), ip6("ff02::1:ff45:6789"));
    EXPECT_EQ(ip6("febf:1:2:3:4:5:6:7").validLlUnicastAddress(), ip6("fe80::4:5:6:7"));
    EXPECT_EQ(rangeErrorOf([] { (void)ip6("fec0::1").validLlUnicastAddress(); }),
              "Not an address that belongs to subnet fe80::/10");
}

TEST(Ip6Addr, MasksByLeadingBits) {
    for (uint32_t len = 0; len <= 128; ++len) {
        EXPECT_EQ(ip6AddrToPrefixLen(ip6AddrFromPrefixLen(len)), len);
    }
    EXPECT_EQ(ip6("::1").ip6AddrMaskedByLength(129), ip6("::1"));
    EXPECT_EQ(ip6AddrToPrefixLen(ip6("ffff:ffff::")), 32u);
    for (const char* mask :
         {"ffff:0:ffff::", "::1", "ffff::8000:0:0:0", "7fff::", "ffff:ffff:ffff:ffff:7fff::"}) {
        EXPECT_EQ(ip6AddrToPrefixLen(ip6(mask)), 129u) << mask;
    }
}

}  // namespace
}  // namespace Pavo
