#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Pavo/IpGenPrefix.h"
#include "support/TestEntity.h"

namespace Pavo {
namespace {

IpGenPrefix prefix(const char* text) {
    return Mox::fromText<IpGenPrefix>(text);
}

// One set attribute of an entity: what changes it, what it holds, and what observers hear.
struct SetAttribute {
    std::function<void(IpGenPrefix, bool)> is;
    std::function<void(const IpGenPrefix&)> del;
    std::function<void()> delAll;
    const Mox::Set<IpGenPrefix>& set;
};

// Every change is heard once, with its key, and bumps the version; what changes nothing does
// neither.
void expectSetAttribute(const SetAttribute& attribute, const std::string& heard) {
    const IpGenPrefix a = prefix("10.0.0.0/8");
    const IpGenPrefix b = prefix("fe80::/10");
    const IpGenPrefix c = prefix("10.1.0.0/16");
    const struct {
        const char* what;
        std::function<void()> call;
        const char* heard;  // By now.
        uint32_t members;
    } steps[] = {
        {"add", [&] { attribute.is(a, true); }, "10.0.0.0/8 ", 1},
        {"add again", [&] { attribute.is(a, true); }, "10.0.0.0/8 ", 1},
        {"add another", [&] { attribute.is(b, true); }, "10.0.0.0/8 fe80::/10 ", 2},
        {"remove who is not there", [&] { attribute.is(c, false); }, "10.0.0.0/8 fe80::/10 ", 2},
        {"remove by false", [&] { attribute.is(b, false); }, "10.0.0.0/8 fe80::/10 fe80::/10 ", 1},
        {"remove", [&] { attribute.del(*attribute.set.begin()); },
         "10.0.0.0/8 fe80::/10 fe80::/10 10.0.0.0/8 ", 0},
        {"remove again", [&] { attribute.del(a); }, "10.0.0.0/8 fe80::/10 fe80::/10 10.0.0.0/8 ",
         0},
    };
    std::string before = heard;
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        const uint32_t version = attribute.set.version();
        step.call();
        EXPECT_EQ(heard, step.heard);
        EXPECT_EQ(attribute.set.members(), step.members);
        EXPECT_EQ(attribute.set.version(), version + (heard != before ? 1 : 0));
        before = heard;
    }
    for (const IpGenPrefix& each : {a, b, c}) {
        attribute.is(each, true);
    }
    before = heard;
    attribute.delAll();
    EXPECT_EQ(heard.substr(before.size()), "10.1.0.0/16 10.0.0.0/8 fe80::/10 ");  // In order.
    EXPECT_EQ(attribute.set.members(), 0u);
}

template <class Entity>
using SetToken = Mox::Attribute<Entity, IpGenPrefix>;

// Writes down the members that come and go.
template <class Entity>
Mox::Watch<Entity> keyWatch(const Mox::Ptr<Entity>& entity, const SetToken<Entity>& token,
                            std::string* heard) {
    return {entity, token, [heard](const IpGenPrefix& key) {
                *heard += key.stringValue().c_str() + std::string(" ");
            }};
}

TEST(IpGenPrefixSet, TellsWhatComesAndGoes) {
    const uint32_t before = Mox::liveObjects();
    {
        const auto set = ipGenPrefixSetFactory();
        std::string heard;
        const auto watch = keyWatch(set, IpGenPrefixSet::prefixAttr, &heard);
        expectSetAttribute({[&](IpGenPrefix p, bool member) { set->prefixIs(p, member); },
                            [&](const IpGenPrefix& p) { set->prefixDel(p); },
                            [&] { set->prefixDelAll(); }, set->prefix()},
                           heard);
        set->prefixIs(prefix("::/0"));
        EXPECT_TRUE(set->prefix(prefix("::/0")) && !set->prefix(prefix("0.0.0.0/0")));

        const auto coll = ipGenPrefixCollFactory("all");
        heard.clear();
        const auto collWatch = keyWatch(coll, IpGenPrefixColl::prefixSetAttr, &heard);
        expectSetAttribute({[&](IpGenPrefix p, bool member) { coll->prefixSetIs(p, member); },
                            [&](const IpGenPrefix& p) { coll->prefixSetDel(p); },
                            [&] { coll->prefixSetDelAll(); }, coll->prefixSet()},
                           heard);
        EXPECT_EQ(coll->name(), "all");
    }
    EXPECT_EQ(Mox::liveObjects(), before);
}

TEST(IpGenPrefixSetConfig, KeepsItsTwoSetsApart) {
    const auto config = ipGenPrefixSetConfigFactory("peers");
    std::string heard;
    std::string heardExcept;
    const auto watch = keyWatch(config, IpGenPrefixSetConfig::prefixAttr, &heard);
    const auto watchExcept = keyWatch(config, IpGenPrefixSetConfig::prefixExceptAttr, &heardExcept);
    expectSetAttribute({[&](IpGenPrefix p, bool member) { config->prefixIs(p, member); },
                        [&](const IpGenPrefix& p) { config->prefixDel(p); },
                        [&] { config->prefixDelAll(); }, config->prefix()},
                       heard);
    EXPECT_EQ(heardExcept, "");
    heard.clear();
    config->prefixIs(prefix("::/0"));
    expectSetAttribute({[&](IpGenPrefix p, bool member) { config->prefixExceptIs(p, member); },
                        [&](const IpGenPrefix& p) { config->prefixExceptDel(p); },
                        [&] { config->prefixExceptDelAll(); }, config->prefixExcept()},
                       heardExcept);
    EXPECT_EQ(heard, "::/0 ");
    EXPECT_TRUE(config->prefix(prefix("::/0")) && !config->prefixExcept(prefix("::/0")));
    EXPECT_EQ(config->name(), "peers");
}

TEST(IpGenPrefixRef, TellsOfANewPrefix) {
    const auto ref = ipGenPrefixRefFactory(prefix("10.0.0.0/8"));
    int heard = 0;
    const Mox::Watch<IpGenPrefixRef> watch(ref, IpGenPrefixRef::prefixAttr, [&] { ++heard; });
    ref->prefixIs(prefix("10.0.0.0/8"));
    EXPECT_EQ(heard, 0);
    ref->prefixIs(prefix("::/0"));
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(ref->prefix(), prefix("::/0"));
}

TEST(IpGenPrefixSetConfigDir, HoldsOneSetAName) {
    const uint32_t before = Mox::liveObjects();
    {
        const auto dir = ipGenPrefixSetConfigDirFactory("dir");
        std::string heard;
        const Mox::Watch<IpGenPrefixSetConfigDir> watch(
            dir, IpGenPrefixSetConfigDir::prefixSetAttr, [&](const Mox::String& name) {
                heard += (dir->prefixSet(name) ? "+" : "-") + std::string(name.view()) + " ";
            });
        const auto a = dir->prefixSetIs("a");
        a->prefixIs(prefix("10.0.0.0/8"));
        EXPECT_EQ(dir->prefixSetIs("a"), a);  // The same, with what it holds.
        EXPECT_EQ(dir->prefixSet("a"), a);
        EXPECT_EQ(dir->prefixSetIs("b")->name(), "b");
        EXPECT_EQ(dir->prefixSet("c"), nullptr);
        dir->prefixSetDel("c");
        dir->prefixSetDel(dir->prefixSet().begin()->first);
        EXPECT_EQ(a->prefix().members(), 1u);  // Taken out, not emptied.
        EXPECT_NE(dir->prefixSetIs("a"), a);
        EXPECT_EQ(heard, "+a +b -a +a ");
        EXPECT_EQ(dir->prefixSet().version(), 4u);
        heard.clear();
        dir->prefixSetDelAll();
        dir->prefixSetDelAll();
        EXPECT_EQ(heard, "-a -b ");
        EXPECT_EQ(dir->name(), "dir");
    }
    EXPECT_EQ(Mox::liveObjects(), before);
}

// An observer drops the last reference from outside, at the first of several members.
TEST(IpGenPrefixSet, SurvivesItsLastReferenceGoingWhileItTells) {
    auto set = ipGenPrefixSetFactory();
    auto dir = ipGenPrefixSetConfigDirFactory("dir");
    for (const char* text : {"10.0.0.0/8", "11.0.0.0/8"}) {
        set->prefixIs(prefix(text));
        dir->prefixSetIs(text);
    }
    const uint32_t before = Mox::liveObjects();
    int heard = 0;
    Mox::Watch<IpGenPrefixSet> watch(set, IpGenPrefixSet::prefixAttr, [&](const IpGenPrefix&) {
        ++heard;
        set = nullptr;
        watch = {};
    });
    Mox::Watch<IpGenPrefixSetConfigDir> dirWatch(dir, IpGenPrefixSetConfigDir::prefixSetAttr,
                                                 [&](const Mox::String&) {
                                                     ++heard;
                                                     dir = nullptr;
                                                     dirWatch = {};
                                                 });
    set->prefixDelAll();
    dir->prefixSetDelAll();
    EXPECT_EQ(heard, 2);
    EXPECT_EQ(Mox::liveObjects(), before - 4);  // Set, directory, and its two members.
}

TEST(IpGenPrefixSet, NumbersItsAttributesInARow) {
    for (const Mox::FwkType* type :
         {&IpGenPrefixRef::type, &IpGenPrefixSet::type, &IpGenPrefixColl::type,
          &IpGenPrefixSetConfig::type, &IpGenPrefixSetConfigDir::type}) {
        EXPECT_EQ(PavoTest::attributeFault(*type), "") << type->name;
    }
}

}  // namespace
}  // namespace Pavo
