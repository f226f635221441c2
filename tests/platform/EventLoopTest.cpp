#include "Mox/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
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
    fill(*writer);
    writer->writeMetNoRoom();
    writer->writeMetNoRoom();
    EXPECT_EQ(turns(100), 0u);
    readAll(*ends.peer);
    EXPECT_EQ(turns(100), 1u);
    EXPECT_FALSE(writer->notifyOnWritable());
    EXPECT_EQ(writer->readableCount(), 0u);

    // Who fills it again inside the report waits for room again.
    const Watch<FileDescriptor> refill(writer, FileDescriptor::writableCountAttr, [&] {
        fill(*writer);
        writer->writeMetNoRoom();
    });
    writer->writeMetNoRoom();
    writer->notifyOnReadableIs(false);
    writer->readTried(true);  // Nobody wants to hear of it.
    EXPECT_EQ(turns(100), 1u);
    EXPECT_TRUE(writer->notifyOnWritable());
    readAll(*ends.peer);
    EXPECT_EQ(turns(100), 1u);
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
        int type;
        bool isWriter;  // The pipe's writing end, which then has no reader: EPOLLERR.
        Watching watching;
        bool read, write;  // The interests.
        uint32_t reports;  // In 100 turns.
    } cases[] = {
        {"no interest", 0, false, Watching::level, false, false, 0},
        {"by tracking", 0, false, Watching::tracked, true, false, 1},
        {"by level", 0, false, Watching::level, true, false, 100},
        {"hang-up for a writer", 0, false, Watching::tracked, false, true, 1},
        {"error for a reader", 0, true, Watching::tracked, true, false, 1},
        {"error for a writer", 0, true, Watching::tracked, false, true, 1},
        {"both interests", SOCK_STREAM, false, Watching::tracked, true, true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Ends ends(c.type);
        if (c.isWriter) {
            std::swap(ends.end, ends.peer);
            ends.peer->notifyOnReadableIs(false);
            fill(*ends.end);  // Or there would be room as well.
        }
        ends.end->watchingIs(c.watching);
        ends.end->notifyOnWritableIs(true);
        ends.end->notifyOnReadableIs(c.read);
        ends.end->notifyOnWritableIs(c.write);
        EXPECT_EQ(watched(), c.read || c.write ? 1 : 0);
        ends.peer->close();
        EXPECT_EQ(turns(100), c.reports);
    }
}

// Three descriptors that become ready in their order in one turn; the first acts when it is told.
struct Scene {
    explicit Scene(Watching watching) : watching(watching) {
        for (int i = 0; i < 3; ++i) {
            add();
            ends.back().send();
        }
    }
    void add() {
        const auto name = static_cast<char>('A' + ends.size());
        ends.emplace_back(SOCK_STREAM, watching);
        watches.push_back(onReadable(ends.back().end, [this, name] {
            log += name;
            if (name == 'A' && action) {
                std::exchange(action, nullptr)(*this);
            }
        }));
    }
    FileDescriptor& fd(std::size_t i) { return *ends[i].end; }

    void destroy(std::size_t i) {
        watches[i] = {};
        ends[i].end = nullptr;
    }
    void toggle(std::size_t i) {
        fd(i).notifyOnReadableIs(false);
        fd(i).notifyOnReadableIs(true);
    }
    void replace(std::size_t i) {
        const int number = fd(i).descriptor();
        fd(i).close();
        add();
        EXPECT_EQ(ends.back().end->descriptor(), number);
    }
    void addReady() {
        add();
        ends.back().send();
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
        {"closes itself", [](Scene& s) { s.fd(0).close(); }, "ABC", ""},
        {"closes the next", [](Scene& s) { s.fd(1).close(); }, "AC", ""},
        {"closes the last", [](Scene& s) { s.fd(2).close(); }, "AB", ""},
        {"destroys the next", [](Scene& s) { s.destroy(1); }, "AC", ""},
        {"destroys itself", [](Scene& s) { s.destroy(0); }, "ABC", ""},
        {"sets the interest of the next anew", [](Scene& s) { s.toggle(1); }, "AC", "B"},
        {"adds one that is ready", [](Scene& s) { s.addReady(); }, "ABC", "D"},
        {"puts one that is not into the place of a ready one", [](Scene& s) { s.replace(1); }, "AC",
         ""},
        {"throws", [](Scene&) { throw std::runtime_error("A"); }, "A!", "BC"},
    };
    for (const Watching watching : {Watching::tracked, Watching::edge}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            Scene scene(watching);
            scene.action = c.action;
            try {
                loop->turn(0);
            } catch (const std::runtime_error&) {
                scene.log += '!';
            }
            EXPECT_EQ(scene.log, c.heard);
            scene.log.clear();
            loop->turn(0);
            EXPECT_EQ(scene.log, c.heardNext);
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
            log.clear();
            try {
                loop->turn(0);
            } catch (const std::runtime_error&) {
                log += '!';
            }
            EXPECT_EQ(log, expected);
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
    const auto closes = [](FileDescriptor& fd) { fd.close(); };
    const auto releases = [](FileDescriptor& fd) { fd.descriptorRelease(); };
    const struct {
        Ownership ownership;
        void (*act)(FileDescriptor& fd);
        bool staysOpen;
    } cases[] = {
        {Ownership::owned, nullptr, false}, {Ownership::borrowed, nullptr, true},
        {Ownership::owned, closes, false},  {Ownership::borrowed, closes, true},
        {Ownership::owned, releases, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const int number = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        Fd fd = fileDescriptorFactory(number, c.ownership);
        EXPECT_TRUE(fd->nonBlocking());
        fd->notifyOnReadableIs(true);
        if (c.act != nullptr) {
            c.act(*fd);
            EXPECT_FALSE(fd->notifyOnReadable());
        } else {
            fd = nullptr;
        }
        EXPECT_EQ(watched(), 0);
        EXPECT_EQ(fcntl(number, F_GETFD) >= 0, c.staysOpen);
        if (c.staysOpen) {
            ::close(number);
        }
        EXPECT_THROW(fileDescriptorFactory(number), ErrnoException);
    }
}

TEST_F(EventLoopTest, RefusesWhatTheKernelCannotWatch) {
    FILE* const file = tmpfile();
    const Fd fd = fileDescriptorFactory(fileno(file), Ownership::borrowed);
    try {
        fd->notifyOnReadableIs(true);
        ADD_FAILURE();
    } catch (const ErrnoException& e) {
        EXPECT_EQ(e.errnoValue(), EPERM);
        EXPECT_EQ(e.message(), String("epoll_ctl"));
    }
    EXPECT_FALSE(fd->notifyOnReadable());
    fclose(file);

    const Ends ends;  // An interest that is refused leaves the other one.
    {
        const PavoTest::FailSyscall fail(1, ENOMEM, "epoll_ctl");
        EXPECT_THROW(ends.end->notifyOnWritableIs(true), ErrnoException);
    }
    EXPECT_FALSE(ends.end->notifyOnWritable());
    ends.send();
    EXPECT_EQ(turns(10), 1u);
}

TEST_F(EventLoopTest, WaitsForATimerAlsoAfterASignal) {
    const auto before = signal(SIGALRM, [](int) {});
    const itimerval often{{0, 1000}, {0, 1000}};
    const itimerval never{};
    EXPECT_EQ(loop->turn(0.001), 0u);
    Timer timer(loop->clock(), [] {});
    const double expiry = loop->clock()->now() + 0.02;
    timer.expiryIs(expiry);
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(loop->turn(60), 1u);
    EXPECT_GE(loop->clock()->now(), expiry);
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, before);
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
    const auto errorOfMaking = [] {
        try {
            const EventLoop loop;
            return 0;
        } catch (const ErrnoException& e) {
            return e.errnoValue();
        }
    };
    const auto check = [&](const PavoTest::FailSyscall&, int error, int) {
        EXPECT_EQ(error, EMFILE);
        EXPECT_EQ(EventLoop::current(), nullptr);
        EXPECT_EQ(openDescriptors(), before);
    };
    EXPECT_GE(PavoTest::failEachSyscall(EMFILE, errorOfMaking, check), 2u);
}

}  // namespace
}  // namespace Mox
