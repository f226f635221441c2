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
    expectValueLawsOf<IpAddr>({"0.0.0.0", "0.0.0.1", "1.2.3.4", "10.0.0.1", "127.255.255.255",
                               "128.0.0.0", "255.255.255.255"});
    expectValueLawsOf<IpAddrWithMask>(
        {"0.0.0.0/0", "10.1.2.3/8", "10.1.2.3/99", "10.1.2.3/4294967295", "10.1.2.4/0"});
    expectValueLaws<IpAddrWithFullMask>(
        {{}, {ip("10.1.2.3"), 0xff00ff00}, {ip("10.1.2.3"), 0xffffffff}, {ip("11.0.0.0"), 0}});
    expectValueLaws<IpAndPort>(
        {{}, {ip("10.0.0.1"), 1}, {ip("10.0.0.1"), 65535}, {ip("11.0.0.0"), 0}});
    expectValueLawsOf<Prefix>({"9.0.0.0/8", "10.0.0.0/32", "10.0.0.0/16", "10.1.0.0/16",
                               "10.0.0.0/8", "255.0.0.0/8", "128.0.0.0/1", "0.0.0.0/0"});
    expectValueLaws<Prefix>({Prefix(ip("10.0.0.1"), 0xffffffff)},
                            "text allows no length above 32, parts allow this one");
}

TEST(Prefix, SortsPrefixesOfTheOddLengthLastAndSideBySide) {
    const Prefix odd(ip("1.0.0.0"), 0xffffffff);
    const Prefix other(ip("2.0.0.0"), 0xffffffff);
    EXPECT_LT(Prefix(), odd);
    EXPECT_LT(Prefix(ip("255.0.0.0"), 8), odd);
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

TEST(Prefix, ReadsAddressAndLengthWithoutHostBits) {
    expectReads<Prefix>({{"10.0.0.0/0008", "10.0.0.0/8"},
                         {"0.0.0.0/0"},
                         {"128.0.0.0/1"},
                         {"1.2.3.4/31"},
                         {"1.2.3.5/32"}});
    expectRefuses(Prefix(ip("9.0.0.0"), 9),
                  {{"Invalid Prefix - non-zero after prefixlen",
                    {"10.0.0.1/8", "10.1.0.0/8", "1.2.3.5/31", "128.0.0.0/0", "10.0.0.0/33",
                     "10.0.0.0/4294967295",
                     "10.0.0.0/4294967304",  // 2^32 + 8: no wrap to 8.
                     "10.0.0.0/8 ", "10.0.0.0/8/8"}},
                   {"premature end of Prefix type",
                    {"10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0/-8", "10.0.0.0 /8"}},
                   {"Invalid IpAddr", {"10.0.0/8"}}});
}

TEST(IpAddrWithMask, KeepsHostBitsAndAnyLength) {
    expectReads<IpAddrWithMask>({{"10.1.2.3/99"}, {"10.1.2.3/0"}});
    expectRefuses(
        IpAddrWithMask(ip("9.9.9.9"), 9),
        {{"premature end of Prefix type", {"10.1.2.3/4294967296", "10.1.2.3/8x", "10.1.2.3"}},
         {"Invalid IpAddr", {"10.1.2/8"}}});
}

TEST(IpAddrWithFullMask, ShowsWhatItMatchesAndReadsItsRecord) {
    const std::pair<uint32_t, const char*> cases[] = {
        {0xffffff00, "10.1.2.0/24"},
        {0xff00ff00, "10.1.2.3/255.0.255.0"},
        {0, "0.0.0.0/0"},
        {0xffffffff, "10.1.2.3/32"},
        {0x7fffffff, "10.1.2.3/127.255.255.255"},
        {1, "10.1.2.3/0.0.0.1"},
    };
    for (const auto& [mask, text] : cases) {
        EXPECT_EQ(KeelFmt::to_string(IpAddrWithFullMask(ip("10.1.2.3"), mask)), text);
    }
    IpAddrWithFullMask value(ip("10.1.2.3"), 1);
    const std::string record = "Value('Pavo::IpAddrWithFullMask', ** {'address': 10.1.2";
    EXPECT_EQ(valueToStrep(value), record + ".3, 'mask': 1})");
    EXPECT_EQ(textErrorOf("10.1.2.0/24", &value), "Invalid IpAddrWithFullMask");
    EXPECT_EQ(textErrorOf(record + ", 'mask': 1})", &value), "Invalid IpAddr");
}

TEST(IpAndPort, RefusesAPortOfMoreThan16Bits) {
    EXPECT_NE(logErrorOf<IpAndPort>(ip("1.2.3.4"), 65616u),
              "");  // 80 in its low 16 bits.
}

// The toggle is read once in the life of a process, so each state has a process of its own.
TEST(IpAddrDeathTest, ReservesClassEUnlessToggledAndAskedOtherwise) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // The toggle file, null for none, and whether a routable address is reserved.
    const std::pair<const char*, bool> cases[] = {
        {nullptr, false},
        {R"({"Ipv4Routable240ClassE": true})", false},
        {R"({"Ipv4Routable240ClassE": false})", true},
    };
    const std::string folder = testing::TempDir() + "pavo-toggle";
    std::filesystem::create_directories(folder);
    const std::string path = folder + "/Pavo.json";
    setenv("PAVO_TOGGLE_DIR", folder.c_str(), 1);
    for (const auto& [file, isReserved] : cases) {
        std::remove(path.c_str());
        if (file != nullptr) {
            std::ofstream(path) << file;
        }
        const IpAddr classE = ip("240.0.0.1");
        EXPECT_EXIT(std::_Exit(classE.isReserved(true) + 2 * classE.isReserved(false)),
                    testing::ExitedWithCode(isReserved ? 3 : 2), "");
    }
    std::remove(path.c_str());
    unsetenv("PAVO_TOGGLE_DIR");
}

// Tables of other processes hold keys by these numbers.
TEST(IpAddr, HashesAsOtherProcessesDo) {
    EXPECT_EQ(ip("0.0.0.0").hash(), 0xcaa3caa3);
    EXPECT_EQ(ip("1.2.3.4").hash(), 0x90af30c6);
}

}  // namespace
}  // namespace Pavo
