// Pointers, collections and entities.
#include "Mox/Entity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"

namespace Mox {
namespace {

// Makes references to itself at both ends of its life.
struct SelfHolder : PtrInterface {
    explicit SelfHolder(int* deaths) : deaths_(deaths) { const Ptr<SelfHolder> self(this); }
    ~SelfHolder() override {
        ++*deaths_;
        const Ptr<SelfHolder> self(this);
    }
    int* deaths_;
};

TEST(Ptr, ReferencesToItselfDeleteNothingAtBirthAndNothingTwiceAtDeath) {
    const uint32_t before = liveObjects();
    int deaths = 0;
    {
        Ptr<SelfHolder> made = make<SelfHolder>(&deaths);
        SelfHolder onStack(&deaths);
        const Ptr<SelfHolder> borrowed(&onStack);
        const Ptr<PtrInterface> converted = std::move(made);
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(converted->references(), 1u);
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 2);
    EXPECT_EQ(liveObjects(), before);
}

TEST(Ptr, CountsRightWhenThreadsShareAnObjectAndDropItLast) {
    class Shared : public PtrInterface {};
    PtrInterface::threadSafePointersIs(true);
    const uint32_t before = liveObjects();
    Ptr<Shared> shared = make<Shared>();
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([held = shared] {
            for (int j = 0; j < 20000; ++j) {
                const Ptr<PtrInterface> copy = held;
                (void)make<Shared>();
            }
        });
    }
    shared = nullptr;
    threads.clear();
    EXPECT_EQ(liveObjects(), before);
    PtrInterface::threadSafePointersIs(false);
}

// Sets are part of the entities below, arrays of the status of a TCP server. Directories are part
// of the random programs; a map deletes its members by the same function.

TEST(Map, ChangesWhereAKeyOrItsValueDoes) {
    Map<uint32_t, int> map;
    EXPECT_TRUE(map.is(7, 0) && map.is(7, 1) && map.is(4, 1) && map.del(4) && map.is(3, 9));
    EXPECT_FALSE(map.is(7, 1) || map.del(4));
    EXPECT_EQ(map.version(), 5u);
    EXPECT_EQ(*map.find(7), 1);
    EXPECT_EQ(map.find(4), nullptr);
}

class Link : public EntityOf<Link> {
  public:
    static constexpr Attribute<Link> mtuAttr{0, "mtu"};
    static constexpr Attribute<Link, String> addressAttr{1, "address"};
    static constexpr auto description() {
        return classRecord("Test::Link", attribute(mtuAttr, &Link::mtu), attribute(addressAttr));
    }

    uint32_t mtu() const { return mtu_; }
    void mtuIs(uint32_t mtu) { attributeIs(mtu_, mtu, mtuAttr); }
    uint32_t mtuInc(uint32_t delta) { return attributeInc(mtu_, delta, mtuAttr); }
    const Set<String>& address() const { return address_; }
    void addressIs(const String& address, bool isMember = true) {
        memberIs(address_, address, isMember, addressAttr);
    }
    void addressDelAll() { memberDelAll(address_, addressAttr); }

  private:
    uint32_t mtu_ = 0;
    Set<String> address_;
};

class Tunnel : public EntityOf<Tunnel, Link> {
  public:
    static constexpr Attribute<Tunnel> costAttr{2, "cost"};
    static constexpr Attribute<Tunnel> lowerAttr{3, "lower"};
    static constexpr auto description() {
        return classRecord("Test::Tunnel", attribute(costAttr, &Tunnel::cost),
                           attribute(lowerAttr, &Tunnel::lower));
    }

    String name() const override { return "tunnel"; }
    double cost() const { return 0.5; }
    Ptr<Entity> lower() const { return lower_; }
    void lowerIs(Ptr<Entity> lower) { attributeIs(lower_, std::move(lower), lowerAttr); }

  private:
    Ptr<Entity> lower_;
};

struct Reactor : Notifiee {
    explicit Reactor(const Ptr<Tunnel>& tunnel) : Notifiee(tunnel, allAttributes) {}
    void handleChange(const Change&) override {}
};

static_assert(std::is_abstract_v<Reactor>);  // Neither on the stack nor a member.

template <std::size_t count>
constexpr bool isFaulty(const AttributeRecord (&attributes)[count]) {
    return attributeFault(FwkType{"Test::Faulty", &fwkTypeOf<Link>(), attributes, 2}) != nullptr;
}
static_assert(!isFaulty({{{2, "a"}, nullptr}, {{3, "b"}, nullptr}}));
static_assert(isFaulty({{{2, "a"}, nullptr}, {{2, "b"}, nullptr}}));
static_assert(isFaulty({{{1, "a"}, nullptr}}));
static_assert(isFaulty({{{2, "a"}, nullptr}, {{3, "a"}, nullptr}}));
static_assert(isFaulty({{{2, "mtu"}, nullptr}}));

// Every test ends with the objects it began with.
class EntityTest : public testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(liveObjects(), before_); }

  private:
    const uint32_t before_ = liveObjects();
};

TEST_F(EntityTest, NotifiesOfChangesOnlyAndOnlyObserversThatWantThem) {
    const Ptr<Link> link = make<Link>();
    std::string log;
    const auto calls = [&log] { return std::exchange(log, ""); };
    const Watch<Link> mtu(link, Link::mtuAttr, [&] { log += "mtu "; });
    const Watch<Link> address(link, Link::addressAttr,
                              [&](const String& key) { log += key.view(); });
    const Watch<Link> all(link, allAttributes, [&](const Change& change) {
        log += change.is(Link::addressAttr) ? change.key(Link::addressAttr).view() : "any";
        log += ' ';
    });
    link->mtuIs(0);
    link->mtuIs(1);
    EXPECT_EQ(link->mtuInc(2), 3u);
    EXPECT_EQ(link->mtuInc(0), 3u);
    EXPECT_EQ(calls(), "mtu any mtu any ");
    for (const char* each : {"b", "b", "a", "c"}) {
        link->addressIs(each);
    }
    EXPECT_EQ(calls(), "bb aa cc ");
    link->addressIs(*link->address().begin(), false);  // Refers to the member that is deleted.
    link->addressIs("a", false);
    link->addressDelAll();
    EXPECT_EQ(calls(), "aa bb cc ");
}

TEST_F(EntityTest, GivesTheValueOfAnAttributeByName) {
    const Ptr<Tunnel> tunnel = make<Tunnel>();
    EXPECT_EQ(attributeText(*tunnel, "lower"), "null");
    tunnel->mtuIs(1500);
    tunnel->lowerIs(make<Link>());
    const struct {
        const char* name;
        std::optional<String> text;
    } rows[] = {
        {"mtu", "1500"}, {"cost", "0.5"}, {"lower", "Test::Link"}, {"mtus", {}}, {"address", {}}};
    for (const auto& row : rows) {
        EXPECT_EQ(attributeText(*tunnel, row.name), row.text) << row.name;
    }
    tunnel->lowerIs(make<Tunnel>());
    EXPECT_EQ(attributeText(*tunnel, "lower"), "tunnel");
    EXPECT_EQ(tunnel->fwkType()->base, &fwkTypeOf<Link>());
    const FwkType copyOfAPlugin = fwkTypeOf<Link>();
    EXPECT_TRUE(tunnel->fwkType()->isA(copyOfAPlugin));
    EXPECT_EQ(dynamicPtrCast<Tunnel>(tunnel->lower())->mtu(), 0u);
    EXPECT_EQ(dynamicPtrCast<Tunnel>(Ptr<Link>(make<Link>())), nullptr);
}

TEST_F(EntityTest, MisuseStopsTheProcess) {
    const Ptr<Reactor> observer = make<Reactor>(nullptr);
    EXPECT_DEATH(observer->notifierIs(make<Link>()),
                 "assertion failed: notifier is of a class without the wanted attributes");
    std::optional<Link> owned(std::in_place);
    const Watch<Link> watch(Ptr<Link>{&*owned}, allAttributes, [&](const Change& change) {
        EXPECT_DEATH(change.key(Link::addressAttr), "assertion failed: is\\(token\\)");
        EXPECT_DEATH(owned.reset(), "assertion failed: walks_ == nullptr");
    });
    owned->mtuIs(1);
}

}  // namespace
}  // namespace Mox
