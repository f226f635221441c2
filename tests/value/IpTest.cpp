#include "Pavo/Ip.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include "Pavo/EthAddr.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/NamespaceName.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

// Text, setter and log all take the greatest number and refuse the next one.
template <class T>
void expectBound(const std::string& name, uint32_t most, std::string rangeText = "") {
    SCOPED_TRACE(name);
    expectValueLaws<T>({0, 1, most});
    if (rangeText.empty()) {
        rangeText = name + "::value < 0 or > " + std::to_string(most) + " not allowed";
    }
    T value(1);
    const std::string textError = "Invalid " + name;
    const std::string past = std::to_string(uint64_t{most} + 1);
    expectRefuses(value,
                  {{textError.c_str(), {past.c_str(), "4294967297", "", "-1", "+1", "0x1", "1 "}}});
    for (const uint32_t number : {most + 1, 0x10000 + most, 0xffffffffu}) {
        EXPECT_EQ(rangeErrorOf([&] { value.valueIs(number); }), rangeText);
        EXPECT_EQ(logErrorOf<T>(number), rangeText);
    }
    EXPECT_EQ(value, T(1));
}

TEST(Ordinal, RefusesNumbersPastTheField) {
    expectBound<IpVersion>("IpVersion", 15);
    expectBound<IpTtl>("IpTtl", 255);
    expectBound<IpDscp>("IpDscp", 255);
    expectBound<IpTrafficClass>("IpTrafficClass", 255);
    expectBound<IpFlowLabel>("IpFlowLabel", 1048575);
    expectBound<Port>("Port", 65535);
    expectBound<Eui64U8Key>("Eui64U8Key", 7);
    expectBound<Ip6AddrU8Key>("Ip6AddrU8Key", 15);
    expectBound<Ip6PrefixLen>(
        "Ip6PrefixLen", 129,
        "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed");
    expectBound<IpGenAddrWithFullMask::PrefixLen>(
        "PrefixLen", 129, "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed");
}

TEST(IpProtocolNumber, HoldsAssignedNumbersAlone) {
    EXPECT_EQ(static_cast<uint32_t>(IpProtocolNumberInstance("ipv6Icmp")), IPPROTO_ICMPV6);
    EXPECT_EQ(static_cast<uint32_t>(IpProtocolNumberInstance("ospf")), 89u);
    for (uint32_t number = 0; number < 400; ++number) {
        const bool assigned = number <= 146 || (number >= 253 && number <= 255);
        EXPECT_EQ(rangeErrorOf([&] { IpProtocolNumberInstance(number); }),
                  assigned ? "" : "Invalid IpProtocolNumber")
            << number;
    }
}

TEST(NamespaceName, HoldsAtMost150BytesWithoutNul) {
    const std::string longest(150, 'x');
    expectValueLaws<NamespaceName>({NamespaceName(), NamespaceName("a"), NamespaceName("a b"),
                                    NamespaceName("ab"), NamespaceName(longest)});
    NamespaceName name("blue");
    const std::pair<Mox::String, const char*> cases[] = {
        {longest + "x", "NamespaceName::value::bytes > 150 not allowed"},
        {std::string("blue\0", 5), "Invalid NamespaceName"},
    };
    for (const auto& [bad, error] : cases) {
        EXPECT_EQ(rangeErrorOf([&, &bad = bad] { name.valueIs(bad); }), error);
        EXPECT_EQ(textErrorOf(bad.view(), &name), error);
        EXPECT_EQ(name, NamespaceName("blue"));
        Mox::NboAttrLog::Out log;
        log.string(bad);
        Mox::NboAttrLog::In in(log.bytes);
        EXPECT_EQ(rangeErrorOf([&] { NamespaceName(&in, Mox::StreamBogon()); }), error);
    }
}

// An agent's record with a name in it, which ends where its quotes do.
class Peer : public Mox::ValueType<Peer> {
  public:
    Peer() = default;
    Peer(NamespaceName name, Port port) : name_(std::move(name)), port_(port) {}
    Peer(TextIt& it, const TextIt& end) { readText(it, end); }
    Peer(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    friend auto operator<=>(const Peer&, const Peer&) = default;

    static constexpr auto description() {
        return Mox::record("agent::Peer", Mox::field("name", &Peer::name_),
                           Mox::field("port", &Peer::port_));
    }

  private:
    NamespaceName name_;
    Port port_;
};

TEST(NamespaceName, ReadsBackAsAFieldOfARecord) {
    expectValueLaws<Peer>({{}, {NamespaceName("', 'port': 1})"), 2}, {NamespaceName("blue"), 1}});
    Peer peer;
    const std::string record = "Value('agent::Peer', ** {'name': ";
    EXPECT_EQ(textErrorOf(record + "blue, 'port': 1})", &peer), "Invalid Peer");
    EXPECT_EQ(textErrorOf(record + "'" + std::string(151, 'x') + "', 'port': 1})", &peer),
              "NamespaceName::value::bytes > 150 not allowed");
}

}  // namespace
}  // namespace Pavo
