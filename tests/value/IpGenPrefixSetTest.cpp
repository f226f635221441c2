#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "Pavo/IpGenPrefixSet.h"

namespace Pavo {
namespace {

IpGenPrefix prefix(const char* text) {
    return Mox::fromText<IpGenPrefix>(text);
}

// Writes down the members that come and go.
template <class Entity>
Mox::Watch<Entity> keyWatch(const Mox::Ptr<Entity>& entity,
                            const Mox::Attribute<Entity, IpGenPrefix>& attribute,
                            std::string* heard) {
    return {entity, attribute, [heard](const IpGenPrefix& key) {
                *heard += key.stringValue().c_str() + std::string(" ");
            }};
}

// Every change is heard once, with its key, and bumps the version; what changes nothing does
// neither.
template <class Entity>
void expectSetAttribute(const Mox::Ptr<Entity>& entity,
                        const Mox::Attribute<Entity, IpGenPrefix>& attribute,
                        const Mox::Set<IpGenPrefix>& set,
                        void (Entity::*is)(const IpGenPrefix&, bool),
                        void (Entity::*del)(const IpGenPrefix&), void (Entity::*delAll)()) {
    const IpGenPrefix a = prefix("10.0.0.0/8");
    const IpGenPrefix b = prefix("fe80::/10");
    const IpGenPrefix c = prefix("10.1.0.0/16");
    Entity& target = *entity;
    const struct {
        std::function<void()> call;
        const char* heard;
        uint32_t members;
    } steps[] = {
        {[&] { (target.*is)(a, true); }, "10.0.0.0/8 ", 1},
        {[&] { (target.*is)(a, true); }, "", 1},
        {[&] { (target.*is)(b, false); }, "", 1},
        {[&] { (target.*is)(b, true); }, "fe80::/10 ", 2},
        {[&] { (target.*is)(b, false); }, "fe80::/10 ", 1},
        {[&] { (target.*del)(*set.begin()); }, "10.0.0.0/8 ", 0},
        {[&] { (target.*del)(a); }, "", 0},
        {[&] { (target.*is)(a, true); }, "10.0.0.0/8 ", 1},
        {[&] { (target.*is)(c, true); }, "10.1.0.0/16 ", 2},
        {[&] { (target.*delAll)(); }, "10.1.0.0/16 10.0.0.0/8 ", 0},  // In order.
    };
    std::string heard;
    const auto watch = keyWatch(entity, attribute, &heard);
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        const uint32_t version = set.version();
        heard.clear();
        step.call();
        EXPECT_EQ(heard, step.heard);
        EXPECT_EQ(set.members(), step.members);
        EXPECT_EQ(set.version() != version, !heard.empty());
    }
}

TEST(IpGenPrefixSet, TellsWhatComesAndGoes) {
    const uint32_t before = Mox::liveObjects();
    {
        using Set = IpGenPrefixSet;
        const auto set = ipGenPrefixSetFactory();
        expectSetAttribute(set, Set::prefixAttr, set->prefix(), &Set::prefixIs, &Set::prefixDel,
                           &Set::prefixDelAll);
        using Coll = IpGenPrefixColl;
        const auto coll = ipGenPrefixCollFactory("all");
        expectSetAttribute(coll, Coll::prefixSetAttr, coll->prefixSet(), &Coll::prefixSetIs,
                           &Coll::prefixSetDel, &Coll::prefixSetDelAll);
    }
    EXPECT_EQ(Mox::liveObjects(), before);
}

TEST(IpGenPrefixSetConfig, KeepsItsTwoSetsApart) {
    using Config = IpGenPrefixSetConfig;
    const auto config = ipGenPrefixSetConfigFactory("peers");
    std::string heard;
    auto watch = keyWatch(config, Config::prefixExceptAttr, &heard);
    expectSetAttribute(config, Config::prefixAttr, config->prefix(), &Config::prefixIs,
                       &Config::prefixDel, &Config::prefixDelAll);
    config->prefixIs(prefix("::/0"));
    watch = keyWatch(config, Config::prefixAttr, &heard);
    expectSetAttribute(config, Config::prefixExceptAttr, config->prefixExcept(),
                       &Config::prefixExceptIs, &Config::prefixExceptDel,
                       &Config::prefixExceptDelAll);
    EXPECT_EQ(heard, "");
    EXPECT_TRUE(config->prefix(prefix("::/0")) && !config->prefixExcept(prefix("::/0")));
}

TEST(IpGenPrefixRef, TellsOfANewPrefix) {
    const auto ref = ipGenPrefixRefFactory(prefix("10.0.0.0/8"));
    int heard = 0;
    const Mox::Watch<IpGenPrefixRef> watch(ref, IpGenPrefixRef::prefixAttr, [&] { ++heard; });
    for (const char* text : {"10.0.0.0/8", "::/0", "::/0"}) {
        ref->prefixIs(prefix(text));
    }
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
                heard += dir->prefixSet(name) ? '+' : '-';
                heard += name.view();
            });
        const auto a = dir->prefixSetIs("a");
        a->prefixIs(prefix("10.0.0.0/8"));
        EXPECT_EQ(dir->prefixSetIs("a"), a);  // The same, with what it holds.
        EXPECT_EQ(dir->prefixSetIs("b")->name(), "b");
        EXPECT_EQ(dir->prefixSet("c"), nullptr);
        dir->prefixSetDel("c");
        dir->prefixSetDel(dir->prefixSet().begin()->first);
        EXPECT_EQ(a->prefix().members(), 1u);  // Taken out, not emptied.
        EXPECT_NE(dir->prefixSetIs("a"), a);
        EXPECT_EQ(heard, "+a+b-a+a");
        heard.clear();
        dir->prefixSetDelAll();
        dir->prefixSetDelAll();
        EXPECT_EQ(heard, "-a-b");
    }
    EXPECT_EQ(Mox::liveObjects(), before);
}

// An observer drops the last reference from outside, at the first of several members.
template <class Entity, class Key>
void expectSurvival(Mox::Ptr<Entity> entity, const Mox::Attribute<Entity, Key>& attribute,
                    void (Entity::*delAll)()) {
    int heard = 0;
    Mox::Watch<Entity> watch(entity, attribute, [&](const Key&) {
        ++heard;
        entity = nullptr;
        watch = {};
    });
    (entity.ptr()->*delAll)();
    EXPECT_EQ(heard, 1);
}

TEST(IpGenPrefixSet, SurvivesItsLastReferenceGoingWhileItTells) {
    const uint32_t before = Mox::liveObjects();
    auto set = ipGenPrefixSetFactory();
    auto dir = ipGenPrefixSetConfigDirFactory("dir");
    for (const char* text : {"10.0.0.0/8", "11.0.0.0/8"}) {
        set->prefixIs(prefix(text));
        dir->prefixSetIs(text);
    }
    expectSurvival(std::move(set), IpGenPrefixSet::prefixAttr, &IpGenPrefixSet::prefixDelAll);
    expectSurvival(std::move(dir), IpGenPrefixSetConfigDir::prefixSetAttr,
                   &IpGenPrefixSetConfigDir::prefixSetDelAll);
    EXPECT_EQ(Mox::liveObjects(), before);
}

}  // namespace
}  // namespace Pavo
