#include <gtest/gtest.h>

#include "Pavo/Ip6Addr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

Ip6Addr ip6(const char* text) {
    return Mox::fromText<Ip6Addr>(text);
}
Ip6Prefix prefix(const char* text) {
    return Mox::fromText<Ip6Prefix>(text);
}
Ip6AddrWithMask withMask(const char* text) {
    return Mox::fromText<Ip6AddrWithMask>(text);
}

constexpr const char* noLength = "Ip6AddrWithMask: prefix size expected";
constexpr const char* tooLong = "Ip6AddrWithMask: prefix too long";

TEST(Ip6PrefixLen, RunsTo129) {
    expectValueLaws<Ip6PrefixLen>({0, 64, Ip6PrefixLen::max, Ip6PrefixLen::invalid});
    EXPECT_EQ(rangeErrorOf([] { Ip6PrefixLen(130); }),
              "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed");
    Ip6PrefixLen len(1);
    EXPECT_EQ(textErrorOf("130", &len), "Invalid Ip6PrefixLen");
}

// A network comes behind all that lies in it, with host bits or without.
TEST(Ip6AddrWithMask, KeepsTheValueLaws) {
    expectValueLaws<Ip6AddrWithMask>({withMask("2001:db8::1/128"),
                                      withMask("2001:db8::/64"),
                                      withMask("2001:db8::9/64"),
                                      withMask("2001:db8::5/32"),
                                      withMask("fe80::/64"),
                                      withMask("fe80::/10"),
                                      withMask("ff00::1/128"),
                                      withMask("ff00::/8"),
                                      {}});
    EXPECT_LT(Ip6AddrWithMask(ip6("ff00::1"), 200), withMask("ff00::1/128"));
}

TEST(Ip6AddrWithMask, ReadsAnyAddressAndALengthUpTo128) {
    const struct {
        const char* text;
        const char* error;
        Ip6AddrWithMask value;
    } cases[] = {
        {"2001:db8::1/32", "", {ip6("2001:db8::1"), 32}},
        {"::/0", "", {}},
        {"::1/00128", "", {ip6("::1"), 128}},
        {"1:2:3:4:5:6:7:8/128", "", {ip6("1:2:3:4:5:6:7:8"), 128}},
        {"::ffff:1.2.3.4/96", "", {ip6("::ffff:1.2.3.4"), 96}},
        {"::1/129", tooLong, {}},
        {"::1/4294967360", tooLong, {}},  // 2^32 + 64: no wrap to 64.
        {"::1", noLength, {}},
        {"::1/", noLength, {}},
        {"::1/x", noLength, {}},
        {"::1/-1", noLength, {}},
        {"::1 /64", noLength, {}},
        {"::1/64x", noLength, {}},
        {"1:2/64", "Ip6Addr: ':' expected", {}},
        {"/64", "Ip6Addr: leading hex digit expected", {}},
    };
    for (const auto& c : cases) {
        const Ip6AddrWithMask before(ip6("9::9"), 9);
        Ip6AddrWithMask value = before;
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        EXPECT_EQ(value, *c.error == '\0' ? c.value : before) << c.text;
    }
}

TEST(Ip6AddrWithMask, ComparesTheFirstBitsAlone) {
    const struct {
        Ip6AddrWithMask a;
        Ip6AddrWithMask b;
        bool aContains;  // The other's address.
        bool bContains;
    } cases[] = {
        {withMask("2001:db8::1/32"), withMask("2001:db8:ffff::/48"), true, false},
        {withMask("2001:db8::1/32"), withMask("2001:db9::/32"), false, false},
        {withMask("2001:db8::/31"), withMask("2001:db9::/32"), true, false},
        {withMask("::/0"), withMask("ffff::/16"), true, false},
        {withMask("1::1/128"), withMask("1::1/128"), true, true},
        {withMask("1::1/128"), withMask("1::/127"), false, true},
        {{ip6("1::1"), 200}, withMask("1::1/128"), true, true},
        {{ip6("1::1"), 200}, withMask("1::/128"), false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE((c.a.stringValue() + " " + c.b.stringValue()).c_str());
        EXPECT_EQ(c.a.contains(c.b.address()), c.aContains);
        EXPECT_EQ(c.b.contains(c.a.address()), c.bContains);
        EXPECT_EQ(c.a.overlaps(c.b), c.aContains || c.bContains);
        EXPECT_EQ(c.b.overlaps(c.a), c.aContains || c.bContains);
    }
}

TEST(Ip6AddrWithMask, LosesItsHostBitsAsASubnet) {
    const Ip6AddrWithMask host = withMask("2001:db8::1:2/112");
    EXPECT_FALSE(host.validAsPrefix());
    EXPECT_EQ(host.subnet(), withMask("2001:db8::1:0/112"));
    EXPECT_TRUE(host.subnet().validAsPrefix());
    const Ip6AddrWithMask longer(ip6("::1"), 129);
    EXPECT_EQ(longer.subnet(), longer);
    EXPECT_EQ(rangeErrorOf([&] { (void)longer.validAsPrefix(); }), "len <= 128");
}

TEST(Ip6Prefix, KeepsTheValueLaws) {
    expectValueLaws<Ip6Prefix>({prefix("::ffff:1.2.3.4/128"), prefix("2001:db8::/128"),
                                prefix("2001:db8::/64"), prefix("2001:db8:0:1::/64"),
                                prefix("2001:db8::/32"), prefix("fe80::/64"), ip6LinkLocalPrefix,
                                prefix("8000::/1"), prefix("::/0")});
    EXPECT_EQ(ip6LinkLocalPrefix.stringValue(), "fe80::/10");
}

TEST(Ip6Prefix, RefusesHostBitsAtEveryDoor) {
    const char* const nonZero = "Invalid Prefix - non-zero after prefixlen";
    const char* const badParts = "Ip6Prefix::validAsPrefix != true not allowed";
    const struct {
        const char* address;
        uint32_t len;
        const char* textError;
        const char* partsError;
    } cases[] = {
        {"::", 0, "", ""},
        {"::1", 0, nonZero, badParts},
        {"fe80::", 10, "", ""},
        {"fe80::", 9, "", ""},
        {"fe80::", 8, nonZero, badParts},
        {"1:2:3:4::", 64, "", ""},
        {"1:2:3:4:8000::", 64, nonZero, badParts},
        {"1:2:3:4:8000::", 65, "", ""},
        {"::1", 127, nonZero, badParts},
        {"::1", 128, "", ""},
        {"::", 129, tooLong, "len <= 128"},
        {"::", 0xffffffff, tooLong, "len <= 128"},
    };
    for (const auto& c : cases) {
        const std::string text = std::string(c.address) + "/" + std::to_string(c.len);
        SCOPED_TRACE(text);
        Ip6Prefix value;
        EXPECT_EQ(textErrorOf(text, &value), c.textError);
        EXPECT_EQ(rangeErrorOf([&] { Ip6Prefix(ip6(c.address), c.len); }), c.partsError);
        Mox::NboAttrLog::Out log;
        log << ip6(c.address);
        log.u32(c.len);
        Mox::NboAttrLog::In in(log.bytes);
        EXPECT_EQ(rangeErrorOf([&] { Ip6Prefix(&in, Mox::StreamBogon()); }), c.partsError);
    }
    Ip6Prefix value;
    EXPECT_EQ(textErrorOf("fe80::/10 ", &value), nonZero);
    EXPECT_EQ(textErrorOf("fe80::", &value), noLength);
}

TEST(Ip6Prefix, AddsHostBitsThatFit) {
    const char* const error = "Host address is too long";
    const struct {
        const char* prefix;
        const char* host;
        const char* error;
        const char* result;
    } cases[] = {
        {"2001:db8::/32", "0:0:ffff::1", "", "2001:db8:ffff::1"},
        {"2001:db8::/32", "0:1::", error, ""},
        {"1:2:3:4::/64", "::ffff:ffff:ffff:ffff", "", "1:2:3:4:ffff:ffff:ffff:ffff"},
        {"1:2:3:4::/64", "::1:0:0:0:0", error, ""},
        {"1::1/128", "::", "", "1::1"},
        {"1::1/128", "::1", error, ""},
        {"::/0", "ffff::1", "", "ffff::1"},
    };
    for (const auto& c : cases) {
        Ip6Addr result;
        EXPECT_EQ(rangeErrorOf([&] { result = prefix(c.prefix).subnetHost(ip6(c.host)); }),
                  c.error);
        if (*c.error == '\0') {
            EXPECT_EQ(result, ip6(c.result));
        }
    }
}

TEST(Ip6Prefix, TellsDefaultAndHostRoutes) {
    const struct {
        const char* text;
        bool isDefault;
        bool isHost;
    } cases[] = {
        {"::/0", true, false},    {"::/1", false, false},   {"::/128", false, true},
        {"::1/128", false, true}, {"::/127", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(prefix(c.text).isDefaultRoutePrefix(), c.isDefault) << c.text;
        EXPECT_EQ(prefix(c.text).isNullPrefix(), c.isDefault) << c.text;
        EXPECT_EQ(prefix(c.text).isHostRoutePrefix(), c.isHost) << c.text;
    }
}

TEST(Ip6AddrWithFullMask, KeepsTheValueLaws) {
    expectValueLaws<Ip6AddrWithFullMask>({{},
                                          {ip6("2001:db8::"), ip6("ffff:ffff::")},
                                          {ip6("2001:db8::"), ip6("ffff:ffff:ff00:ff::")},
                                          {ip6("2001:db8::1"), ip6("::1")},
                                          {ip6("2001:db8::1"), ip6AddrFromPrefixLen(128)}});
    expectValueLaws<Ip6AddrWithFullMask>(
        {{ip6("2001:db8::1"), ip6("ffff:ffff::")}},
        {.readsBack = "host bits that the mask leaves out are not shown"});
}

TEST(Ip6AddrWithFullMask, ShowsAndReadsLengthsAndMasks) {
    const char* const noMask = "Ip6AddrWithFullMask: mask expected";
    const struct {
        const char* text;
        const char* error;
        const char* canonical;
    } cases[] = {
        {"2001:db8::1/ffff:ffff::", "", "2001:db8::/32"},
        {"2001:db8::1/32", "", "2001:db8::/32"},
        {"2001:db8::1/::", "", "::/0"},
        {"::1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "", "::1/128"},
        {"2001:db8::1/ffff:0:ffff::", "", "2001:db8::1/ffff:0:ffff::"},
        {"2001:db8::1/::ffff:255.255.0.0", "", "2001:db8::1/::ffff:255.255.0.0"},
        {"::1/64:1::", "", "::1/64:1::"},  // Digits alone do not make it a length.
        {"::1", noMask, ""},
        {"::1/", noMask, ""},
        {"::1/x", noMask, ""},
        {"::1/129", noMask, ""},
        {"::1/4294967360", noMask, ""},
        {"::1/64 ", noMask, ""},
        {"::1/ffff:: ", noMask, ""},
        {"::1/ffff", "Ip6Addr: incomplete ipv6 address", ""},
        {"::1/64f", "Ip6Addr: incomplete ipv6 address", ""},
        {"::1/255.0.0.0", "Ip6Addr: ':' expected", ""},
        {"1:2/ffff::", "Ip6Addr: ':' expected", ""},
    };
    for (const auto& c : cases) {
        const Ip6AddrWithFullMask before(ip6("9::9"), ip6("9::"));
        Ip6AddrWithFullMask value = before;
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        if (*c.error == '\0') {
            EXPECT_EQ(value.stringValue(), c.canonical);
            EXPECT_EQ(value.hasPrefixRepr(), value.prefixLen() != 129);
        } else {
            EXPECT_EQ(value, before) << c.text;
        }
    }
    EXPECT_FALSE(Ip6AddrWithFullMask(ip6("::1"), ip6("ffff:0:ffff::")).hasPrefixRepr());
    EXPECT_EQ(Ip6AddrWithFullMask(ip6("::1"), ip6("ffff::")).prefixLen(), 16);
}

TEST(Ip6AddrWithMask, HashesAndLogsItsFieldsInOrder) {
    const uint32_t address = ip6("2001:db8::").hash();
    const auto expected = [&](uint32_t last) { return Mox::Hash(5).mix(address).mix(last); };
    EXPECT_EQ(withMask("2001:db8::/32").hash(5), expected(32).result());
    EXPECT_EQ(prefix("2001:db8::/32").hash(5), expected(32).result());
    EXPECT_EQ(Ip6AddrWithFullMask(ip6("2001:db8::"), ip6("::1")).hash(5),
              expected(ip6("::1").hash()).result());
    Mox::NboAttrLog::Out log;
    log << prefix("2001:db8::/32");
    EXPECT_EQ(log.bytes,
              (Mox::Bytes{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}));
}

}  // namespace
}  // namespace Pavo
