// Subnets, literals and the structures of the system, over random addresses.

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Pavo/Fmt.h"
#include "Pavo/Ip.h"
#include "Pavo/IpGenPrefix.h"
#include "Pavo/Literals.h"
#include "Pavo/SockAddr.h"
#include "Pavo/ValueFunctions.h"
#include "support/Errors.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using namespace Pavo::literals;

std::mt19937_64 randomBits;

uint32_t below(uint32_t limit) {
    return static_cast<uint32_t>(randomBits() % limit);
}
IpGenAddr anyAddress() {
    const Ip6Addr bits(randomBits(), randomBits());
    return below(2) == 0 ? IpGenAddr(IpAddr(bits.u32(0))) : IpGenAddr(bits);
}

// Ascending, each in the whole, and as many as there are: so all of them, and each once.
template <class P>
void expectAllSubnets(const P& whole, uint32_t len) {
    std::vector<P> subnets;
    for (const P& subnet : whole.subnets(len)) {
        ASSERT_TRUE(subnet.len() == len && subnet.supernet(whole.len()) == whole);
        ASSERT_TRUE(subnets.empty() || subnets.back().address() < subnet.address());
        ASSERT_LT(subnets.size(), 64u);
        subnets.push_back(subnet);
    }
    ASSERT_EQ(subnets.size(), 1u << (len - whole.len())) << whole;
    for (const uint32_t bad : {whole.len() - 1, whole.addressBits() + 1}) {
        ASSERT_EQ(rangeErrorOf([&] { (void)whole.subnets(bad); }), "Invalid subnet length");
    }
}

TEST(PrefixOps, DividesAPrefixIntoItsSubnets) {
    for (const uint32_t seed : PavoTest::Seeds(4000)) {
        randomBits.seed(seed);
        const IpGenAddr address = anyAddress();
        const uint32_t bits = addressBits(address.af());
        const uint32_t len = below(8) == 0 ? 0 : below(bits + 1);
        const uint32_t subnetLen = std::min(bits, len + below(7));
        const IpGenPrefix whole = IpGenPrefix::containing(address, len);
        expectAllSubnets(whole, subnetLen);
        if (address.af() == ipv4) {
            expectAllSubnets(whole.v4Prefix(), subnetLen);
        } else {
            expectAllSubnets(whole.v6Prefix(), subnetLen);
        }
    }
}

TEST(PrefixOps, TakesTheOddLengthOfAnIpv4PrefixForOneAddress) {
    const Prefix odd("10.1.2.3"_ip, 0xffffffff);
    EXPECT_EQ(odd.supernet(24), "10.1.2.0/24"_prefix);
    EXPECT_EQ(*odd.subnets(32).begin(), "10.1.2.3/32"_prefix);
    EXPECT_TRUE(odd.contains("10.1.2.3"_ip) && !odd.contains("10.1.2.2"_ip));
    EXPECT_EQ(rangeErrorOf([] { (void)Prefix::containing(IpAddr(), 33); }),
              "Prefix::validAsPrefix != true not allowed");
    EXPECT_FALSE(IpGenPrefix("0.0.0.0/0"_prefix).contains(IpGenPrefix("::/0"_prefix6)));
    EXPECT_EQ(ipAddrFromPrefixLen(0), IpAddr());
    EXPECT_EQ(ipAddrFromPrefixLen(20), "255.255.240.0"_ip);
    EXPECT_EQ(ipAddrFromPrefixLen(33), "255.255.255.255"_ip);
}

TEST(Literals, AreTheValuesOfTheirTexts) {
    EXPECT_EQ("1:2:3:4:5:6:7:8"_ip6, Ip6Addr("1:2:3:4:5:6:7:8"));
    EXPECT_EQ("0011.220a.0b0c"_mac, EthAddr("0-11-22-A-B-C"));
    EXPECT_EQ("fe80::/10"_prefix6, Ip6Prefix("fe80::/10"));
    EXPECT_EQ(fmt::format("{}|{:>5}|{:*<6}", "10.0.0.0/8"_prefix, "::1"_ip6, IpTtl(64)),
              "10.0.0.0/8|  ::1|64****");
}

TEST(SockAddr, IsReadBackAndByTheSystem) {
    for (const uint32_t seed : PavoTest::Seeds(1000)) {
        randomBits.seed(seed);
        const IpGenAddr address = anyAddress();
        const auto port = static_cast<uint16_t>(randomBits());
        const uint32_t scope = address.af() == ipv6 ? below(100) : 0;
        SockAddr name(address, port, scope);
        ASSERT_TRUE(name.address() == address && name.port() == port && name.scopeId() == scope);

        char text[INET6_ADDRSTRLEN + 20], service[8];
        ASSERT_EQ(getnameinfo(name.get(), name.length, text, sizeof(text), service, sizeof(service),
                              NI_NUMERICHOST | NI_NUMERICSERV),
                  0);
        ASSERT_EQ(std::string(text).substr(0, std::string(text).find('%')), address.stringValue());
        ASSERT_EQ(service, std::to_string(port));

        --name.length;  // Too short for its family.
        ASSERT_TRUE(name.address() == IpGenAddr() && name.port() == 0 && name.scopeId() == 0);
    }
    EXPECT_EQ(SockAddr(IpGenAddr()).address(), IpGenAddr());
}

}  // namespace
}  // namespace Pavo
