#include "Pavo/IpAddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <random>

#include "Keel/Fmt.h"
#include "Pavo/EthAddr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

IpAddr ip(const char* text) {
    return Mox::fromText<IpAddr>(text);
}
Prefix prefix(const char* text) {
    return Mox::fromText<Prefix>(text);
}

TEST(IpAddr, KeepsTheValueLaws) {
    expectValueLaws<IpAddr>({IpAddr(), ip("0.0.0.1"), ip("1.2.3.4"), ip("10.0.0.1"),
                             ip("127.255.255.255"), ip("128.0.0.0"), ip("255.255.255.255")});
    expectValueLaws<IpAddrWithMask>({{},
                                     {ip("10.1.2.3"), 8},
                                     {ip("10.1.2.3"), 99},
                                     {ip("10.1.2.3"), 0xffffffff},
                                     {ip("10.1.2.4"), 0}});
    expectValueLaws<IpAddrWithFullMask>(
        {{}, {ip("10.1.2.3"), 0xff00ff00}, {ip("10.1.2.3"), 0xffffffff}, {ip("11.0.0.0"), 0}});
    expectValueLaws<IpAndPort>(
        {{}, {ip("10.0.0.1"), 1}, {ip("10.0.0.1"), 65535}, {ip("11.0.0.0"), 0}});
}

TEST(IpAddr, ReadsDottedQuadsAlone) {
    const struct {
        const char* text;
        const char* error;
        uint32_t value;
    } cases[] = {
        {"255.255.255.255", "", 0xffffffff},
        {"0.0.0.0", "", 0},
        {"001.002.003.004", "", 0x01020304},
        {"010.0000000000000000000.0.1", "", 0x0a000001},
        {"256.0.0.1", "Invalid IpAddr", 0},
        {"1.2.3.256", "Invalid IpAddr", 0},
        {"4294967297.0.0.1", "Invalid IpAddr", 0},  // 2^32 + 1: no wrap to 1.
        {"1.2.3", "Invalid IpAddr", 0},
        {"1.2.3.", "Invalid IpAddr", 0},
        {"1..2.3", "Invalid IpAddr", 0},
        {".1.2.3", "Invalid IpAddr", 0},
        {" 1.2.3.4", "Invalid IpAddr", 0},
        {"1.2.3.4 ", "Invalid IpAddr", 0},
        {"1.2.3.4x", "Invalid IpAddr", 0},
        {"1.2.3.4.5", "Invalid IpAddr", 0},
        {"+1.2.3.4", "Invalid IpAddr", 0},
        {"1.-2.3.4", "Invalid IpAddr", 0},
        {"0x1.2.3.4", "Invalid IpAddr", 0},
        {"1,2,3,4", "Invalid IpAddr", 0},
        {"", "Invalid IpAddr", 0},
    };
    for (const auto& c : cases) {
        IpAddr value(7);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        EXPECT_EQ(value.value(), *c.error == '\0' ? c.value : 7) << c.text;
    }
}

TEST(IpAddr, StopsBehindTheFourthOctet) {
    const Mox::String text("1.2.3.4x");
    auto it = text.begin();
    IpAddr value;
    sequenceToValue(it, text.end(), &value);
    EXPECT_EQ(value, IpAddr(0x01020304));
    EXPECT_EQ(*it, 'x');
}

// glibc is the oracle, where it means the same: inet_pton refuses leading zeros, which are leading
// zeros here, so it is asked about the text without them.
TEST(IpAddr, AgreesWithTheCLibrary) {
    std::mt19937_64 random(20240501);
    const auto withoutLeadingZeros = [](const std::string& text) {
        std::string bare;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const bool atStart = i == 0 || !Mox::TextCursor::isDigit(text[i - 1]);
            const bool digitFollows = i + 1 < text.size() && Mox::TextCursor::isDigit(text[i + 1]);
            if (text[i] == '0' && digitFollows && (atStart || bare.empty() || bare.back() == '.')) {
                continue;
            }
            bare += text[i];
        }
        return bare;
    };
    int good = 0;
    for (int i = 0; i < 100000; ++i) {
        const IpAddr address(static_cast<uint32_t>(random()));
        const in_addr image = {htonl(address.value())};
        char expected[INET_ADDRSTRLEN];
        ASSERT_EQ(address.stringValue(), inet_ntop(AF_INET, &image, expected, sizeof(expected)));

        std::string text(expected);
        for (auto faults = random() % 4; faults > 1; --faults) {  // Half of the texts stay whole.
            const auto at = random() % (text.size() + 1);
            text.insert(at, 1, "0123456789. a-"[random() % 14]);
            text.erase(random() % text.size(), random() % 2);
        }
        in_addr read = {};
        const bool isGood = inet_pton(AF_INET, withoutLeadingZeros(text).c_str(), &read) == 1;
        const auto value = Mox::tryParse<IpAddr>(text);
        ASSERT_EQ(value.has_value(), isGood) << text;
        if (isGood) {
            ++good;
            ASSERT_EQ(value->value(), ntohl(read.s_addr)) << text;
        }
    }
    EXPECT_GT(good, 50000);
    EXPECT_LT(good, 95000);
}

TEST(IpAddr, SortsAddressesIntoTheirKinds) {
    enum Kind : unsigned {
        zero = 1,
        thisNetwork = 2,
        loopback = 4,
        loopbackBase = 8,
        multicast = 16,
        reservedMulticast = 32,
        pimRouters = 64,
        broadcast = 128,
        unicast = 256,
        linkLocal = 512,
        privateUse = 1024,
        reserved = 2048,
    };
    const struct {
        const char* text;
        unsigned kinds;
    } cases[] = {
        {"0.0.0.0", zero | thisNetwork | unicast},
        {"0.255.0.0", thisNetwork | unicast},
        {"1.0.0.0", unicast},
        {"127.0.0.0", loopback | loopbackBase | unicast | privateUse},
        {"127.0.0.1", loopback | unicast | privateUse},
        {"128.0.0.0", unicast},
        {"169.253.255.255", unicast},
        {"169.254.0.0", linkLocal | unicast},
        {"169.254.255.255", linkLocal | unicast},
        {"169.255.0.0", unicast},
        {"223.255.255.255", unicast | privateUse},
        {"224.0.0.0", multicast | reservedMulticast},
        {"224.0.0.13", multicast | reservedMulticast | pimRouters},
        {"224.0.1.0", multicast},
        {"239.255.255.255", multicast | privateUse},
        {"240.0.0.1", unicast | reserved},
        {"255.255.255.254", unicast | reserved | privateUse},
        {"255.255.255.255", broadcast | privateUse},
        {"9.255.255.255", unicast},
        {"10.0.0.0", unicast | privateUse},
        {"11.0.0.0", unicast | privateUse},  // All bits of 10.0.0.0 are there.
        {"172.15.255.255", unicast},
        {"172.16.0.0", unicast | privateUse},
        {"172.32.0.0", unicast},
        {"192.167.255.255", unicast},
        {"192.168.0.0", unicast | privateUse},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const IpAddr a = ip(c.text);
        EXPECT_EQ(a.isZero(), (c.kinds & zero) != 0);
        EXPECT_EQ(a.isAny(), (c.kinds & zero) != 0);
        EXPECT_EQ(a.isThisNetwork(), (c.kinds & thisNetwork) != 0);
        EXPECT_EQ(a.isLoopback(), (c.kinds & loopback) != 0);
        EXPECT_EQ(a.isLoopbackBase(), (c.kinds & loopbackBase) != 0);
        EXPECT_EQ(a.isMulticast(), (c.kinds & multicast) != 0);
        EXPECT_EQ(a.isReservedMulticast(), (c.kinds & reservedMulticast) != 0);
        EXPECT_EQ(a.isPimRouters(), (c.kinds & pimRouters) != 0);
        EXPECT_EQ(a.isBroadcast(), (c.kinds & broadcast) != 0);
        EXPECT_EQ(a.isUnicast(), (c.kinds & unicast) != 0);
        EXPECT_EQ(a.isLinkLocal(), (c.kinds & linkLocal) != 0);
        EXPECT_EQ(a.isLinkLocalUnicast(), (c.kinds & linkLocal) != 0);
        EXPECT_EQ(a.isPrivate(), (c.kinds & privateUse) != 0);
        EXPECT_EQ(a.isReserved(false), (c.kinds & reserved) != 0);
    }
}

// The toggle is asked once in the life of a process, so each state has a process of its own.
TEST(IpAddrDeathTest, ReservesClassEUnlessToggledAndAskedOtherwise) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const struct {
        const char* file;  // Null for none.
        int isReserved;
    } cases[] = {
        {nullptr, 0},
        {R"({"Ipv4Routable240ClassE": true})", 0},
        {R"({"Ipv4Routable240ClassE": false})", 1},
    };
    const std::string folder = testing::TempDir() + "pavo-toggle";
    ASSERT_EQ(std::system(("mkdir -p " + folder).c_str()), 0);
    const std::string path = folder + "/Pavo.json";
    setenv("PAVO_TOGGLE_DIR", folder.c_str(), 1);
    for (const auto& c : cases) {
        std::remove(path.c_str());
        if (c.file != nullptr) {
            std::ofstream(path) << c.file;
        }
        EXPECT_EXIT(std::_Exit(ip("240.0.0.1").isReserved(true) ? 1 : 0),
                    testing::ExitedWithCode(c.isReserved), "");
        EXPECT_EXIT(std::_Exit(ip("240.0.0.1").isReserved(false) ? 1 : 0),
                    testing::ExitedWithCode(1), "");
    }
    std::remove(path.c_str());
    unsetenv("PAVO_TOGGLE_DIR");
}

TEST(IpAddr, CountsLeadingBitsInCommon) {
    EXPECT_EQ(ip("10.0.0.0").longestCommonPrefix(ip("10.128.0.0")), 8u);
    EXPECT_EQ(ip("10.0.0.0").longestCommonPrefix(ip("10.0.0.1")), 31u);
    EXPECT_EQ(ip("10.0.0.0").longestCommonPrefix(ip("10.0.0.0")), 32u);
    EXPECT_EQ(ip("0.0.0.0").longestCommonPrefix(ip("128.0.0.0")), 0u);
}

// Tables of other processes hold keys by these numbers.
TEST(IpAddr, HashesAsOtherProcessesDo) {
    EXPECT_EQ(ip("0.0.0.0").hash(), 0xcaa3caa3);
    EXPECT_EQ(ip("1.2.3.4").hash(), 0x90af30c6);
    const uint32_t address = ip("10.0.0.0").hash();
    EXPECT_EQ(Prefix(ip("10.0.0.0"), 8).hash(5), Mox::Hash(5).mix(address).mix(8).result());
    EXPECT_EQ(IpAddrWithMask(ip("10.0.0.0"), 8).hash(5), Mox::Hash(5).mix(address).mix(8).result());
    EXPECT_EQ(IpAddrWithFullMask(ip("10.0.0.0"), 8).hash(5),
              Mox::Hash(5).mix(address).mix(8).result());
    EXPECT_EQ(IpAndPort(ip("10.0.0.0"), 80).hash(5), Mox::Hash(5).mix(address).mix(80).result());
}

TEST(IpAddr, LogsNumbersOf32Bits) {
    Mox::NboAttrLog::Out log;
    log << IpAndPort(ip("1.2.3.4"), 80) << Prefix(ip("10.0.0.0"), 8);
    EXPECT_EQ(log.bytes, (Mox::Bytes{1, 2, 3, 4, 0, 0, 0, 80, 10, 0, 0, 0, 0, 0, 0, 8}));
}

TEST(Prefix, KeepsTheValueLaws) {
    expectValueLaws<Prefix>({prefix("9.0.0.0/8"), prefix("10.0.0.0/32"), prefix("10.0.0.0/16"),
                             prefix("10.1.0.0/16"), prefix("10.0.0.0/8"), prefix("255.0.0.0/8"),
                             prefix("128.0.0.0/1"), prefix("0.0.0.0/0")});
    expectValueLaws<Prefix>({Prefix(ip("10.0.0.1"), 0xffffffff)},
                            {.readsBack = "text allows no length above 32, parts allow this one"});
}

TEST(Prefix, ReadsAddressAndLengthWithoutHostBits) {
    const char* const nonZero = "Invalid Prefix - non-zero after prefixlen";
    const char* const noLength = "premature end of Prefix type";
    const struct {
        const char* text;
        const char* error;
        Prefix value;
    } cases[] = {
        {"10.0.0.0/8", "", Prefix(ip("10.0.0.0"), 8)},
        {"10.0.0.0/0008", "", Prefix(ip("10.0.0.0"), 8)},
        {"0.0.0.0/0", "", Prefix()},
        {"1.2.3.4/32", "", Prefix(ip("1.2.3.4"), 32)},
        {"128.0.0.0/1", "", Prefix(ip("128.0.0.0"), 1)},
        {"10.0.0.1/8", nonZero, {}},
        {"10.1.0.0/8", nonZero, {}},
        {"1.2.3.4/31", "", Prefix(ip("1.2.3.4"), 31)},
        {"1.2.3.5/31", nonZero, {}},
        {"128.0.0.0/0", nonZero, {}},
        {"10.0.0.0/33", nonZero, {}},
        {"10.0.0.0/4294967295", nonZero, {}},
        {"10.0.0.0/4294967304", nonZero, {}},  // 2^32 + 8: no wrap to 8.
        {"10.0.0.0/8 ", nonZero, {}},
        {"10.0.0.0/8/8", nonZero, {}},
        {"10.0.0.0", noLength, {}},
        {"10.0.0.0/", noLength, {}},
        {"10.0.0.0/x", noLength, {}},
        {"10.0.0.0/-8", noLength, {}},
        {"10.0.0.0 /8", noLength, {}},
        {"10.0.0/8", "Invalid IpAddr", {}},
    };
    for (const auto& c : cases) {
        Prefix value(ip("9.0.0.0"), 9);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        EXPECT_EQ(value, *c.error == '\0' ? c.value : Prefix(ip("9.0.0.0"), 9)) << c.text;
    }
}

TEST(Prefix, RefusesPartsWithHostBits) {
    const struct {
        const char* address;
        uint32_t len;
        bool valid;
    } cases[] = {
        {"10.0.0.1", 32, true}, {"10.0.0.1", 31, false},        {"10.0.0.0", 8, true},
        {"10.0.0.0", 7, true},  {"10.0.0.0", 6, false},         {"0.0.0.0", 0, true},
        {"0.0.0.1", 0, false},  {"10.0.0.0", 33, false},        {"0.0.0.0", 33, false},
        {"0.0.0.0", 64, false}, {"10.0.0.0", 0xffffffff, true}, {"0.0.0.0", 0xfffffffe, false},
    };
    const char* const error = "Prefix::validAsPrefix != true not allowed";
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.address) + "/" + std::to_string(c.len));
        EXPECT_EQ(rangeErrorOf([&] { Prefix(ip(c.address), c.len); }), c.valid ? "" : error);
        Mox::NboAttrLog::Out log;
        log << ip(c.address);
        log.u32(c.len);
        Mox::NboAttrLog::In in(log.bytes);
        EXPECT_EQ(rangeErrorOf([&] { Prefix(&in, Mox::StreamBogon()); }), c.valid ? "" : error);
    }
}

TEST(Prefix, SortsPrefixesOfTheOddLengthLastAndSideBySide) {
    const Prefix odd(ip("1.0.0.0"), 0xffffffff);
    const Prefix other(ip("2.0.0.0"), 0xffffffff);
    EXPECT_LT(Prefix(), odd);
    EXPECT_LT(prefix("255.0.0.0/8"), odd);
    EXPECT_FALSE(odd < other || other < odd || odd == other);
}

TEST(Prefix, AddsHostBitsThatFit) {
    const char* const error = "Host address too long";
    const struct {
        Prefix prefix;
        const char* host;
        const char* error;
        const char* result;
    } cases[] = {
        {prefix("10.0.0.0/8"), "0.255.255.255", "", "10.255.255.255"},
        {prefix("10.0.0.0/8"), "1.0.0.0", error, ""},
        {prefix("128.0.0.0/1"), "128.0.0.0", error, ""},
        {prefix("1.2.3.4/32"), "0.0.0.0", "", "1.2.3.4"},
        {prefix("1.2.3.4/32"), "0.0.0.1", error, ""},
        {prefix("0.0.0.0/0"), "255.255.255.255", "", "255.255.255.255"},
        {Prefix(ip("1.0.0.0"), 0xffffffff), "2.0.0.1", "", "3.0.0.1"},
    };
    for (const auto& c : cases) {
        IpAddr result;
        EXPECT_EQ(rangeErrorOf([&] { result = c.prefix.subnetHost(ip(c.host)); }), c.error);
        if (*c.error == '\0') {
            EXPECT_EQ(result, ip(c.result));
        }
    }
}

TEST(IpAddrWithMask, KeepsHostBitsAndAnyLength) {
    const struct {
        const char* text;
        const char* error;
        IpAddrWithMask value;
    } cases[] = {
        {"10.1.2.3/99", "", IpAddrWithMask(ip("10.1.2.3"), 99)},
        {"10.1.2.3/0", "", IpAddrWithMask(ip("10.1.2.3"), 0)},
        {"10.1.2.3/4294967296", "premature end of Prefix type", {}},
        {"10.1.2.3/8x", "premature end of Prefix type", {}},
        {"10.1.2.3", "premature end of Prefix type", {}},
        {"10.1.2/8", "Invalid IpAddr", {}},
    };
    for (const auto& c : cases) {
        IpAddrWithMask value(ip("9.9.9.9"), 9);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
        EXPECT_EQ(value, *c.error == '\0' ? c.value : IpAddrWithMask(ip("9.9.9.9"), 9)) << c.text;
    }
}

TEST(IpAddrWithFullMask, ShowsWhatItMatches) {
    const struct {
        uint32_t mask;
        const char* text;
    } cases[] = {
        {0xffffff00, "10.1.2.0/24"},
        {0xff00ff00, "10.1.2.3/255.0.255.0"},
        {0, "0.0.0.0/0"},
        {0x80000000, "0.0.0.0/1"},
        {0xffffffff, "10.1.2.3/32"},
        {1, "10.1.2.3/0.0.0.1"},
        {0x7fffffff, "10.1.2.3/127.255.255.255"},
    };
    for (const auto& c : cases) {
        const IpAddrWithFullMask value(ip("10.1.2.3"), c.mask);
        EXPECT_EQ(value.stringValue(), c.text);
        EXPECT_EQ(KeelFmt::to_string(value), c.text);
    }
    EXPECT_EQ(valueToStrep(IpAddrWithFullMask(ip("10.1.2.3"), 0xffffff00)),
              "Value('Pavo::IpAddrWithFullMask', ** {'address': 10.1.2.3, 'mask': 4294967040})");
}

TEST(IpAddrWithFullMask, ReadsItsRecordFormAlone) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"10.1.2.0/24", "Invalid IpAddrWithFullMask"},
        {"Value('Pavo::IpAddrWithFullMask', ** {'address': 10.1.2.3, 'mask': 4294967296})",
         "Invalid IpAddrWithFullMask"},
        {"Value('Pavo::IpAddrWithFullMask', ** {'address': 10.1.2, 'mask': 1})", "Invalid IpAddr"},
        {"Value('Pavo::IpAddrWithFullMask', ** {'address': 10.1.2.3, 'mask': 1}) ",
         "Invalid IpAddrWithFullMask"},
        {"Value('Pavo::IpAndPort', ** {'ip': 10.1.2.3, 'port': 1})", "Invalid IpAddrWithFullMask"},
    };
    for (const auto& c : cases) {
        IpAddrWithFullMask value(ip("10.1.2.3"), 1);
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
    }
}

TEST(IpAndPort, RefusesAPortOfMoreThan16Bits) {
    IpAndPort value;
    EXPECT_EQ(textErrorOf("Value('Pavo::IpAndPort', ** {'ip': 1.2.3.4, 'port': 65536})", &value),
              "Invalid IpAndPort");
    Mox::NboAttrLog::Out log;
    log << ip("1.2.3.4");
    log.u32(65616);  // 80 in its low 16 bits.
    Mox::NboAttrLog::In in(log.bytes);
    EXPECT_THROW(IpAndPort(&in, Mox::StreamBogon()), Mox::RangeException);
}

}  // namespace
}  // namespace Pavo
