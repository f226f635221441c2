#include "Mox/Entity.h"

#include <gtest/gtest.h>

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
    void dropEntity() {
        entity->notifieeList()->delAll();
        entity = nullptr;
    }

    std::string log;
    Ptr<TestEntity> entity = make<TestEntity>();
    Ptr<TestEntity> another = make<TestEntity>();
    std::vector<Ptr<Recorder>> observers;
};

TEST_F(EntityTest, ObserversMayDoAnythingWhileTheyAreNotified) {
    using Action = void (*)(Scene&);
    const Action setAgain = [](Scene& s) { s.entity->levelIs(s.entity->level() + 1); };
    const Action throws = [](Scene&) { throw std::runtime_error("B"); };
    const struct {
        const char* what;
        Action first;           // What B does when it is called first,
        Action second;          // and the second time, inside the first where that sets again.
        const char* heard;      // Who was called for the first change, "!" for an exception,
        const char* heardNext;  // and for a later one; null when the entity has gone.
    } cases[] = {
        {"leaves", [](Scene& s) { s.b()->notifierIs(nullptr); }, nullptr, "ABC", "AC"},
        {"removes the next", [](Scene& s) { s.c()->notifierIs(nullptr); }, nullptr, "AB", "AB"},
        {"removes the one before", [](Scene& s) { s.a()->notifierIs(nullptr); }, nullptr, "ABC",
         "BC"},
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
        {"sets again", setAgain, nullptr, "ABABCC", "ABC"},
        {"sets again and removes the next of both", setAgain,
         [](Scene& s) { s.c()->notifierIs(nullptr); }, "ABAB", "AB"},
        {"sets again and destroys itself", setAgain, [](Scene& s) { s.b() = nullptr; }, "ABABCC",
         "AC"},
        {"sets again and adds one", setAgain, [](Scene& s) { s.addD(); }, "ABABCC", "ABCD"},
        {"drops the entity, which the others hold", [](Scene& s) { s.entity = nullptr; }, nullptr,
         "ABC", nullptr},
        {"drops the entity, whom nobody observes any more", [](Scene& s) { s.dropEntity(); },
         nullptr, "AB", nullptr},
        {"throws", throws, nullptr, "AB!", "ABC"},
        {"sets again and throws", setAgain, throws, "ABAB!", "ABC"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scene scene;
        std::vector<Action> actions = {c.second, c.first};
        scene.b()->action = [&] {
            const Action action = actions.empty() ? nullptr : actions.back();
            actions.resize(actions.empty() ? 0 : actions.size() - 1);
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
            actions.clear();
            scene.entity->levelIs(10);
            EXPECT_EQ(scene.log, c.heardNext);
        }
    }
}

TEST_F(EntityTest, TellsOfChangesOnlyAndOnlyWhoAskedForThem) {
    const Ptr<TestEntity> entity = make<TestEntity>();
    std::string log;
    const auto heard = [&log] { return std::exchange(log, ""); };
    const Watch<TestEntity> level(entity, TestEntity::levelAttr, [&] { log += "level "; });
    const Watch<TestEntity> member(entity, TestEntity::memberAttr, [&](uint32_t key) {
        log += "member " + std::to_string(key) + " ";
    });
    const Watch<TestEntity> all(entity, AttributeSet::all(), [&](const Change& change) {
        log += change.is(TestEntity::memberAttr)
                   ? "all " + std::to_string(change.key(TestEntity::memberAttr)) + " "
                   : "all ";
    });
    entity->levelIs(0);
    EXPECT_EQ(heard(), "");
    entity->levelIs(1);
    EXPECT_EQ(heard(), "level all ");
    entity->otherIs(1);
    EXPECT_EQ(heard(), "all ");
    entity->memberIs(7);
    entity->memberIs(7);
    entity->memberIs(4);
    EXPECT_EQ(heard(), "member 7 all 7 member 4 all 4 ");
    entity->memberDelAll();
    EXPECT_EQ(heard(), "member 4 all 4 member 7 all 7 ");
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
    for (const int level : {1, 2, 3}) {
        entity->levelIs(level);
    }
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
        Recorder goesFirst(Ptr<TestEntity>(&onStack), 'B', &log);  // Inactive until told.
        onStack.levelIs(2);
        goesFirst.hasNotificationActiveIs(true);
        onStack.levelIs(3);
        EXPECT_EQ(onStack.references(), 3u);
    }
    EXPECT_EQ(observer->notifier(), nullptr);
    observer->notifierIs(make<TestEntity>());  // Held by its observer alone.
    static_cast<TestEntity*>(observer->notifier())->levelIs(1);
    observer->notifierIs(nullptr);
    EXPECT_EQ(log, "AAABA");
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
    const struct {
        AttributeBase attribute;  // Beside the three of TestEntity.
        const char* fault;
    } cases[] = {
        {{3, "three"}, ""},
        {{2, "two"}, "2 stands twice"},
        {{4, "four"}, "4 leaves a gap"},
        {{3, "level"}, "level stands twice"},
    };
    for (const auto& c : cases) {
        const AttributeBase* const added[] = {&c.attribute};
        EXPECT_EQ(attributeFault(FwkType{"Derived", &TestEntity::type, added}), c.fault);
    }
    EXPECT_EQ(attributeFault(FileDescriptor::type), "");
}

}  // namespace
}  // namespace Mox
