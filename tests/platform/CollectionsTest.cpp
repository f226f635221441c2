#include "Mox/Collections.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
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
    std::function<bool(Collection&)> call;
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

// Removes all and tells the keys, joined; inside the call for each the collection is empty.
template <class Key, class Collection>
std::string removedFrom(Collection& collection) {
    std::string keys;
    const uint32_t version = collection.version();
    const bool had = collection.members() != 0;
    collection.delAll([&](const Key& key) {
        EXPECT_EQ(collection.members(), 0u);
        if constexpr (std::is_same_v<Key, String>) {
            keys += key.c_str();
        } else {
            keys += std::to_string(key);
        }
        keys += ' ';
    });
    EXPECT_EQ(collection.version(), version + (had ? 1 : 0));
    return keys;
}

TEST(Array, ChangesWhereAValueDoes) {
    using A = Array<int>;
    A array;
    const std::vector<Step<A>> steps = {
        {"past the end", [](A& a) { return a.is(2, 5); }, true, 3},
        {"as it is", [](A& a) { return a.is(2, 5); }, false, 3},
        {"the default inside", [](A& a) { return a.is(0, 0); }, false, 3},
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
    EXPECT_EQ(removedFrom<uint32_t>(array), "0 1 2 ");
    EXPECT_EQ(removedFrom<uint32_t>(array), "");
    EXPECT_DEATH(array.is(UINT32_MAX, 1), "assertion failed: index < UINT32_MAX");
}

TEST(Array, HoldsBooleansOneByOne) {
    using A = Array<bool>;
    A array;
    const std::vector<Step<A>> steps = {
        {"false at the end", [](A& a) { return a.is(1, false); }, true, 2},
        {"true", [](A& a) { return a.is(0, true); }, true, 2},
        {"true again", [](A& a) { return a.is(0, true); }, false, 2},
    };
    expectSteps(array, steps);
    const bool& first = array.at(0);
    EXPECT_TRUE(first);
    EXPECT_FALSE(array.at(1));
    array.is(0, false);
    EXPECT_FALSE(first);
}

TEST(Map, ChangesWhereAKeyOrItsValueDoes) {
    using M = Map<uint32_t, int>;
    M map;
    const std::vector<Step<M>> steps = {
        {"a key", [](M& m) { return m.is(7, 0); }, true, 1},
        {"as it is", [](M& m) { return m.is(7, 0); }, false, 1},
        {"another value", [](M& m) { return m.is(7, 1); }, true, 1},
        {"another key", [](M& m) { return m.is(3, 1); }, true, 2},
        {"remove who is not there", [](M& m) { return m.del(4); }, false, 2},
        {"remove", [](M& m) { return m.del(3); }, true, 1},
        {"back again", [](M& m) { return m.is(3, 9); }, true, 2},
    };
    expectSteps(map, steps);
    EXPECT_EQ(*map.find(7), 1);
    EXPECT_EQ(map.find(4), nullptr);
    EXPECT_EQ(removedFrom<uint32_t>(map), "3 7 ");
    EXPECT_EQ(removedFrom<uint32_t>(map), "");
}

TEST(Set, ChangesWhereAMemberComesOrGoes) {
    using S = Set<uint32_t>;
    S set;
    const std::vector<Step<S>> steps = {
        {"a member", [](S& s) { return s.add(7); }, true, 1},
        {"again", [](S& s) { return s.add(7); }, false, 1},
        {"another", [](S& s) { return s.add(3); }, true, 2},
        {"remove who is not there", [](S& s) { return s.del(4); }, false, 2},
        {"remove", [](S& s) { return s.del(7); }, true, 1},
        {"remove again", [](S& s) { return s.del(7); }, false, 1},
        {"back", [](S& s) { return s.add(7); }, true, 2},
    };
    expectSteps(set, steps);
    EXPECT_TRUE(set.contains(3) && !set.contains(4));
    EXPECT_EQ(removedFrom<uint32_t>(set), "3 7 ");
    EXPECT_EQ(removedFrom<uint32_t>(set), "");
}

TEST(Queue, GivesWhatCameFirst) {
    Queue<int> queue;
    queue.push(1);
    queue.push(2);
    EXPECT_EQ(queue.pop(), 1);
    queue.push(3);
    EXPECT_EQ(queue.front(), 2);
    EXPECT_EQ(queue.version(), 4u);
    EXPECT_EQ(queue.pop(), 2);
    EXPECT_EQ(queue.pop(), 3);
    EXPECT_TRUE(queue.empty());
}

// Keeps its parent, as a name or "none", in a log.
class Child : public Entity {
  public:
    Child(String name, std::string* log) : name_(std::move(name)), log_(log) {}
    ~Child() override = default;
    String name() const override { return name_; }
    void handleParent(Ptr<Entity> parent) override {
        *log_ +=
            name_.c_str() + std::string("->") + (parent ? parent->name().c_str() : "none") + ' ';
    }

  private:
    String name_;
    std::string* log_;
};

TEST(Directory, TellsMembersOfTheirParent) {
    using D = Directory<Child>;
    const uint32_t before = liveObjects();
    {
        std::string log;
        const Ptr<Child> parent = make<Child>(String("top"), &log);
        D directory;
        const auto create = [&](const String& name) { return make<Child>(name, &log); };
        const auto adds = [&](const char* name) {
            return [&, name](D& d) { return d.add(String(name), parent, create); };
        };
        const auto dels = [](const char* name) {
            return [name](D& d) { return d.del(String(name)); };
        };
        // Whose making puts in a member of that name itself.
        const auto addsInside = [&](D& d) {
            return d.add(String("c"), parent, [&](const String& name) {
                EXPECT_TRUE(d.add(name, parent, create));
                return make<Child>(String("lost"), &log);
            });
        };
        const std::vector<Step<D>> steps = {
            {"add", adds("b"), true, 1},           {"add again", adds("b"), false, 1},
            {"add another", adds("a"), true, 2},   {"remove", dels("b"), true, 1},
            {"remove again", dels("b"), false, 1}, {"back", adds("b"), true, 2},
        };
        expectSteps(directory, steps);
        EXPECT_EQ(log, "b->top a->top b->none b->top ");
        EXPECT_EQ(directory.find(String("a"))->name(), String("a"));
        EXPECT_EQ(directory.find(String("x")), nullptr);
        log.clear();
        EXPECT_FALSE(addsInside(directory));
        EXPECT_EQ(removedFrom<String>(directory), "a b c ");
        EXPECT_EQ(log, "c->top a->none b->none c->none ");
        EXPECT_THROW(
            directory.add(String("d"), parent, [](const String&) -> Ptr<Child> { throw 1; }), int);
        EXPECT_EQ(directory.members(), 0u);
    }
    EXPECT_EQ(liveObjects(), before);
}

}  // namespace
}  // namespace Mox
