#include "Mox/Collections.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/TestEntity.h"

namespace Mox {
namespace {

// Removes all twice: the keys come in order, once, when the collection is empty already.
template <class Key, class Collection>
void expectRemoves(Collection& collection, const std::vector<Key>& keys) {
    const uint32_t version = collection.version();
    std::vector<Key> removed;
    const auto remove = [&](const Key& key) {
        EXPECT_EQ(collection.members(), 0u);
        removed.push_back(key);
    };
    collection.delAll(remove);
    collection.delAll(remove);
    EXPECT_EQ(removed, keys);
    EXPECT_EQ(collection.version(), version + 1);
}

TEST(Array, ChangesWhereAValueDoes) {
    Array<int> array;
    EXPECT_TRUE(array.is(2, 5));  // Past the end.
    EXPECT_FALSE(array.is(2, 5));
    EXPECT_TRUE(array.is(0, 1) && array.is(3, 0));
    EXPECT_EQ(array.members(), 4u);
    EXPECT_TRUE(array.del(3));  // The last one goes altogether,
    EXPECT_FALSE(array.del(3));
    EXPECT_TRUE(array.del(0));  // another one back to the default.
    EXPECT_FALSE(array.del(0));
    EXPECT_EQ(array.version(), 5u);
    EXPECT_EQ(array.at(2), 5);
    EXPECT_EQ(array.at(UINT32_MAX), 0);
    expectRemoves<uint32_t>(array, {0, 1, 2});
    EXPECT_DEATH(array.is(UINT32_MAX, 1), "assertion failed: index < UINT32_MAX");

    Array<bool> flags;  // One by one, not packed.
    flags.is(1, false);
    const bool& first = flags.at(0);
    flags.is(0, true);
    EXPECT_TRUE(first && !flags.at(1));
}

TEST(Map, ChangesWhereAKeyOrItsValueDoes) {
    Map<uint32_t, int> map;
    EXPECT_TRUE(map.is(7, 0) && map.is(7, 1) && map.is(4, 1) && map.del(4) && map.is(3, 9));
    EXPECT_FALSE(map.is(7, 1) || map.del(4));
    EXPECT_EQ(map.version(), 5u);
    EXPECT_EQ(*map.find(7), 1);
    EXPECT_EQ(map.find(4), nullptr);
    expectRemoves<uint32_t>(map, {3, 7});
}

TEST(Set, ChangesWhereAMemberComesOrGoes) {
    Set<uint32_t> set;
    EXPECT_TRUE(set.add(7) && set.add(4) && set.add(3) && set.del(4));
    EXPECT_FALSE(set.add(7) || set.del(4) || set.contains(4));
    EXPECT_EQ(set.version(), 4u);
    expectRemoves<uint32_t>(set, {3, 7});
}

// Keeps its parent, as a name or "none", in a log.
class Child : public Entity {
  public:
    Child(String name, std::string* log) : name_(std::move(name)), log_(log) {}
    String name() const override { return name_; }
    void handleParent(Ptr<Entity> parent) override {
        *log_ += std::string(name_.view()) + "->" + (parent ? "parent " : "none ");
    }

  private:
    String name_;
    std::string* log_;
};

TEST(Directory, TellsMembersOfTheirParent) {
    const uint32_t before = liveObjects();
    {
        std::string log;
        const Ptr<Child> parent = make<Child>("parent", &log);
        Directory<Child> directory;
        const auto create = [&](const String& name) { return make<Child>(name, &log); };
        EXPECT_TRUE(directory.add("b", parent, create));
        EXPECT_FALSE(directory.add("b", parent, create));
        EXPECT_TRUE(directory.add("a", parent, create));
        EXPECT_TRUE(directory.del("b"));
        EXPECT_FALSE(directory.del("b"));
        EXPECT_EQ(directory.version(), 3u);
        EXPECT_EQ(directory.find("a")->name(), "a");
        EXPECT_EQ(directory.find("b"), nullptr);
        EXPECT_EQ(log, "b->parent a->parent b->none ");
        log.clear();
        EXPECT_FALSE(directory.add("c", parent, [&](const String& name) {
            EXPECT_TRUE(directory.add(name, parent, create));  // Comes before the outer one.
            return make<Child>("lost", &log);
        }));
        const auto fails = [](const String&) -> Ptr<Child> { throw 1; };
        EXPECT_THROW(directory.add("d", parent, fails), int);
        expectRemoves<String>(directory, {"a", "c"});
        EXPECT_EQ(log, "c->parent a->none c->none ");
    }
    EXPECT_EQ(liveObjects(), before);
}

}  // namespace
}  // namespace Mox
