#include "Mox/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "Mox/Exception.h"
#include "Mox/FileDescriptor.h"
#include "Mox/Signal.h"
#include "sandbox/Sandbox.h"
#include "support/FailSyscall.h"

namespace Mox {
namespace {

using Fd = Ptr<FileDescriptor>;
using Watching = FileDescriptor::Watching;
using Ownership = FileDescriptor::Ownership;
using PavoSandbox::openDescriptors;

// Two connected sockets, or a pipe's reading and writing end. The interest is that in reading
// `end`.
struct Ends {
    explicit Ends(bool isPipe = false, Watching watching = Watching::tracked) {
        constexpr int type = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
        int numbers[2];
        EXPECT_EQ(
            isPipe ? pipe2(numbers, O_CLOEXEC | O_NONBLOCK) : socketpair(AF_UNIX, type, 0, numbers),
            0);
        end = fileDescriptorFactory(numbers[0]);
        peer = fileDescriptorFactory(numbers[1]);
        end->watchingIs(watching);
        end->notifyOnReadableIs(true);
    }
    void send() const { EXPECT_EQ(write(peer->descriptor(), "x", 1), 1); }

    Fd end;
    Fd peer;
};

// Reads a byte and reports the result.
bool readOne(FileDescriptor& fd) {
    char byte;
    const bool got = read(fd.descriptor(), &byte, 1) == 1;
    fd.readTried(got || errno != EAGAIN);
    return got;
}

void fill(const FileDescriptor& fd) {
    const char bytes[4096] = {};
    while (write(fd.descriptor(), bytes, sizeof bytes) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
}

int eventNumber() {
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

// Every test ends with the descriptors and objects it began with.
class EventLoopTest : public testing::Test {
  protected:
    void TearDown() override {
        loop.reset();
        EXPECT_EQ(openDescriptors(), descriptorsBefore_);
        EXPECT_EQ(liveObjects(), objectsBefore_);
    }
    // The work done in that many turns that do not wait.
    uint32_t turns(int count) {
        uint32_t done = 0;
        for (int i = 0; i < count; ++i) {
            done += loop->turn(0);
        }
        return done;
    }
    // Whether an outer loop would call this one.
    bool isReady(int milliseconds = 0) {
        outerFd_ = outerFd_ < 0 ? loop->fd() : outerFd_;  // Asked for once.
        pollfd wait{outerFd_, POLLIN, 0};
        return poll(&wait, 1, milliseconds) == 1;
    }

  private:
    const decltype(openDescriptors()) descriptorsBefore_ = openDescriptors();
    const uint32_t objectsBefore_ = liveObjects();
    int outerFd_ = -1;

  protected:
    std::optional<EventLoop> loop = std::optional<EventLoop>(std::in_place);
};
using ThreadsEventLoopTest = EventLoopTest;

TEST_F(EventLoopTest, WatchesByLevelAndByEdge) {
    const struct {
        void (*act)(const Ends& ends);
        uint32_t reports[3];  // In ten turns: tracked, by level, by edge.
    } steps[] = {
        {[](const Ends& ends) { ends.send(); }, {1, 10, 1}},  // Nobody reads it.
        {[](const Ends& ends) { ends.send(); }, {0, 10, 1}},
        {[](const Ends& ends) { readOne(*ends.end); }, {1, 10, 0}},  // One is left.
        {[](const Ends& ends) { readOne(*ends.end); }, {1, 0, 0}},
        {[](const Ends& ends) { ends.send(), readOne(*ends.end); }, {1, 0, 0}},
        {[](const Ends& ends) { readOne(*ends.end) || readOne(*ends.end); }, {0, 0, 0}},  // EAGAIN.
        {[](const Ends& ends) { ends.send(); }, {1, 10, 1}},
        {[](const Ends& ends) { ends.end->notifyOnReadableIs(true); }, {0, 10, 1}},
        {[](const Ends& ends) { ends.end->notifyOnReadableIs(false); }, {0, 0, 0}},
        {[](const Ends& ends) { ends.end->notifyOnReadableIs(true); }, {1, 10, 1}},
        {[](const Ends& ends) { ends.end->notifyOnWritableIs(true); }, {1, 20, 2}},
        {[](const Ends& ends) { ends.end->readTried(true); }, {1, 20, 0}},
        {[](const Ends& ends) { ends.end->notifyOnWritableIs(false); }, {0, 10, 1}},
        {[](const Ends& ends) { ends.end->watchingIs(Watching::tracked); }, {1, 1, 1}},
    };
    for (const Watching watching : {Watching::tracked, Watching::level, Watching::edge}) {
        const Ends ends(/*isPipe=*/false, watching);
        for (const auto& step : steps) {
            SCOPED_TRACE(&step - steps);
            step.act(ends);
            EXPECT_EQ(turns(10), step.reports[static_cast<int>(watching)]);
        }
    }
}

TEST_F(EventLoopTest, CountsHangUpsAndErrorsAsReadinessForEachInterest) {
    const struct {
        bool isWriter;     // The pipe's writing end, which then has no reader: EPOLLERR.
        bool read, write;  // The interests.
        uint32_t reports;  // In 10 turns.
    } cases[] = {
        {false, false, false, 0}, {false, true, false, 1}, {false, false, true, 1},
        {true, true, false, 1},   {true, false, true, 1},  {false, true, true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Ends ends(/*isPipe=*/true);
        if (c.isWriter) {
            std::swap(ends.end, ends.peer);
            ends.peer->notifyOnReadableIs(false);
            fill(*ends.end);  // Or there would be room as well.
        }
        ends.end->notifyOnWritableIs(true);
        ends.end->notifyOnReadableIs(c.read);
        ends.end->notifyOnWritableIs(c.write);
        ends.peer->close();
        EXPECT_EQ(isReady(), c.reports > 0);  // Without interest the kernel does not watch it.
        EXPECT_EQ(turns(10), c.reports);
    }
}

TEST_F(EventLoopTest, ClosesWhatItOwnsThenNotifiesOfTheInterestsThatWereOn) {
    for (const bool owned : {true, false}) {
        for (const bool release : {true, false}) {
            const int number = eventNumber();
            const Fd fd =
                fileDescriptorFactory(number, owned ? Ownership::owned : Ownership::borrowed);
            const bool staysOpen = release || !owned;
            fd->notifyOnReadableIs(true);
            fd->notifyOnWritableIs(true);
            int notified = 0;
            const Watch<FileDescriptor> watch(fd, allAttributes, [&](const Change&) {
                ++notified;
                EXPECT_FALSE(fd->notifyOnReadable() || fd->notifyOnWritable());
                EXPECT_EQ(fd->descriptor(), -1);
                EXPECT_EQ(fcntl(number, F_GETFD) >= 0, staysOpen);
            });
            release ? (void)fd->descriptorRelease() : fd->close();
            EXPECT_EQ(notified, 2);
            EXPECT_EQ(::close(number) == 0, staysOpen);
        }
    }
    Fd closed = fileDescriptorFactory(eventNumber());
    ::close(closed->descriptor());
    errno = ERANGE;
    closed = nullptr;  // Its close fails.
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(EventLoopTest, AChangeThatTheKernelRefusesLeavesAllAsItWasAndInterestCanAlwaysEnd) {
    const Ends ends;
    const Fd& fd = ends.end;
    {
        const PavoTest::FailSyscall fail(1, ENOMEM, "epoll_ctl", /*andAllAfter=*/true);
        EXPECT_THROW(fd->notifyOnWritableIs(true), ErrnoException);
        EXPECT_THROW(fd->watchingIs(Watching::level), ErrnoException);
    }
    EXPECT_FALSE(fd->notifyOnWritable() || fd->watching() == Watching::level);
    ends.send();
    EXPECT_EQ(turns(10), 1u);
    fd->notifyOnWritableIs(true);
    const PavoTest::FailSyscall fail(1, EBADF, "epoll_ctl", /*andAllAfter=*/true);
    fd->notifyOnReadableIs(false);
    fd->notifyOnWritableIs(false);
    EXPECT_EQ(fail.count(), 2u);
}

TEST_F(EventLoopTest, WaitsForTheNextTimerAndGoesOnAfterASignal) {
    Timer timer(loop->clock(), [] {});
    const auto now = [&] { return loop->clock()->now(); };
    const double expiry = now() + 0.02;
    timer.expiryIs(expiry);
    EXPECT_EQ(loop->turn(60), 1u);
    EXPECT_GE(now(), expiry);
    timer.expiryIs(now() + 0.005);
    loop->turn(0.0001);
    timer.expiryIs(1e13);  // Postponed: the wait goes on after the expiry that it had first.
    const double begin = now();
    EXPECT_EQ(loop->turn(0.02), 0u);
    EXPECT_GE(now(), begin + 0.02);
    timer.expiryIs(-1e13);
    const PavoTest::FailSyscall fail(1, EINTR, "epoll_wait");
    EXPECT_EQ(loop->turn(), 1u);
    EXPECT_EQ(fail.count(), 2u);
}

TEST_F(EventLoopTest, AStopBeforeTheWaitIsNotLost) {
    loop->stop();
    EXPECT_EQ(loop->turn(), 0u);
    loop->run();
    loop->defer([&] { loop->stop(); });
    loop->run();
    EXPECT_FALSE(isReady());
}

TEST_F(EventLoopTest, AnOuterLoopSeesAllWorkInItsDescriptor) {
    const Ends ends;
    const Watch<FileDescriptor> reads(ends.end, FileDescriptor::readableCountAttr,
                                      [&] { readOne(*ends.end); });
    Timer timer(loop->clock(), [] {});
    Timer defers(loop->clock(), [&] { loop->defer([] {}); });
    const auto armSoon = [&] { timer.expiryIs(loop->clock()->now() + 0.005); };
    EXPECT_FALSE(isReady());
    const struct {
        std::function<void()> act;
        std::vector<uint32_t> done;  // By each turn while the descriptor is readable.
    } cases[] = {
        {[&] { ends.send(); }, {1, 1}},
        {[&] { ends.end->readTried(true); }, {1}},
        {[&] { loop->defer([&] { loop->defer([] {}); }); }, {1, 1}},
        {[&] { loop->post([] {}); }, {1}},
        {[&] { loop->stop(); }, {0}},
        {[&] { timer.expiryIs(-1); }, {1}},
        {[&] { defers.expiryIs(1); }, {1, 1}},
        {armSoon, {1}},
        {[&] { loop->defer(armSoon); }, {1, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        c.act();
        for (const uint32_t done : c.done) {
            ASSERT_TRUE(isReady(/*milliseconds=*/-1));
            EXPECT_EQ(turns(1), done);
        }
        EXPECT_FALSE(isReady());
    }
}

TEST_F(EventLoopTest, CountsEachSignalAndThenRestoresTheMask) {
    const auto isBlocked = [](int number) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, number) == 1;
    };
    for (const int number : {SIGUSR1, SIGRTMIN}) {
        Ptr<Signal> signal = signalFactory(number);
        EXPECT_EQ(kill(getpid(), number), 0);
        EXPECT_EQ(kill(getpid(), number), 0);
        const uint32_t kept = number == SIGUSR1 ? 1 : 2;  // By the kernel.
        turns(10);
        EXPECT_EQ(signal->count(), kept);
        loop.reset();
        EXPECT_EQ(kill(getpid(), number), 0);
        loop.emplace();
        EXPECT_EQ(signalFactory(number), signal);  // The new loop watches it.
        turns(10);
        EXPECT_EQ(signal->count(), kept + 1);
        EXPECT_TRUE(isBlocked(number));
        signal = nullptr;
        EXPECT_FALSE(isBlocked(number));
    }
    for (const int number : {-1, 0, 32, SIGKILL, SIGSTOP, NSIG}) {
        EXPECT_THROW((void)signalFactory(number), ErrnoException) << number;
    }
}

TEST_F(EventLoopTest, ItsDescriptorsMayOutliveItAndPendingCallsAreDestroyed) {
    const Ends ends;
    ends.end->notifyOnWritableIs(true);
    ends.end->readTried(true);
    loop->defer([held = ends.end] { FAIL(); });
    loop->post([held = ends.end] { FAIL(); });
    loop.reset();
    EXPECT_EQ(ends.end->references(), 1u);
    EXPECT_FALSE(ends.end->notifyOnReadable() || ends.end->notifyOnWritable());
    ends.end->readTried(true);
    EXPECT_DEATH(ends.end->notifyOnReadableIs(true), "assertion failed: EventLoop::current\\(\\)");
    ends.send();
    loop.emplace();
    EXPECT_EQ(turns(10), 0u);
    ends.end->notifyOnReadableIs(true);
    EXPECT_EQ(turns(10), 1u);
}

TEST_F(EventLoopTest, RefusesToTurnInsideATurn) {
    loop->defer([&] { loop->turn(0); });
    EXPECT_DEATH(loop->turn(0), "assertion failed: !inTurn_");
}

// Each thread waits for each of its calls: a wake-up that is lost would stop it.
TEST_F(ThreadsEventLoopTest, MakesPostedCallsInTheOrderOfEachThread) {
    std::atomic<int> threadsLeft = 4;
    std::array<std::atomic<int>, 4> made{};
    std::vector<std::jthread> threads;
    for (auto& own : made) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; i += 2) {
                loop->post([&own, i] { EXPECT_EQ(own.exchange(i + 1), i); });
                loop->post([&own, i] {
                    EXPECT_EQ(own.exchange(i + 2), i + 1);
                    own.notify_one();
                });
                for (int now = own; now < i + 2; now = own) {
                    own.wait(now);
                }
            }
            if (--threadsLeft == 0) {
                loop->post([&] { loop->stop(); });
            }
        });
    }
    loop->run();
}

}  // namespace
}  // namespace Mox
