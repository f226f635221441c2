#include "Mox/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Mox/Exception.h"
#include "Mox/FileDescriptor.h"
#include "sandbox/Sandbox.h"
#include "support/FailSyscall.h"

namespace Mox {
namespace {

using Fd = Ptr<FileDescriptor>;
using Watching = FileDescriptor::Watching;
using Ownership = FileDescriptor::Ownership;
using PavoSandbox::openDescriptors;

Watch<FileDescriptor> onReadable(const Fd& fd, std::function<void()> handler) {
    return Watch<FileDescriptor>(fd, FileDescriptor::readableCountAttr, std::move(handler));
}

// Two connected ends: sockets of `type`, or a pipe's reading and writing end for 0. The interest is
// that in reading `end`.
struct Ends {
    explicit Ends(int type = SOCK_STREAM, Watching watching = Watching::tracked) {
        int numbers[2];
        const int made = type == 0
                             ? pipe2(numbers, O_CLOEXEC | O_NONBLOCK)
                             : socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, numbers);
        EXPECT_EQ(made, 0);
        end = fileDescriptorFactory(numbers[0]);
        peer = fileDescriptorFactory(numbers[1]);
        end->watchingIs(watching);
        end->notifyOnReadableIs(true);
    }
    // What `end` then has to read, a byte a message.
    void send(int messages = 1) const {
        for (int i = 0; i < messages; ++i) {
            EXPECT_EQ(write(peer->descriptor(), "x", 1), 1);
        }
    }

    Fd end;
    Fd peer;
};

// Reads a byte; says so.
bool readOne(FileDescriptor& fd) {
    char byte;
    const bool got = read(fd.descriptor(), &byte, 1) == 1;
    fd.readTried(got || errno != EAGAIN);
    return got;
}

void readAll(const FileDescriptor& fd) {
    char bytes[4096];
    while (read(fd.descriptor(), bytes, sizeof bytes) > 0) {
    }
}

void fill(const FileDescriptor& fd) {
    const char bytes[4096] = {};
    while (write(fd.descriptor(), bytes, sizeof bytes) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
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
    // What a turn adds to the log, "!" for an exception.
    std::string turnAddsTo(std::string& log) {
        log.clear();
        try {
            loop->turn(0);
        } catch (const std::runtime_error&) {
            log += '!';
        }
        return log;
    }
    // Whether a loop around this one would have it turn.
    bool isReady() const {
        pollfd wait{loop->fd(), POLLIN, 0};
        return poll(&wait, 1, 0) == 1;
    }
    // The descriptors that the kernel watches for the loop, beside the loop's own.
    int watched() const {
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(loop->fd()));
        int count = -1;
        for (std::string line; std::getline(info, line);) {
            count += line.rfind("tfd:", 0) == 0 ? 1 : 0;
        }
        return count;
    }

  private:
    const decltype(openDescriptors()) descriptorsBefore_ = openDescriptors();
    const uint32_t objectsBefore_ = liveObjects();

  protected:
    std::optional<EventLoop> loop = std::optional<EventLoop>(std::in_place);
};

TEST_F(EventLoopTest, ReportsWhatWaitsAsOftenAsTheOwnerTriesToRead) {
    for (const int type : {0, int{SOCK_STREAM}, int{SOCK_DGRAM}}) {
        SCOPED_TRACE(type);
        const Ends ignored(type);
        const Ends served(type);
        const auto serve = onReadable(served.end, [&] { readOne(*served.end); });
        EXPECT_EQ(turns(100), 0u);
        ignored.send();
        EXPECT_EQ(turns(100), 1u);
        ignored.send();
        EXPECT_EQ(turns(100), 0u);  // Costs nothing either, until its owner reads.
        served.send(3);
        EXPECT_EQ(turns(1), 1u);
        EXPECT_EQ(turns(100), 3u);  // The last meets EAGAIN.
        served.send();
        EXPECT_EQ(turns(100), 2u);
        EXPECT_TRUE(readOne(*ignored.end));
        EXPECT_EQ(turns(100), 1u);
        EXPECT_TRUE(readOne(*ignored.end));
        EXPECT_FALSE(readOne(*ignored.end));  // Takes back what the one before has said.
        EXPECT_EQ(turns(100), 0u);
    }
}

TEST_F(EventLoopTest, ReportsRoomOnceAfterAWriteThatMetNone) {
    const Ends ends;
    const Fd& writer = ends.end;
    writer->notifyOnReadableIs(false);
    int fillings = 2;  // Who fills it again inside the report waits for room again.
    const auto fillOnceMore = [&] {
        if (fillings-- > 0) {
            fill(*writer);
            writer->writeMetNoRoom();
        }
    };
    const Watch<FileDescriptor> refill(writer, FileDescriptor::writableCountAttr, fillOnceMore);
    fillOnceMore();
    writer->writeMetNoRoom();
    writer->readTried(true);  // Nobody wants to hear of it.
    for (const bool waits : {true, false}) {
        EXPECT_EQ(turns(100), 0u);
        readAll(*ends.peer);
        EXPECT_EQ(turns(100), 1u);
        EXPECT_EQ(writer->notifyOnWritable(), waits);
    }
    EXPECT_EQ(writer->readableCount(), 0u);
}

TEST_F(EventLoopTest, WatchesByLevelAndByEdge) {
    const struct {
        Watching watching;
        uint32_t inTenTurns;  // With a byte that waits and is not read,
        uint32_t withMore;    // in ten turns more after another one,
        uint32_t askedAgain;  // when interest is set again,
        uint32_t toggled;     // when it is switched off and on,
        uint32_t writable;    // with interest in writing too,
        uint32_t tried;       // and after a reading that is said to have left something.
    } cases[] = {
        {Watching::tracked, 1, 0, 0, 1, 1, 1},
        {Watching::level, 10, 10, 10, 10, 20, 0},
        {Watching::edge, 1, 1, 1, 1, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.watching));
        const Ends ends(SOCK_STREAM, c.watching);
        ends.send();
        EXPECT_EQ(turns(10), c.inTenTurns);
        ends.send();
        EXPECT_EQ(turns(10), c.withMore);
        ends.end->notifyOnReadableIs(true);
        EXPECT_EQ(turns(10), c.askedAgain);
        ends.end->notifyOnReadableIs(false);
        EXPECT_EQ(turns(10), 0u);
        ends.end->notifyOnReadableIs(true);
        EXPECT_EQ(turns(10), c.toggled);
        ends.end->notifyOnWritableIs(true);
        EXPECT_EQ(turns(10), c.writable);
        ends.end->notifyOnWritableIs(false);
        ends.end->watchingIs(Watching::tracked);  // What waits is reported anew.
        EXPECT_EQ(turns(10), 1u);
        readAll(*ends.end);
        ends.end->watchingIs(c.watching);
        ends.end->readTried(true);
        EXPECT_EQ(turns(10), c.tried);
    }
}

TEST_F(EventLoopTest, CountsHangUpsAndErrorsAsReadinessForWhateverInterestThereIs) {
    const struct {
        const char* what;
        bool isWriter;     // The pipe's writing end, which then has no reader: EPOLLERR.
        bool read, write;  // The interests.
        uint32_t reports;  // In 10 turns.
    } cases[] = {
        {"no interest", false, false, false, 0},
        {"hang-up for a reader", false, true, false, 1},
        {"hang-up for a writer", false, false, true, 1},
        {"error for a reader", true, true, false, 1},
        {"error for a writer", true, false, true, 1},
        {"both interests", false, true, true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Ends ends(0);
        if (c.isWriter) {
            std::swap(ends.end, ends.peer);
            ends.peer->notifyOnReadableIs(false);
            fill(*ends.end);  // Or there would be room as well.
        }
        ends.end->notifyOnWritableIs(true);
        ends.end->notifyOnReadableIs(c.read);
        ends.end->notifyOnWritableIs(c.write);
        EXPECT_EQ(watched(), c.read || c.write ? 1 : 0);
        ends.peer->close();
        EXPECT_EQ(turns(10), c.reports);
    }
}

// Three descriptors that become ready in their order in one turn; the first acts when it is told.
struct Scene {
    explicit Scene(Watching watching) : watching(watching) {
        for (int i = 0; i < 3; ++i) {
            add(1);
        }
    }
    void add(int messages) {
        const auto name = static_cast<char>('A' + ends.size());
        ends.emplace_back(SOCK_STREAM, watching);
        watches.push_back(onReadable(ends.back().end, [this, name] {
            log += name;
            if (name == 'A' && action) {
                std::exchange(action, nullptr)(*this);
            }
        }));
        ends.back().send(messages);
    }
    void close(std::size_t i) { ends[i].end->close(); }
    void destroy(std::size_t i) {
        watches[i] = {};
        ends[i].end = nullptr;
    }
    void toggle(std::size_t i) {
        ends[i].end->notifyOnReadableIs(false);
        ends[i].end->notifyOnReadableIs(true);
    }
    void replace(std::size_t i) {
        const int number = ends[i].end->descriptor();
        close(i);
        add(0);
        EXPECT_EQ(ends.back().end->descriptor(), number);
    }

    Watching watching;
    std::string log;
    std::function<void(Scene&)> action;
    std::vector<Ends> ends;
    std::vector<Watch<FileDescriptor>> watches;
};

TEST_F(EventLoopTest, HandlersMayCloseAddRemoveAndThrow) {
    const struct {
        const char* what;
        void (*action)(Scene& s);
        const char* heard;      // In the turn in which all three are ready, "!" for an exception,
        const char* heardNext;  // and in the next one.
    } cases[] = {
        {"closes itself", [](Scene& s) { s.close(0); }, "ABC", ""},
        {"closes the next", [](Scene& s) { s.close(1); }, "AC", ""},
        {"closes the last", [](Scene& s) { s.close(2); }, "AB", ""},
        {"destroys the next", [](Scene& s) { s.destroy(1); }, "AC", ""},
        {"destroys itself", [](Scene& s) { s.destroy(0); }, "ABC", ""},
        {"sets the interest of the next anew", [](Scene& s) { s.toggle(1); }, "AC", "B"},
        {"adds one that is ready", [](Scene& s) { s.add(1); }, "ABC", "D"},
        {"replaces the next", [](Scene& s) { s.replace(1); }, "AC", ""},
        {"throws", [](Scene&) { throw std::runtime_error("A"); }, "A!", "BC"},
    };
    for (const Watching watching : {Watching::tracked, Watching::edge}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            Scene scene(watching);
            scene.action = c.action;
            EXPECT_EQ(turnAddsTo(scene.log), c.heard);
            EXPECT_EQ(turnAddsTo(scene.log), c.heardNext);
            EXPECT_EQ(turns(10), 0u);
        }
    }
}

// Two timers, two deferred calls and a report; each defers a call that writes its small letter.
TEST_F(EventLoopTest, MakesDeferredCallsOnceInTheNextTurnAndLeavesThatTheRestAfterAnException) {
    const struct {
        char thrower;
        const char* heard[3];  // In three turns, "!" for the exception.
    } cases[] = {
        {'-', {"TUDER", "tuder", ""}},
        {'T', {"T!", "UDER", "uder"}},
        {'D', {"TUD!", "EtuR", "er"}},
        {'R', {"TUDER!", "tude", ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.thrower);
        const Ends ends;
        std::string log;
        const auto does = [&](char name) {
            return [&, name] {
                log += name;
                if (name == c.thrower) {
                    throw std::runtime_error("thrown");
                }
                loop->defer([&, name] { log += static_cast<char>(std::tolower(name)); });
            };
        };
        Timer first(loop->clock(), does('T'));
        Timer second(loop->clock(), does('U'));
        first.expiryIs(0);
        second.expiryIs(0);
        loop->defer(does('D'));
        loop->defer(does('E'));
        const auto reads = onReadable(ends.end, does('R'));
        ends.send();
        for (const char* expected : c.heard) {
            EXPECT_EQ(turnAddsTo(log), expected);
        }
    }
}

TEST_F(EventLoopTest, LooksAtTheInterestInWritingAgainAfterTheReadableHandler) {
    const Ends closed;
    const Ends ended;
    const auto closes = onReadable(closed.end, [&] { closed.end->close(); });
    const auto ends = onReadable(ended.end, [&] { ended.end->notifyOnWritableIs(false); });
    for (const Ends* each : {&closed, &ended}) {
        each->send();
        each->end->notifyOnWritableIs(true);
    }
    EXPECT_EQ(turns(10), 2u);
}

TEST_F(EventLoopTest, DropsWhatTheKernelStillReportsOfADescriptorThatIsNotWatched) {
    const Ends old(0);
    const int duplicate = fcntl(old.end->descriptor(), F_DUPFD_CLOEXEC, 0);
    {  // Closed before its watching ended, as nobody should: the kernel keeps its entry.
        const int number = old.end->descriptorRelease();
        EXPECT_EQ(watched(), 0);
        const Fd borrowed = fileDescriptorFactory(number, Ownership::borrowed);
        borrowed->notifyOnReadableIs(true);
        ::close(number);
    }
    EXPECT_EQ(watched(), 1);
    const Ends fresh(0);  // In the place of the one before.
    old.send();
    EXPECT_EQ(turns(10), 0u);
    fresh.send();
    EXPECT_EQ(turns(10), 1u);
    ::close(duplicate);
}

TEST_F(EventLoopTest, ClosesWhatItOwns) {
    void (*const acts[])(Fd&) = {[](Fd& fd) { fd = nullptr; }, [](Fd& fd) { fd->close(); },
                                 [](Fd& fd) { fd->descriptorRelease(); }};
    for (const Ownership ownership : {Ownership::owned, Ownership::borrowed}) {
        for (const auto& act : acts) {
            SCOPED_TRACE(&act - acts);
            const int number = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
            Fd fd = fileDescriptorFactory(number, ownership);
            EXPECT_TRUE(fd->nonBlocking());
            fd->notifyOnReadableIs(true);
            act(fd);
            EXPECT_FALSE(fd && fd->notifyOnReadable());
            EXPECT_EQ(watched(), 0);
            const bool staysOpen = ownership == Ownership::borrowed || &act == &acts[2];
            EXPECT_EQ(::close(number) == 0, staysOpen);
            EXPECT_THROW(fileDescriptorFactory(number), ErrnoException);
        }
    }
}

TEST_F(EventLoopTest, AnInterestThatIsRefusedLeavesTheOtherOne) {
    const Ends ends;
    {
        const PavoTest::FailSyscall fail(1, ENOMEM, "epoll_ctl");
        EXPECT_THROW(ends.end->notifyOnWritableIs(true), ErrnoException);
    }
    EXPECT_FALSE(ends.end->notifyOnWritable());
    ends.send();
    EXPECT_EQ(turns(10), 1u);
}

TEST_F(EventLoopTest, WaitsForATimerAndGoesOnAfterASignal) {
    EXPECT_EQ(loop->turn(0.001), 0u);
    Timer timer(loop->clock(), [] {});
    const double expiry = loop->clock()->now() + 0.02;
    timer.expiryIs(expiry);
    EXPECT_EQ(loop->turn(60), 1u);
    EXPECT_GE(loop->clock()->now(), expiry);
    timer.expiryIs(loop->clock()->now() + 0.001);
    EXPECT_EQ(loop->turn(), 1u);  // Waits for less than a millisecond, not for nothing.

    const Ends ends;
    ends.send();
    const PavoTest::FailSyscall fail(1, EINTR, "epoll_wait");
    EXPECT_EQ(turns(1), 1u);
    EXPECT_EQ(fail.count(), 2u);
}

TEST_F(EventLoopTest, AStopOnTheWayIntoTheWaitIsNotLost) {
    loop->stop();
    EXPECT_TRUE(isReady());  // What a signal in between says, the kernel knows.
    EXPECT_EQ(loop->turn(), 0u);
    EXPECT_FALSE(isReady());
    loop->run();
    loop->defer([&] { loop->stop(); });
    loop->run();
    EXPECT_FALSE(isReady());
}

TEST_F(EventLoopTest, NestsInAnotherLoop) {
    const Ends ends;
    const auto reads = onReadable(ends.end, [&] { readOne(*ends.end); });
    EXPECT_FALSE(isReady());
    EXPECT_EQ(loop->secondsToWork(), Clock::idle);
    ends.send();
    EXPECT_TRUE(isReady());
    EXPECT_EQ(turns(1), 1u);
    EXPECT_EQ(loop->secondsToWork(), 0);  // More may wait, of which the kernel says nothing again.
    EXPECT_EQ(turns(1), 1u);
    EXPECT_FALSE(isReady());
    Timer timer(loop->clock(), [] {});
    timer.expiryIs(loop->clock()->now() + 3600);
    EXPECT_EQ(turns(10), 0u);
    EXPECT_GT(loop->secondsToWork(), 3000);
    loop->defer([] {});
    EXPECT_EQ(loop->secondsToWork(), 0);
}

TEST_F(EventLoopTest, ItsDescriptorsMayOutliveIt) {
    const Ends ends;
    ends.end->notifyOnWritableIs(true);
    ends.end->readTried(true);
    loop->defer([held = ends.end] {});
    loop.reset();
    EXPECT_FALSE(ends.end->notifyOnReadable() || ends.end->notifyOnWritable());
    ends.end->readTried(true);
    EXPECT_DEATH(ends.end->notifyOnReadableIs(true), "assertion failed: EventLoop::current\\(\\)");
    ends.send();
    loop.emplace();
    EXPECT_EQ(turns(10), 0u);
    ends.end->notifyOnReadableIs(true);
    EXPECT_EQ(turns(10), 1u);
}

TEST_F(EventLoopTest, IsTheOnlyOneOfItsThread) {
    EXPECT_DEATH(EventLoop(), "assertion failed: !EventLoop::current\\(\\)");
    loop->defer([&] { loop->turn(0); });
    EXPECT_DEATH(loop->turn(0), "assertion failed: !inTurn_");
    std::thread([] {
        const EventLoop there;
        EXPECT_EQ(EventLoop::current(), &there);
    }).join();
    EXPECT_EQ(EventLoop::current(), &*loop);
}

TEST(EventLoop, LeavesNothingOpenWhenItCannotBeMade) {
    const auto before = openDescriptors();
    const auto make = [] {
        try {
            const EventLoop loop;
            return true;
        } catch (const ErrnoException&) {
            return false;
        }
    };
    const auto check = [&](const PavoTest::FailSyscall&, bool made, int) {
        EXPECT_FALSE(made || EventLoop::current() != nullptr);
        EXPECT_EQ(openDescriptors(), before);
    };
    EXPECT_GE(PavoTest::failEachSyscall(EMFILE, make, check), 2u);
}

}  // namespace
}  // namespace Mox
