#include "Pavo/IpGenAddr.h"

#include <gtest/gtest.h>

#include "Pavo/EthAddr.h"
#include "Pavo/IpGenAddrAndPort.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr auto gen = Mox::fromText<IpGenAddr>;

TEST(IpGenAddr, KeepsTheValueLaws) {
    expectValueLawsOf<IpGenAddr>(
        {"0.0.0.0", "10.0.0.1", "255.255.255.255", "::", "::1", "::ffff:10.0.0.1", "fe80::1"});
    expectValueLaws<IpGenAddr>({IpGenAddr()});
    EXPECT_LT(IpGenAddr(), IpGenAddr(ipv4));
    EXPECT_EQ(IpGenAddr().stringValue(), "::");
}

TEST(IpGenAddr, DetectsTheFamilyByTheFirstColonOrDot) {
    EXPECT_EQ(gen("10.0.0.1").v4Addr(), IpAddr(0x0a000001));
    EXPECT_EQ(gen("::ffff:10.0.0.1").v6Addr(), Ip6Addr(0, 0xffff0a000001));
    expectRefuses(IpGenAddr(ipv6),
                  {{"Invalid IpGenAddr", {"10/8", "/10.0.0.1", "10", ""}},
                   {"Invalid IpAddr", {"10.0.0/8", "10.0.0.256", "1.2:3", "10.0.0.1x"}},
                   {"Ip6Addr: unexpected trailing characters", {"::1/64", "::1x"}},
                   {"Ip6Addr: incomplete ipv6 address", {"a:b"}},
                   {"Ip6Addr: expected '.'", {"1:2.3"}}});
}

TEST(IpGenAddrAndPort, KeepsTheValueLawsAndNamesTheFirstFault) {
    expectValueLawsOf<IpGenAddrAndPort>({"0.0.0.0:0", "192.0.2.1:53", "192.0.2.1:65535", "[::]:0",
                                         "[::ffff:10.0.0.1]:80", "[2001:db8::1]:53"});
    EXPECT_EQ(IpGenAddrAndPort().stringValue(), "[::]:0");
    EXPECT_EQ(IpGenAddrAndPort(gen("fe80::1"), 7).stringValue(), "[fe80::1]:7");
    expectRefuses(
        IpGenAddrAndPort(gen("::1"), 7),
        {{"Invalid IpGenAddrAndPort",
          {"", "::1", "2001:db8::1:53", "192.0.2.1", "192.0.2.1:", "192.0.2.1:65536",
           "192.0.2.1:-1", "192.0.2.1:53x", "[::1]", "[::1]53", "[::1:53", "[::1]:65536"}},
         {"Invalid IpAddr", {"192.0.2:53", "192.0.2.256:53"}},
         {"Ip6Addr: ':' expected", {"[a:b]:1"}}});
}

TEST(IpGenAddr, HoldsOneFamilyAtATime) {
    IpGenAddr value = gen("fe80::1");
    EXPECT_EQ(value.bytes(), (Mox::Bytes{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(value.v4Addr(), IpAddr());
    value.handleV4Addr(IpAddr(0x01020304));  // No byte of the old address stays.
    EXPECT_EQ(value, gen("1.2.3.4"));
    EXPECT_EQ(value.bytes(), (Mox::Bytes{1, 2, 3, 4}));
    EXPECT_EQ(value.v6Addr(), Ip6Addr());
    value.handleV6Addr(ip6AddrLoopback);
    EXPECT_EQ(value, gen("::1"));
}

TEST(IpGenAddr, MapsBetweenTheFamilies) {
    EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen("::ffff:10.0.0.1")), gen("10.0.0.1"));
    EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(gen("10.0.0.1")), gen("::ffff:10.0.0.1"));
    EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen("2001:db8::1")), IpGenAddr());
}

// The predicates that hold. Those of the generic address are its family's.
std::string kindsOf(const IpGenAddr& address) {
    const IpAddr v4 = address.v4Addr();
    const Ip6Addr v6 = address.v6Addr();
    const std::pair<const char*, bool> kinds[] = {
        {"any", address.isAny()},
        {"unspecified", address.isUnspecified()},
        {"thisNetwork", address.isThisNetwork()},
        {"loopback", address.isLoopback()},
        {"loopbackBase", address.isLoopbackBase()},
        {"unicast", address.isUnicast()},
        {"globalUnicast", v6.isGlobalUnicast()},
        {"broadcast", address.isBroadcast()},
        {"private", v4.isPrivate()},
        {"linkLocal", address.isLinkLocal()},
        {"linkLocalUnicast", address.isLinkLocalUnicast()},
        {"linkLocalUnicast2", v6.isLinkLocalUnicast2()},
        {"v4LinkLocal", address.isV4LinkLocal()},
        {"v6LinkLocal", address.isV6LinkLocal()},
        {"multicast", address.isMulticast()},
        {"reservedMulticast", v4.isReservedMulticast()},
        {"routableMulticast", address.isRoutableMulticast()},
        {"linkLocalMulticast", address.isLinkLocalMulticast()},
        {"pimRouters", address.isPimRouters()},
        {"v4Mapped", v6.isV4MappedV6()},
        {"reserved", address.isReserved(false)},
    };
    std::string names;
    for (const auto& [name, holds] : kinds) {
        names += holds ? std::string(" ") + name : "";
    }
    return names;
}

TEST(IpGenAddr, SortsAddressesIntoTheirKinds) {
    const std::string linkLocal4 = " unicast linkLocal linkLocalUnicast v4LinkLocal";
    const std::string linkLocal6 =
        " unicast linkLocal linkLocalUnicast linkLocalUnicast2 v6LinkLocal";
    const std::string local4 = " multicast reservedMulticast linkLocalMulticast";
    const std::string local6 = " linkLocal v6LinkLocal multicast linkLocalMulticast";
    const std::pair<std::string, std::vector<const char*>> cases[] = {
        {" any thisNetwork unicast", {"0.0.0.0"}},
        {" thisNetwork unicast", {"0.255.0.0"}},
        {" unicast", {"1.0.0.0", "9.255.255.255", "128.0.0.0", "172.15.255.255", "172.32.0.0"}},
        {" unicast", {"169.253.255.255", "169.255.0.0", "192.167.255.255"}},
        {" loopback loopbackBase unicast private", {"127.0.0.0"}},
        {" loopback unicast private", {"127.0.0.1"}},
        {linkLocal4, {"169.254.0.0", "169.254.255.255"}},
        // All bits of 10.0.0.0, 172.16.0.0 or 192.168.0.0 are there.
        {" unicast private", {"10.0.0.0", "11.0.0.0", "172.16.0.0", "192.168.0.0"}},
        {" unicast private", {"223.255.255.255"}},
        {local4, {"224.0.0.0"}},
        {local4 + " pimRouters", {"224.0.0.13"}},
        {" multicast", {"224.0.1.0"}},
        {" private multicast", {"239.255.255.255"}},
        {" unicast reserved", {"240.0.0.1"}},
        {" unicast private reserved", {"255.255.255.254"}},
        {" broadcast private", {"255.255.255.255"}},
        {" unspecified unicast", {"::"}},
        {" loopback unicast", {"::1"}},
        {" unicast globalUnicast", {"::2", "1::1", "fec0::", "fe7f:ffff::", "::fffe:0:0"}},
        {" unicast globalUnicast", {"::1:ffff:0:0", "f000::1"}},
        {linkLocal6, {"fe80::1"}},
        {" unicast linkLocalUnicast2", {"fe80:0:0:1::1", "febf:ffff::"}},
        {" multicast", {"ff01::1", "ff03::1"}},
        {local6, {"ff02::1", "ff32::1", "ff02::1:d"}},
        {local6 + " pimRouters", {"ff02::d"}},
        {" multicast routableMulticast", {"ff04::1", "ff0e::1", "ff05::d"}},
        {" unicast globalUnicast v4Mapped", {"::ffff:0.0.0.0"}},
    };
    for (const auto& [expected, texts] : cases) {
        for (const char* text : texts) {
            EXPECT_EQ(kindsOf(gen(text)), expected) << text;
        }
    }
    EXPECT_EQ(kindsOf(IpGenAddr()), "");
}

TEST(IpGenAddr, HasTheMacOfItsFamily) {
    EXPECT_EQ(gen("239.129.1.2").mcastEtherAddress(), EthAddr(0x0100, 0x5e01, 0x0102));
    EXPECT_EQ(gen("ff02::1:2").mcastEtherAddress(), EthAddr(0x3333, 0x0001, 0x0002));
    EXPECT_EQ(IpGenAddr().mcastEtherAddress(), EthAddr());
    EXPECT_EQ(gen("0.0.0.0").longestCommonPrefix(gen("::")), 0u);
    EXPECT_EQ(IpGenAddr().longestCommonPrefix(IpGenAddr()), 0u);
}

}  // namespace
}  // namespace Pavo
