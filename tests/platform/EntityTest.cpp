#include "Mox/Entity.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Mox/FileDescriptor.h"
#include "support/TestEntity.h"

namespace Mox {
namespace {

using PavoTest::attributeFault;
using PavoTest::Recorder;
using PavoTest::TestEntity;

// Every test ends with the objects it began with.
class EntityTest : public testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(liveObjects(), before_); }

  private:
    const uint32_t before_ = liveObjects();
};
class PtrTest : public EntityTest {};

// An entity with observers A, B and C, in this order; B acts.
struct Scene {
    Scene() {
        for (const char name : {'A', 'B', 'C'}) {
            observers.push_back(make<Recorder>(entity, name, &log));
        }
    }
    Ptr<Recorder>& a() { return observers[0]; }
    Ptr<Recorder>& b() { return observers[1]; }
    Ptr<Recorder>& c() { return observers[2]; }
    void addD() { observers.push_back(make<Recorder>(entity, 'D', &log)); }
    void removeOthers() {
        a()->notifierIs(nullptr);
        c()->notifierIs(nullptr);
    }
    void dropEntity() {
        entity->notifieeList()->delAll();
        entity = nullptr;
    }
    void setAgain() { entity->levelIs(entity->level() + 1); }

    std::string log;
    Ptr<TestEntity> entity = make<TestEntity>();
    Ptr<TestEntity> another = make<TestEntity>();
    std::vector<Ptr<Recorder>> observers;
};

TEST_F(EntityTest, ObserversMayDoAnythingWhileTheyAreNotified) {
    const struct {
        const char* what;
        void (*first)(Scene& s);   // What B does when it is called first,
        void (*second)(Scene& s);  // and the second time, which some rows reach inside the first.
        const char* heard;         // Who was called for the first change,
        const char* heardNext;     // and for a later one; null when the entity has gone.
    } cases[] = {
        {"nothing", nullptr, nullptr, "ABC", "ABC"},
        {"leaves", [](Scene& s) { s.b()->notifierIs(nullptr); }, nullptr, "ABC", "AC"},
        {"removes the next", [](Scene& s) { s.c()->notifierIs(nullptr); }, nullptr, "AB", "AB"},
        {"removes the one before", [](Scene& s) { s.a()->notifierIs(nullptr); }, nullptr, "ABC",
         "BC"},
        {"removes all others", [](Scene& s) { s.removeOthers(); }, nullptr, "AB", "B"},
        {"removes all", [](Scene& s) { s.entity->notifieeList()->delAll(); }, nullptr, "AB", ""},
        {"adds one", [](Scene& s) { s.addD(); }, nullptr, "ABC", "ABCD"},
        {"comes again", [](Scene& s) { s.b()->notifierIs(s.entity); }, nullptr, "ABC", "ACB"},
        {"makes the next come again", [](Scene& s) { s.c()->notifierIs(s.entity); }, nullptr, "AB",
         "ABC"},
        {"goes elsewhere", [](Scene& s) { s.b()->notifierIs(s.another); }, nullptr, "ABC", "AC"},
        {"switches the next off", [](Scene& s) { s.c()->hasNotificationActiveIs(false); }, nullptr,
         "AB", "AB"},
        {"destroys the next", [](Scene& s) { s.c() = nullptr; }, nullptr, "AB", "AB"},
        {"destroys itself", [](Scene& s) { s.b() = nullptr; }, nullptr, "ABC", "AC"},
        {"destroys all", [](Scene& s) { s.observers.clear(); }, nullptr, "AB", ""},
        {"sets again", [](Scene& s) { s.setAgain(); }, nullptr, "ABABCC", "ABC"},
        {"sets again, and then removes the next of both", [](Scene& s) { s.setAgain(); },
         [](Scene& s) { s.c()->notifierIs(nullptr); }, "ABAB", "AB"},
        {"sets again, and then destroys itself", [](Scene& s) { s.setAgain(); },
         [](Scene& s) { s.b() = nullptr; }, "ABABCC", "AC"},
        {"sets again, and then adds one", [](Scene& s) { s.setAgain(); },
         [](Scene& s) { s.addD(); }, "ABABCC", "ABCD"},
        {"adds one, and sets again", [](Scene& s) { s.addD(), s.setAgain(); }, nullptr, "ABABCDC",
         "ABCD"},
        {"drops the entity, which the others hold", [](Scene& s) { s.entity = nullptr; }, nullptr,
         "ABC", nullptr},
        {"drops the entity, whom nobody observes any more", [](Scene& s) { s.dropEntity(); },
         nullptr, "AB", nullptr},
        {"drops the entity with all observers",
         [](Scene& s) { s.observers.clear(), s.dropEntity(); }, nullptr, "AB", nullptr},
        {"throws", [](Scene&) { throw std::runtime_error("B"); }, nullptr, "AB!", "ABC"},
        {"sets again, and then throws", [](Scene& s) { s.setAgain(); },
         [](Scene&) { throw std::runtime_error("B"); }, "ABAB!", "ABC"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const uint32_t before = liveObjects();
        {
            Scene scene;
            scene.b()->action = [&](int call) {
                const auto action = call == 1 ? c.first : call == 2 ? c.second : nullptr;
                if (action != nullptr) {
                    action(scene);
                }
            };
            try {
                scene.entity->levelIs(1);
            } catch (const std::runtime_error&) {
                scene.log += '!';
            }
            EXPECT_EQ(scene.log, c.heard);
            EXPECT_EQ(scene.entity == nullptr, c.heardNext == nullptr);
            if (scene.entity) {
                scene.log.clear();
                if (scene.observers.size() > 1 && scene.b()) {
                    scene.b()->action = nullptr;
                }
                scene.entity->levelIs(10);
                EXPECT_EQ(scene.log, c.heardNext);
            }
        }
        EXPECT_EQ(liveObjects(), before);
    }
}

TEST_F(EntityTest, TellsOfChangesOnlyAndOnlyWhoAskedForThem) {
    const Ptr<TestEntity> entity = make<TestEntity>();
    std::string log;
    const auto writes = [&](const char* what) { return [&log, what] { log += what; }; };
    const Watch<TestEntity> level(entity, TestEntity::levelAttr, writes("level "));
    const Watch<TestEntity> other(entity, TestEntity::otherAttr, writes("other "));
    const Watch<TestEntity> member(entity, TestEntity::memberAttr, [&](uint32_t key) {
        log += "member " + std::to_string(key) + " ";
    });
    const Watch<TestEntity> all(entity, AttributeSet::all(), [&](const Change& change) {
        log += change.is(TestEntity::memberAttr)
                   ? "all " + std::to_string(change.key(TestEntity::memberAttr)) + " "
                   : "all ";
    });
    const struct {
        const char* what;
        void (*change)(TestEntity& e);
        const char* heard;
    } steps[] = {
        {"as it is", [](TestEntity& e) { e.levelIs(0); }, ""},
        {"changed", [](TestEntity& e) { e.levelIs(1); }, "level all "},
        {"again", [](TestEntity& e) { e.levelIs(1); }, ""},
        {"the other", [](TestEntity& e) { e.otherIs(1); }, "other all "},
        {"a member", [](TestEntity& e) { e.memberIs(7); }, "member 7 all 7 "},
        {"that member again", [](TestEntity& e) { e.memberIs(7); }, ""},
        {"another", [](TestEntity& e) { e.memberIs(4); }, "member 4 all 4 "},
        {"all removed", [](TestEntity& e) { e.memberDelAll(); }, "member 4 all 4 member 7 all 7 "},
    };
    for (const auto& step : steps) {
        log.clear();
        step.change(*entity);
        EXPECT_EQ(log, step.heard) << step.what;
    }
}

TEST_F(EntityTest, ActivatesEachObserverByItself) {
    const Ptr<TestEntity> entity = make<TestEntity>();
    std::string log;
    Recorder onStack(entity, 'A', &log);  // Inactive until it is told to be active.
    const Ptr<Recorder> made = make<Recorder>(entity, 'B', &log);
    entity->levelIs(1);
    onStack.hasNotificationActiveIs(true);
    entity->levelIs(2);
    made->hasNotificationActiveIs(false);
    entity->levelIs(3);
    EXPECT_EQ(log, "BABA");
}

TEST_F(EntityTest, RunsItsOwnHandlerBeforeObservers) {
    struct Loud : TestEntity {
        explicit Loud(std::string* log) : log_(log) {}
        void handleLevel() override { *log_ += 'H'; }
        std::string* log_;
    };
    std::string log;
    const Ptr<Loud> entity = make<Loud>(&log);
    const Ptr<Recorder> observer = make<Recorder>(entity, 'A', &log);
    entity->levelIs(1);
    EXPECT_EQ(log, "HA");
}

TEST_F(EntityTest, AWatchMayBeDestroyedOrReplacedFromInsideItsCall) {
    const Ptr<TestEntity> entity = make<TestEntity>();
    std::string log;
    const std::string text(100, 'x');  // Would be freed with the handler that holds it.
    Watch<TestEntity> watch(entity, TestEntity::levelAttr, [&, text] {
        watch = Watch<TestEntity>(entity, TestEntity::levelAttr, [&] {
            log += 'n';
            watch = Watch<TestEntity>();
            entity->levelIs(9);  // Not heard any more, though the call still runs.
        });
        log += text;
    });
    entity->levelIs(1);
    EXPECT_EQ(log, text);
    entity->levelIs(2);
    entity->levelIs(3);
    EXPECT_EQ(log, text + "n");
}

TEST_F(EntityTest, AWatchThatIsMovedIntoAnotherEndsWhatThatOneWatched) {
    const Ptr<TestEntity> entity = make<TestEntity>();
    std::string log;
    Watch<TestEntity> a(entity, TestEntity::levelAttr, [&] { log += 'A'; });
    Watch<TestEntity> b(entity, TestEntity::levelAttr, [&] { log += 'B'; });
    a = std::move(b);
    entity->levelIs(1);
    EXPECT_EQ(log, "B");
}

TEST_F(EntityTest, EitherSideMayGoFirst) {
    std::string log;
    const Ptr<Recorder> observer = make<Recorder>(nullptr, 'A', &log);
    {
        TestEntity onStack;
        observer->notifierIs(Ptr<TestEntity>(&onStack));
        onStack.levelIs(1);
        Recorder goesFirst(Ptr<TestEntity>(&onStack), 'B', &log);
        goesFirst.hasNotificationActiveIs(true);
        onStack.levelIs(2);
        EXPECT_EQ(onStack.references(), 3u);
    }
    EXPECT_EQ(observer->notifier(), nullptr);
    observer->notifierIs(make<TestEntity>());  // Held by its observer alone.
    static_cast<TestEntity*>(observer->notifier())->levelIs(1);
    observer->notifierIs(nullptr);
    EXPECT_EQ(log, "AABA");
}

TEST_F(EntityTest, AnObserverThatIsBeingDestroyedHearsNothing) {
    struct SetsAtTheEnd {
        ~SetsAtTheEnd() { entity->levelIs(9); }
        Ptr<TestEntity> entity;
    };
    struct Dying : Notifiee {
        explicit Dying(const Ptr<TestEntity>& entity)
            : Notifiee(entity, AttributeSet::all()), last{entity} {}
        void handleChange(const Change&) override { ADD_FAILURE(); }
        SetsAtTheEnd last;  // Goes when there is no `handleChange` any more.
    };
    const Ptr<TestEntity> entity = make<TestEntity>();
    make<Dying>(entity) = nullptr;
    EXPECT_EQ(entity->level(), 9);
}

TEST_F(EntityTest, NumbersTheAttributesOfAChainOfClassesOnce) {
    static constexpr AttributeBase three{3, "three"};
    static constexpr AttributeBase two{2, "two"};
    static constexpr AttributeBase four{4, "four"};
    static constexpr AttributeBase level{3, "level"};
    static constexpr const AttributeBase* attributes[] = {&three, &two, &four, &level};
    const auto derived = [](std::span<const AttributeBase* const> added) {
        return FwkType{"Derived", &TestEntity::type, added};
    };
    const std::span<const AttributeBase* const> all(attributes);
    EXPECT_EQ(attributeFault(derived(all.subspan(0, 1))), "");
    EXPECT_EQ(attributeFault(derived(all.subspan(1, 1))), "2 stands twice");
    EXPECT_EQ(attributeFault(derived(all.subspan(2, 1))), "4 leaves a gap");
    EXPECT_EQ(attributeFault(derived(all.subspan(3, 1))), "level stands twice");
    EXPECT_EQ(attributeFault(TestEntity::type), "");
    EXPECT_EQ(attributeFault(FileDescriptor::type), "");
}

// Makes references to itself at both ends of its life.
struct SelfHolder : PtrInterface {
    explicit SelfHolder(int* deaths) : deaths_(deaths) { const Ptr<SelfHolder> self(this); }
    ~SelfHolder() override {
        ++*deaths_;
        const Ptr<SelfHolder> self(this);
        const Ptr<SelfHolder> copy(self);
    }
    int* deaths_;
};

TEST_F(PtrTest, ReferencesToItselfDeleteNothingAtBirthAndNothingTwiceAtDeath) {
    int deaths = 0;
    {
        const Ptr<SelfHolder> made = make<SelfHolder>(&deaths);
        EXPECT_EQ(made->references(), 1u);
        SelfHolder onStack(&deaths);
        const Ptr<SelfHolder> borrowed(&onStack);
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 2);
    Ptr<SelfHolder> last = make<SelfHolder>(&deaths);
    const Ptr<PtrInterface> converted = std::move(last);
    EXPECT_EQ(last, nullptr);
    EXPECT_EQ(converted->references(), 1u);
}

TEST_F(PtrTest, IsWholeAgainBeforeTheOldObjectGoes) {
    struct LooksBack : PtrInterface {
        LooksBack(const Ptr<LooksBack>* place, bool* wasNull) : place_(place), wasNull_(wasNull) {}
        ~LooksBack() override { *wasNull_ = *place_ == nullptr; }
        const Ptr<LooksBack>* place_;
        bool* wasNull_;
    };
    Ptr<LooksBack> place;
    bool wasNull = false;
    place = make<LooksBack>(&place, &wasNull);
    const Ptr<LooksBack>& same = place;
    place = same;
    EXPECT_FALSE(wasNull);
    place = nullptr;
    EXPECT_TRUE(wasNull);
}

}  // namespace
}  // namespace Mox
