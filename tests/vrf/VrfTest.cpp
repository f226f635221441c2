// Names and numbers of VRFs.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Pavo/VrfMap.h"
#include "support/RandomProgram.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

TEST(VrfName, IsOneWordOfAtMost255Bytes) {
    const std::string longest(255, 'x');
    const std::pair<std::string, const char*> cases[] = {
        {longest, ""},
        {"blue-1", ""},
        {"k\xc3\xbchl", ""},
        {"", "VrfName::value::bytes < 1 or > 255 not allowed"},
        {longest + "x", "VrfName::value::bytes < 1 or > 255 not allowed"},
        {"two words", "Invalid VrfName"},
        {"tab\t", "Invalid VrfName"},
        {std::string("nul\0", 4), "Invalid VrfName"},
        {"del\x7f", "Invalid VrfName"},
    };
    for (const auto& [text, error] : cases) {
        VrfName name;
        EXPECT_EQ(rangeErrorOf([&, &good = text] { name.valueIs(good); }), error);
        EXPECT_EQ(name.isDefault(), *error != '\0');
    }
}

// Writers that come and go hold and release names at random, also while observers are notified.
void runMap(uint32_t seed, bool prints) {
    PavoTest::RandomProgram program(seed, prints);
    const VrfName names[] = {VrfName(), VrfName("a"), VrfName("b"), VrfName("c")};
    std::vector<Mox::Ptr<VrfMapWriter>> writers = {vrfMapWriterFactory("first")};
    const Mox::Ptr<VrfMap> map = writers[0]->map();
    std::map<VrfName, VrfId> shadow = {{VrfName(), VrfId()}};
    const Mox::Watch<VrfMap> watch(map, VrfMap::vrfIdAttr, [&](const VrfName& name) {
        const auto id = map->vrfId(name);
        id ? (void)(shadow[name] = *id) : (void)shadow.erase(name);
        EXPECT_TRUE(!id || map->vrfName(*id) == name);
        program.respond();
    });
    const auto check = [&] {
        std::map<VrfName, VrfId> held = {{VrfName(), VrfId()}};
        for (const auto& each : writers) {
            for (const VrfName& name : each->vrf()) {
                held[name] = map->vrfId(name).value();
            }
        }
        EXPECT_EQ(held, shadow);
        EXPECT_EQ(held.size(), map->vrfId().members());
    };
    const auto hold = [&] {
        const auto writer = program.any(writers);
        const VrfName& name = program.any(names);
        const auto before = map->vrfId(name);
        const VrfId id = writer->vrfIs(name);
        EXPECT_TRUE(!before || *before == id);
    };
    const auto release = [&] { program.any(writers)->vrfDel(program.any(names)); };
    const std::vector<PavoTest::RandomProgram::Actions> kinds = {
        {{"hold", hold}, {"release", release}, {"all", [&] { writers[0]->vrfDelAll(); }}},
        {{"writer", [&] { writers.push_back(writers[0]->newWriter("more")); }}, {"hold", hold}}};
    program.perform(
        kinds, [] {}, check);
    writers.resize(1);
    check();
}

TEST(VrfMap, ANameKeepsItsNumberWhileAnyWriterHoldsIt) {
    PavoTest::runPrograms(300, [](uint32_t seed, bool prints) { runMap(seed, prints); });
}

}  // namespace
}  // namespace Pavo
