// Sessions over a model of the kernel, and over the kernel.
#include "Pavo/NetlinkSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/KernelRequests.h"
#include "Pavo/NetlinkAttributes.h"
#include "Pavo/NetlinkRecorder.h"
#include "kernel/KernelModel.h"
#include "pam/PamFixture.h"
#include "support/FailSyscall.h"
#include "support/RandomProgram.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using PavoTest::Item;
using PavoTest::KernelModel;
using testing::ElementsAre;

// A table as its messages say that it is.
class Mirror : public NetlinkFollower {
  public:
    void callback(nlmsghdr* message) override {
        const std::size_t table = KernelModel::tableOf(message->nlmsg_type);
        const auto* const item = netlinkBody<Item>(*message);
        if (message->nlmsg_type % 4 == 0) {
            items[table][item->id] = item->value;
            named_[table].insert(item->id);
        } else {
            items[table].erase(item->id);
        }
        then();
    }
    void handleDumpBegin(uint16_t getType) override {
        named_[KernelModel::tableOf(getType)].clear();
        then();
    }
    bool handleDumpEnd(uint16_t getType) override {
        const std::size_t table = KernelModel::tableOf(getType);
        std::erase_if(items[table],
                      [&](const auto& each) { return named_[table].count(each.first) == 0; });
        then();
        return isContent();
    }

    KernelModel::Table items[2];
    std::function<void()> then = [] {};
    std::function<bool()> isContent = [] { return true; };

  private:
    std::set<uint32_t> named_[2];
};

NetlinkMessage itemMessage(std::size_t table, int operation, uint32_t id, uint32_t value) {
    NetlinkMessage message(static_cast<uint16_t>(KernelModel::types[table] + operation));
    message.bodyIs(Item{0, id, value});
    return message;
}

struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;

    // What is known of a message that was handed to the session.
    struct Asked {
        uint32_t ends = 0;
        bool isForgotten = false;
        uint32_t disablings = 0;  // Of the session, before it was asked.
    };
    // A session with a kernel of its own, kept until the end, since a session that is dropped while
    // it calls goes on until it has called everything.
    struct Side {
        explicit Side(Mox::Clock* clock)
            : kernel(clock), session(netlinkSessionFactory("session", NamespaceName(), clock)) {
            session->portOpenerIs(kernel.opener());
        }
        KernelModel kernel;
        Mirror mirrors[2];
        Mox::Ptr<NetlinkSession> session;
        Mox::Watch<NetlinkSession> watch;
        bool isInSync = false;  // As observers know it.
        bool follows[2] = {};
        uint32_t disablings = 0;
        std::map<uint32_t, std::vector<Asked>> asked;  // By the number of the first.
    };

    Side& side() {
        if (sides.empty() || !sides.back()->session) {
            Side* const made = sides.emplace_back(std::make_unique<Side>(&clock)).get();
            made->watch = Mox::Watch<NetlinkSession>(
                made->session, Mox::allAttributes, [this, made](const Mox::Change& change) {
                    made->isInSync ^= change.is(NetlinkSession::isInSyncAttr);
                    respond();
                });
            for (Mirror& each : made->mirrors) {
                each.then = [this] { respond(); };
                each.isContent = [this] { return !oneIn(4); };
            }
        }
        return *sides.back();
    }

    // A dump is no request that the kernel has a result of.
    void ended(Side& on, uint32_t first, std::size_t index, const NetlinkAnswer& answer,
               bool isDump = false) {
        Asked& asked = on.asked[first][index];
        EXPECT_TRUE(++asked.ends == 1 && !asked.isForgotten);
        const auto handled = on.kernel.results.find(first + static_cast<uint32_t>(index));
        const int error = answer.error;
        const bool mayBeLost = error == ENOBUFS || error == ETIMEDOUT || (isDump && error == EBUSY);
        if (error == ECANCELED) {
            EXPECT_NE(asked.disablings, on.disablings);
        } else if (mayBeLost && on.kernel.requestLosses != 0) {
        } else if (isDump) {
            EXPECT_TRUE(error == 0 || error == EINTR || error == EOVERFLOW) << error;
        } else if (error != EOVERFLOW) {
            ASSERT_TRUE(handled != on.kernel.results.end()) << error << " from nobody";
            EXPECT_TRUE(error == handled->second || handled->second == KernelModel::swallowed);
            EXPECT_EQ(answer.text, error == EINVAL ? KernelModel::refusedText : "");
        }
        respond();
    }
    // `ask` gets a function for the answers, and returns the number of the first message.
    template <class Ask>
    void asks(std::size_t count, bool isDump, Ask ask) {
        Side& on = side();
        const auto first = std::make_shared<uint32_t>();
        *first = ask(*on.session,
                     [this, &on, first, isDump](std::size_t index, const NetlinkAnswer& answer) {
                         ended(on, *first, index, answer, isDump);
                     });
        on.asked[*first].assign(count, {0, false, on.disablings - (on.session->enabled() ? 0 : 1)});
    }
    void get() {
        const uint32_t id = below(12);
        asks(1, false, [&](NetlinkSession& session, auto ended) {
            return session.requestIs(
                itemMessage(0, 2, id, 0),
                [ended](const NetlinkAnswer& answer) { ended(0, answer); },
                [id](const nlmsghdr& message) { EXPECT_EQ(netlinkBody<Item>(message)->id, id); });
        });
    }
    void batch() {
        std::vector<NetlinkMessage> messages;
        for (uint32_t count = 1 + below(40); count > 0; --count) {
            messages.push_back(
                itemMessage(below(2), static_cast<int>(below(2)), below(12), 12 + below(3)));
        }
        asks(messages.size(), false, [&](NetlinkSession& session, auto ended) {
            return session.requestsAre(
                messages, [ended, next = std::size_t{0}](std::size_t index,
                                                         const NetlinkAnswer& answer) mutable {
                    EXPECT_EQ(index, next++);
                    ended(index, answer);
                });
        });
    }
    // Each item once, since its beginning.
    void dump() {
        const auto got = std::make_shared<std::set<uint32_t>>();
        asks(1, true, [&](NetlinkSession& session, auto ended) {
            return session.dumpIs(
                itemMessage(0, 2, 0, 0), [got] { got->clear(); },
                [got](const nlmsghdr& message) {
                    EXPECT_TRUE(got->insert(netlinkBody<Item>(message)->id).second);
                },
                [ended](const NetlinkAnswer& answer) { ended(0, answer); });
        });
    }
    void forget() {
        Side& on = side();
        if (!on.asked.empty()) {
            const auto it = std::next(on.asked.begin(), static_cast<int>(below(on.asked.size())));
            for (Asked& each : it->second) {
                each.isForgotten = each.ends == 0;
            }
            on.session->requestDel(it->first);
        }
    }
    void enable(bool enabled) {
        Side& on = side();
        on.disablings += enabled ? 0 : 1;
        on.session->enabledIs(enabled);
    }
    void follow(std::size_t table, bool follows) {
        Side& on = side();
        on.follows[table] = follows;
        if (follows) {
            on.session->followIs(static_cast<uint16_t>(KernelModel::types[table] + 2),
                                 {KernelModel::groups[table]}, &on.mirrors[table]);
        } else {
            on.session->followDel(&on.mirrors[table]);
            on.mirrors[table].items[table].clear();
        }
    }
    // While a message from before waits.
    void joinAgain() {
        change();
        follow(0, false);
        change();
        follow(0, true);
    }
    void change() {
        for (uint32_t count = 1 + below(4); count > 0; --count) {
            // Of another namespace, whose process may have the numbers of the monitor.
            (void)side().kernel.set(below(2), below(12), oneIn(3) ? 0 : 1 + below(9),
                                    /*pid=*/7 + below(2), /*seq=*/1 + below(20));
        }
    }
    void checkAtRest() {
        Side& on = side();
        on.kernel.isSilent = on.kernel.isHuge = false;
        on.kernel.room = on.kernel.sndBuf = 1000;
        for (int i = 0; i < 40; ++i) {
            clock.advance(1);
        }
        for (const auto& [first, all] : on.asked) {
            for (const Asked& each : all) {
                EXPECT_EQ(each.ends, each.isForgotten ? 0u : 1u) << "request " << first;
            }
        }
        EXPECT_EQ(on.session->isInSync(), on.session->enabled());
        EXPECT_EQ(on.isInSync, on.session->enabled());
        for (std::size_t table = 0; table < 2 && on.session->enabled(); ++table) {
            if (on.follows[table]) {
                EXPECT_EQ(on.mirrors[table].items[table], on.kernel.tables[table]);
            }
        }
        EXPECT_EQ(clock.nextExpiry(), Mox::Clock::idle) << "the clock is kept busy";
    }
    void run() {
        perform(
            {{{"change", [this] { change(); }},
              {"get", [this] { get(); }},
              {"batch", [this] { batch(); }},
              {"dump", [this] { dump(); }},
              {"forget", [this] { forget(); }}},
             {{"enable", [this] { enable(true); }},
              {"follow 0", [this] { follow(0, true); }},
              {"follow 1", [this] { follow(1, true); }},
              {"leave 0", [this] { follow(0, false); }},
              {"join again", [this] { joinAgain(); }},
              {"disable", [this] { enable(false); }},
              {"drop", [this] { side().watch = {}, sides.back()->session = nullptr; }}},
             {{"enable", [this] { enable(true); }},
              {"forge", [this] { side().kernel.forge(); }},
              {"little room", [this] { side().kernel.room = 1 + below(6); }},
              {"small datagrams", [this] { side().kernel.sndBuf = 32 + 32 * below(4); }},
              {"huge datagram", [this] { side().kernel.isHuge = true; }},
              {"silence", [this] { side().kernel.isSilent = true; }},
              {"answers", [this] { side().kernel.isSilent = false; }}}},
            [this] { clock.advance(oneIn(4) ? 3 : 0.001); }, [this] { checkAtRest(); });
        sides.clear();
    }

    Mox::ManualClock clock;
    std::vector<std::unique_ptr<Side>> sides;
};

TEST(NetlinkSession, EndsEachRequestOnceAndFollowsTablesWhateverIsCalledAndLost) {
    PavoTest::runPrograms(3000, PavoTest::runProgram<World>);
}

TEST(NetlinkSession, WaitsLongerBeforeEachFreshDumpOfAStorm) {
    Mox::ManualClock clock;
    World::Side side(&clock);
    KernelModel& kernel = side.kernel;
    side.session->followIs(RTM_GETLINK, {RTNLGRP_LINK}, &side.mirrors[0]);
    side.session->enabledIs(true);
    kernel.room = 2;
    uint32_t value = 0;
    const auto storm = [&](int milliseconds) {
        for (int i = 0; i < milliseconds; ++i) {
            for (uint32_t id = 0; id < 5; ++id) {
                (void)kernel.set(0, id, 1 + value++ % 9);
            }
            clock.advance(0.001);
        }
    };
    storm(5000);
    clock.advance(3);
    EXPECT_EQ(side.mirrors[0].items[0], kernel.tables[0]);
    storm(20);
    std::vector<int64_t> waits;  // In hundredths of a second.
    for (std::size_t i = 1; i < kernel.dumpsAt.size(); ++i) {
        waits.push_back(std::lround((kernel.dumpsAt[i] - kernel.dumpsAt[i - 1]) * 100));
    }
    // The last one is from the end of the storm to 10 ms after the beginning of the next.
    EXPECT_THAT(waits, ElementsAre(1, 2, 4, 8, 16, 32, 64, 100, 100, 100, 100, 274));
    EXPECT_GT(side.session->overflows(), 4000u);
}

using NetlinkSessionKernelTest = PavoTest::SandboxTest;

TEST_F(NetlinkSessionKernelTest, AnswersEachMessageOfALargeBatch) {
    Mox::EventLoop loop;
    const auto session = netlinkSessionFactory("session", NamespaceName(), loop.clock());
    session->enabledIs(true);
    std::vector<NetlinkMessage> batch;  // Every third is refused.
    for (uint32_t i = 0; i < 6000; ++i) {
        const LinkAddressKey key{/*ifIndex=*/1, IpAddr(0x0a000000 + i % 3000 - i % 3 / 2)};
        batch.push_back(i < 3000 ? addressAddRequest({key, 32, {}, {}, 0, 0})
                                 : addressDelRequest(key, 32));
    }
    std::size_t answers = 0;
    session->requestsAre(batch, [&](std::size_t i, const NetlinkAnswer& answer) {
        ++answers;
        ASSERT_EQ(answer.error, i % 3 != 2 ? 0 : i < 3000 ? EEXIST : EADDRNOTAVAIL) << i;
        EXPECT_TRUE(i != 5999 || answer.text == "ipv4: Address not found") << answer.text;
    });
    EXPECT_TRUE(PavoTest::turnsUntil(loop, [&] { return answers == batch.size(); }));
    EXPECT_EQ(session->overflows() + session->staleAnswers(), 0u);
}

TEST_F(NetlinkSessionKernelTest, NamesTheCallThatFailsAndLeavesNothingOpen) {
    Mox::EventLoop loop;
    Mirror mirror;
    const auto session = netlinkSessionFactory("session", NamespaceName(), loop.clock());
    session->rcvBufBytesIs(10000);
    session->followIs(RTM_GETLINK, {RTNLGRP_LINK}, &mirror);
    const auto descriptors = PavoTest::openDescriptors();
    std::set<std::string> errors;
    PavoTest::failEachSyscall(
        ENOMEM, [&] { return errorOf([&] { session->enabledIs(true); }); },
        [&](const PavoTest::FailSyscall&, const std::string& error, int) {
            errors.insert(error);
            EXPECT_TRUE(session->enabled() || PavoTest::openDescriptors() == descriptors);
            session->enabledIs(false);
        },
        "!setns");
    EXPECT_THAT(errors,
                ElementsAre("",  // Options of sockets are no failure.
                            "bind (12)", "epoll_ctl (12)", "fcntl(F_GETFL) (12)",
                            "getsockname (12)", "getsockopt(SO_RCVBUF) (12)",
                            "setsockopt(NETLINK_ADD_MEMBERSHIP) (12)", "socketAt(default) (12)"));
}

}  // namespace
}  // namespace Pavo
