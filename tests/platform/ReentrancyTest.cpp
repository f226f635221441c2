/// @file
/// Random programs in which everything that is notified acts: observers of entities and
/// descriptors, members of directories and deferred calls.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/EventLoop.h"
#include "Mox/FileDescriptor.h"
#include "support/RandomProgram.h"

namespace Mox {
namespace {

using PavoTest::RandomProgram;

template <class Item>
void drop(std::vector<Item>& items, const void* which) {
    const auto it = std::find_if(items.begin(), items.end(),
                                 [which](const Item& each) { return &*each == which; });
    const Item last = std::move(*it);  // Goes when the list is in order, since it may act.
    items.erase(it);
}

// In a directory, which notifies it of its parent when it comes and when it goes.
struct Child : Entity {
    explicit Child(RandomProgram& itsProgram) : program(itsProgram) {}
    ~Child() override { EXPECT_FALSE(hasParent); }
    void handleParent(Ptr<Entity> parent) override {
        EXPECT_NE(hasParent, parent != nullptr);
        hasParent = parent != nullptr;
        program.actSafely();
    }
    RandomProgram& program;
    bool hasParent = false;
};

// An entity with two attributes and a directory. `known` is what an observer knows that
// looks for a member whenever it is notified of it.
struct Node : EntityOf<Node> {
    static constexpr Attribute<Node> levelAttr{0, "level"};
    static constexpr Attribute<Node> otherAttr{1, "other"};
    static constexpr Attribute<Node, uint32_t> memberAttr{2, "member"};
    static constexpr auto description() {
        return classRecord("Test::Node", attribute(levelAttr, &Node::level),
                           attribute(otherAttr, &Node::other), attribute(memberAttr));
    }

    explicit Node(RandomProgram& itsProgram) : program(itsProgram) {}
    ~Node() override {
        directory.delAll([](const String&) {});
    }
    int level() const { return values[0]; }
    int other() const { return values[1]; }
    void valueIs(uint32_t which, int value) {
        const Attribute<Node>& attribute = which == 0 ? levelAttr : otherAttr;
        const RandomProgram::Notification notification(program, this, which, 0,
                                                       value != values[which]);
        attributeIs(values[which], value, attribute);  // This object may end with it.
        notification.complete();
    }
    void notifyOf(const String& key) {
        const auto index = static_cast<uint32_t>(key.view()[0] - '0');
        known[index] = directory.find(key) != nullptr;
        const RandomProgram::Notification notification(program, this, 2, index);
        notify(memberAttr, index);
        notification.complete();
    }
    void memberIs(const String& key, bool isMember) {
        const Ptr<Node> hold(this);
        const auto create = [this](const String&) {
            program.act();
            return make<Child>(program);
        };
        const uint32_t version = directory.version();
        if (isMember ? directory.add(key, hold, create) : bool(directory.del(key))) {
            EXPECT_GT(directory.version(), version);
            notifyOf(key);
        }
    }
    void memberDelAll() {
        const Ptr<Node> hold(this);
        directory.delAll([&](const String& key) { notifyOf(key); });
    }

    RandomProgram& program;
    int values[2] = {};
    bool known[3] = {};
    Directory<Child> directory;
};

struct World : RandomProgram {
    using RandomProgram::RandomProgram;
    ~World() {
        while (!observers.empty()) {
            dropObserver(observers.back());
        }
    }

    struct Observer : Notifiee {
        Observer(World& w, const Ptr<Node>& node, AttributeSet<Node> wanted)
            : Notifiee(node, wanted), world(w) {}
        ~Observer() override {
            world.actSafely();
            while (!owned.empty()) {
                drop(owned, owned.back().ptr());
            }
            world.leave(watchNumber);
        }
        void zeroReferencesIs(bool zero) override {
            world.leave(number);
            std::erase(world.observers, this);
            Notifiee::zeroReferencesIs(zero);
        }
        void handleChange(const Change& change) override {
            const bool isMember = change.is(Node::memberAttr);
            world.current = this;
            world.called(number, change.attribute.number,
                         isMember ? change.key(Node::memberAttr) : 0);
            world.respond();
        }

        World& world;
        uint32_t number = 0, watchNumber = 0;
        uint64_t wantedBits = 0;
        Watch<Node> watch;
        std::vector<Ptr<Observer>> owned;  // May hold this one.
        std::vector<Ptr<Observer>>* owner = nullptr;
    };

    // A descriptor with room, sometimes with data, and the interest in reading, 0, and writing, 1.
    // A borrowed number may be closed before its object ends: reports are no longer demanded then,
    // and interest is only given up.
    struct Channel {
        explicit Channel(World& w) : world(w) {}
        ~Channel() { ::close(borrowed); }
        void notified(const Change& change) {
            const bool writing = change.is(FileDescriptor::writableCountAttr);
            if (writing || change.is(FileDescriptor::readableCountAttr)) {
                EXPECT_TRUE(wants[writing]);
                EXPECT_NE(std::exchange(reportedIn[writing], world.turns), world.turns);
                wants[1] = fd->notifyOnWritable();  // May have ended with the report.
            }
            world.respond();
        }
        void interestIs(bool writing, bool on) {
            wants[writing] = on;
            writing ? fd->notifyOnWritableIs(on) : fd->notifyOnReadableIs(on);
        }
        void read() const {
            uint64_t count;
            fd->readTried(::read(number, &count, sizeof count) > 0);
        }
        void write() const {
            const uint64_t one = 1;
            EXPECT_GT(::write(number, &one, sizeof one), 0);
        }

        World& world;
        int number = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        int borrowed = world.oneIn(2) ? number : -1;  // Not closed by `fd`.
        Ptr<FileDescriptor> fd =
            fileDescriptorFactory(number, borrowed < 0 ? FileDescriptor::Ownership::owned
                                                       : FileDescriptor::Ownership::borrowed);
        Watch<FileDescriptor> watch{fd, allAttributes,
                                    [this](const Change& change) { notified(change); }};
        bool isOpen = true;
        bool wants[2] = {};
        uint32_t reportedIn[2] = {};  // The turns.
    };

    Node* anyNode() {
        auto* seen = observers.empty() ? nullptr : any(observers)->notifier();
        if (seen != nullptr && !oneIn(3)) {
            return static_cast<Node*>(seen);
        }
        return nodes.empty() ? nodes.emplace_back(make<Node>(*this)).ptr() : any(nodes).ptr();
    }
    Observer* anyObserver() {
        if (observers.empty()) {
            addObserver();
        }
        const bool isThere = std::count(observers.begin(), observers.end(), current) != 0;
        return isThere && oneIn(3) ? current : any(observers);
    }
    void addObserver() {
        const bool all = oneIn(2);
        const Ptr<Node> node = anyNode();
        const Ptr<Observer> made = make<Observer>(
            *this, node,
            all ? AttributeSet<Node>(allAttributes) : AttributeSet<Node>(Node::levelAttr));
        made->wantedBits = all ? ~uint64_t{0} : 1;
        made->number = observe(node.ptr(), made->wantedBits);
        made->owner = oneIn(3)                        ? &made->owned
                      : observers.empty() || oneIn(2) ? &roots
                                                      : &any(observers)->owned;
        made->owner->push_back(made);
        observers.push_back(made.ptr());
    }
    void dropObserver(Observer* observer) { drop(*observer->owner, observer); }
    Channel* openChannel() { return channels.emplace_back(std::make_unique<Channel>(*this)).get(); }
    Channel* anyChannel() { return channels.empty() ? openChannel() : any(channels).get(); }
    void turn() {
        print("turn " + std::to_string(++turns));
        loop.turn(0);
        EXPECT_TRUE(calls.empty() || calls.front().second == turns) << "a call is left out";
    }
    std::vector<Actions> kinds();
    void run();
    void checkAtRest();

    EventLoop loop;
    std::vector<Ptr<Node>> nodes;
    std::vector<Ptr<Observer>> roots;
    std::vector<Observer*> observers;  // All that have references.
    Observer* current = nullptr;       // The last one called; it may have gone.
    std::vector<std::unique_ptr<Channel>> channels;
    std::deque<std::pair<uint32_t, uint32_t>> calls;  // Deferred: the number and the turn.
    uint32_t callsDeferred = 0, turns = 0;
};

// Of observers, of members, and of descriptors and calls.
std::vector<World::Actions> World::kinds() {
    return {
        {
            {"add observer", [this] { addObserver(); }},
            {"set", [this] { anyNode()->valueIs(below(2), static_cast<int>(below(3))); }},
            {"drop observer", [this] { dropObserver(anyObserver()); }},
            {"move observer",
             [this] {
                 Observer* observer = anyObserver();
                 const Ptr<Node> node = oneIn(2) ? nullptr : anyNode();
                 leave(observer->number);
                 observer->number =
                     observe(node.ptr(), observer->wantedBits, observer->hasNotificationActive());
                 observer->notifierIs(node);
             }},
            {"switch observer",
             [this] {
                 Observer* observer = anyObserver();
                 const bool isActive = oneIn(2);
                 activeIs(observer->number, isActive);
                 observer->hasNotificationActiveIs(isActive);
             }},
            {"remove observers",
             [this] {
                 Node* node = anyNode();
                 leaveAll(node);
                 node->notifieeList()->delAll();
             }},
            {"watch",
             [this] {
                 Observer* observer = anyObserver();
                 const Ptr<Node> node(anyNode());
                 leave(observer->watchNumber);
                 const uint32_t number = observer->watchNumber = observe(node.ptr(), 1);
                 observer->watch = Watch<Node>(node, Node::levelAttr, [this, number] {
                     called(number, 0, 0);
                     respond();
                 });
             }},
        },
        {
            {"add observer", [this] { addObserver(); }},
            {"member", [this] { anyNode()->memberIs(std::to_string(below(3)), !oneIn(3)); }},
            {"delete members", [this] { anyNode()->memberDelAll(); }},
            {"add node", [this] { nodes.push_back(make<Node>(*this)); }},
            {"drop node", [this] { nodes.empty() ? void() : drop(nodes, any(nodes).ptr()); }},
        },
        {
            {"open", [this] { openChannel(); }},
            {"interest",
             [this] {
                 Channel* channel = anyChannel();
                 channel->interestIs(oneIn(2), channel->isOpen && !oneIn(3));
             }},
            {"close early",
             [this] {
                 Channel* channel = anyChannel();
                 if (channel->borrowed >= 0) {
                     channel->isOpen = false;
                     ::close(std::exchange(channel->borrowed, -1));
                     openChannel()->interestIs(oneIn(2), true);  // Of the same number.
                 }
             }},
            {"close",
             [this] {
                 Channel* channel = anyChannel();
                 channel->isOpen = channel->wants[0] = channel->wants[1] = false;
                 channel->fd->close();
             }},
            {"drop descriptor", [this] { drop(channels, anyChannel()); }},
            {"watching",
             [this] {
                 if (const Channel* channel = anyChannel(); channel->isOpen) {
                     channel->fd->watchingIs(static_cast<FileDescriptor::Watching>(below(3)));
                 }
             }},
            {"read or write",
             [this] {
                 if (const Channel* channel = anyChannel(); channel->isOpen) {
                     oneIn(2) ? channel->read() : channel->write();
                 }
             }},
            {"defer",
             [this] {
                 calls.emplace_back(++callsDeferred, turns);
                 loop.defer([this, number = callsDeferred] {
                     ASSERT_EQ(calls.front().first, number);
                     EXPECT_LT(calls.front().second, turns);
                     calls.pop_front();
                     respond();
                 });
             }},
        },
    };
}

void World::run() {
    perform(
        kinds(), [this] { turn(); }, [this] { checkAtRest(); });
}

// Nothing acts now: what was left is done, and a plain change reaches every observer.
void World::checkAtRest() {
    print("at rest");
    turn();
    EXPECT_TRUE(calls.empty());
    for (const auto& each : channels) {
        if (each->isOpen) {
            each->read();
            each->write();
        }
    }
    turn();
    turn();
    for (const auto& each : channels) {
        const bool isEdge = each->fd->watching() == FileDescriptor::Watching::edge;
        for (const bool writing : {false, true}) {
            EXPECT_FALSE(each->isOpen && each->wants[writing] && !(writing && isEdge) &&
                         each->reportedIn[writing] + 2 <= turns)
                << "a descriptor is ready and not reported";
        }
    }
    for (uint32_t count = 6; count > 0; --count) {
        const Ptr<Node> node = anyNode();
        for (uint32_t i = 0; i < 3; ++i) {
            EXPECT_EQ(node->known[i], node->directory.find(std::to_string(i)) != nullptr);
        }
        node->valueIs(0, node->values[0] + 1);
    }
}

TEST(Reentrancy, WhateverIsNotifiedMayDoAnything) {
    PavoTest::runPrograms(3000, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Mox
