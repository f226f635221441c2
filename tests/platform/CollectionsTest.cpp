#include "Mox/Collections.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace Mox {
namespace {

// Sets and directories are part of the random programs.

// Deletes all members in the order of `keys`, with an exception after the first: each is announced
// once, and what was not announced is a member still.
template <class Key, class Collection>
void expectDeletes(Collection& collection, const std::vector<Key>& keys) {
    const uint32_t version = collection.version();
    std::vector<Key> deleted;
    const auto announce = [&](const Key& key) {
        deleted.push_back(key);
        EXPECT_EQ(collection.members(), keys.size() - deleted.size());
        if (deleted.size() == 1) {
            throw 1;
        }
    };
    EXPECT_THROW(collection.delAll(announce), int);
    collection.delAll(announce);
    collection.delAll(announce);
    EXPECT_EQ(deleted, keys);
    EXPECT_EQ(collection.version(), version + keys.size());
}

TEST(Array, ChangesWhereAValueDoes) {
    Array<int> array;
    EXPECT_TRUE(array.is(2, 5));  // Past the end.
    EXPECT_FALSE(array.is(2, 5));
    EXPECT_TRUE(array.is(0, 1) && array.is(3, 0));
    EXPECT_EQ(array.members(), 4u);
    EXPECT_TRUE(array.del(3));  // The last one is removed,
    EXPECT_FALSE(array.del(3));
    EXPECT_TRUE(array.del(0));  // another one back to the default.
    EXPECT_FALSE(array.del(0));
    EXPECT_EQ(array.version(), 5u);
    EXPECT_EQ(array.at(2), 5);
    EXPECT_EQ(array.at(UINT32_MAX), 0);
    expectDeletes<uint32_t>(array, {2, 1, 0});
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
    expectDeletes<uint32_t>(map, {3, 7});
}

}  // namespace
}  // namespace Mox
