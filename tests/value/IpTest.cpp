#include "Pavo/Ip.h"

#include <gtest/gtest.h>

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
    if (rangeText.empty()) {
        rangeText = name + "::value < 0 or > " + std::to_string(most) + " not allowed";
    }
    T value(most);
    const std::string text = std::to_string(most);
    EXPECT_EQ(textErrorOf(text, &value) + logErrorOf<T>(most), "");
    for (const std::string& bad :
         {std::to_string(most + 1), text + " ", std::string("4294967297")}) {
        EXPECT_EQ(textErrorOf(bad, &value), "Invalid " + name);
    }
    for (const uint32_t number : {most + 1, 0x10000 + most}) {
        EXPECT_EQ(rangeErrorOf([&] { value.valueIs(number); }), rangeText);
        EXPECT_EQ(logErrorOf<T>(number), rangeText);
    }
    EXPECT_EQ(value, T(most));
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
    EXPECT_EQ(NamespaceName(longest).stringValue(), longest);
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

// As a field of a record, where a name ends where its quotes do.
TEST(NamespaceName, ReadsBackAsAFieldOfARecord) {
    using Codec = Mox::Codec<NamespaceName>;
    NamespaceName read;
    for (const char* text : {"", "blue", "', 'port': 1})"}) {
        const NamespaceName name(text);
        const Mox::String record =
            Mox::printedString([&](auto& out) { Codec::print(out, name); }) + ", 'port': 1})";
        Mox::TextCursor in(record);
        EXPECT_EQ(Codec::parse(in, &read, "bad"), nullptr) << record;
        EXPECT_EQ(read, name);
        EXPECT_STREQ(in.at(), ", 'port': 1})");
    }
    for (const std::string& bad : {std::string("blue, "), "'" + std::string(151, 'x') + "'"}) {
        Mox::TextCursor in(bad);
        EXPECT_STREQ(Codec::parse(in, &read, "bad"),
                     bad[0] == 'b' ? "bad" : "NamespaceName::value::bytes > 150 not allowed");
    }
}

}  // namespace
}  // namespace Pavo
