// Prefixes and addresses with masks, of one family and of either.
#include "Pavo/IpGenPrefix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr auto ip = Mox::fromText<IpAddr>;
constexpr auto ip6 = Mox::fromText<Ip6Addr>;
constexpr auto gen = Mox::fromText<IpGenAddr>;
constexpr auto prefix = Mox::fromText<IpGenPrefix>;
constexpr auto withMask = Mox::fromText<IpGenAddrWithMask>;
constexpr auto fullMask = Mox::fromText<IpGenAddrWithFullMask>;

constexpr const char* nonZeroText = "Invalid Prefix - non-zero after prefixlen";
constexpr const char* noEnd = "premature end of Prefix type";

// The order is that of each family: for addresses with masks IPv4 by address then length, IPv6 with
// a network after all addresses and networks in it.
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
    IpGenPrefixBase value(gen("10.0.0.1"), 99);
    EXPECT_EQ(value.stringValue(), record + "ipv4, 'address': a00:1::, 'len': 99})");
    EXPECT_EQ(textErrorOf(record + "ipv4, 'address': ::1, 'len': 9})", &value),
              "Invalid IpGenPrefixBase");
    EXPECT_EQ(textErrorOf(record + "ipv5, 'address': a00::", &value), "Invalid AddressFamily");
}

TEST(IpGenPrefix, DetectsTheFamilyByTheFirstColonOrDot) {
    expectReads<IpGenPrefix>({{"10.0.0.0/8"}, {"fe80::/10"}, {"::ffff:10.0.0.0/104"}});
    expectReads<IpGenAddrWithMask>({{"10.0.0.1/33"}, {"fe80::1/10"}, {"::ffff:10.0.0.0/104"}});
    const std::vector<BadTexts> both = {{"Invalid prefix", {"10/8", "/10.0.0.0", "10", ""}},
                                        {noEnd, {"10.0.0.0", "10.0.0.0/"}},
                                        {"Invalid IpAddr", {"10.0.0.256/8"}},
                                        {"Ip6Addr: ':' expected", {"1:2/64"}},
                                        {"Ip6AddrWithMask: prefix too long", {"::/129"}},
                                        {"Ip6AddrWithMask: prefix size expected", {"::"}}};
    expectRefuses(prefix("9.9.9.9/32"), both);
    expectRefuses(prefix("9.9.9.9/32"), {{nonZeroText, {"10.0.0.1/8", "fe80::1/10", "10.0.0.0/33"}},
                                         {nonZeroText, {"10.0.0.0/8 ", "fe80::/10/"}},
                                         {noEnd, {"10.0.0.256"}}});  // The "/" is sought first.
    expectRefuses(withMask("9.9.9.9/9"), both);
    expectRefuses(withMask("9.9.9.9/9"),
                  {{"Invalid IpAddr", {"10.0.0.256"}},
                   {noEnd, {"10.0.0.1/8 "}},
                   {"Ip6AddrWithMask: prefix size expected", {"fe80::1/10/"}}});
}

// The error of a value of the family's own type from parts; that of its log is the same.
template <class FamilyPrefix, class Address>
std::string partsErrorOf(const Address& address, uint32_t len) {
    const std::string error = rangeErrorOf([&] { FamilyPrefix(address, len); });
    EXPECT_EQ(logErrorOf<FamilyPrefix>(address, len), error);
    return error;
}
std::string partsErrorOf(const IpGenAddr& address, uint32_t len) {
    const std::string error = rangeErrorOf([&] { IpGenPrefix(address, len); });
    EXPECT_EQ(logErrorOf<IpGenPrefix>(IpGenPrefixBase(address, len)), error);
    EXPECT_EQ(logErrorOf<IpGenAddrWithMask>(IpGenPrefixBase(address, len)), "");
    EXPECT_EQ(IpGenPrefixBase(address, len).validAsPrefix(), error.empty());
    return error;
}

constexpr const char* hostBitsText = "Invalid prefix - Non-zero after prefix length";
constexpr const char* hostBitsText4 = "Prefix::validAsPrefix != true not allowed";
constexpr const char* hostBitsText6 = "Ip6Prefix::validAsPrefix != true not allowed";

TEST(IpGenPrefix, RefusesLongLengthsInPartsAndLogs) {
    for (const uint32_t len : {33u, 0xfffffffeu, 0xffffffffu}) {
        EXPECT_EQ(partsErrorOf(gen("10.0.0.0"), len), "Invalid IPv4 Prefix Length");
        // IPv4 alone takes the last one.
        EXPECT_EQ(partsErrorOf<Prefix>(ip("10.0.0.1"), len), len == ~0u ? "" : hostBitsText4);
    }
    EXPECT_EQ(partsErrorOf(gen("::"), 129), "Invalid IPv6 Prefix Length");
    EXPECT_EQ(partsErrorOf<Ip6Prefix>(ip6("::"), 129), "len <= 128");
    EXPECT_EQ(partsErrorOf(IpGenAddr(), 1), "Invalid prefix");
    EXPECT_EQ(rangeErrorOf([] { IpGenPrefix(ipv4, 8, 0x0a000000, 1); }), hostBitsText);
}

TEST(IpGenPrefix, RefusesALogWithBytesOutsideTheFamily) {
    const std::tuple<uint32_t, const char*, const char*> cases[] = {
        {0, "::", ""},      {0, "::1", "Invalid IpGenAddr"},
        {1, "a00:1::", ""}, {1, "a00:1:8000::", "Invalid IpGenAddr"},
        {2, "::1", ""},     {3, "::", "Invalid AddressFamily"},
    };
    for (const auto& [af, bytes, error] : cases) {
        const Ip6Addr address = ip6(bytes);
        EXPECT_EQ(logErrorOf<IpGenAddr>(af, address), error);
        EXPECT_EQ(logErrorOf<IpGenPrefixBase>(af, address, 8u), error);
        EXPECT_EQ(logErrorOf<IpGenAddrWithMask>(af, address, 8u), error);
        EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(af, address, ip6("::")), error);
        EXPECT_EQ(logErrorOf<IpGenAddrWithFullMask>(af, ip6("::"), address), error);
    }
}

TEST(IpGenPrefix, ConvertsToAndFromTheFamilies) {
    const Prefix v4(ip("10.0.0.0"), 8);
    const Ip6Prefix v6(ip6("fe80::"), 10);
    EXPECT_EQ(static_cast<Prefix>(IpGenPrefix(v4)), v4);
    EXPECT_EQ(static_cast<Ip6Prefix>(IpGenPrefix(v6)), v6);
    EXPECT_TRUE(IpGenPrefix(v6).v4Prefix() == Prefix() &&
                IpGenPrefix(v4).v6Prefix().isNullPrefix());
    EXPECT_EQ(IpGenPrefix(ipv6, 127, 1, 2, 3, 4), prefix("0:1:0:2:0:3:0:4/127"));
    const IpGenAddrWithMask masked4(gen("10.0.0.1"), 99), masked6(gen("fe80::1"), 10);
    EXPECT_EQ(IpGenAddrWithMask(masked4.v4AddrWithMask()), masked4);
    EXPECT_EQ(IpGenAddrWithMask(masked6.v6AddrWithMask()), masked6);
    EXPECT_TRUE(masked6.v4AddrWithMask() == IpAddrWithMask() &&
                masked4.v6AddrWithMask() == Ip6AddrWithMask());
    EXPECT_EQ(IpGenPrefix(gen("10.0.0.1")), prefix("10.0.0.1/32"));
    EXPECT_EQ(IpGenAddrWithMask(gen("::1")), withMask("::1/128"));
    EXPECT_TRUE(!IpGenAddrWithMask() && !IpGenAddrWithFullMask() && fullMask("0.0.0.0/0"));
}

// The first `len` bits of `head`, then those of `tail`.
Ip6Addr joined(const Ip6Addr& head, uint32_t len, const Ip6Addr& tail) {
    const Ip6Addr mask = ip6AddrFromPrefixLen(len);
    return Ip6Addr((head.u64(0) & mask.u64(0)) | (tail.u64(0) & ~mask.u64(0)),
                   (head.u64(1) & mask.u64(1)) | (tail.u64(1) & ~mask.u64(1)));
}
Ip6Addr flipped(Ip6Addr address, uint32_t bit) {
    address.u8Is(bit / 8, static_cast<uint8_t>(address.u8(bit / 8) ^ (0x80 >> bit % 8)));
    return address;
}

IpGenAddr subnetHost(const IpGenPrefix& net, const IpGenAddr& host) {
    return net.af() == ipv4 ? IpGenAddr(net.v4Prefix().subnetHost(host.v4Addr()))
                            : IpGenAddr(net.v6Prefix().subnetHost(host.v6Addr()));
}

// Two addresses that share exactly `shared` bits, as networks of any two lengths.
TEST(IpGenPrefix, ContainsAndOrdersByTheBitsThatAddressesShare) {
    std::mt19937_64 random(14);
    for (uint32_t i = 0; i < 4000; ++i) {
        const AddressFamily af = i % 2 == 0 ? ipv4 : ipv6;
        const uint32_t bits = addressBits(af);
        const auto upTo = [&](uint32_t most) {
            return static_cast<uint32_t>(random() % (most + 1));
        };
        const auto any = [&] { return Ip6Addr(random(), random()).ip6AddrMaskedByLength(bits); };
        const uint32_t len = upTo(bits), otherLen = upTo(bits), shared = upTo(bits);
        const Ip6Addr a = any();
        const Ip6Addr b =
            shared == bits ? a : joined(a, shared, joined(flipped(a, shared), shared + 1, any()));
        const IpGenAddr address(af, a), other(af, b);
        const IpGenPrefix net(IpGenAddr(af, a.ip6AddrMaskedByLength(len)), len);
        const IpGenPrefix otherNet(IpGenAddr(af, b.ip6AddrMaskedByLength(otherLen)), otherLen);
        const auto fullMask = af == ipv4 ? IpGenAddrWithFullMask(address.v4Addr(), len)
                                         : IpGenAddrWithFullMask(a, len);
        SCOPED_TRACE((net.stringValue() + " " + otherNet.stringValue()).c_str());

        EXPECT_EQ(address.longestCommonPrefix(other), shared);
        EXPECT_EQ(net.contains(other), shared >= len);
        EXPECT_EQ(IpGenAddrWithMask(address, len).contains(other), shared >= len);
        EXPECT_EQ(fullMask.contains(other), shared >= len);
        const bool overlap = shared >= std::min(len, otherLen);
        EXPECT_TRUE(net.overlaps(otherNet) == overlap && otherNet.overlaps(net) == overlap);
        const bool holds = shared >= len && otherLen >= len;
        EXPECT_TRUE(net.contains(otherNet) == holds && net.supernet(upTo(len)).contains(net));
        EXPECT_EQ(IpGenPrefix::containing(address, len), net);
        EXPECT_EQ(rangeErrorOf([&] { (void)net.supernet(len + 1); }), "Invalid supernet length");
        if (af == ipv4) {
            const Prefix v4 = Prefix::containing(address.v4Addr(), len);
            EXPECT_EQ(v4, net.v4Prefix());
            EXPECT_EQ(v4.contains(other.v4Addr()), shared >= len);
            EXPECT_EQ(v4.contains(otherNet.v4Prefix()), holds);
            EXPECT_EQ(v4.overlaps(otherNet.v4Prefix()), overlap);
        } else {
            EXPECT_EQ(Ip6Prefix::containing(a, len), net.v6Prefix());
            EXPECT_EQ(net.v6Prefix().contains(otherNet.v6Prefix()), holds);
            EXPECT_EQ(net.v6Prefix().overlaps(otherNet.v6Prefix()), overlap);
        }
        EXPECT_EQ(net < otherNet, overlap ? len > otherLen : a < b);

        const bool valid = a == net.address();
        EXPECT_EQ(partsErrorOf(address, len), valid ? "" : hostBitsText);
        EXPECT_EQ(af == ipv4 ? partsErrorOf<Prefix>(address.v4Addr(), len)
                             : partsErrorOf<Ip6Prefix>(a, len),
                  valid ? "" : (af == ipv4 ? hostBitsText4 : hostBitsText6));
        EXPECT_EQ(fullMask.prefixLen(), len);
        EXPECT_EQ(fullMask.validAsPrefix(), valid);
        EXPECT_TRUE(net.isHost() == (len == bits) && fullMask.isHost() == (len == bits));
        EXPECT_EQ(net.isDefaultRoutePrefix(), len == 0);
        EXPECT_TRUE(af == ipv4 || net.v6Prefix().isHostRoutePrefix() == (len == 128));

        EXPECT_EQ(subnetHost(net, IpGenAddr(af, joined(Ip6Addr(), len, a))), address);
        if (shared < len) {
            const IpGenAddr host(af, flipped(Ip6Addr(), shared));
            EXPECT_EQ(rangeErrorOf([&] { (void)subnetHost(net, host); }),
                      af == ipv4 ? "Host address too long" : "Host address is too long");
        }
    }
}

TEST(IpGenPrefix, HasThePredicatesOfItsAddress) {
    EXPECT_TRUE(prefix("127.0.0.0/8").isLoopback() && prefix("ff02::/16").isLinkLocal());
    EXPECT_TRUE(prefix("ff05::/16").isRoutableMulticast() && prefix("::/0").isUnspecified());
    EXPECT_TRUE(prefix("240.0.0.0/4").isReserved(false) && prefix("224.0.0.0/4").isMulticast());
}

TEST(IpGenPrefix, ContainsNothingOfAnotherFamily) {
    EXPECT_FALSE(prefix("0.0.0.0/0").contains(gen("::")) ||
                 prefix("::/0").contains(gen("0.0.0.0")));
    EXPECT_FALSE(fullMask("::/0").contains(gen("0.0.0.0")) || IpGenPrefix().isDefaultRoutePrefix());
    EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()) || IpGenAddrWithMask().contains(IpGenAddr()) ||
                 IpGenAddrWithFullMask().contains(IpGenAddr()) || IpGenPrefix().isHost());
    const IpGenAddrWithMask longer(gen("10.0.0.1"), 99);
    EXPECT_TRUE(longer.contains(gen("10.0.0.1")) && !longer.contains(gen("10.0.0.0")));
    EXPECT_FALSE(Ip6AddrWithMask(ip6("1::1"), 200).contains(ip6("1::")));
    const IpGenAddrWithFullMask odd = fullMask("10.0.9.0/255.0.255.0");
    EXPECT_TRUE(odd.contains(gen("10.7.9.1")) && !odd.contains(gen("10.7.8.0")));
    EXPECT_FALSE(odd.validAsPrefix() || odd.isHost());
    EXPECT_EQ(Prefix(ip("1.0.0.0"), 0xffffffff).subnetHost(ip("2.0.0.1")), ip("3.0.0.1"));
}

// Other processes read these logs, and hold keys by hashes of the fields in the same order.
TEST(IpGenPrefix, LogsAndHashesItsFieldsInOrder) {
    const IpAddr v4 = ip("10.0.0.0");
    const Ip6Addr v6 = ip6("a00::");
    EXPECT_EQ(logOf(IpAndPort(v4, 80)), (Mox::Bytes{10, 0, 0, 0, 0, 0, 0, 80}));
    EXPECT_EQ(logOf(Prefix(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(IpAddrWithFullMask(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(Ip6Prefix(v6, 8)), logOf(v6, 8u));
    EXPECT_EQ(logOf(Ip6AddrWithFullMask(v6, ip6("::1"))), logOf(v6, ip6("::1")));
    EXPECT_EQ(logOf(IpGenPrefix(v4, 8)), logOf(1u, v6, 8u));
    EXPECT_EQ(logOf(IpGenAddrWithFullMask(v4, 8)), logOf(1u, v6, ip6("ff00::")));
    // Computed by another program.
    EXPECT_EQ(Prefix(v4, 8).hash(5), 0x9290af44u);
    EXPECT_EQ(IpGenPrefix(v4, 8).hash(5), 0xd4bd41c8u);
    EXPECT_EQ(Ip6AddrWithFullMask(ip6("2001:db8::1"), ip6("ffff::1")).hash(), 0xbba762aau);
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
                    {"10.1.2.3/255.0.0", "10.1.2.3/255.0.0.256", "10.1.2.3/ffff::", "10.1.2.3/x",
                     "10.1.2.3/24 "}},
                   {"Invalid IPv4 prefix length", {"10.1.2.3/33", "10.1.2.3/4294967304"}},
                   {"Invalid IPv6 address", {"1:2::3::/64"}},
                   {"Invalid IPv6 mask", {"fe80::1/64f", "fe80::1/255.0.0.0", "fe80::1/::1/"}},
                   {"Invalid IPv6 prefix", {"fe80::1/129"}},
                   {noEnd, {"10.1.2.3", "10.1.2.3/", "10.1.2.3 /24", "fe80::1", "fe80::1/"}},
                   {"Invalid IPv4/IPv6 address", {"10/8", "10", ""}}});
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

}  // namespace
}  // namespace Pavo
