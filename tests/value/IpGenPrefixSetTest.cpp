#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Pavo/IpGenPrefixSet.h"

namespace Pavo {
namespace {

IpGenPrefix prefix(const char* text) {
    return Mox::fromText<IpGenPrefix>(text);
}

// Appends each prefix that is added or removed to a text.
template <class Entity>
Mox::Watch<Entity> keyWatch(const Mox::Ptr<Entity>& entity,
                            const Mox::Attribute<Entity, IpGenPrefix>& attribute,
                            std::string* notified) {
    return {entity, attribute, [notified](const IpGenPrefix& key) {
                *notified += key.stringValue().c_str() + std::string(" ");
            }};
}

// Each change notifies once, of its own attribute, and changes the version; other calls do neither.
template <class Entity>
void expectNotifies(const Mox::Ptr<Entity>& entity,
                    const Mox::Attribute<Entity, IpGenPrefix>& attribute,
                    const Mox::Set<IpGenPrefix>& set, void (Entity::*is)(const IpGenPrefix&, bool),
                    void (Entity::*del)(const IpGenPrefix&), void (Entity::*delAll)()) {
    std::string notified, others;
    const auto watch = keyWatch(entity, attribute, &notified);
    const Mox::Watch<Entity> all(entity, Mox::allAttributes, [&](const Mox::Change& change) {
        others += change.is(attribute) ? "" : "!";
    });
    const std::pair<const char*, bool> changes[] = {
        {"11.0.0.0/8", true}, {"11.0.0.0/8", true}, {"::/0", false},      {"::/0", true},
        {"::/0", false},      {"10.0.0.0/8", true}, {"10.1.0.0/16", true}};
    const uint32_t version = set.version();
    for (const auto& [text, isMember] : changes) {
        ((*entity).*is)(prefix(text), isMember);
    }
    EXPECT_EQ(set.version(), version + 5);
    ((*entity).*del)(*set.begin());
    ((*entity).*del)(prefix("10.1.0.0/16"));
    ((*entity).*delAll)();
    EXPECT_EQ(notified,
              "11.0.0.0/8 ::/0 ::/0 10.0.0.0/8 10.1.0.0/16 10.1.0.0/16 10.0.0.0/8 11.0.0.0/8 ");
    EXPECT_EQ(others, "");
    EXPECT_EQ(set.members(), 0u);
}

TEST(IpGenPrefixSet, NotifiesOfTheAttributeThatChanged) {
    using Set = IpGenPrefixSet;
    const auto set = ipGenPrefixSetFactory();
    expectNotifies(set, Set::prefixAttr, set->prefix(), &Set::prefixIs, &Set::prefixDel,
                   &Set::prefixDelAll);
    using Coll = IpGenPrefixColl;
    const auto coll = ipGenPrefixCollFactory("all");
    expectNotifies(coll, Coll::prefixSetAttr, coll->prefixSet(), &Coll::prefixSetIs,
                   &Coll::prefixSetDel, &Coll::prefixSetDelAll);
    using Config = IpGenPrefixSetConfig;
    const auto config = ipGenPrefixSetConfigFactory("peers");
    expectNotifies(config, Config::prefixAttr, config->prefix(), &Config::prefixIs,
                   &Config::prefixDel, &Config::prefixDelAll);
    config->prefixIs(prefix("::/0"));
    expectNotifies(config, Config::prefixExceptAttr, config->prefixExcept(),
                   &Config::prefixExceptIs, &Config::prefixExceptDel, &Config::prefixExceptDelAll);
    EXPECT_TRUE(config->prefix(prefix("::/0")) && !config->prefixExcept(prefix("::/0")));
}

TEST(IpGenPrefixRef, NotifiesOfANewPrefix) {
    const auto ref = ipGenPrefixRefFactory(prefix("10.0.0.0/8"));
    int notified = 0;
    const Mox::Watch<IpGenPrefixRef> watch(ref, IpGenPrefixRef::prefixAttr, [&] { ++notified; });
    for (const char* text : {"10.0.0.0/8", "::/0", "::/0"}) {
        ref->prefixIs(prefix(text));
    }
    EXPECT_EQ(notified, 1);
    EXPECT_EQ(ref->prefix(), prefix("::/0"));
}

TEST(IpGenPrefixSetConfigDir, HoldsOneSetForEachName) {
    const auto dir = ipGenPrefixSetConfigDirFactory("dir");
    const auto a = dir->prefixSetIs("a");
    a->prefixIs(prefix("10.0.0.0/8"));
    EXPECT_EQ(dir->prefixSetIs("a"), a);  // The same, with what it holds.
    EXPECT_EQ(dir->prefixSet("c"), nullptr);
    dir->prefixSetDel(dir->prefixSet().begin()->first);
    EXPECT_EQ(a->prefix().members(), 1u);  // Taken out, not emptied.
    EXPECT_NE(dir->prefixSetIs("a"), a);
}

// An observer drops the last outside reference when the first of several members is removed.
template <class Entity, class Key>
void expectSurvival(Mox::Ptr<Entity> entity, const Mox::Attribute<Entity, Key>& attribute,
                    void (Entity::*delAll)()) {
    int notified = 0;
    Mox::Watch<Entity> watch(entity, attribute, [&](const Key&) {
        ++notified;
        entity = nullptr;
        watch = {};
    });
    (entity.ptr()->*delAll)();
    EXPECT_EQ(notified, 1);
}

TEST(IpGenPrefixSet, LivesUntilItsNotificationsEnd) {
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
