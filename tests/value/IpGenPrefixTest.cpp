#include "Pavo/IpGenPrefix.h"

#include <gtest/gtest.h>

#include "Mox/Trace.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

IpAddr ip(const char* text) {
    return Mox::fromText<IpAddr>(text);
}
Ip6Addr ip6(const char* text) {
    return Mox::fromText<Ip6Addr>(text);
}
IpGenAddr gen(const char* text) {
    return Mox::fromText<IpGenAddr>(text);
}
IpGenPrefix prefix(const char* text) {
    return Mox::fromText<IpGenPrefix>(text);
}
IpGenAddrWithMask withMask(const char* text) {
    return Mox::fromText<IpGenAddrWithMask>(text);
}
IpGenAddrWithFullMask fullMask(const char* text) {
    return Mox::fromText<IpGenAddrWithFullMask>(text);
}

constexpr const char* nonZeroText = "Invalid Prefix - non-zero after prefixlen";
constexpr const char* nonZeroParts = "Invalid prefix - Non-zero after prefix length";
constexpr const char* noEnd = "premature end of Prefix type";

TEST(IpGenPrefixBase, KeepsTheValueLaws) {
    expectValueLaws<IpGenPrefixBase>({{},
                                      {IpGenAddr(), 7},
                                      {gen("10.0.0.1"), 8},
                                      {gen("10.0.0.1"), 99},
                                      {gen("11.0.0.0"), 0},
                                      {gen("::"), 0xffffffff},
                                      {gen("::a00:1"), 8}});
    EXPECT_EQ(IpGenPrefixBase(gen("10.0.0.1"), 99).stringValue(),
              "Value('Pavo::IpGenPrefixBase', ** {'af': ipv4, 'address': a00:1::, 'len': 99})");
}

TEST(IpGenPrefixBase, RefusesBytesOutsideTheFamily) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"Value('Pavo::IpGenPrefixBase', ** {'af': ipv4, 'address': a00::, 'len': 8})", ""},
        {"Value('Pavo::IpGenPrefixBase', ** {'af': ipv4, 'address': ::1, 'len': 8})",
         "Invalid IpGenPrefixBase"},
        {"Value('Pavo::IpGenPrefixBase', ** {'af': ipunknown, 'address': a00::, 'len': 8})",
         "Invalid IpGenPrefixBase"},
        {"Value('Pavo::IpGenPrefixBase', ** {'af': ipv5, 'address': a00::, 'len': 8})",
         "Invalid AddressFamily"},
        {"Value('Pavo::IpGenPrefix', ** {'af': ipv4, 'address': a00::, 'len': 8})",
         "Invalid IpGenPrefixBase"},
        {"10.0.0.0/8", "Invalid IpGenPrefixBase"},
    };
    for (const auto& c : cases) {
        IpGenPrefixBase value(gen("::9"), 9);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
    }
}

// What stands in a log comes from outside: family, sixteen bytes and a last field.
template <class T, class Last>
std::string logErrorOf(uint32_t af, const char* address, const Last& last) {
    Mox::NboAttrLog::Out log;
    log.u32(af);
    log << ip6(address);
    if constexpr (std::is_same_v<Last, uint32_t>) {
        log.u32(last);
    } else {
        log << last;
    }
    Mox::NboAttrLog::In in(log.bytes);
    return rangeErrorOf([&] { T(&in, Mox::StreamBogon()); });
}

TEST(IpGenPrefix, ChecksWhatALogHolds) {
    const struct {
        uint32_t af;
        const char* address;
        uint32_t len;
        const char* prefixError;
        const char* otherError;  // Of the two types without a rule for the length.
    } cases[] = {
        {1, "a00::", 8, "", ""},
        {1, "a00::", 33, "Invalid IPv4 Prefix Length", ""},
        {1, "a00:1::", 8, nonZeroParts, ""},
        {1, "a00::1", 32, nonZeroParts, "Invalid IpGenAddr"},
        {2, "fe80::", 129, "Invalid IPv6 Prefix Length", ""},
        {0, "::", 1, "Invalid prefix", ""},
        {0, "::1", 0, nonZeroParts, "Invalid IpGenAddr"},
        {3, "::", 0, "Invalid AddressFamily", "Invalid AddressFamily"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.af) + " " + c.address + "/" + std::to_string(c.len));
        EXPECT_EQ(logErrorOf<IpGenPrefix>(c.af, c.address, c.len), c.prefixError);
        EXPECT_EQ(logErrorOf<IpGenPrefixBase>(c.af, c.address, c.len), c.otherError);
        EXPECT_EQ(logErrorOf<IpGenAddrWithMask>(c.af, c.address, c.len), c.otherError);
    }
    EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(1, "a00::", ip6("ff00::")), "");
    EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(1, "a00::", ip6("::ff00")), "Invalid IpGenAddr");
    EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(1, "::a00", ip6("ff00::")), "Invalid IpGenAddr");
    EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(0, "::", ip6("ff00::")), "Invalid IpGenAddr");
}

TEST(IpGenPrefix, KeepsTheValueLaws) {
    expectValueLaws<IpGenPrefix>({prefix("9.0.0.0/8"), prefix("10.0.0.0/32"), prefix("10.1.0.0/16"),
                                  prefix("10.0.0.0/8"), prefix("128.0.0.0/1"), prefix("0.0.0.0/0"),
                                  prefix("::/64"), prefix("fe80::/64"), prefix("fe80::/10"),
                                  prefix("::/0")});
    expectValueLaws<IpGenPrefix>({IpGenPrefix()},
                                 {.readsBack = "an unknown prefix prints the text of IPv6's ::/0"});
    EXPECT_LT(IpGenPrefix(), prefix("9.0.0.0/8"));
    EXPECT_EQ(IpGenPrefix().stringValue(), "::/0");
}

TEST(IpGenPrefix, TellsTheFamilyByTheFirstColonOrDot) {
    const struct {
        const char* text;
        const char* error;          // As a prefix.
        const char* withMaskError;  // As an address with mask.
    } cases[] = {
        {"10.0.0.0/8", "", ""},
        {"fe80::/10", "", ""},
        {"::ffff:10.0.0.0/104", "", ""},
        {"10.0.0.1/8", nonZeroText, ""},
        {"fe80::1/10", nonZeroText, ""},
        {"10.0.0.0/33", nonZeroText, ""},
        {"::/129", "Ip6AddrWithMask: prefix too long", "Ip6AddrWithMask: prefix too long"},
        {"::", "Ip6AddrWithMask: prefix size expected", "Ip6AddrWithMask: prefix size expected"},
        {"10.0.0.0", noEnd, noEnd},
        {"10.0.0.0/", noEnd, noEnd},
        {"10.0.0.256", noEnd, "Invalid IpAddr"},  // A prefix is asked for its "/" first.
        {"10.0.0.256/8", "Invalid IpAddr", "Invalid IpAddr"},
        {"1:2/64", "Ip6Addr: ':' expected", "Ip6Addr: ':' expected"},
        {"10/8", "Invalid prefix", "Invalid prefix"},
        {"/10.0.0.0", "Invalid prefix", "Invalid prefix"},
        {"10", "Invalid prefix", "Invalid prefix"},
        {"", "Invalid prefix", "Invalid prefix"},
        {"10.0.0.0/8 ", "Invalid prefix", "Invalid prefix"},
        {"fe80::/10/", "Invalid prefix", "Invalid prefix"},
    };
    for (const auto& c : cases) {
        IpGenPrefix value(ip("9.9.9.9"), 32);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        EXPECT_EQ(value.stringValue(), *c.error == '\0' ? c.text : "9.9.9.9/32");
        IpGenAddrWithMask masked(ip("9.9.9.9"), 9);
        EXPECT_EQ(textErrorOf(c.text, &masked), c.withMaskError) << c.text;
        EXPECT_EQ(masked.stringValue(), *c.withMaskError == '\0' ? c.text : "9.9.9.9/9");
    }
}

TEST(IpGenPrefix, ChecksItsParts) {
    const struct {
        std::string error;
        const char* expected;
    } cases[] = {
        {rangeErrorOf([] { IpGenPrefix(ip("10.0.0.0"), 33); }), "Invalid IPv4 Prefix Length"},
        {rangeErrorOf([] { IpGenPrefix(ip("10.0.0.1"), 33); }), "Invalid IPv4 Prefix Length"},
        {rangeErrorOf([] { IpGenPrefix(Prefix(ip("10.0.0.0"), 0xffffffff)); }),
         "Invalid IPv4 Prefix Length"},
        {rangeErrorOf([] { IpGenPrefix(ip("10.0.0.1"), 8); }), nonZeroParts},
        {rangeErrorOf([] { IpGenPrefix(ip("0.0.0.1"), 0); }), nonZeroParts},
        {rangeErrorOf([] { IpGenPrefix(ip("10.0.0.1"), 32); }), ""},
        {rangeErrorOf([] { IpGenPrefix(ip6("fe80::1"), 129); }), "Invalid IPv6 Prefix Length"},
        {rangeErrorOf([] { IpGenPrefix(ip6("fe80::1"), 10); }), nonZeroParts},
        {rangeErrorOf([] { IpGenPrefix(ip6("fe80::"), 10); }), ""},
        {rangeErrorOf([] { IpGenPrefix(gen("10.0.0.1"), 8); }), nonZeroParts},
        {rangeErrorOf([] { IpGenPrefix(IpGenAddr(), 1); }), "Invalid prefix"},
        {rangeErrorOf([] { IpGenPrefix(IpGenAddr(), 0); }), ""},
        {rangeErrorOf([] { IpGenPrefix(ipv4, 8, 0x0a000000, 1); }), nonZeroParts},
        {rangeErrorOf([] { IpGenPrefix(ipv6, 128, 0xfe800000, 0, 0, 1); }), ""},
        {rangeErrorOf([] { IpGenPrefix{IpGenPrefixBase(gen("10.0.0.1"), 8)}; }), nonZeroParts},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error, c.expected) << &c - cases;
    }
}

TEST(IpGenPrefix, ConvertsToAndFromTheFamilies) {
    const Prefix v4(ip("10.0.0.0"), 8);
    const Ip6Prefix v6(ip6("fe80::"), 10);
    EXPECT_EQ(static_cast<Prefix>(IpGenPrefix(v4)), v4);
    EXPECT_EQ(static_cast<Ip6Prefix>(IpGenPrefix(v6)), v6);
    EXPECT_EQ(IpGenPrefix(v6).v4Prefix(), Prefix());
    EXPECT_EQ(IpGenPrefix(v4).v6Prefix(), Ip6Prefix());
    EXPECT_EQ(IpGenPrefix(ipv4, 8, 0x0a000000), prefix("10.0.0.0/8"));
    EXPECT_EQ(IpGenPrefix(ipv6, 127, 1, 2, 3, 4), prefix("0:1:0:2:0:3:0:4/127"));
    EXPECT_EQ(IpGenPrefix(gen("10.0.0.1")), prefix("10.0.0.1/32"));
    EXPECT_EQ(IpGenPrefix(gen("::1")), prefix("::1/128"));
    EXPECT_EQ(IpGenPrefix(IpGenAddr()), IpGenPrefix());
    const IpGenPrefixBase parts = prefix("10.0.0.0/8");
    EXPECT_EQ(parts, IpGenPrefixBase(gen("10.0.0.0"), 8));
    EXPECT_EQ(IpGenPrefix(parts), prefix("10.0.0.0/8"));
    EXPECT_EQ(parts.hash(3), prefix("10.0.0.0/8").hash(3));
}

TEST(IpGenPrefix, ContainsAddressesOfItsFamilyAlone) {
    const struct {
        const char* prefix;
        const char* address;
        bool contains;
    } cases[] = {
        {"10.0.0.0/8", "10.255.0.1", true}, {"10.0.0.0/8", "11.0.0.0", false},
        {"10.0.0.1/32", "10.0.0.1", true},  {"10.0.0.1/32", "10.0.0.0", false},
        {"0.0.0.0/0", "1.2.3.4", true},     {"0.0.0.0/0", "::1", false},
        {"::/0", "ffff::", true},           {"::/0", "0.0.0.0", false},
        {"fe80::/10", "febf::1", true},     {"fe80::/10", "fec0::", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.prefix) + " " + c.address);
        EXPECT_EQ(prefix(c.prefix).contains(gen(c.address)), c.contains);
        EXPECT_EQ(withMask(c.prefix).contains(gen(c.address)), c.contains);
        EXPECT_EQ(fullMask(c.prefix).contains(gen(c.address)), c.contains);
        EXPECT_EQ(prefix(c.prefix).overlaps(IpGenPrefix(gen(c.address))), c.contains);
        EXPECT_EQ(IpGenPrefix(gen(c.address)).overlaps(prefix(c.prefix)), c.contains);
    }
    EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
    EXPECT_FALSE(IpGenAddrWithMask().contains(IpGenAddr()));
    EXPECT_FALSE(IpGenAddrWithFullMask().contains(IpGenAddr()));
    EXPECT_TRUE(IpGenAddrWithMask(ip("10.0.0.1"), 99).contains(gen("10.0.0.1")));
    EXPECT_FALSE(IpGenAddrWithMask(ip("10.0.0.1"), 99).contains(gen("10.0.0.0")));
    EXPECT_FALSE(fullMask("10.0.9.0/255.0.255.0").contains(gen("10.7.8.0")));
    EXPECT_TRUE(fullMask("10.0.9.0/255.0.255.0").contains(gen("10.7.9.1")));
}

TEST(IpGenPrefix, TellsHostsAndDefaultRoutes) {
    const struct {
        IpGenPrefix prefix;
        bool isHost;
        bool isDefault;
    } cases[] = {
        {prefix("10.0.0.1/32"), true, false}, {prefix("10.0.0.0/31"), false, false},
        {prefix("0.0.0.0/0"), false, true},   {prefix("::/0"), false, true},
        {prefix("::/32"), false, false},      {prefix("::1/128"), true, false},
        {IpGenPrefix(), false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.prefix.stringValue().c_str());
        EXPECT_EQ(c.prefix.isHost(), c.isHost);
        EXPECT_EQ(c.prefix.isDefaultRoutePrefix(), c.isDefault);
        EXPECT_TRUE(c.prefix.validAsPrefix());
    }
    EXPECT_FALSE(IpGenPrefixBase(gen("10.0.0.1"), 33).validAsPrefix());
    EXPECT_FALSE(IpGenPrefixBase(gen("10.0.0.1"), 8).validAsPrefix());
    EXPECT_TRUE(prefix("127.0.0.0/8").isLoopback() && prefix("ff02::/16").isLinkLocal());
    EXPECT_TRUE(prefix("ff05::/16").isRoutableMulticast() && prefix("::/0").isUnspecified());
    EXPECT_TRUE(prefix("240.0.0.0/4").isReserved(false) && prefix("224.0.0.0/4").isMulticast());
}

TEST(IpGenPrefix, HashesAndLogsItsFieldsInOrder) {
    const uint32_t address = ip6("a00::").hash();
    const uint32_t expected = Mox::Hash(5).mix(1).mix(address).mix(8).result();
    EXPECT_EQ(prefix("10.0.0.0/8").hash(5), expected);
    EXPECT_EQ(withMask("10.0.0.0/8").hash(5), expected);
    EXPECT_EQ(IpGenAddrWithFullMask(ip("10.0.0.0"), 8).hash(5),
              Mox::Hash(5).mix(1).mix(address).mix(ip6("ff00::").hash()).result());
    Mox::NboAttrLog::Out log;
    log << prefix("10.0.0.0/8");
    EXPECT_EQ(log.bytes, (Mox::Bytes{0, 0, 0, 1, 10, 0, 0, 0, 0, 0, 0, 0,
                                     0, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 8}));
}

// In the order of each family: IPv4 by address then length, IPv6 with a network behind all that
// lies in it.
TEST(IpGenAddrWithMask, KeepsTheValueLaws) {
    expectValueLaws<IpGenAddrWithMask>({withMask("10.0.0.0/8"), withMask("10.0.0.1/0"),
                                        withMask("10.0.0.1/8"), withMask("10.0.0.1/99"),
                                        withMask("fe80::1/64"), withMask("fe80::2/64"),
                                        withMask("fe80::1/10"), withMask("::1/0")});
    expectValueLaws<IpGenAddrWithMask>(
        {{IpGenAddr(), 7}, {}}, {.readsBack = "an unknown address prints the text of IPv6's ::"});
    EXPECT_LT(IpGenAddrWithMask(), withMask("0.0.0.0/0"));
}

TEST(IpGenAddrWithMask, ConvertsToAndFromTheFamilies) {
    const IpAddrWithMask v4(ip("10.0.0.1"), 99);
    const Ip6AddrWithMask v6(ip6("fe80::1"), 10);
    EXPECT_EQ(IpGenAddrWithMask(v4).v4AddrWithMask(), v4);
    EXPECT_EQ(IpGenAddrWithMask(v6).v6AddrWithMask(), v6);
    EXPECT_EQ(IpGenAddrWithMask(v6).v4AddrWithMask(), IpAddrWithMask());
    EXPECT_EQ(IpGenAddrWithMask(v4).v6AddrWithMask(), Ip6AddrWithMask());
    EXPECT_EQ(IpGenAddrWithMask(gen("10.0.0.1")), withMask("10.0.0.1/32"));
    EXPECT_EQ(IpGenAddrWithMask(gen("::1")), withMask("::1/128"));
    EXPECT_FALSE(IpGenAddrWithMask());
    EXPECT_TRUE(withMask("0.0.0.0/0") && withMask("::/0") && IpGenAddrWithMask(IpGenAddr(), 1));
}

TEST(IpGenAddrWithFullMask, KeepsTheValueLaws) {
    using PrefixLen = IpGenAddrWithFullMask::PrefixLen;
    expectValueLaws<IpGenAddrWithFullMask>({fullMask("0.0.0.0/0"), fullMask("10.0.0.0/255.0.255.0"),
                                            fullMask("10.0.0.0/16"), fullMask("10.0.0.1/0.0.0.1"),
                                            fullMask("::/0"), fullMask("fe80::/10"),
                                            fullMask("fe80::1/::1")});
    expectValueLaws<IpGenAddrWithFullMask>(
        {{}, {ip("10.1.2.3"), 24}, {ip6("fe80::1"), 10}},
        {.readsBack =
             "host bits that the mask leaves out are not shown, nor is an unknown family"});
    expectValueLaws<PrefixLen>({0, 32, 128, PrefixLen::invalid});
    EXPECT_EQ(rangeErrorOf([] { PrefixLen(130); }),
              "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed");
}

TEST(IpGenAddrWithFullMask, ReadsLengthsAndMasksOfOneFamily) {
    const char* const noFamily = "Invalid IPv4/IPv6 address";
    const struct {
        const char* text;
        const char* error;
        const char* canonical;
    } cases[] = {
        {"10.1.2.3/24", "", "10.1.2.0/24"},
        {"10.1.2.3/255.255.255.0", "", "10.1.2.0/24"},
        {"10.1.2.3/255.0.255.0", "", "10.1.2.3/255.0.255.0"},
        {"10.1.2.3/0", "", "0.0.0.0/0"},
        {"fe80::1/64", "", "fe80::/64"},
        {"fe80::1/ffff::", "", "fe80::/16"},
        {"fe80::1/ffff::1", "", "fe80::1/ffff::1"},
        {"::ffff:10.1.2.3/96", "", "::ffff:0.0.0.0/96"},
        {"10.1.2.256/24", "Invalid IPv4 address", ""},
        {"10.1.2/24", "Invalid IPv4 address", ""},
        {"10.1.2.3/255.0.0", "Invalid IPv4 mask", ""},
        {"10.1.2.3/255.0.0.256", "Invalid IPv4 mask", ""},
        {"10.1.2.3/ffff::", "Invalid IPv4 mask", ""},
        {"10.1.2.3/x", "Invalid IPv4 mask", ""},
        {"10.1.2.3/33", "Invalid IPv4 prefix length", ""},
        {"10.1.2.3/4294967304", "Invalid IPv4 prefix length", ""},
        {"10.1.2.3", noEnd, ""},
        {"10.1.2.3/", noEnd, ""},
        {"10.1.2.3 /24", noEnd, ""},
        {"1:2::3::/64", "Invalid IPv6 address", ""},
        {"fe80::1/64f", "Invalid IPv6 mask", ""},
        {"fe80::1/255.0.0.0", "Invalid IPv6 mask", ""},
        {"fe80::1/129", "Invalid IPv6 prefix", ""},
        {"fe80::1", noEnd, ""},
        {"fe80::1/", noEnd, ""},
        {"10/8", noFamily, ""},
        {"10", noFamily, ""},
        {"", noFamily, ""},
        {"10.1.2.3/24 ", noFamily, ""},
    };
    for (const auto& c : cases) {
        const IpGenAddrWithFullMask before(ip("9.9.9.9"), ip("9.9.9.9"));
        IpGenAddrWithFullMask value = before;
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        if (*c.error == '\0') {
            EXPECT_EQ(value.stringValue(), c.canonical);
        } else {
            EXPECT_EQ(value, before) << c.text;
        }
    }
}

TEST(IpGenAddrWithFullMask, TakesLengthsThatTheFamilyHas) {
    EXPECT_EQ(IpGenAddrWithFullMask(ip("10.0.0.1"), 32), fullMask("10.0.0.1/32"));
    EXPECT_EQ(IpGenAddrWithFullMask(ip6("::1"), 128), fullMask("::1/128"));
    EXPECT_EQ(rangeErrorOf([] { IpGenAddrWithFullMask(ip("10.0.0.1"), 33); }),
              "Invalid IPv4 prefix length");
    EXPECT_EQ(rangeErrorOf([] { IpGenAddrWithFullMask(ip6("::1"), 129); }), "Invalid IPv6 prefix");
}

TEST(IpGenAddrWithFullMask, LooksAtItsMask) {
    const struct {
        IpGenAddrWithFullMask value;
        uint32_t prefixLen;
        bool isHost;
        bool validAsPrefix;
    } cases[] = {
        {{ip("10.1.2.3"), ip("255.255.255.255")}, 32, true, true},
        {{ip("10.1.2.3"), ip("255.255.255.0")}, 24, false, false},
        {{ip("10.1.2.0"), ip("255.255.255.0")}, 24, false, true},
        {{ip("10.1.2.0"), ip("255.0.255.0")}, 129, false, false},
        {{ip("0.0.0.0"), ip("0.0.0.0")}, 0, false, true},
        {{ip6("::1"), ip6AddrFromPrefixLen(128)}, 128, true, true},
        {{ip6("::"), ip6("ffff:ffff::")}, 32, false, true},
        {{ip6("::"), ip6("ffff::1")}, 129, false, false},
        {{}, 0, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value.stringValue().c_str());
        EXPECT_EQ(c.value.prefixLen(), c.prefixLen);
        EXPECT_EQ(c.value.isHost(), c.isHost);
        EXPECT_EQ(c.value.validAsPrefix(), c.validAsPrefix);
        EXPECT_EQ(static_cast<bool>(c.value), c.value.af() != ipunknown);
    }
}

TEST(IpGenPrefix, TracesWhatItDetects) {
    static std::string traced;
    const auto before =
        Mox::traceSinkIs([](const char* facility, int level, std::string_view text) {
            traced +=
                std::string(facility) + "/" + std::to_string(level) + ":" + std::string(text) + ";";
        });
    Mox::traceSettingsIs("Pavo::IpGenPrefix/9,Pavo::IpGenAddrWithMask/9");
    (void)prefix("10.0.0.0/8");
    (void)withMask("::1/64");
    Mox::traceSettingsIs("Pavo::IpGenPrefix/0-8,Pavo::IpGenAddrWithMask/0-8");
    (void)prefix("::/0");
    (void)withMask("::/0");
    Mox::traceSettingsIs("Pavo::IpGenPrefix/,Pavo::IpGenAddrWithMask/");
    Mox::traceSinkIs(before);
    EXPECT_EQ(traced,
              "Pavo::IpGenPrefix/9: Detected prefix ;"
              "Pavo::IpGenAddrWithMask/9: Detected address ;");
}

}  // namespace
}  // namespace Pavo
