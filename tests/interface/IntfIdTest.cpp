#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Pavo/IntfId.h"
#include "Pavo/IntfIdDesc.h"
#include "Pavo/OneAtATimeHash.h"
#include "support/Seeds.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

constexpr IntfIdPart first(10, 20, true, '\0');
constexpr IntfIdPart second(10, 10, true, '/');
constexpr IntfIdPart third(10, 0, true, '/');
constexpr IntfIdPart fourth(5, 5, false, '/');
constexpr IntfIdPart sub(25, 0, false, '.');

using Parts = std::vector<std::vector<IntfIdPart>>;  // By sub-type and place.

Mox::Ptr<IntfIdDesc> described(uint32_t typeId, const char* name, const char* shortName,
                               const Parts& subTypes) {
    const auto desc = intfIdDescFactory(typeId, name, ShortPrefix(shortName));
    for (uint32_t subType = 0; subType < subTypes.size(); ++subType) {
        for (uint32_t k = 0; k < subTypes[subType].size(); ++k) {
            desc->partIs({subType, k}, subTypes[subType][k]);
        }
    }
    return desc;
}

std::string addErrorOf(IntfIdMgr& manager, const Mox::Ptr<IntfIdDesc>& desc) {
    return rangeErrorOf([&] {
        manager.intfIdDescIs(desc);
        desc->initializedIs(true);
    });
}

// The names of common interfaces, one of more parts and longer prefixes, and the widths of their
// numbers in bits; the last number is a sub-interface when `hasSub`.
const struct {
    uint32_t typeId, subType;
    const char *prefix, *shortPrefix;
    std::vector<uint32_t> widths;
    bool hasSub;
} commonNames[] = {
    {1, 0, "Ethernet", "Et", {20, 25}, true},
    {1, 1, "Ethernet", "Et", {15, 15, 25}, true},
    {1, 2, "Ethernet", "Et", {10, 10, 10, 25}, true},
    {2, 0, "Port-Channel", "Po", {20, 25}, true},
    {3, 0, "Vlan", "Vl", {12}, false},
    {4, 0, "Loopback", "Lo", {20}, false},
    {5, 0, "Management", "Ma", {20}, false},
    {5, 1, "Management", "Ma", {15, 15}, false},
    {6, 0, "Tunnel", "Tu", {20}, false},
    {7, 0, "Vxlan", "Vx", {20}, false},
    {8, 0, "Interface-Of-A-Line-Card", "InterfaceOfACard", {30, 5, 5, 5, 5, 5}, true},
};

TEST(IntfId, KeepsTheValueLaws) {
    expectValueLaws<GenericIntfId>(  // Sub-types go before other bits in high places.
        {{}, IntfId(7), IntfId(1ull << 33), IntfId(1u << 25), IntfId(1ull << 62 | 1u << 25)});
    expectValueLawsOf<IntfId>({"Vlan0", "Vxlan0", "Ethernet1.7", "Vlan1", "Vlan2048",
                               "Port-Channel1048575.33554431", "Ethernet1/2"});
    expectValueLaws<IntfId>({IntfId(), IntfId(1), IntfId(~0ull)});  // Without names.
    const std::string widthText = "IntfIdPart::widthBits < 1 or > 32 not allowed";
    EXPECT_EQ(logErrorOf<IntfIdPart>(33u, 0u, 0u, 0u), widthText);
    for (const uint32_t width : {0u, 33u, 257u}) {
        EXPECT_EQ(rangeErrorOf([width] { IntfIdPart(width, 0, false, '\0'); }), widthText);
    }
    EXPECT_EQ(logErrorOf<IntfIdPartKey>(3u, 8u), "IntfIdPartKey::part < 0 or > 7 not allowed");
    // Computed by another program over ef cd ab 89 67 45 23 01.
    EXPECT_EQ(IntfId(0x0123456789abcdef).hash(), 0xb5eb1e68);
    EXPECT_EQ(IntfId(7).hash(9), GenericIntfId(IntfId(7)).hash(9));
    EXPECT_EQ(oneAtATimeHash(uint8_t{'a'}), 0xca2e9442);
}

// Small numbers, zeros among them, are as frequent as large ones.
TEST(IntfId, IsReadBackFromItsNames) {
    const auto manager = globalIntfIdMgr();
    // clang-format off
    const auto card = described(8, "Interface-Of-A-Line-Card", "InterfaceOfACard", {{
        {30, 0, true, '\0'}, {5, 0, false, '/'}, {5, 5, false, '/'}, {5, 10, false, '/'},
        {5, 15, false, '/'}, {5, 20, false, '.'}}});
    // clang-format on
    ASSERT_EQ(addErrorOf(*manager, card), "");
    for (const uint32_t seed : PavoTest::Seeds(2000 * std::size(commonNames))) {
        std::mt19937 random(seed);
        const auto& about = commonNames[random() % std::size(commonNames)];
        GenericIntfId id;
        id.typeIdIs(about.typeId);
        id.subTypeIs(about.subType);
        std::string numbers;
        uint32_t shown = 0;
        for (uint32_t k = 0; k < about.widths.size(); ++k) {
            const auto number = static_cast<uint32_t>((random() & ((1u << about.widths[k]) - 1)) >>
                                                      (random() % (about.widths[k] + 1)));
            id.partIs(k, number);
            const bool isSub = about.hasSub && k + 1 == about.widths.size();
            if (!isSub || number != 0) {
                numbers.append(isSub ? "." : k == 0 ? "" : "/").append(std::to_string(number));
                ++shown;
            }
        }
        const Mox::String name = about.prefix + numbers;
        const Mox::String shortName = about.shortPrefix + numbers;
        ASSERT_EQ(id.intfId().stringValue(), name);
        ASSERT_EQ(id.intfId().shortName(), shortName);
        ASSERT_EQ(Mox::fromText<IntfId>(name), id.intfId()) << name;
        ASSERT_EQ(stringToVeyIntf(name), name);
        ASSERT_EQ(stringToVeyIntf(shortName), name);
        ASSERT_EQ(id.parts(), shown) << name;
        // Without a sub-interface, bit 20 is in no part.
        const IntfId strayed(id.intfId().value() | 1u << 20);
        ASSERT_TRUE(about.hasSub || strayed.stringValue().empty());
    }
    manager->intfIdDescDel(8);
}

TEST(IntfId, ReadsUpToTheFirstCharacterThatDoesNotBelong) {
    const struct {
        const char *text, *name, *left;
    } cases[] = {
        // clang-format off
        {"Ethernet3/1,x", "Ethernet3/1", ",x"}, {"Ethernet3/", "Ethernet3", "/"},
        {"Ethernet1.0", "Ethernet1", ".0"}, {"Ethernet1/2/3/4", "Ethernet1/2/3", "/4"},
        {"Ethernet1/2/3.4.5", "Ethernet1/2/3.4", ".5"}, {"Vlan1/2", "Vlan1", "/2"},
        {"Ethernet0000000000000000000001/0002.3", "Ethernet1/2.3", ""},
        {"Ethernet32768.1/1", "Ethernet32768.1", "/1"},  // One number has 20 bits, each of two 15.
        {"Ethernet1/99999,", "", "Ethernet1/99999,"},  // Too large is no end of a name.
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const std::string_view text = c.text;
        auto it = text.begin();
        IntfId id;
        EXPECT_EQ(rangeErrorOf([&] { sequenceToValue(it, text.end(), &id); }).empty(),
                  *c.name != 0);
        EXPECT_EQ(id.stringValue(), c.name);
        EXPECT_EQ(text.substr(static_cast<std::size_t>(it - text.begin())), c.left);
    }
}

TEST(IntfId, RefusesOtherTexts) {
    const std::string digits = "Ethernet" + std::string(10000, '9');
    const std::string zeros = "Vlan" + std::string(10000, '0') + "4096";
    // clang-format off
    const std::vector<const char*> noNames = {
        "", "Ethernet", "ethernet1", "Et1", "Ethernet/1", "Ethernet 1", "Ethernet-1", "Eth1",
        "Ethernet1/", "Ethernet1.", "Ethernet1.0", "Ethernet1/2/3/4", "Ethernet1048576",
        "Ethernet1/32768", "Ethernet32768/1", "Ethernet1/2/1024", "Ethernet1.33554432", "Vlan4096",
        "Vlan4294967297", "Vlan18446744073709551617", "Vlan1.1", "Cpu", digits.c_str(),
        zeros.c_str()};
    // clang-format on
    expectRefuses<IntfId>(Mox::fromText<IntfId>("Vlan7"),
                          {{"Error deserializing IntfId", noNames}});
    EXPECT_EQ(rangeErrorOf([] { IntfId::fromShortName("Ethernet1"); }),
              "Error deserializing IntfId");
    auto vlan = GenericIntfId(Mox::fromText<IntfId>("Vlan7"));
    EXPECT_EQ(rangeErrorOf([&] { vlan.partIs(0, 4096); }),
              "GenericIntfId::part: value out of range");
    EXPECT_EQ(rangeErrorOf([&] { vlan.partIs(1, 0); }), "GenericIntfId::part: index out of range");
    EXPECT_EQ(vlan.part(0), 7u);
}

TEST(IntfIdDesc, IsChosenByTheLongestMatchingPrefix) {
    const auto manager = intfIdMgrFactory("test");
    EXPECT_EQ(addErrorOf(*manager, described(1, "Eth", "E", {{first, second}})), "");
    EXPECT_EQ(addErrorOf(*manager, described(2, "Ether", "", {{}})), "");
    EXPECT_EQ(addErrorOf(*manager, described(3, "Ethernet", "Ether", {{first, sub}})), "");
    const auto tail = described(4, "Vlan", "V", {{first}, {first, second}, {}, {}});
    tail->prefixIs(2, "Vlan-");
    tail->shortPrefixSubTypeIs(1, "W");
    EXPECT_EQ(addErrorOf(*manager, tail), "");
    const struct {
        const char* text;
        bool isShort;
        uint32_t typeId, length;
        const char* otherName;
    } cases[] = {
        // clang-format off
        {"Eth1/2", false, 1, 6, "E1/2"}, {"Eth1", false, 0, 0, ""},
        {"Ether", false, 2, 5, "Ether"}, {"Ether1", false, 2, 5, "Ether"},
        {"Ethernet1.5", false, 3, 11, "Ether1.5"}, {"Ethernet/1", false, 2, 5, "Ether"},
        {"Etherne1", false, 2, 5, "Ether"}, {"Ether1.5", true, 3, 8, "Ethernet1.5"},
        {"Ether.5", true, 2, 5, "Ether"}, {"Vlan1/2", false, 4, 7, "W1/2"},
        {"Vlan1", false, 4, 5, "V1"}, {"Vlan-1", false, 4, 5, "V"},
        {"W1/2", true, 4, 4, "Vlan1/2"}, {"V", true, 4, 1, "Vlan-"},
        // clang-format on
    };
    for (const auto& c : cases) {
        const auto read = manager->trie().stringToIntfId(c.text, c.isShort);
        EXPECT_EQ(GenericIntfId(read.id).typeId(), c.typeId) << c.text;
        EXPECT_EQ(read.length, c.length) << c.text;
        EXPECT_EQ(manager->intfIdToString(read.id, !c.isShort), c.otherName) << c.text;
    }
    EXPECT_THROW(manager->stringToIntfId("V1"), Mox::RangeException);
    manager->shortNameTrieIs(true);
    EXPECT_EQ(manager->intfIdToString(manager->stringToIntfId("V1")), "Vlan1");
    EXPECT_EQ(manager->intfIdToString(manager->stringToIntfId("E1/2")), "Eth1/2");
    EXPECT_EQ(addErrorOf(*manager, described(5, "E", "Q", {{first, second}})), "");
    EXPECT_EQ(manager->intfIdToString(manager->stringToIntfId("E1/2")), "E1/2");
}

TEST(IntfIdDesc, IsRefusedWhereNamesWouldNotIdentifyInterfaces) {
    const auto prefixed = [](const char* prefix) { return described(9, prefix, "", {{first}}); };
    const auto gap = described(9, "Gap", "", {{first}});
    gap->partIs({0, 2}, third);
    const auto tunnel = described(9, "Ip", "", {{first, {10, 10, true, 'T'}}, {first}});
    tunnel->prefixIs(1, "Ip6T");
    const char* const badPrefix = "Invalid interface prefix";
    const char* const badParts = "Invalid interface parts";
    const char* const oneName = "Two interfaces would have one name";
    const struct {
        const char* error;
        Mox::Ptr<IntfIdDesc> desc;
    } cases[] = {
        // clang-format off
        {badPrefix, prefixed("")}, {badPrefix, prefixed("Eth1")}, {badPrefix, prefixed("Eth/")},
        {badPrefix, prefixed("Eth ")}, {"", prefixed("Eth1-")},
        {badPrefix, prefixed(std::string(65, 'x').c_str())},
        {"", prefixed(std::string(64, 'x').c_str())},
        {badPrefix, described(9, "Good", "d3", {{first}})},
        {badParts, gap}, {badParts, described(9, "Type", "", {{{1, 25, false, '\0'}}})},
        {badParts, described(9, "SubType", "", {{{1, 30, true, '\0'}}})},
        {badParts, described(9, "Overlap", "", {{first, {1, 29, true, '/'}}})},
        {badParts, described(9, "Joined", "", {{first, {1, 0, true, '\0'}}})},
        {"", described(9, "Ip6Tunnel", "", {{first}, {first, second}})},
        {"", described(9, "Separated1", "", {{second}, {second, third}})},
        {oneName, described(9, "Taken1023", "", {{}})}, {"", described(9, "Taken1024", "", {{}})},
        {oneName, tunnel}, {oneName, described(9, "Taken", "", {{first}})},
        {"", described(9, "Taken", "U", {{}, {first, second, third}})},
        {oneName, described(9, "Other", "T", {{first}})},
        {oneName, described(9, "Twice", "", {{first}, {first, sub}})},
        {oneName, described(9, "Dots", "", {{first, sub, {1, 0, true, '.'}}})},
        // clang-format on
    };
    for (const auto& c : cases) {
        const auto manager = intfIdMgrFactory("test");
        ASSERT_EQ(addErrorOf(*manager, described(8, "Taken", "T", {{first}, {first, second}})), "");
        EXPECT_EQ(addErrorOf(*manager, c.desc), c.error) << c.desc->name();
        EXPECT_EQ(c.desc->initialized(), *c.error == '\0');
        EXPECT_TRUE(manager->stringToIntfId("Taken1/2"));
    }
}

TEST(IntfIdMgr, KnowsTheNamesOfItsDescriptorsOnly) {
    const auto manager = intfIdMgrFactory("test");
    const auto desc = described(5, "Lane", "La", {{first, second, third, fourth}});
    EXPECT_EQ(addErrorOf(*manager, desc), "");
    const IntfId id = manager->stringToIntfId("Lane1/2/3/4");
    EXPECT_EQ(id.value(), 1ull << 52 | 2ull << 42 | 3ull << 32 | 5u << 25 | 4u << 5);
    EXPECT_EQ(rangeErrorOf([&] { desc->partDelAll(); }), "IntfIdDesc is initialized");
    const auto other = described(5, "Other", "", {{first, second, third, fourth}});
    EXPECT_EQ(addErrorOf(*manager, other), "IntfIdDesc::typeId is taken");
    EXPECT_EQ(addErrorOf(*intfIdMgrFactory("second"), desc), "IntfIdDesc is in a manager already");
    desc->initializedIs(false);
    EXPECT_EQ(manager->intfIdToString(id), "");
    manager->testModeIs(true);
    EXPECT_EQ(addErrorOf(*manager, other), "");
    EXPECT_EQ(manager->intfIdToString(id), "Other1/2/3/4");
    EXPECT_EQ(desc->manager(), nullptr);

    std::vector<uint32_t> notified;
    const Mox::Watch<IntfIdMgr> watch(manager, IntfIdMgr::intfIdDescAttr,
                                      [&](uint32_t typeId) { notified.push_back(typeId); });
    manager->intfIdDescDel(5);
    EXPECT_EQ(manager->intfIdToString(id), "");
    desc->initializedIs(true);
    manager->intfIdDescIs(desc);
    EXPECT_EQ(manager->intfIdToString(id), "Lane1/2/3/4");
    manager->intfIdDescDelAll();
    EXPECT_EQ(manager->intfIdToString(id), "");
    EXPECT_EQ(notified, (std::vector<uint32_t>{5, 5, 5}));
}

TEST(IntfIdDescPluginLoader, RunsEachPluginOnce) {
    auto& loader = IntfIdDescPluginLoader::DefaultPluginLoader();
    static int runs = 0;
    const auto throws = [](IntfIdMgr&) {
        ++runs;
        throw Mox::Exception("plug-in");
    };
    (void)globalIntfIdMgr();
    loader.pluginIs("test", throws);
    loader.pluginIs("test", throws);
    EXPECT_THROW((void)globalIntfIdMgr(), Mox::Exception);
    EXPECT_EQ(runs, 1);
    loader.load("libpavo-common-interfaces.so");  // Linked, so its plug-in has run.
    EXPECT_EQ(globalIntfIdMgr()->intfIdDesc().members(), 7u);
    EXPECT_THROW(loader.load("/nowhere/plugin.so"), Mox::Exception);
}

TEST(IntfNames, ConvertToThoseOfTheKernelAndBack) {
    // clang-format off
    const struct {
        const char *kernel, *vey;
    } pairs[] = {
        {"et3_1", "Ethernet3/1"}, {"vlan100", "Vlan100"}, {"vxlan1", "Vxlan1"},
        {"lo0", "Loopback0"}, {"internal1_2", "Internal1/2"}, {"fabric", "Fabric"},
        {"ma1_1", "Management1/1"}, {"po5.10", "Port-Channel5.10"}, {"tap-7", "Test7"},
        {"tu3", "Tunnel3"},
    };
    // clang-format on
    for (const auto& c : pairs) {
        EXPECT_EQ(kernelIntfToVeyIntf(c.kernel), c.vey);
        EXPECT_EQ(veyIntfToKernelIntf(c.vey), c.kernel);
    }
    EXPECT_EQ(kernelIntfToVeyIntf("ETX_Y"), "EthernetX/Y");
    EXPECT_EQ(kernelIntfToVeyIntf("loopback0"), "Loopbackopback0");
    EXPECT_EQ(kernelIntfToVeyIntf("TAPx-7-8"), "Test7-8");
    EXPECT_EQ(veyIntfToKernelIntf("VXLAN1"), "vxlan1");
    for (const char* other : {"tap7", "e", ""}) {
        EXPECT_EQ(rangeErrorOf([&] { kernelIntfToVeyIntf(other); }),
                  "Cannot convert kernel interface name");
        EXPECT_EQ(rangeErrorOf([&] { veyIntfToKernelIntf(other); }),
                  "Cannot convert interface name to kernel interface name");
    }
    EXPECT_EQ(kernelIntfToShortVeyIntf("po5.10"), "Po5.10");
    EXPECT_EQ(rangeErrorOf([] { kernelIntfToShortVeyIntf("eth0"); }), "Error deserializing IntfId");
}

TEST(IntfNames, AreInNaturalOrder) {
    // clang-format off
    const char* const names[] = {
        "Ethernet0", "Ethernet1", "Ethernet1/0", "Ethernet1/0/0", "Ethernet1.5", "Ethernet1.10",
        "Ethernet1/1", "Ethernet1/1.5", "Ethernet1/1/1", "Ethernet1/9", "Ethernet1/10", "Ethernet2",
        "Ethernet10", "Ethernet1048575", "Loopback0", "Management1", "Management1/1",
        "Port-Channel5", "Port-Channel5.10", "Port-Channel10.5", "Tunnel1", "Vlan1", "Vxlan0",
    };
    // clang-format on
    std::vector<IntfId> ids;
    for (const char* name : names) {
        const auto id = Mox::fromText<IntfId>(name);
        EXPECT_EQ(compareIntfName(id, id), 0);
        for (const IntfId smaller : ids) {
            EXPECT_LT(compareIntfName(smaller, id), 0) << smaller << " " << id;
        }
        ids.push_back(id);
    }
    // A missing number is 0.
    EXPECT_EQ(compareIntfName(ids[4], Mox::fromText<IntfId>("Ethernet1/0.5")), 0);
}

// The pattern matches anywhere in a name: ":2/4" and ":2/3" in the first two.
TEST(IntfNamesDeathTest, AreComparedByThePatternAlone) {
    const auto laned = described(
        100, "Lane", "", {{first, {10, 10, true, ':'}, third}, {first, second, third, fourth}});
    ASSERT_EQ(addErrorOf(*globalIntfIdMgr(), laned), "");
    const auto id = [](const char* name) { return Mox::fromText<IntfId>(name); };
    EXPECT_GT(compareIntfName(id("Lane1:2/4"), id("Lane9:2/3")), 0);
    EXPECT_EQ(compareIntfName(id("Lane1:2/4"), id("Lane9:2/4")), 0);
    EXPECT_LT(compareIntfName(id("Lane1:2/4"), id("Ethernet1")), 0);  // ':' is before 'E'.
    EXPECT_DEATH(compareIntfName(id("Lane1/2/3/4"), id("Vlan1")), "aret > 1");
    EXPECT_DEATH(compareIntfName(id("Vlan1"), IntfId(1)), "bret > 1");
    globalIntfIdMgr()->intfIdDescDel(100);
}

}  // namespace
}  // namespace Pavo
