// Prefixes and addresses with masks: what the types of one family and the generic ones share.
#include "Pavo/IpGenPrefix.h"

#include <gtest/gtest.h>

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
constexpr const char* noEnd = "premature end of Prefix type";

// The order is that of each family: for addresses with masks IPv4 by address then length, IPv6 with
// a network behind all that lies in it.
TEST(IpGenPrefix, KeepsTheValueLaws) {
    expectValueLaws<IpGenPrefixBase>({{},
                                      {IpGenAddr(), 7},
                                      {gen("10.0.0.1"), 8},
                                      {gen("10.0.0.1"), 99},
                                      {gen("11.0.0.0"), 0},
                                      {gen("::"), 0xffffffff},
                                      {gen("::a00:1"), 8}});
    expectValueLawsOf<IpGenPrefix>({"9.0.0.0/8", "10.0.0.0/32", "10.1.0.0/16", "10.0.0.0/8",
                                    "128.0.0.0/1", "0.0.0.0/0", "::/64", "fe80::/64", "fe80::/10",
                                    "::/0"});
    expectValueLawsOf<IpGenAddrWithMask>({"10.0.0.0/8", "10.0.0.1/0", "10.0.0.1/8", "10.0.0.1/99",
                                          "fe80::1/64", "fe80::2/64", "fe80::1/10", "::1/0"});
    expectValueLawsOf<IpGenAddrWithFullMask>({"0.0.0.0/0", "10.0.0.0/255.0.255.0", "10.0.0.0/16",
                                              "10.0.0.1/0.0.0.1", "::/0", "fe80::/10",
                                              "fe80::1/::1", "fe80::1/10"});
    EXPECT_TRUE(IpGenPrefix() < prefix("9.0.0.0/8") && IpGenAddrWithMask() < withMask("0.0.0.0/0"));

    const char* const unknown = "an unknown family prints the text of IPv6's ::";
    expectValueLaws<IpGenPrefix>({IpGenPrefix()}, unknown);
    expectValueLaws<IpGenAddrWithMask>({{IpGenAddr(), 7}, {}}, unknown);
    expectValueLaws<IpGenAddrWithFullMask>({{}}, unknown);
    expectValueLaws<IpGenAddrWithFullMask>({{ip("10.1.2.3"), 24}},
                                           "host bits that the mask leaves out are not shown");
}

TEST(IpGenPrefixBase, ReadsARecordWithoutBytesOutsideTheFamily) {
    const std::string record = "Value('Pavo::IpGenPrefixBase', ** {'af': ";
    const auto with = [&](const char* fields) { return record + fields + ", 'len': 99})"; };
    EXPECT_EQ(IpGenPrefixBase(gen("10.0.0.1"), 99).stringValue(), with("ipv4, 'address': a00:1::"));
    IpGenPrefixBase value(gen("::9"), 9);
    for (const char* fields : {"ipv4, 'address': ::1", "ipunknown, 'address': a00::"}) {
        EXPECT_EQ(textErrorOf(with(fields), &value), "Invalid IpGenPrefixBase");
    }
    EXPECT_EQ(textErrorOf(with("ipv5, 'address': a00::"), &value), "Invalid AddressFamily");
    EXPECT_EQ(textErrorOf("10.0.0.0/8", &value), "Invalid IpGenPrefixBase");
}

TEST(IpGenPrefix, TellsTheFamilyByTheFirstColonOrDot) {
    expectReads<IpGenPrefix>({{"10.0.0.0/8"}, {"fe80::/10"}, {"::ffff:10.0.0.0/104"}});
    expectReads<IpGenAddrWithMask>({{"10.0.0.1/33"}, {"fe80::1/10"}, {"::ffff:10.0.0.0/104"}});
    const std::vector<BadTexts> both = {
        {"Invalid prefix", {"10/8", "/10.0.0.0", "10", "", "10.0.0.0/8 ", "fe80::/10/"}},
        {noEnd, {"10.0.0.0", "10.0.0.0/"}},
        {"Invalid IpAddr", {"10.0.0.256/8"}},
        {"Ip6Addr: ':' expected", {"1:2/64"}},
        {"Ip6AddrWithMask: prefix too long", {"::/129"}},
        {"Ip6AddrWithMask: prefix size expected", {"::"}}};
    expectRefuses(prefix("9.9.9.9/32"), both);
    expectRefuses(prefix("9.9.9.9/32"), {{nonZeroText, {"10.0.0.1/8", "fe80::1/10", "10.0.0.0/33"}},
                                         {noEnd, {"10.0.0.256"}}});  // The "/" is sought first.
    expectRefuses(withMask("9.9.9.9/9"), both);
    expectRefuses(withMask("9.9.9.9/9"), {{"Invalid IpAddr", {"10.0.0.256"}}});
}

TEST(IpGenPrefix, RefusesHostBitsAndLongLengthsInPartsAndLogs) {
    const char* const bits = "Invalid prefix - Non-zero after prefix length";
    const char* const bad4 = "Prefix::validAsPrefix != true not allowed";
    const char* const bad6 = "Ip6Prefix::validAsPrefix != true not allowed";
    const struct {
        const char* familyError;
        const char* error;
        std::vector<std::pair<const char*, uint32_t>> parts;
    } cases[] = {
        {"", "", {{"10.0.0.1", 32}, {"10.0.0.0", 7}, {"0.0.0.0", 0}}},
        {"", "", {{"fe80::", 9}, {"1:2:3:4:8000::", 65}, {"::1", 128}}},
        {bad4, bits, {{"10.0.0.1", 31}, {"10.0.0.0", 6}, {"0.0.0.1", 0}}},
        {bad4, "Invalid IPv4 Prefix Length", {{"0.0.0.0", 33}, {"10.0.0.1", 64}}},
        {bad4, "Invalid IPv4 Prefix Length", {{"0.0.0.0", 0xfffffffe}}},
        {"", "Invalid IPv4 Prefix Length", {{"10.0.0.0", 0xffffffff}}},  // Good in IPv4 alone.
        {bad6, bits, {{"::1", 0}, {"fe80::", 8}, {"1:2:3:4:8000::", 64}, {"::1", 127}}},
        {"len <= 128", "Invalid IPv6 Prefix Length", {{"::", 129}}},
    };
    for (const auto& c : cases) {
        for (const auto& [text, len] : c.parts) {
            SCOPED_TRACE(std::string(text) + "/" + std::to_string(len));
            const IpGenAddr address = gen(text);
            const IpGenPrefixBase base(address, len);
            if (address.af() == ipv4) {
                EXPECT_EQ(rangeErrorOf([&, l = len] { Prefix(base.v4Addr(), l); }), c.familyError);
                EXPECT_EQ(logErrorOf<Prefix>(base.v4Addr(), len), c.familyError);
            } else {
                EXPECT_EQ(rangeErrorOf([&, l = len] { Ip6Prefix(base.v6Addr(), l); }),
                          c.familyError);
                EXPECT_EQ(logErrorOf<Ip6Prefix>(base.v6Addr(), len), c.familyError);
            }
            EXPECT_EQ(rangeErrorOf([&] { IpGenPrefix{base}; }), c.error);
            EXPECT_EQ(logErrorOf<IpGenPrefix>(base), c.error);
            EXPECT_EQ(logErrorOf<IpGenAddrWithMask>(base), "");
            EXPECT_EQ(base.validAsPrefix(), *c.error == '\0');
        }
    }
    EXPECT_EQ(rangeErrorOf([] { IpGenPrefix(IpGenAddr(), 1); }), "Invalid prefix");
    EXPECT_EQ(rangeErrorOf([] { IpGenPrefix(ipv4, 8, 0x0a000000, 1); }), bits);
}

TEST(IpGenPrefix, RefusesALogWithBytesOutsideTheFamily) {
    const struct {
        uint32_t af;
        const char* bytes;
        const char* error;
    } cases[] = {
        {0, "::", ""},      {0, "::1", "Invalid IpGenAddr"},
        {1, "a00:1::", ""}, {1, "a00:1:8000::", "Invalid IpGenAddr"},
        {2, "::1", ""},     {3, "::", "Invalid AddressFamily"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        const Ip6Addr address = ip6(c.bytes);
        EXPECT_EQ(logErrorOf<IpGenAddr>(c.af, address), c.error);
        EXPECT_EQ(logErrorOf<IpGenPrefixBase>(c.af, address, 8u), c.error);
        EXPECT_EQ(logErrorOf<IpGenAddrWithMask>(c.af, address, 8u), c.error);
        EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(c.af, address, ip6("::")), c.error);
        EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(c.af, ip6("::"), address), c.error);
    }
}

TEST(IpGenPrefix, ConvertsToAndFromTheFamilies) {
    const Prefix v4(ip("10.0.0.0"), 8);
    const Ip6Prefix v6(ip6("fe80::"), 10);
    EXPECT_EQ(static_cast<Prefix>(IpGenPrefix(v4)), v4);
    EXPECT_EQ(static_cast<Ip6Prefix>(IpGenPrefix(v6)), v6);
    EXPECT_TRUE(IpGenPrefix(v6).v4Prefix() == Prefix() &&
                IpGenPrefix(v4).v6Prefix() == Ip6Prefix());
    EXPECT_EQ(IpGenPrefix(ipv6, 127, 1, 2, 3, 4), prefix("0:1:0:2:0:3:0:4/127"));
    const IpGenAddrWithMask masked4(gen("10.0.0.1"), 99), masked6(gen("fe80::1"), 10);
    EXPECT_EQ(masked4.v4AddrWithMask(), IpAddrWithMask(ip("10.0.0.1"), 99));
    EXPECT_EQ(masked6.v6AddrWithMask(), Ip6AddrWithMask(ip6("fe80::1"), 10));
    EXPECT_EQ(masked6.v4AddrWithMask(), IpAddrWithMask());
    EXPECT_EQ(masked4.v6AddrWithMask(), Ip6AddrWithMask());
    EXPECT_EQ(IpGenPrefix(gen("10.0.0.1")), prefix("10.0.0.1/32"));
    EXPECT_EQ(IpGenAddrWithMask(gen("::1")), withMask("::1/128"));
    EXPECT_FALSE(IpGenAddrWithMask() || IpGenAddrWithFullMask());
    EXPECT_TRUE(withMask("::/0") && fullMask("0.0.0.0/0") && IpGenAddrWithMask(IpGenAddr(), 1));
}

TEST(IpGenPrefix, ContainsAddressesOfItsFamilyAlone) {
    const struct {
        const char* prefix;
        const char* inside;
        const char* outside;
    } cases[] = {
        {"10.0.0.0/8", "10.255.0.1", "11.0.0.0"},
        {"10.0.0.1/32", "10.0.0.1", "10.0.0.0"},
        {"0.0.0.0/0", "1.2.3.4", "::1"},
        {"::/0", "ffff::", "0.0.0.0"},
        {"fe80::/10", "febf::1", "fec0::"},
        {"2001:db8::/31", "2001:db9::", "2001:dba::"},
        {"1::1/128", "1::1", "1::"},
    };
    for (const auto& c : cases) {
        const IpGenPrefix net = prefix(c.prefix);
        for (const bool contains : {true, false}) {
            const IpGenPrefix host(gen(contains ? c.inside : c.outside));
            SCOPED_TRACE((net.stringValue() + " " + host.stringValue()).c_str());
            EXPECT_EQ(net.contains(host.ipGenAddr()), contains);
            EXPECT_EQ(fullMask(c.prefix).contains(host.ipGenAddr()), contains);
            EXPECT_TRUE(net.overlaps(host) == contains && host.overlaps(net) == contains);
            if (net.af() == ipv6 && host.af() == ipv6) {
                EXPECT_EQ(net.v6Prefix().overlaps(host.v6Prefix()), contains);
                EXPECT_EQ(host.v6Prefix().overlaps(net.v6Prefix()), contains);
            }
        }
    }
    EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()) || IpGenAddrWithMask().contains(IpGenAddr()) ||
                 IpGenAddrWithFullMask().contains(IpGenAddr()));
    const IpGenAddrWithMask longer(gen("10.0.0.1"), 99);
    EXPECT_TRUE(longer.contains(gen("10.0.0.1")) && !longer.contains(gen("10.0.0.0")));
    EXPECT_FALSE(Ip6AddrWithMask(ip6("1::1"), 200).contains(ip6("1::")));
    const IpGenAddrWithFullMask odd = fullMask("10.0.9.0/255.0.255.0");
    EXPECT_TRUE(odd.contains(gen("10.7.9.1")) && !odd.contains(gen("10.7.8.0")));
}

TEST(IpGenPrefix, TellsHostsAndDefaultRoutes) {
    const struct {
        const char* text;
        bool isHost, isDefault;
    } cases[] = {{"10.0.0.1/32", true, false},  {"::/128", true, false}, {"0.0.0.0/0", false, true},
                 {"10.0.0.0/31", false, false}, {"::/32", false, false}, {"::/1", false, false},
                 {"::/0", false, true}};
    for (const auto& [text, isHost, isDefault] : cases) {
        SCOPED_TRACE(text);
        const IpGenPrefix any = prefix(text);
        EXPECT_EQ(any.isHost(), isHost);
        EXPECT_EQ(any.isDefaultRoutePrefix(), isDefault);
        EXPECT_EQ(any.v6Prefix().isHostRoutePrefix(), any.af() == ipv6 && isHost);
        EXPECT_EQ(any.v6Prefix().isDefaultRoutePrefix(), any.af() == ipv4 || isDefault);
    }
    EXPECT_FALSE(IpGenPrefix().isHost() || IpGenPrefix().isDefaultRoutePrefix());
    EXPECT_TRUE(prefix("127.0.0.0/8").isLoopback() && prefix("ff02::/16").isLinkLocal());
    EXPECT_TRUE(prefix("ff05::/16").isRoutableMulticast() && prefix("::/0").isUnspecified());
    EXPECT_TRUE(prefix("240.0.0.0/4").isReserved(false) && prefix("224.0.0.0/4").isMulticast());
}

TEST(IpGenPrefix, AddsHostBitsThatFit) {
    const struct {
        const char* prefix;
        const char* host;
        const char* result;  // Or error.
    } cases[] = {
        {"10.0.0.0/8", "0.255.255.255", "10.255.255.255"},
        {"10.0.0.0/8", "1.0.0.0", "Host address too long"},
        {"1.2.3.4/32", "0.0.0.1", "Host address too long"},
        {"0.0.0.0/0", "255.255.255.255", "255.255.255.255"},
        {"1:2:3:4::/64", "::ffff:ffff:ffff:ffff", "1:2:3:4:ffff:ffff:ffff:ffff"},
        {"1:2:3:4::/64", "::1:0:0:0:0", "Host address is too long"},
        {"1::1/128", "::1", "Host address is too long"},
        {"::/0", "ffff::1", "ffff::1"},
    };
    for (const auto& c : cases) {
        const IpGenPrefix net = prefix(c.prefix);
        const IpGenAddr host = gen(c.host);
        IpGenAddr result;
        const std::string error = rangeErrorOf([&] {
            result = net.af() == ipv4 ? IpGenAddr(net.v4Prefix().subnetHost(host.v4Addr()))
                                      : IpGenAddr(net.v6Prefix().subnetHost(host.v6Addr()));
        });
        EXPECT_EQ(error.empty() ? result.stringValue() : error, c.result) << c.prefix << c.host;
    }
    EXPECT_EQ(Prefix(ip("1.0.0.0"), 0xffffffff).subnetHost(ip("2.0.0.1")), ip("3.0.0.1"));
}

// Other processes read these logs, and hold keys by hashes of the fields in the same order.
TEST(IpGenPrefix, LogsAndHashesItsFieldsInOrder) {
    const IpAddr v4 = ip("10.0.0.0");
    const Ip6Addr v6 = ip6("a00::");
    EXPECT_EQ(logOf(IpAndPort(v4, 80)), (Mox::Bytes{10, 0, 0, 0, 0, 0, 0, 80}));
    EXPECT_EQ(logOf(Prefix(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(IpAddrWithMask(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(IpAddrWithFullMask(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(Ip6Prefix(v6, 8)), logOf(v6, 8u));
    EXPECT_EQ(logOf(Ip6AddrWithMask(v6, 8)), logOf(v6, 8u));
    EXPECT_EQ(logOf(Ip6AddrWithFullMask(v6, ip6("::1"))), logOf(v6, ip6("::1")));
    EXPECT_EQ(logOf(IpGenPrefix(v4, 8)), logOf(1u, v6, 8u));
    EXPECT_EQ(logOf(IpGenAddrWithMask(v4, 8)), logOf(1u, v6, 8u));
    EXPECT_EQ(logOf(IpGenAddrWithFullMask(v4, 8)), logOf(1u, v6, ip6("ff00::")));
    EXPECT_EQ(Prefix(v4, 8).hash(5), Mox::Hash(5).mix(v4.hash()).mix(8).result());
    EXPECT_EQ(IpGenPrefix(v4, 8).hash(5), Mox::Hash(5).mix(1).mix(v6.hash()).mix(8).result());
}

TEST(IpGenAddrWithFullMask, ReadsLengthsAndMasksOfOneFamily) {
    expectReads<IpGenAddrWithFullMask>({
        {"10.1.2.3/24", "10.1.2.0/24"},
        {"10.1.2.3/255.255.255.0", "10.1.2.0/24"},
        {"10.1.2.3/255.0.255.0"},
        {"10.1.2.3/0", "0.0.0.0/0"},
        {"fe80::1/64"},
        {"fe80::1/ffff::", "fe80::1/16"},
        {"fe80::1/ffff::1"},
        {"::ffff:10.1.2.3/96"},
    });
    expectRefuses(IpGenAddrWithFullMask(ip("9.9.9.9"), ip("9.9.9.9")),
                  {{"Invalid IPv4 address", {"10.1.2.256/24", "10.1.2/24"}},
                   {"Invalid IPv4 mask",
                    {"10.1.2.3/255.0.0", "10.1.2.3/255.0.0.256", "10.1.2.3/ffff::", "10.1.2.3/x"}},
                   {"Invalid IPv4 prefix length", {"10.1.2.3/33", "10.1.2.3/4294967304"}},
                   {"Invalid IPv6 address", {"1:2::3::/64"}},
                   {"Invalid IPv6 mask", {"fe80::1/64f", "fe80::1/255.0.0.0"}},
                   {"Invalid IPv6 prefix", {"fe80::1/129"}},
                   {noEnd, {"10.1.2.3", "10.1.2.3/", "10.1.2.3 /24", "fe80::1", "fe80::1/"}},
                   {"Invalid IPv4/IPv6 address", {"10/8", "10", "", "10.1.2.3/24 "}}});
    EXPECT_EQ(IpGenAddrWithFullMask(ip("10.0.0.1"), 32), fullMask("10.0.0.1/32"));
    EXPECT_EQ(IpGenAddrWithFullMask(ip6("::1"), 128), fullMask("::1/128"));
    EXPECT_EQ(rangeErrorOf([] { IpGenAddrWithFullMask(ip("10.0.0.1"), 256 + 24); }),
              "Invalid IPv4 prefix length");
    EXPECT_EQ(rangeErrorOf([] { IpGenAddrWithFullMask(ip6("::1"), 129); }), "Invalid IPv6 prefix");
    for (const std::string_view text :
         {"10.1.2.0/24: up", "10.1.2.0/24. up", "10.1.2.0/24a", "fe80::1/64: up"}) {
        IpGenAddrWithFullMask read;
        const char* at = text.data();
        sequenceToValue(at, text.data() + text.size(), &read);
        EXPECT_TRUE(text.starts_with(read.stringValue().view())) << text;
        EXPECT_EQ(at, text.data() + read.stringValue().bytes()) << text;
    }
}

TEST(IpGenAddrWithFullMask, LooksAtItsMask) {
    const struct {
        IpGenAddrWithFullMask value;
        uint32_t prefixLen;
        bool isHost;
        bool validAsPrefix;
    } cases[] = {
        {fullMask("10.1.2.3/255.255.255.255"), 32, true, true},
        {fullMask("10.1.2.3/255.255.255.0"), 24, false, false},
        {fullMask("10.1.2.0/255.255.255.0"), 24, false, true},
        {fullMask("10.1.2.0/255.0.255.0"), 129, false, false},
        {fullMask("0.0.0.0/0.0.0.0"), 0, false, true},
        {fullMask("::1/128"), 128, true, true},
        {fullMask("::/ffff::1"), 129, false, false},
        {{}, 0, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value.stringValue().c_str());
        EXPECT_EQ(c.value.prefixLen(), c.prefixLen);
        EXPECT_EQ(c.value.isHost(), c.isHost);
        EXPECT_EQ(c.value.validAsPrefix(), c.validAsPrefix);
    }
}

}  // namespace
}  // namespace Pavo
