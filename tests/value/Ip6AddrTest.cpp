#include "Pavo/Ip6Addr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <random>

#include "Pavo/EthAddr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

Ip6Addr ip6(const char* text) {
    return Mox::fromText<Ip6Addr>(text);
}

TEST(Ip6Addr, KeepsTheValueLaws) {
    expectValueLaws<Ip6Addr>({Ip6Addr(), ip6("::1"), ip6("::102:304"), ip6("::ffff:10.1.2.3"),
                              ip6("::1:0:0:0:0"), ip6("1:0:0:1::1"), ip6("2001:db8::1"),
                              ip6("8000::"), ip6("fe80::1"),
                              ip6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")});
    expectValueLaws<Ip6AddrU8Key>({0, 9, 15});
}

TEST(Ip6Addr, ReadsEveryFormAndPrintsOne) {
    const struct {
        const char* text;
        const char* canonical;
    } cases[] = {
        {"::", "::"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"0000:0000:0000:0000:0000:0000:0000:0000", "::"},
        {"2001:DB8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
        {"1:0:0:1:0:0:0:1", "1:0:0:1::1"},
        {"1:0:1:0:1:0:1:0", "1:0:1:0:1:0:1:0"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
        {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
        {"1::3:4:5:6:7:8", "1:0:3:4:5:6:7:8"},
        {"1::", "1::"},
        {"1::8", "1::8"},
        {"1:2::7:8", "1:2::7:8"},
        {"00ab:0::0abc:abcd", "ab::abc:abcd"},
        {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
        {"::ffff:0:0", "::ffff:0.0.0.0"},
        {"::1.2.3.4", "::102:304"},
        {"::001.02.3.004", "::102:304"},
        {"0::0:255.255.255.255", "::ffff:ffff"},
        {"64:ff9b::10.1.2.3", "64:ff9b::a01:203"},
        {"1:2:3:4:5:6:7.8.9.10", "1:2:3:4:5:6:708:90a"},
        {"1:2:3:4:5::7.8.9.10", "1:2:3:4:5:0:708:90a"},
    };
    for (const auto& c : cases) {
        Ip6Addr value(7, 7);
        EXPECT_EQ(textErrorOf(c.text, &value), "") << c.text;
        EXPECT_EQ(value.stringValue(), c.canonical) << c.text;
    }
}

TEST(Ip6Addr, ReportsTheFirstFaultFromTheLeft) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"", "Ip6Addr: leading hex digit expected"},
        {" ::1", "Ip6Addr: leading hex digit expected"},
        {"g::", "Ip6Addr: leading hex digit expected"},
        {"-1::", "Ip6Addr: leading hex digit expected"},
        {"1:", "Ip6Addr: hex digit expected"},
        {"1:g::", "Ip6Addr: hex digit expected"},
        {"1:2:3:4:5:6:7:", "Ip6Addr: hex digit expected"},
        {"::1:", "Ip6Addr: hex digit expected"},
        {"12345::", "Ip6Addr: too many consecutive hex digits"},
        {"00001::", "Ip6Addr: too many consecutive hex digits"},
        {"::12345", "Ip6Addr: too many consecutive hex digits"},
        {"1:2:3:4:5:6:7:88888", "Ip6Addr: too many consecutive hex digits"},
        {":", "Ip6Addr: ':' expected"},
        {":1::", "Ip6Addr: ':' expected"},
        {"1 ", "Ip6Addr: ':' expected"},
        {"1:2:3/48", "Ip6Addr: ':' expected"},
        {"1.2.3.4", "Ip6Addr: ':' expected"},
        {":::", "Ip6Addr: too many colons"},
        {"1:::2", "Ip6Addr: too many colons"},
        {"1:2:3:4:5:6:7:::", "Ip6Addr: too many colons"},
        {"1::2::3", "Ip6Addr: only one '::' allowed"},
        {"::1::", "Ip6Addr: only one '::' allowed"},
        {"1::2:::3", "Ip6Addr: only one '::' allowed"},
        {"1:2:3", "Ip6Addr: incomplete ipv6 address"},
        {"1:2:3:4:5:6:7", "Ip6Addr: incomplete ipv6 address"},
        {"1", "Ip6Addr: incomplete ipv6 address"},
        {"1:2:3.4.5.6", "Ip6Addr: incomplete ipv6 address"},
        {"::1.2.3.256", "Ip6Addr: decimal value too large"},
        {"::1.2.3.2567", "Ip6Addr: decimal value too large"},
        {"::300.2.3.4", "Ip6Addr: decimal value too large"},
        {"::1.2.3.0001", "Ip6Addr: too many consecutive decimal digits"},
        {"::0001.2.3.4", "Ip6Addr: too many consecutive decimal digits"},
        {"::00001.2.3.4", "Ip6Addr: too many consecutive hex digits"},
        {"::1.", "Ip6Addr: decimal digit expected"},
        {"::1.2..4", "Ip6Addr: decimal digit expected"},
        {"::a.2.3.4", "Ip6Addr: decimal digit expected"},
        {"::1.a.3.4", "Ip6Addr: decimal digit expected"},
        {"::1.2.3", "Ip6Addr: expected '.'"},
        {"::1.2:3.4", "Ip6Addr: expected '.'"},
        {"::1a.2.3.4", "Ip6Addr: expected '.'"},
        {":: ", "Ip6Addr: unexpected trailing characters"},
        {"::g", "Ip6Addr: unexpected trailing characters"},
        {"fe80::1/64", "Ip6Addr: unexpected trailing characters"},
        {"fe80::1%eth0", "Ip6Addr: unexpected trailing characters"},
        {"::1.2.3.4.5", "Ip6Addr: unexpected trailing characters"},
        {"1:2:3:4:5:6:7:8:9", "Ip6Addr: unexpected trailing characters"},
        {"1:2:3:4:5:6:7:8::", "Ip6Addr: unexpected trailing characters"},
        {"1:2:3:4:5:6:7::8", "Ip6Addr: unexpected trailing characters"},
        {"::1:2:3:4:5:6:7:8", "Ip6Addr: unexpected trailing characters"},
        {"1:2:3:4:5:6:7:1.2.3.4", "Ip6Addr: unexpected trailing characters"},
        {"1:2:3:4:5:6::1.2.3.4", "Ip6Addr: unexpected trailing characters"},
    };
    for (const auto& c : cases) {
        Ip6Addr value(7, 7);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        EXPECT_EQ(value, Ip6Addr(7, 7)) << c.text;
    }
}

TEST(Ip6Addr, ClearsTheTargetOfASequence) {
    const Mox::String text("fe80::1::");
    auto it = text.begin();
    Ip6Addr value(7, 7);
    EXPECT_THROW(sequenceToValue(it, text.end(), &value), Mox::RangeException);
    EXPECT_EQ(value, Ip6Addr());
    EXPECT_EQ(it, text.begin());
}

TEST(Ip6Addr, ReadsTheExpandedFormAlone) {
    const struct {
        const char* text;
        bool good;
    } cases[] = {
        {"2001:0db8:0000:0000:0000:00FF:fe00:0001", true},
        {"2001:0db8:0000:0000:0000:00ff:fe00:001", false},
        {"2001:0db8:0000:0000:0000:00ff:fe00:00010", false},
        {"2001:0db8:0000:0000:0000:00ff:fe00:000g", false},
        {"2001:0db8:0000:0000:0000:0ff:fe00:00001", false},
        {"2001:0db8:0000:0000:0000:00ff:fe00.0001", false},
        {"2001:0db8:0000:0000:0000:00ff:0.0.0.001", false},
        {"::", false},
        {"", false},
    };
    for (const auto& c : cases) {
        Ip6Addr value(7, 7);
        EXPECT_EQ(rangeErrorOf([&] { value.stringValueExpandedIs(c.text); }),
                  c.good ? "" : "Ip6Addr: address is not expanded");
        EXPECT_EQ(value, c.good ? ip6("2001:db8::ff:fe00:1") : Ip6Addr(7, 7)) << c.text;
    }
}

Ip6Addr randomAddress(std::mt19937_64& random) {
    Ip6Addr address(random(), random());
    for (unsigned i = 0; i < 8; ++i) {
        switch (random() % 4) {  // Zero groups and short ones are what the rules are about.
            case 0:
            case 1:
                address.u16Del(i);
                break;
            case 2:
                address.u16Is(i, static_cast<uint16_t>(address.u16(i) >> random() % 16));
                break;
            default:
                break;
        }
    }
    return random() % 16 == 0 ? Ip6Addr(0, uint64_t{0xffff} << 32 | address.u32(3)) : address;
}

std::string randomText(std::mt19937_64& random) {
    std::string text = randomAddress(random).stringValue().c_str();
    if (random() % 4 == 0) {
        const auto colon = text.rfind(':');
        text.replace(colon + 1, text.npos, "1.20.255." + std::to_string(random() % 300));
    }
    for (auto faults = random() % 4; faults > 1; --faults) {  // Half of the texts stay whole.
        const auto at = random() % (text.size() + 1);
        text.insert(at, random() % 2 + 1, "0123456789abcdefABCDEF:::..g"[random() % 28]);
        text.erase(random() % text.size(), random() % 2);
    }
    return text;
}

// Whether some octet of a dotted quad begins with a zero that is not all of it: inet_pton refuses
// those, here they are leading zeros.
bool hasLeadingZeroOctet(const std::string& text) {
    const auto firstDot = text.find('.');
    if (firstDot == text.npos) {
        return false;
    }
    const auto colon = text.rfind(':', firstDot);
    const auto first = colon == text.npos ? 0 : colon + 1;
    for (auto i = first; i + 1 < text.size(); ++i) {
        const bool atStart = i == first || text[i - 1] == '.';
        if (atStart && text[i] == '0' && Mox::TextCursor::isDigit(text[i + 1])) {
            return true;
        }
    }
    return false;
}

// glibc is the oracle, where it means the same. It prints v4-compatible addresses (::/96, from
// ::1:0 on) with a dotted quad, and it reads no leading zeros in one.
TEST(Ip6Addr, AgreesWithTheCLibrary) {
    std::mt19937_64 random(20240501);
    int good = 0;
    for (int i = 0; i < 100000; ++i) {
        const Ip6Addr address = randomAddress(random);
        char expected[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(AF_INET6, &address, expected, sizeof(expected)), nullptr);
        const bool v4Compatible = address.u64(0) == 0 && address.u32(2) == 0 && address.u16(6) != 0;
        if (!v4Compatible) {
            ASSERT_EQ(address.stringValue(), expected);
        }

        const std::string text = randomText(random);
        Ip6Addr read;
        const bool isGood = inet_pton(AF_INET6, text.c_str(), &read) == 1;
        const auto value = Mox::tryParse<Ip6Addr>(text);
        if (hasLeadingZeroOctet(text)) {
            ASSERT_FALSE(isGood) << text;
            continue;
        }
        ASSERT_EQ(value.has_value(), isGood) << text;
        if (isGood) {
            ++good;
            ASSERT_EQ(*value, read) << text;
        }
    }
    EXPECT_GT(good, 50000);
    EXPECT_LT(good, 90000);
}

TEST(Ip6Addr, SortsAddressesIntoTheirKinds) {
    enum Kind : unsigned {
        unspecified = 1,
        loopback = 2,
        multicast = 4,
        linkLocalUnicast = 8,
        linkLocalUnicast2 = 16,
        linkLocal = 32,
        globalUnicast = 64,
        pimRouters = 128,
        routableMulticast = 256,
        v4Mapped = 512,
    };
    const struct {
        const char* text;
        unsigned kinds;
    } cases[] = {
        {"::", unspecified},
        {"::1", loopback},
        {"::2", globalUnicast},
        {"1::1", globalUnicast},
        {"fe80::1", linkLocalUnicast | linkLocalUnicast2 | linkLocal},
        {"fe80:0:0:1::1", linkLocalUnicast2},
        {"febf:ffff::", linkLocalUnicast2},
        {"fec0::", globalUnicast},
        {"fe7f:ffff::", globalUnicast},
        {"ff01::1", multicast},
        {"ff02::1", multicast | linkLocal},
        {"ff32::1", multicast | linkLocal},
        {"ff03::1", multicast},
        {"ff04::1", multicast | routableMulticast},
        {"ff0e::1", multicast | routableMulticast},
        {"ff02::d", multicast | linkLocal | pimRouters},
        {"ff02::1:d", multicast | linkLocal},
        {"ff05::d", multicast | routableMulticast},
        {"::ffff:0.0.0.0", v4Mapped | globalUnicast},
        {"::fffe:0:0", globalUnicast},
        {"::1:ffff:0:0", globalUnicast},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const Ip6Addr a = ip6(c.text);
        EXPECT_EQ(a.isZero(), (c.kinds & unspecified) != 0);
        EXPECT_EQ(a.isUnspecified(), (c.kinds & unspecified) != 0);
        EXPECT_EQ(a.isLoopback(), (c.kinds & loopback) != 0);
        EXPECT_FALSE(a.isLoopbackBase());
        EXPECT_EQ(a.isMulticast(), (c.kinds & multicast) != 0);
        EXPECT_EQ(a.isUnicast(), (c.kinds & multicast) == 0);
        EXPECT_EQ(a.isLinkLocalUnicast(), (c.kinds & linkLocalUnicast) != 0);
        EXPECT_EQ(a.isLinkLocalUnicast2(), (c.kinds & linkLocalUnicast2) != 0);
        EXPECT_EQ(a.isLinkLocal(), (c.kinds & linkLocal) != 0);
        EXPECT_EQ(a.isGlobalUnicast(), (c.kinds & globalUnicast) != 0);
        EXPECT_EQ(a.isPimRouters(), (c.kinds & pimRouters) != 0);
        EXPECT_EQ(a.isRoutableMulticast(), (c.kinds & routableMulticast) != 0);
        EXPECT_EQ(a.isV4MappedV6(), (c.kinds & v4Mapped) != 0);
    }
}

TEST(Ip6Addr, SlicesAreNumbersInHostOrder) {
    Ip6Addr value = ip6("1:203::fe80:a0b:c0d");
    EXPECT_EQ(value.u8(3), 3);
    EXPECT_EQ(value.u16(5), 0xfe80);
    EXPECT_EQ(value.u32(0), 0x00010203u);
    EXPECT_EQ(value.u64(1), 0x0000fe800a0b0c0dull);
    value.u8Is(1, 0xff);
    value.u16Is(2, 0x1234);
    value.u32Is(3, 0x55667788);
    EXPECT_EQ(value, ip6("ff:203:1234:0:0:fe80:5566:7788"));
    value.u64Is(0, 9);
    value.u8Del(15);
    value.u16Del(5);
    EXPECT_EQ(value, ip6("0:0:0:9::5566:7700"));
    value.u32Del(3);
    value.u64Del(0);
    EXPECT_EQ(value, Ip6Addr());
}

TEST(Ip6Addr, RefusesAnIndexPastTheEnd) {
    Ip6Addr a(7, 7);
    const struct {
        std::string error;
        const char* expected;
    } cases[] = {
        {rangeErrorOf([&] { (void)a.u8(16); }), "Ip6Addr::u8: index out of range"},
        {rangeErrorOf([&] { a.u8Is(16, 1); }), "Ip6Addr::u8Is: index out of range"},
        {rangeErrorOf([&] { a.u8Del(16); }), "Ip6Addr::u8Del: index out of range"},
        {rangeErrorOf([&] { (void)a.u16(8); }), "Ip6Addr::u16: index out of range"},
        {rangeErrorOf([&] { a.u16Is(8, 1); }), "Ip6Addr::u16Is: index out of range"},
        {rangeErrorOf([&] { a.u16Del(8); }), "Ip6Addr::u16Del: index out of range"},
        {rangeErrorOf([&] { (void)a.u32(4); }), "Ip6Addr::u32: index out of range"},
        {rangeErrorOf([&] { a.u32Is(4, 1); }), "Ip6Addr::u32Is: index out of range"},
        {rangeErrorOf([&] { a.u32Del(4); }), "Ip6Addr::u32Del: index out of range"},
        {rangeErrorOf([&] { (void)a.u64(2); }), "Ip6Addr::u64: index out of range"},
        {rangeErrorOf([&] { a.u64Is(2, 1); }), "Ip6Addr::u64Is: index out of range"},
        {rangeErrorOf([&] { a.u64Del(2); }), "Ip6Addr::u64Del: index out of range"},
        {rangeErrorOf([&] { Ip6AddrU8Key(16); }), "Ip6AddrU8Key::value < 0 or > 15 not allowed"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error, c.expected);
    }
    EXPECT_EQ(a, Ip6Addr(7, 7));
}

TEST(Ip6Addr, DerivesOtherAddresses) {
    const EthAddr mac(0x0011, 0x220a, 0x0b0c);
    EXPECT_EQ(ip6LinkLocalFromMac(mac), ip6("fe80::211:22ff:fe0a:b0c"));
    EXPECT_EQ(ip6LinkLocalFromMac(EthAddr(0x02ff, 0xffff, 0xffff)), ip6("fe80::ff:ffff:feff:ffff"));
    EXPECT_EQ(ip6("2001:db8::1:2345:6789").solicitedNodeMulticastAddr(), ip6("ff02::1:ff45:6789"));
    EXPECT_EQ(ip6("ff02::1:ff45:6789").mcastEtherAddress(), EthAddr(0x3333, 0xff45, 0x6789));
    EXPECT_EQ(ip6("febf:1:2:3:4:5:6:7").validLlUnicastAddress(), ip6("fe80::4:5:6:7"));
    EXPECT_EQ(rangeErrorOf([] { (void)ip6("fec0::1").validLlUnicastAddress(); }),
              "Not an address that belongs to subnet fe80::/10");
}

TEST(Ip6Addr, ComparesAndMasksByLeadingBits) {
    const Ip6Addr ones = Ip6Addr(~uint64_t{0}, ~uint64_t{0});
    for (uint32_t len = 0; len <= 128; ++len) {
        const Ip6Addr mask = ones.ip6AddrMaskedByLength(len);
        EXPECT_EQ(ip6AddrToPrefixLen(mask), len);
        EXPECT_EQ(mask.longestCommonPrefix(ones), len);
    }
    EXPECT_EQ(ones.ip6AddrMaskedByLength(129), ones);
    EXPECT_EQ(ip6AddrToPrefixLen(ip6("ffff:ffff::")), 32u);
    for (const char* mask :
         {"ffff:0:ffff::", "::1", "ffff::8000:0:0:0", "7fff::", "ffff:ffff:ffff:ffff:7fff::"}) {
        EXPECT_EQ(ip6AddrToPrefixLen(ip6(mask)), 129u) << mask;
    }
}

// Worked out elsewhere from the recipe; tables of other processes hold keys by these numbers.
TEST(Ip6Addr, HashesAsOtherProcessesDo) {
    EXPECT_EQ(ip6("2001:db8::1").hash(), 0x2739abbd);
    EXPECT_EQ(ip6("::").hash(), 0xe0bda6d1);
}

TEST(Ip6Addr, HasTheWellKnownAddresses) {
    const struct {
        const Ip6Addr& constant;
        const char* text;
    } cases[] = {
        {ip6AddrZero, "::"},
        {ip6AddrLoopback, "::1"},
        {ip6AddrAllNodes, "ff02::1"},
        {ip6AddrAllRouters, "ff02::2"},
        {ip6AddrAllHosts, "ff02::3"},
        {ip6AddrPimRouters, "ff02::d"},
        {ip6AddrVrrp, "ff02::12"},
        {ip6AddrMld, "ff02::16"},
        {ip6AddrLinkLocalBase, "ff02::"},
        {ip6AddrV4MappedLoopback, "::ffff:127.0.0.1"},
        {ip6AddrV4MappedLoopbackBase, "::ffff:127.0.0.0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.constant, ip6(c.text));
    }
}

}  // namespace
}  // namespace Pavo
