#include <gtest/gtest.h>

#include <string>

#include "Pavo/IpGenPrefixSet.h"

namespace Pavo {
namespace {

IpGenPrefix prefix(const char* text) {
    return Mox::fromText<IpGenPrefix>(text);
}

// Each change notifies once, of its own attribute; a call that changes nothing does not.
template <class Entity>
void expectNotifies(const Mox::Ptr<Entity>& entity,
                    const Mox::Attribute<Entity, IpGenPrefix>& attribute,
                    void (Entity::*is)(const IpGenPrefix&, bool),
                    void (Entity::*del)(const IpGenPrefix&), void (Entity::*delAll)()) {
    std::string notified;
    const Mox::Watch<Entity> watch(
        entity, attribute, [&](const IpGenPrefix& key) { notified += key.stringValue() + " "; });
    const Mox::Watch<Entity> all(entity, Mox::allAttributes, [&](const Mox::Change& change) {
        notified += change.is(attribute) ? "" : "another attribute ";
    });
    for (const bool isMember : {true, true, false, false, true}) {
        ((*entity).*is)(prefix("11.0.0.0/8"), isMember);
    }
    ((*entity).*is)(prefix("::/0"), true);
    ((*entity).*del)(prefix("11.0.0.0/8"));
    ((*entity).*del)(prefix("11.0.0.0/8"));
    ((*entity).*delAll)();
    EXPECT_EQ(notified, "11.0.0.0/8 11.0.0.0/8 11.0.0.0/8 ::/0 11.0.0.0/8 ::/0 ");
}

TEST(IpGenPrefixSet, NotifiesOfTheAttributeThatChanged) {
    using Set = IpGenPrefixSet;
    expectNotifies(ipGenPrefixSetFactory(), Set::prefixAttr, &Set::prefixIs, &Set::prefixDel,
                   &Set::prefixDelAll);
    using Coll = IpGenPrefixColl;
    expectNotifies(ipGenPrefixCollFactory("all"), Coll::prefixSetAttr, &Coll::prefixSetIs,
                   &Coll::prefixSetDel, &Coll::prefixSetDelAll);
    using Config = IpGenPrefixSetConfig;
    const auto config = ipGenPrefixSetConfigFactory("peers");
    config->prefixExceptIs(prefix("10.0.0.0/8"));
    expectNotifies(config, Config::prefixAttr, &Config::prefixIs, &Config::prefixDel,
                   &Config::prefixDelAll);
    EXPECT_TRUE(config->prefixExcept(prefix("10.0.0.0/8")));
    config->prefixExceptDelAll();
    expectNotifies(config, Config::prefixExceptAttr, &Config::prefixExceptIs,
                   &Config::prefixExceptDel, &Config::prefixExceptDelAll);
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

}  // namespace
}  // namespace Pavo
