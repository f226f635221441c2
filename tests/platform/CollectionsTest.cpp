#include "Mox/Collections.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/TestEntity.h"

namespace Mox {
namespace {

// A call, whether it changes the collection, and how many members there are then. A version counts
// the calls that did.
template <class Collection>
struct Step {
    const char* what;
    bool (*call)(Collection&);
    bool changes;
    uint32_t members;
};

template <class Collection>
void expectSteps(Collection& collection, const std::vector<Step<Collection>>& steps) {
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        const uint32_t version = collection.version();
        EXPECT_EQ(step.call(collection), step.changes);
        EXPECT_EQ(collection.version(), version + (step.changes ? 1 : 0));
        EXPECT_EQ(collection.members(), step.members);
    }
}

// Removes all twice: the keys come in order, once, when the collection is empty already.
template <class Key, class Collection>
void expectRemoves(Collection& collection, const std::vector<Key>& keys) {
    const uint32_t version = collection.version();
    std::vector<Key> removed;
    for (int i = 0; i < 2; ++i) {
        collection.delAll([&](const Key& key) {
            EXPECT_EQ(collection.members(), 0u);
            removed.push_back(key);
        });
        EXPECT_EQ(removed, keys);
        EXPECT_EQ(collection.version(), version + 1);
    }
}

TEST(Array, ChangesWhereAValueDoes) {
    using A = Array<int>;
    A array;
    const std::vector<Step<A>> steps = {
        {"past the end", [](A& a) { return a.is(2, 5); }, true, 3},
        {"as it is", [](A& a) { return a.is(2, 5); }, false, 3},
        {"one in front", [](A& a) { return a.is(0, 1); }, true, 3},
        {"the default at the end", [](A& a) { return a.is(3, 0); }, true, 4},
        {"remove it", [](A& a) { return a.del(3); }, true, 3},
        {"remove it again", [](A& a) { return a.del(3); }, false, 3},
        {"remove the first", [](A& a) { return a.del(0); }, true, 3},
        {"remove it again", [](A& a) { return a.del(0); }, false, 3},
    };
    expectSteps(array, steps);
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
    using M = Map<uint32_t, int>;
    M map;
    const std::vector<Step<M>> steps = {
        {"a key", [](M& m) { return m.is(7, 0); }, true, 1},
        {"as it is", [](M& m) { return m.is(7, 0); }, false, 1},
        {"another value", [](M& m) { return m.is(7, 1); }, true, 1},
        {"another key", [](M& m) { return m.is(4, 1); }, true, 2},
        {"remove", [](M& m) { return m.del(4); }, true, 1},
        {"remove again", [](M& m) { return m.del(4); }, false, 1},
        {"one in front", [](M& m) { return m.is(3, 9); }, true, 2},
    };
    expectSteps(map, steps);
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
