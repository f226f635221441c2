#include "Pavo/RouteDistinguisher.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

#include "support/ValueLaws.h"

namespace Pavo {
namespace {

using Rd = RouteDistinguisher;

Rd rd(const char* text) {
    return Mox::fromText<Rd>(text);
}

TEST(AutonomousSystem, ReadsBothFormsAndKnowsItsRanges) {
    using As = AutonomousSystem;
    for (const auto& [from, to] : {std::pair(64512u, 65534u), {4200000000u, 4294967294u}}) {
        EXPECT_TRUE(As(from).isPrivate() && As(to).isPrivate());
        EXPECT_FALSE(As(from - 1).isPrivate() || As(to + 1).isPrivate());
    }
    EXPECT_EQ(As(65535).displayString(true) + " " + As(65536).displayString(true), "65535 1.0");
    EXPECT_EQ(As(65536).displayString(), "65536");
    EXPECT_EQ(Mox::tryParse<As>("1.65535"), As(131071));
    expectRefuses(As(9), {{"Invalid AutonomousSystem",
                           {"", "1.", ".1", "1.65536", "65536.0", "4294967296", "1.0.0", "1 "}}});
}

TEST(RouteDistinguisher, KeepsTheValueLaws) {  // The last of the eight bytes counts most.
    expectValueLaws<Rd>({Rd(), rd("0:0"), rd("0.0.0.0:0"), rd("256:0"), rd("0:0.0.2.0"), rd("0:1"),
                         rd("1.0:7"), rd("10.0.0.1:7"), rd("0x0003000000000008")});
    const Rd number = rd("0:1"), address = rd("0:0.0.0.1");
    EXPECT_TRUE(address != number && !(address < number) && !(number < address));
    const std::string record =
        "Value('Pavo::RouteDistinguisher', ** {'rdNboInternal': "
        "504403158265495552, 'valid': true, 'type0LocalType': ";
    EXPECT_EQ(valueToStrep(rd("0:7")), record + "localNumber})");
    expectRefuses(number, {{"Invalid RouteDistinguisher", {"Value('Pavo::Rd', ** {})", "x"}},
                           {"Invalid type0LocalType", {(record + "localFoo})").c_str()}}});
    EXPECT_EQ(logErrorOf<Rd>(0u, 7u, 1u, 3u), "Invalid type0LocalType");
}

TEST(RouteDistinguisher, ReadsWhatItPrints) {
    const struct {
        const char* text;
        uint64_t hbo;
        Rd::Type0LocalType local;
        const char* plain = text;
        const char* asdot = plain;
    } cases[] = {
        {"65535:4294967295", 0x0000ffffffffffff, Rd::localNumber},
        {"000100:007", 0x0000006400000007, Rd::localNumber, "100:7"},
        {"100:10.0.0.1", 0x000000640a000001, Rd::localIpAddr},
        {"255.255.255.255:65535", 0x0001ffffffffffff, Rd::localInvalid},
        {"65536:65535", 0x000200010000ffff, Rd::localInvalid, "65536:65535", "1.0:65535"},
        {"4294967295:0", 0x0002ffffffff0000, Rd::localInvalid, "4294967295:0", "65535.65535:0"},
        {"0.100:1", 0x0002000000640001, Rd::localInvalid, "100:1"},
        {"0xfFfF000000000a01", 0xffff000000000a01, Rd::localInvalid, "0xffff000000000a01"},
        {"0x0003000000000000", 0x0003000000000000, Rd::localInvalid},
    };
    for (const auto& c : cases) {
        Rd value = rd(c.text);
        EXPECT_EQ(value, Rd(__builtin_bswap64(c.hbo), true, c.local)) << c.text;
        EXPECT_EQ(value.stringValue(), c.plain);
        EXPECT_EQ(value.displayString(true), c.asdot);
        value.stringValueIs("INVALID");
        EXPECT_EQ(value, Rd());
        value.rdNboIs(rd(c.text).rdNbo());
        EXPECT_EQ(value.type0LocalType(), c.hbo >> 48 == 0 ? Rd::localNumber : Rd::localInvalid);
    }
}

TEST(RouteDistinguisher, RefusesAnyOtherText) {
    std::istringstream texts(
        "|:|1|1:|:1|1:2:3|1:2 | 1:2|1 :2|+1:2|1:-2|1.:2|.1:2|1.2.3:4|1.2.3.4.5:6|256.0.0.1:1"
        "|1:1.2.3|1:1.2.3.4.5|1:4294967296|65536:65536|65536:1.2.3.4|4294967296:1|1.65536:1|65536."
        "1:1"
        "|1.1:65536|10.0.0.1:65536|10.0.0.1:1.2.3.4|invalid|INVALID |0x0002000000000001"
        "|0x000300000000001|0x00030000000000001|0x000300000000000g|0X0003000000000001");
    for (std::string text; std::getline(texts, text, '|');) {
        Rd value = rd("9:9");
        EXPECT_EQ(textErrorOf(text, &value), "Invalid RouteDistinguisher") << text;
    }
}

TEST(RouteDistinguisher, IsMadeOfThePartsOfItsTypeAndHasNoOther) {
    const AutonomousSystem small(258), large(65538);
    const IpAddr address(0x0a000001);
    const Rd type1 = Rd::fromType1(address, 65535);
    EXPECT_EQ(type1, rd("10.0.0.1:65535"));
    EXPECT_EQ(Rd::fromType0(small, 0x0a000001), rd("258:167772161"));
    EXPECT_EQ(Rd::fromType0(small, address), rd("258:10.0.0.1"));
    EXPECT_EQ(Rd::fromType2(large, 65535), rd("1.2:65535"));
    EXPECT_EQ(Rd::fromType2(small, 7), rd("0.258:7"));
    EXPECT_EQ(rangeErrorOf([&] { Rd::fromType0(AutonomousSystem(65536), 7); }),
              "RouteDistinguisher::type0Administrator > 65535 not allowed");
    EXPECT_EQ(rangeErrorOf([&] { Rd::fromType1(address, 65536); }),
              "RouteDistinguisher::type1LocallyAssignedNumber > 65535 not allowed");
    EXPECT_EQ(rangeErrorOf([&] { Rd::fromType2(large, 65536); }),
              "RouteDistinguisher::type2LocallyAssignedNumber > 65535 not allowed");
    EXPECT_DEATH(type1.type0Administrator(), "rdType\\(\\) == type0\\(\\)");
}

}  // namespace
}  // namespace Pavo
