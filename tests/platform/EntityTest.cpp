#include "Mox/Entity.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/TestEntity.h"

namespace Mox {
namespace {

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

    std::string log;
    Ptr<TestEntity> entity = make<TestEntity>();
    Ptr<TestEntity> another = make<TestEntity>();
    std::vector<Ptr<Recorder>> observers;
};

TEST_F(EntityTest, ObserversMayDoAnythingWhileTheyAreNotified) {
    using Action = void (*)(Scene&);
    const Action setsAgain = [](Scene& s) { s.entity->levelIs(s.entity->level() + 1); };
    const Action removesNext = [](Scene& s) { s.c()->notifierIs(nullptr); };
    const Action destroysItself = [](Scene& s) { s.b() = nullptr; };
    const Action endsWithTheNextOne = [](Scene& s) {
        s.b()->owned = std::exchange(s.c(), nullptr);
        s.b() = nullptr;
    };
    const Action addsOne = [](Scene& s) {
        s.observers.push_back(make<Recorder>(s.entity, 'D', &s.log));
    };
    const Action dropsAll = [](Scene& s) {
        s.entity->notifieeList()->delAll();
        s.entity = nullptr;
    };
    const Action throws = [](Scene&) { throw std::runtime_error("B"); };
    const struct {
        const char* what;
        Action first;             // What B does when it is called first.
        const char* heard;        // Who was called for the first change, "!" for an exception,
        const char* heardNext;    // and for a later one; null when the entity has gone.
        Action second = nullptr;  // What B does inside the first action, where that sets again.
    } cases[] = {
        {"leaves", [](Scene& s) { s.b()->notifierIs(nullptr); }, "ABC", "AC"},
        {"removes the next", removesNext, "AB", "AB"},
        {"removes the one before", [](Scene& s) { s.a()->notifierIs(nullptr); }, "ABC", "BC"},
        {"removes all", [](Scene& s) { s.entity->notifieeList()->delAll(); }, "AB", ""},
        {"adds one", addsOne, "ABC", "ABCD"},
        {"comes again", [](Scene& s) { s.b()->notifierIs(s.entity); }, "ABC", "ACB"},
        {"makes C come again", [](Scene& s) { s.c()->notifierIs(s.entity); }, "AB", "ABC"},
        {"goes elsewhere", [](Scene& s) { s.b()->notifierIs(s.another); }, "ABC", "AC"},
        {"switches C off", [](Scene& s) { s.c()->hasNotificationActiveIs(false); }, "AB", "AB"},
        {"destroys the next", [](Scene& s) { s.c() = nullptr; }, "AB", "AB"},
        {"destroys itself", destroysItself, "ABC", "AC"},
        {"destroys itself, and with it the next, which it owns", endsWithTheNextOne, "AB", "A"},
        {"destroys all", [](Scene& s) { s.observers.clear(); }, "AB", ""},
        {"sets again", setsAgain, "ABABCC", "ABC"},
        {"sets again and removes the next of both", setsAgain, "ABAB", "AB", removesNext},
        {"sets again and destroys itself", setsAgain, "ABABCC", "AC", destroysItself},
        {"sets again and adds one", setsAgain, "ABABCC", "ABCD", addsOne},
        {"drops the entity", [](Scene& s) { s.entity = nullptr; }, "ABC", nullptr},
        {"drops the entity, with its observers", dropsAll, "AB", nullptr},
        {"throws", throws, "AB!", "ABC"},
        {"sets again and throws", setsAgain, "ABAB!", "ABC", throws},
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
    entity->levelIs(1);
    EXPECT_EQ(heard(), "level all ");
    entity->otherIs(1);
    EXPECT_EQ(heard(), "all ");
    for (const uint32_t member : {7, 7, 4}) {
        entity->memberIs(member);
    }
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
            Watch<TestEntity> another(entity, TestEntity::levelAttr, [&] { log += 'a'; });
            watch = std::move(another);
            entity->levelIs(9);  // Not heard by this one, though its call still runs.
        });
        log += text;
    });
    entity->levelIs(1);
    entity->levelIs(2);
    EXPECT_EQ(log, text + "na");
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

}  // namespace
}  // namespace Mox
