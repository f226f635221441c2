#include <gtest/gtest.h>

#include <string>

#include "Pavo/IpGenPrefixSet.h"

namespace Pavo {
namespace {

constexpr auto prefix = Mox::fromText<IpGenPrefix>;

TEST(IpGenPrefixSet, NotifiesOnceOfEachChange) {
    const auto config = ipGenPrefixSetConfigFactory("peers");
    std::string notified;
    const Mox::Watch<IpGenPrefixSetConfig> prefixes(
        config, IpGenPrefixSetConfig::prefixAttr,
        [&](const IpGenPrefix& key) { notified += key.stringValue() + " "; });
    const Mox::Watch<IpGenPrefixSetConfig> exceptions(
        config, IpGenPrefixSetConfig::prefixExceptAttr,
        [&](const IpGenPrefix& key) { notified += "except " + key.stringValue() + " "; });
    const IpGenPrefix ten = prefix("10.0.0.0/8"), all = prefix("::/0");
    for (const bool isMember : {true, true, false, false, true}) {
        config->prefixIs(ten, isMember);
    }
    config->prefixExceptIs(all);
    config->prefixIs(all);
    config->prefixDel(ten);
    config->prefixDel(ten);
    config->prefixDelAll();
    EXPECT_TRUE(config->prefix().members() == 0 && config->prefixExcept(all));
    config->prefixExceptDelAll();
    EXPECT_EQ(notified,
              "10.0.0.0/8 10.0.0.0/8 10.0.0.0/8 except ::/0 ::/0 10.0.0.0/8 ::/0 except ::/0 ");
}

TEST(IpGenPrefixSetConfigDir, HoldsOneSetForEachName) {
    const auto dir = ipGenPrefixSetConfigDirFactory("dir");
    const auto a = dir->prefixSetIs("a");
    a->prefixIs(prefix("10.0.0.0/8"));
    EXPECT_EQ(dir->prefixSetIs("a"), a);  // The same set, with its members.
    EXPECT_EQ(dir->prefixSet("c"), nullptr);
    dir->prefixSetDel(dir->prefixSet().begin()->first);
    EXPECT_EQ(a->prefix().members(), 1u);  // Removed from the directory, not emptied.
    EXPECT_NE(dir->prefixSetIs("a"), a);
}

}  // namespace
}  // namespace Pavo
