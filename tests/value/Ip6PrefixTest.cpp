#include <gtest/gtest.h>

#include "Pavo/Ip6Addr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr auto ip6 = Mox::fromText<Ip6Addr>;
constexpr auto withMask = Mox::fromText<Ip6AddrWithMask>;

// A network follows all addresses and networks in it, with host bits or without.
TEST(Ip6AddrWithMask, KeepsTheValueLaws) {
    expectValueLawsOf<Ip6AddrWithMask>({"2001:db8::1/128", "2001:db8::/64", "2001:db8::9/64",
                                        "2001:db8::5/32", "fe80::/64", "fe80::/10", "ff00::1/128",
                                        "ff00::/8", "::/0"});
    EXPECT_LT(Ip6AddrWithMask(ip6("ff00::1"), 200), withMask("ff00::1/128"));
    expectValueLawsOf<Ip6Prefix>({"::ffff:1.2.3.4/128", "2001:db8::/128", "2001:db8::/64",
                                  "2001:db8:0:1::/64", "2001:db8::/32", "fe80::/64", "fe80::/10",
                                  "8000::/1", "::/0"});
    expectValueLawsOf<Ip6AddrWithFullMask>({"::/0", "2001:db8::/32",
                                            "2001:db8::/ffff:ffff:ff00:ff::", "2001:db8::1/::1",
                                            "2001:db8::1/32", "2001:db8::1/128"});
}

template <class T>
void expectRefusesAddressesAndLengths(const T& before) {
    expectRefuses(
        before,
        {{"Ip6AddrWithMask: prefix too long", {"::/129", "::/4294967360"}},  // 2^32 + 64.
         {"Ip6AddrWithMask: prefix size expected", {"::1", "::1/", "::1/x", "::1/-1", "::1 /64"}},
         {"Ip6Addr: ':' expected", {"1:2/64"}},
         {"Ip6Addr: leading hex digit expected", {"/64"}}});
}

TEST(Ip6AddrWithMask, ReadsAnAddressAndALengthUpTo128) {
    expectReads<Ip6AddrWithMask>({{"2001:db8::1/32"}, {"::1/00128", "::1/128"}, {"::/0"}});
    expectRefusesAddressesAndLengths(withMask("9::9/9"));
    expectRefuses(withMask("9::9/9"), {{"Ip6AddrWithMask: prefix size expected", {"::1/64x"}}});

    expectReads<Ip6Prefix>(
        {{"::/0"}, {"fe80::/9"}, {"1:2:3:4::/64"}, {"1:2:3:4:8000::/65"}, {"::1/128"}});
    expectRefusesAddressesAndLengths(ip6LinkLocalPrefix);
    expectRefuses(ip6LinkLocalPrefix,
                  {{"Invalid Prefix - non-zero after prefixlen",
                    {"::1/0", "fe80::/8", "1:2:3:4:8000::/64", "::1/127", "fe80::/10 "}}});
}

TEST(Ip6AddrWithMask, LosesItsHostBitsAsASubnet) {
    EXPECT_EQ(withMask("2001:db8::1:2/112").subnet(), withMask("2001:db8::1:0/112"));
    const Ip6AddrWithMask longer(ip6("::1"), 129);
    EXPECT_EQ(longer.subnet(), longer);
    EXPECT_EQ(rangeErrorOf([&] { (void)longer.validAsPrefix(); }), "len <= 128");
}

TEST(Ip6AddrWithFullMask, ShowsAndReadsLengthsAndMasks) {
    expectReads<Ip6AddrWithFullMask>({
        {"2001:db8::1/ffff:ffff::", "2001:db8::1/32"},
        {"2001:db8::1/32"},
        {"2001:db8::1/::", "2001:db8::1/0"},
        {"::1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::1/128"},
        {"2001:db8::1/ffff:0:ffff::"},
        {"2001:db8::1/::ffff:255.255.0.0"},
        {"::1/64:1::"},  // Digits alone do not make it a length.
    });
    expectRefuses(
        Ip6AddrWithFullMask(ip6("9::9"), ip6("9::")),
        {{"Ip6AddrWithFullMask: mask expected",
          {"::1", "::1/", "::1/x", "::1/129", "::1/4294967360", "::1/64 ", "::1/ffff:: "}},
         {"Ip6Addr: incomplete ipv6 address", {"::1/ffff", "::1/64f"}},
         {"Ip6Addr: ':' expected", {"::1/255.0.0.0", "1:2/ffff::"}}});
    EXPECT_FALSE(Ip6AddrWithFullMask(ip6("::1"), ip6("ffff:0:ffff::")).hasPrefixRepr());
    EXPECT_EQ(Ip6AddrWithFullMask(ip6("::1"), ip6("ffff::")).prefixLen(), 16);
}

}  // namespace
}  // namespace Pavo
