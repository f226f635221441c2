#include "Pavo/Ip.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <set>

#include "Pavo/NamespaceName.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

TEST(Ip, KeepsTheValueLaws) {
    expectValueLaws<IpVersion>({0, 4, 6, 15});
    expectValueLaws<IpTtl>({0, 1, 64, 255});
    expectValueLaws<IpDscp>({0, 0xb8, 255});
    expectValueLaws<IpTrafficClass>({0, 0xb8, 255});
    expectValueLaws<IpFlowLabel>({0, 1, 0xfffff});
    expectValueLaws<Port>({0, 179, 65535});
}

// One row per type: the greatest number is good at every door, the next one at none.
template <class T>
void expectBound(uint32_t most, const char* textError, const char* rangeError) {
    SCOPED_TRACE(textError);
    T value(1);
    EXPECT_EQ(textErrorOf(std::to_string(most), &value), "");
    EXPECT_EQ(value.value(), most);
    const std::string past = std::to_string(uint64_t{most} + 1);
    for (const std::string& text :
         {past, std::string("4294967297"), std::string(), std::string("-1"), std::string("+1"),
          std::string("0x1"), std::string("1 ")}) {
        EXPECT_EQ(textErrorOf(text, &value), textError) << text;
    }
    for (const uint32_t number : {most + 1, 0xffffffffu, 0x10000u * (most + 1)}) {
        if (number <= most) {
            continue;
        }
        EXPECT_EQ(rangeErrorOf([&] { value.valueIs(number); }), rangeError);
        Mox::NboAttrLog::Out log;
        log.u32(number);
        Mox::NboAttrLog::In in(log.bytes);
        EXPECT_EQ(rangeErrorOf([&] { T(&in, Mox::StreamBogon()); }), rangeError);
    }
    EXPECT_EQ(value, T(most));
}

TEST(Ip, RefusesNumbersPastTheField) {
    expectBound<IpVersion>(15, "Invalid IpVersion", "IpVersion::value < 0 or > 15 not allowed");
    expectBound<IpTtl>(255, "Invalid IpTtl", "IpTtl::value < 0 or > 255 not allowed");
    expectBound<IpDscp>(255, "Invalid IpDscp", "IpDscp::value < 0 or > 255 not allowed");
    expectBound<IpTrafficClass>(255, "Invalid IpTrafficClass",
                                "IpTrafficClass::value < 0 or > 255 not allowed");
    expectBound<IpFlowLabel>(0xfffff, "Invalid IpFlowLabel",
                             "IpFlowLabel::value < 0 or > 1048575 not allowed");
    expectBound<Port>(65535, "Invalid Port", "Port::value < 0 or > 65535 not allowed");
}

TEST(IpProtocolNumber, AgreesWithTheSystemsNumbers) {
    const struct {
        IpProtocolNumber protocol;
        uint32_t number;
        const char* name;
    } cases[] = {
        {IpProtocolNumber::icmp, IPPROTO_ICMP, "icmp"},
        {IpProtocolNumber::igmp, IPPROTO_IGMP, "igmp"},
        {IpProtocolNumber::tcp, IPPROTO_TCP, "tcp"},
        {IpProtocolNumber::udp, IPPROTO_UDP, "udp"},
        {IpProtocolNumber::dccp, IPPROTO_DCCP, "dccp"},
        {IpProtocolNumber::ipv6, IPPROTO_IPV6, "ipv6"},
        {IpProtocolNumber::ipv6Route, IPPROTO_ROUTING, "ipv6Route"},
        {IpProtocolNumber::ipv6Frag, IPPROTO_FRAGMENT, "ipv6Frag"},
        {IpProtocolNumber::rsvp, IPPROTO_RSVP, "rsvp"},
        {IpProtocolNumber::gre, IPPROTO_GRE, "gre"},
        {IpProtocolNumber::esp, IPPROTO_ESP, "esp"},
        {IpProtocolNumber::ah, IPPROTO_AH, "ah"},
        {IpProtocolNumber::ipv6Icmp, IPPROTO_ICMPV6, "ipv6Icmp"},
        {IpProtocolNumber::ipv6NoNxt, IPPROTO_NONE, "ipv6NoNxt"},
        {IpProtocolNumber::ipv6Opts, IPPROTO_DSTOPTS, "ipv6Opts"},
        {IpProtocolNumber::ospf, 89, "ospf"},
        {IpProtocolNumber::pim, IPPROTO_PIM, "pim"},
        {IpProtocolNumber::ipComp, IPPROTO_COMP, "ipComp"},
        {IpProtocolNumber::vrrp, 112, "vrrp"},
        {IpProtocolNumber::sctp, IPPROTO_SCTP, "sctp"},
        {IpProtocolNumber::mobilityHeader, IPPROTO_MH, "mobilityHeader"},
        {IpProtocolNumber::udpLite, IPPROTO_UDPLITE, "udpLite"},
        {IpProtocolNumber::mplsInIp, IPPROTO_MPLS, "mplsInIp"},
        {IpProtocolNumber::ethernet, 143, "ethernet"},
        {IpProtocolNumber::reserved, IPPROTO_RAW, "reserved"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(IpProtocolNumberInstance(c.number), c.protocol) << c.name;
        EXPECT_EQ(stringValue(c.protocol), c.name);
        EXPECT_EQ(IpProtocolNumberInstance(c.name), c.protocol) << c.name;
    }
}

TEST(IpProtocolNumber, HoldsAssignedNumbersUnderNamesOfTheirOwn) {
    std::set<std::string_view> names;
    for (const auto& member : Mox::enumTable<IpProtocolNumber>.members) {
        EXPECT_TRUE(names.insert(member.name).second) << member.name;
    }
    for (uint32_t number = 0; number < 400; ++number) {
        const bool assigned = number <= 146 || (number >= 253 && number <= 255);
        EXPECT_EQ(rangeErrorOf([&] { IpProtocolNumberInstance(number); }),
                  assigned ? "" : "Invalid IpProtocolNumber")
            << number;
    }
}

TEST(NamespaceName, KeepsTheValueLaws) {
    expectValueLaws<NamespaceName>({NamespaceName(), NamespaceName("a"), NamespaceName("a b"),
                                    NamespaceName("ab"), NamespaceName("default")});
}

TEST(NamespaceName, HoldsAtMost150Bytes) {
    const char* const error = "NamespaceName::value::bytes > 150 not allowed";
    const std::string longest(150, 'x');
    const std::string tooLong(151, 'x');
    NamespaceName name("blue");
    EXPECT_EQ(textErrorOf(tooLong, &name), error);
    EXPECT_EQ(rangeErrorOf([&] { name.valueIs(tooLong); }), error);
    EXPECT_EQ(rangeErrorOf([&] { NamespaceName{tooLong}; }), error);
    Mox::NboAttrLog::Out log;
    log.string(tooLong);
    Mox::NboAttrLog::In in(log.bytes);
    EXPECT_EQ(rangeErrorOf([&] { NamespaceName(&in, Mox::StreamBogon()); }), error);
    EXPECT_EQ(name, NamespaceName("blue"));
    EXPECT_EQ(textErrorOf(longest, &name), "");
    EXPECT_EQ(name.value(), longest);
}

TEST(NamespaceName, IsTrueWhenItNamesSomething) {
    EXPECT_FALSE(NamespaceName());
    EXPECT_TRUE(NamespaceName("blue"));
    EXPECT_EQ(NamespaceName::defaultNamespace(), NamespaceName("default"));
}

}  // namespace
}  // namespace Pavo
