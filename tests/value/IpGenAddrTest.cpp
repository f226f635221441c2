#include "Pavo/IpGenAddr.h"

#include <gtest/gtest.h>

#include "Mox/Trace.h"
#include "Pavo/EthAddr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

IpGenAddr gen(const char* text) {
    return Mox::fromText<IpGenAddr>(text);
}

TEST(IpGenAddr, KeepsTheValueLaws) {
    expectValueLaws<IpGenAddr>({IpGenAddr(ipv4), gen("10.0.0.1"), gen("255.255.255.255"), gen("::"),
                                gen("::1"), gen("::ffff:10.0.0.1"), gen("fe80::1")});
    expectValueLaws<IpGenAddr>({IpGenAddr()},
                               {.readsBack = "an unknown address prints the text of IPv6's ::"});
    EXPECT_LT(IpGenAddr(), IpGenAddr(ipv4));
    EXPECT_EQ(IpGenAddr().stringValue(), "::");
}

TEST(IpGenAddr, TellsTheFamilyByTheFirstColonOrDot) {
    const struct {
        const char* text;
        const char* error;
        IpGenAddr value;
    } cases[] = {
        {"10.0.0.1", "", IpAddr(0x0a000001)},   {"::ffff:10.0.0.1", "", ip6AddrV4MappedLoopback},
        {"10/8", "Invalid IpGenAddr", {}},      {"/10.0.0.1", "Invalid IpGenAddr", {}},
        {"10", "Invalid IpGenAddr", {}},        {"", "Invalid IpGenAddr", {}},
        {"10.0.0.1x", "Invalid IpGenAddr", {}}, {"::1/64", "Invalid IpGenAddr", {}},
        {"10.0.0/8", "Invalid IpAddr", {}},     {"10.0.0.256", "Invalid IpAddr", {}},
        {"1.2:3", "Invalid IpAddr", {}},        {"a:b", "Ip6Addr: incomplete ipv6 address", {}},
        {"1:2.3", "Ip6Addr: expected '.'", {}},
    };
    for (const auto& c : cases) {
        IpGenAddr value(ipv6);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        const bool good = *c.error == '\0';
        EXPECT_EQ(value.af(), good ? c.value.af() : ipv6) << c.text;
    }
    EXPECT_EQ(gen("10.0.0.1").v4Addr(), IpAddr(0x0a000001));
    EXPECT_EQ(gen("::ffff:10.0.0.1").v6Addr(), Ip6Addr(0, 0xffff0a000001));
}

TEST(IpGenAddr, HoldsOneFamilyAtATime) {
    IpGenAddr value = gen("fe80::1");
    EXPECT_EQ(value.v4Addr(), IpAddr());
    EXPECT_EQ(value.bytes(), (Mox::Bytes{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    value.handleV4Addr(IpAddr(0x01020304));  // Nothing of the old address stays.
    EXPECT_EQ(value, IpGenAddr(IpAddr(0x01020304)));
    EXPECT_EQ(value.bytes(), (Mox::Bytes{1, 2, 3, 4}));
    EXPECT_EQ(value.v6Addr(), Ip6Addr());
    value.handleV6Addr(ip6AddrLoopback);
    EXPECT_EQ(value, IpGenAddr(ip6AddrLoopback));
    EXPECT_EQ(IpGenAddr().size(), 16u);
}

TEST(IpGenAddr, RefusesALogWithBytesOutsideTheFamily) {
    const struct {
        uint32_t af;
        Ip6Addr address;
        const char* error;
    } cases[] = {
        {0, Ip6Addr(), ""},
        {0, ip6AddrLoopback, "Invalid IpGenAddr"},
        {1, Ip6Addr(uint64_t{0x0a000001} << 32, 0), ""},
        {1, Ip6Addr(uint64_t{0x0a000001} << 32 | 1, 0), "Invalid IpGenAddr"},
        {1, ip6AddrLoopback, "Invalid IpGenAddr"},
        {2, ip6AddrLoopback, ""},
        {3, Ip6Addr(), "Invalid AddressFamily"},
    };
    for (const auto& c : cases) {
        Mox::NboAttrLog::Out log;
        log.u32(c.af);
        log << c.address;
        Mox::NboAttrLog::In in(log.bytes);
        EXPECT_EQ(rangeErrorOf([&] { IpGenAddr(&in, Mox::StreamBogon()); }), c.error) << c.af;
    }
}

TEST(IpGenAddr, MapsBetweenTheFamilies) {
    EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen("::ffff:10.0.0.1")), gen("10.0.0.1"));
    EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(gen("10.0.0.1")), gen("::ffff:10.0.0.1"));
    for (const char* text : {"2001:db8::1", "10.0.0.1"}) {
        EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen(text)), IpGenAddr());
    }
    EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(gen("::1")), IpGenAddr());
    EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(IpGenAddr()), IpGenAddr());
}

TEST(IpGenAddr, AsksTheFamilyForItsKind) {
    using Predicate = bool (IpGenAddr::*)() const;
    const struct {
        const char* name;
        Predicate predicate;
        std::vector<const char*> yes;
        std::vector<const char*> no;
    } cases[] = {
        {"isAny", &IpGenAddr::isAny, {"0.0.0.0"}, {"::", "1.0.0.0"}},
        {"isUnspecified", &IpGenAddr::isUnspecified, {"::"}, {"0.0.0.0", "::1"}},
        {"isUnicast", &IpGenAddr::isUnicast, {"10.0.0.1", "::1"}, {"224.0.0.1", "ff02::1"}},
        {"isMulticast", &IpGenAddr::isMulticast, {"224.0.0.1", "ff02::1"}, {"10.0.0.1", "::1"}},
        {"isLinkLocalUnicast",
         &IpGenAddr::isLinkLocalUnicast,
         {"169.254.0.1", "fe80::1"},
         {"10.0.0.1", "ff02::1"}},
        {"isLoopback", &IpGenAddr::isLoopback, {"127.0.0.1", "::1"}, {"10.0.0.1", "::2"}},
        {"isLoopbackBase", &IpGenAddr::isLoopbackBase, {"127.0.0.0"}, {"::1", "127.0.0.1"}},
        {"isLinkLocal", &IpGenAddr::isLinkLocal, {"169.254.0.1", "fe80::1", "ff02::1"}, {"::1"}},
        {"isThisNetwork", &IpGenAddr::isThisNetwork, {"0.1.2.3"}, {"::", "1.0.0.0"}},
        {"isBroadcast", &IpGenAddr::isBroadcast, {"255.255.255.255"}, {"ffff::", "10.0.0.255"}},
        {"isV4LinkLocal", &IpGenAddr::isV4LinkLocal, {"169.254.0.1"}, {"fe80::1", "10.0.0.1"}},
        {"isV6LinkLocal", &IpGenAddr::isV6LinkLocal, {"fe80::1"}, {"169.254.0.1", "::1"}},
        {"isPimRouters", &IpGenAddr::isPimRouters, {"224.0.0.13", "ff02::d"}, {"::d"}},
        {"isLinkLocalMulticast",
         &IpGenAddr::isLinkLocalMulticast,
         {"224.0.0.1", "ff02::1"},
         {"224.0.1.1", "169.254.0.1", "fe80::1", "ff05::1"}},
        {"isRoutableMulticast",
         &IpGenAddr::isRoutableMulticast,
         {"ff05::1"},
         {"ff02::1", "239.1.1.1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const char* text : c.yes) {
            EXPECT_TRUE((gen(text).*c.predicate)()) << text;
        }
        for (const char* text : c.no) {
            EXPECT_FALSE((gen(text).*c.predicate)()) << text;
        }
        EXPECT_FALSE((IpGenAddr().*c.predicate)());
    }
    EXPECT_TRUE(gen("240.0.0.1").isReserved(false));
    EXPECT_FALSE(gen("f000::1").isReserved(false));
}

TEST(IpGenAddr, AsksTheFamilyForMacAndCommonBits) {
    EXPECT_EQ(gen("239.129.1.2").mcastEtherAddress(), EthAddr(0x0100, 0x5e01, 0x0102));
    EXPECT_EQ(gen("ff02::1:2").mcastEtherAddress(), EthAddr(0x3333, 0x0001, 0x0002));
    EXPECT_EQ(IpGenAddr().mcastEtherAddress(), EthAddr());
    EXPECT_EQ(gen("10.0.0.0").longestCommonPrefix(gen("10.128.0.0")), 8u);
    EXPECT_EQ(gen("10.0.0.0").longestCommonPrefix(gen("10.0.0.0")), 32u);
    EXPECT_EQ(gen("::").longestCommonPrefix(gen("::1")), 127u);
    EXPECT_EQ(gen("0.0.0.0").longestCommonPrefix(gen("::")), 0u);
    EXPECT_EQ(IpGenAddr().longestCommonPrefix(IpGenAddr()), 0u);
}

TEST(IpGenAddr, HashesFamilyThenAddress) {
    EXPECT_EQ(gen("::1").hash(3), Mox::Hash(3).mix(2).mix(ip6AddrLoopback.hash()).result());
    EXPECT_EQ(gen("1.0.0.0").hash(3),
              Mox::Hash(3).mix(1).mix(Ip6Addr(uint64_t{1} << 56, 0).hash()).result());
}

TEST(IpGenAddr, TracesTheFamilyItDetects) {
    static std::string traced;
    const auto before =
        Mox::traceSinkIs([](const char* facility, int level, std::string_view text) {
            traced +=
                std::string(facility) + "/" + std::to_string(level) + ":" + std::string(text) + ";";
        });
    Mox::traceSettingsIs("Pavo::IpGenAddr/9");
    (void)gen("10.0.0.1");
    (void)gen("::1");
    Mox::traceSettingsIs("Pavo::IpGenAddr/0-8");
    (void)gen("::1");
    Mox::traceSettingsIs("Pavo::IpGenAddr/");
    Mox::traceSinkIs(before);
    EXPECT_EQ(traced, "Pavo::IpGenAddr/9: af ipv4;Pavo::IpGenAddr/9: af ipv6;");
}

TEST(AddressFamily, ConvertsNamesAndNumbersOfMembersAlone) {
    EXPECT_EQ(AddressFamilyInstance(2), ipv6);
    EXPECT_EQ(AddressFamilyInstance("ipv4"), ipv4);
    EXPECT_EQ(stringValue(ipunknown), "ipunknown");
    for (const uint32_t number : {3u, 256u, 0xffffffffu}) {
        EXPECT_EQ(rangeErrorOf([&] { AddressFamilyInstance(number); }), "Invalid AddressFamily");
    }
    for (const char* name : {"", "ip", "ipv", "ipv44", "IPV4", "ipv4 ", "1"}) {
        EXPECT_EQ(rangeErrorOf([&] { AddressFamilyInstance(name); }), "Invalid AddressFamily");
    }
}

}  // namespace
}  // namespace Pavo
