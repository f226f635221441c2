#include "Pavo/IpAddr.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Keel/Fmt.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr auto ip = Mox::fromText<IpAddr>;

TEST(IpAddr, KeepsTheValueLaws) {
    expectValueLawsOf<IpAddr>({"0.0.0.0", "0.0.0.1", "1.2.3.4", "127.255.255.255", "128.0.0.0"});
    expectValueLawsOf<IpAddrWithMask>(
        {"0.0.0.0/0", "10.1.2.3/8", "10.1.2.3/99", "10.1.2.3/4294967295", "10.1.2.4/0"});
    // The odd length, which is no text, goes last, and its prefixes are side by side.
    const Prefix odd(ip("1.0.0.0"), 0xffffffff), other(ip("2.0.0.0"), 0xffffffff);
    expectValueLaws<Prefix>({Prefix("9.0.0.0/8"), Prefix("10.0.0.0/32"), Prefix("10.0.0.0/16"),
                             Prefix("10.1.0.0/16"), Prefix("10.0.0.0/8"), Prefix("128.0.0.0/1"),
                             Prefix("0.0.0.0/0"), odd});
    EXPECT_FALSE(odd < other || other < odd || odd == other);
}

TEST(IpAddr, ReadsDottedQuadsAlone) {
    expectReads<IpAddr>({{"001.002.003.004", "1.2.3.4"},
                         {"010.0000000000000000000.0.1", "10.0.0.1"},
                         {"255.255.255.255"}});
    expectRefuses(IpAddr(7), {{"Invalid IpAddr",
                               {"256.0.0.1", "1.2.3.256", "4294967297.0.0.1",  // 2^32 + 1: no wrap.
                                "1.2.3", "1.2.3.", "1..2.3", ".1.2.3", " 1.2.3.4", "1.2.3.4 ",
                                "1.2.3.4.5", "+1.2.3.4", "1.-2.3.4", "0x1.2.3.4", "1,2,3,4"}}});
}

TEST(IpAddrWithFullMask, ShowsWhatItMatchesAndReadsItsRecord) {
    const std::pair<uint32_t, const char*> cases[] = {
        {0xffffff00, "10.1.2.0/24"}, {0, "0.0.0.0/0"},
        {0xffffffff, "10.1.2.3/32"}, {0x7fffffff, "10.1.2.3/127.255.255.255"},
        {1, "10.1.2.3/0.0.0.1"},
    };
    for (const auto& [mask, text] : cases) {
        EXPECT_EQ(KeelFmt::to_string(IpAddrWithFullMask(ip("10.1.2.3"), mask)), text);
    }
    IpAddrWithFullMask value(ip("10.1.2.3"), 1);
    const std::string record = "Value('Pavo::IpAddrWithFullMask', ** {'address': 10.1.2";
    EXPECT_EQ(valueToStrep(value), record + ".3, 'mask': 1})");
    EXPECT_EQ(textErrorOf("10.1.2.0/24", &value), "Invalid IpAddrWithFullMask");
    EXPECT_NE(logErrorOf<IpAndPort>(ip("1.2.3.4"), 65616u), "");  // 80 in its low 16 bits.
    EXPECT_EQ(textErrorOf(record + ", 'mask': 1})", &value), "Invalid IpAddr");
}

// The toggle is read once in the life of a process, so each state has a process of its own.
TEST(IpAddrDeathTest, ReservesClassEUnlessToggledAndAskedOtherwise) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const std::string folder = testing::TempDir() + "pavo-toggle";
    const std::string path = folder + "/Pavo.json";
    std::filesystem::create_directories(folder);
    std::remove(path.c_str());
    setenv("PAVO_TOGGLE_DIR", folder.c_str(), 1);
    for (const bool isToggled : {false, true}) {
        if (isToggled) {
            std::ofstream(path) << R"({"Ipv4Routable240ClassE": false})";
        }
        const IpAddr classE = ip("240.0.0.1");
        EXPECT_EXIT(std::_Exit(classE.isReserved(true) + 2 * classE.isReserved(false)),
                    testing::ExitedWithCode(isToggled ? 3 : 2), "");
    }
    std::remove(path.c_str());
    unsetenv("PAVO_TOGGLE_DIR");
}

}  // namespace
}  // namespace Pavo
