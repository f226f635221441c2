// Names and numbers of VRFs.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Pavo/VrfMap.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

TEST(VrfName, IsOneWordOfAtMost255Bytes) {
    const std::string longest(255, 'x');
    const std::pair<std::string, const char*> cases[] = {
        {longest, ""},
        {"k\xc3\xbchl", ""},
        {"", "VrfName::value::bytes < 1 or > 255 not allowed"},
        {longest + "x", "VrfName::value::bytes < 1 or > 255 not allowed"},
        {"two words", "Invalid VrfName"},
        {std::string("nul\0", 4), "Invalid VrfName"},
        {"del\x7f", "Invalid VrfName"},
    };
    for (const auto& [text, error] : cases) {
        VrfName name;
        EXPECT_EQ(rangeErrorOf([&, &good = text] { name.valueIs(good); }), error);
        EXPECT_EQ(name.isDefault(), *error != '\0');
    }
}

// The observer holds and releases names while it is notified.
TEST(VrfMap, ANameKeepsItsNumberWhileAnyWriterHoldsIt) {
    const auto first = vrfMapWriterFactory("first");
    const Mox::Ptr<VrfMap> map = first->map();
    auto second = first->newWriter("second");
    std::string log;
    const Mox::Watch<VrfMap> watch(map, VrfMap::vrfIdAttr, [&](const VrfName& name) {
        const auto id = map->vrfId(name);
        EXPECT_TRUE(!id || map->vrfName(*id) == name);
        log += std::string(name.value().view()) + (id ? "+ " : "- ");
        if (name.value() == "chased") {
            id ? first->vrfDel(name) : (void)second->vrfIs(VrfName("next"));
        }
    });
    const VrfName blue("blue");
    const VrfId id = first->vrfIs(blue);
    EXPECT_EQ(second->vrfIs(blue), id);
    EXPECT_EQ(second->vrfIs(blue), id);
    first->vrfDelAll();
    EXPECT_EQ(map->vrfId(blue), id);
    second->vrfDel(blue);
    EXPECT_EQ(first->vrfIs(VrfName("red")).value(), id.value() + 1);
    EXPECT_EQ(first->vrfIs(blue).value(), id.value() + 2);
    (void)first->vrfIs(VrfName("chased"));
    second = nullptr;
    EXPECT_EQ(log, "blue+ blue- red+ blue+ chased+ chased- next+ next- ");
}

}  // namespace
}  // namespace Pavo
