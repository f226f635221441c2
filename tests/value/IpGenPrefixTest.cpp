// Prefixes and addresses with masks, of one family and of either.
#include "Pavo/IpGenPrefix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

#include "Pavo/AutonomousSystem.h"
#include "Pavo/EthAddr.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "Pavo/IpGenPrefixSet.h"
#include "support/Seeds.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr auto ip = Mox::fromText<IpAddr>;
constexpr auto ip6 = Mox::fromText<Ip6Addr>;
constexpr auto gen = Mox::fromText<IpGenAddr>;
constexpr auto prefix = Mox::fromText<IpGenPrefix>;
constexpr auto withMask = Mox::fromText<IpGenAddrWithMask>;
constexpr auto withMask6 = Mox::fromText<Ip6AddrWithMask>;
constexpr auto fullMask = Mox::fromText<IpGenAddrWithFullMask>;

constexpr const char* nonZeroText = "Invalid Prefix - non-zero after prefixlen";
constexpr const char* noEnd = "premature end of Prefix type";

// The order is that of each family: for addresses with masks IPv4 by address then length, IPv6 with
// a network after all addresses and networks in it.
TEST(IpGenPrefix, KeepsTheValueLaws) {
    expectValueLaws<IpGenPrefixBase>({{},
                                      {gen("10.0.0.1"), 8},
                                      {gen("10.0.0.1"), 99},
                                      {gen("11.0.0.0"), 0},
                                      {gen("::"), 0xffffffff}});
    expectValueLawsOf<IpGenPrefix>({"9.0.0.0/8", "10.1.0.0/16", "10.0.0.0/8", "0.0.0.0/0", "::/64",
                                    "fe80::/64", "fe80::/10", "::/0"});
    expectValueLawsOf<IpGenAddrWithMask>({"10.0.0.0/8", "10.0.0.1/0", "10.0.0.1/8", "10.0.0.1/99",
                                          "fe80::1/64", "fe80::2/64", "fe80::1/10", "::1/0"});
    EXPECT_TRUE(IpGenPrefix() < prefix("9.0.0.0/8") && IpGenAddrWithMask() < withMask("0.0.0.0/0"));
    // Values that their texts do not give again.
    expectValueLaws<IpGenPrefix>({{}});
    expectValueLaws<IpGenAddrWithMask>({{IpGenAddr(), 7}, {}});
    expectValueLaws<IpGenAddrWithFullMask>({{}, {ip("10.1.2.3"), 24}});
}

// A network follows all addresses and networks in it, with host bits or without.
TEST(Ip6AddrWithMask, KeepsTheValueLaws) {
    expectValueLawsOf<Ip6AddrWithMask>({"2001:db8::1/128", "2001:db8::/64", "2001:db8::9/64",
                                        "2001:db8::5/32", "fe80::/64", "fe80::/10", "ff00::1/128",
                                        "ff00::/8", "::/0"});
    EXPECT_LT(Ip6AddrWithMask(ip6("ff00::1"), 200), withMask6("ff00::1/128"));
    expectValueLawsOf<Ip6Prefix>({"::ffff:1.2.3.4/128", "2001:db8::/128", "2001:db8::/64",
                                  "2001:db8:0:1::/64", "2001:db8::/32", "fe80::/64", "fe80::/10",
                                  "8000::/1", "::/0"});
}

TEST(Ip6AddrWithMask, LosesItsHostBitsAsASubnet) {
    EXPECT_EQ(withMask6("2001:db8::1:2/112").subnet(), withMask6("2001:db8::1:0/112"));
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

// Of the family's own type and of the generic one.
template <class Own, class Generic>
void expectBothRefuse(const char* text, const std::vector<BadTexts>& cases) {
    expectRefuses(Own(text), cases);
    expectRefuses(Generic(Own(text)), cases);
}

TEST(IpGenPrefix, ReadsAddressAndLengthWithoutHostBits) {
    expectReads<IpGenPrefix>({{"10.0.0.0/0008", "10.0.0.0/8"},
                              {"1.2.3.4/31"},
                              {"fe80::/9"},
                              {"1:2:3:4:8000::/65"},
                              {"::ffff:10.0.0.0/104"}});
    expectBothRefuse<Prefix, IpGenPrefix>(
        "9.0.0.0/9",
        {{nonZeroText,
          {"10.0.0.1/8", "1.2.3.5/31", "128.0.0.0/0", "10.0.0.0/33", "10.0.0.0/4294967295",
           "10.0.0.0/4294967304",  // 2^32 + 8: no wrap to 8.
           "10.0.0.0/8 "}},
         {noEnd, {"10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0/-8", "10.0.0.0 /8"}},
         {"Invalid IpAddr", {"10.0.0/8", "10.0.0.256/8"}}});
    expectBothRefuse<Ip6Prefix, IpGenPrefix>(
        "fe80::/10",
        {{nonZeroText, {"::1/0", "fe80::/8", "1:2:3:4:8000::/64", "::1/127", "fe80::/10 "}},
         {"Ip6AddrWithMask: prefix too long", {"::/129"}}});
    expectRefuses(prefix("9.9.9.9/32"), {{"Invalid prefix", {"10/8", "/10.0.0.0", "10", ""}},
                                         {noEnd, {"10.0.0.256"}}});  // The "/" is sought first.
}

TEST(IpGenAddrWithMask, ReadsAddressAndLength) {
    expectReads<IpGenAddrWithMask>(
        {{"10.0.0.1/33"}, {"::1/00128", "::1/128"}, {"::ffff:10.0.0.0/104"}});
    expectBothRefuse<IpAddrWithMask, IpGenAddrWithMask>(
        "9.9.9.9/9", {{noEnd, {"10.1.2.3/4294967296", "10.1.2.3/8x", "10.0.0.0", "10.0.0.0/"}},
                      {"Invalid IpAddr", {"10.1.2/8"}}});
    expectBothRefuse<Ip6AddrWithMask, IpGenAddrWithMask>(
        "9::9/9", {{"Ip6AddrWithMask: prefix too long", {"::/129", "::/4294967360"}},  // 2^32 + 64.
                   {"Ip6AddrWithMask: prefix size expected",
                    {"::1", "::1/", "::1/x", "::1/-1", "::1 /64", "fe80::1/10/"}},
                   {"Ip6Addr: ':' expected", {"1:2/64"}}});
    expectRefuses(withMask("9.9.9.9/9"), {{"Invalid prefix", {"10/8", "/10.0.0.0", "10", ""}},
                                          {"Invalid IpAddr", {"10.0.0.256"}}});
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
    for (const uint32_t seed : PavoTest::Seeds(4000)) {
        std::mt19937_64 random(seed);
        const AddressFamily af = random() % 2 == 0 ? ipv4 : ipv6;
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
        const auto masked = af == ipv4 ? IpGenAddrWithFullMask(address.v4Addr(), len)
                                       : IpGenAddrWithFullMask(a, len);
        SCOPED_TRACE((net.stringValue() + " " + otherNet.stringValue()).c_str());

        EXPECT_EQ(address.longestCommonPrefix(other), shared);
        EXPECT_EQ(net.contains(other), shared >= len);
        EXPECT_EQ(IpGenAddrWithMask(address, len).contains(other), shared >= len);
        EXPECT_EQ(masked.contains(other), shared >= len);
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
        EXPECT_EQ(masked.prefixLen(), len);
        EXPECT_EQ(masked.validAsPrefix(), valid);
        EXPECT_TRUE(net.isHost() == (len == bits) && masked.isHost() == (len == bits));
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

// Other processes read these logs, and hold keys by these hashes; computed by another program.
TEST(IpGenPrefix, LogsAndHashesAsOtherProcessesDo) {
    const IpAddr v4 = ip("10.0.0.0");
    const Ip6Addr v6 = ip6("a00::");
    EXPECT_EQ(logOf(IpAndPort(v4, 80)), (Mox::Bytes{10, 0, 0, 0, 0, 0, 0, 80}));
    EXPECT_EQ(logOf(Prefix(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(IpAddrWithFullMask(v4, 8)), logOf(v4, 8u));
    EXPECT_EQ(logOf(Ip6Prefix(v6, 8)), logOf(v6, 8u));
    EXPECT_EQ(logOf(Ip6AddrWithFullMask(v6, ip6("::1"))), logOf(v6, ip6("::1")));
    EXPECT_EQ(logOf(IpGenPrefix(v4, 8)), logOf(1u, v6, 8u));
    EXPECT_EQ(logOf(IpGenAddrWithFullMask(v4, 8)), logOf(1u, v6, ip6("ff00::")));
    const EthAddr mac(0x0011, 0x220a, 0x0b0c);
    EXPECT_EQ(mac.hash(), 0x603b12cbu);  // The mix of 0x221b (0x0011 ^ 0x220a) and 0x0b0c.
    EXPECT_EQ(mac.hash(9), Mox::Hash(9).mix(0x1100).mix(0x0a22).mix(0x0c0b).result());
    EXPECT_EQ(ip("1.2.3.4").hash(), 0x90af30c6u);
    EXPECT_EQ(ip6("2001:db8::1").hash(), 0x2739abbdu);
    EXPECT_EQ(AutonomousSystem(0x01020304).hash(), 0x4f06901eu);  // Over the bytes 4, 3, 2, 1.
    EXPECT_EQ(AutonomousSystem(1).hash(7), AutonomousSystem(1).ValueType::hash(7));
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

TEST(IpGenPrefixSet, NotifiesOnceOfEachChange) {
    const auto config = ipGenPrefixSetConfigFactory("peers");
    std::string notified;
    const Mox::Watch<IpGenPrefixSetConfig> prefixes(
        config, IpGenPrefixSetConfig::prefixAttr,
        [&](const IpGenPrefix& key) { notified += key.stringValue() + " "; });
    const Mox::Watch<IpGenPrefixSetConfig> exceptions(
        config, IpGenPrefixSetConfig::prefixExceptAttr,
        [&](const IpGenPrefix& key) { notified += "except " + key.stringValue() + " "; });
    const IpGenPrefix ten = prefix("10.0.0.0/8"), all = prefix("::/0");
    for (const bool isMember : {true, true, false, false, true}) {
        config->prefixIs(ten, isMember);
    }
    config->prefixExceptIs(all);
    config->prefixIs(all);
    config->prefixDel(ten);
    config->prefixDel(ten);
    config->prefixDelAll();
    EXPECT_TRUE(config->prefix().members() == 0 && config->prefixExcept(all));
    config->prefixExceptDelAll();
    EXPECT_EQ(notified,
              "10.0.0.0/8 10.0.0.0/8 10.0.0.0/8 except ::/0 ::/0 10.0.0.0/8 ::/0 except ::/0 ");
}

TEST(IpGenPrefixSetConfigDir, HoldsOneSetForEachName) {
    const auto dir = ipGenPrefixSetConfigDirFactory("dir");
    const auto a = dir->prefixSetIs("a");
    EXPECT_EQ(dir->prefixSetIs("a"), a);
    dir->prefixSetDel(dir->prefixSet().begin()->first);  // A reference into what is removed.
    EXPECT_NE(dir->prefixSetIs("a"), a);
}

}  // namespace
}  // namespace Pavo
