#include "Mox/EventLoop.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Mox/Exception.h"
#include "Mox/FileDescriptor.h"
#include "support/FailSyscall.h"

namespace Mox {
namespace {

using Fd = Ptr<FileDescriptor>;
using Watching = FileDescriptor::Watching;
using Ownership = FileDescriptor::Ownership;

uint32_t openDescriptors() {
    uint32_t count = 0;
    DIR* const directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

// Two connected ends: sockets of `type`, or a pipe's reading and writing end for 0.
struct Ends {
    explicit Ends(int type = SOCK_STREAM) {
        int numbers[2];
        const int made = type == 0
                             ? pipe2(numbers, O_CLOEXEC | O_NONBLOCK)
                             : socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, numbers);
        EXPECT_EQ(made, 0);
        end = fileDescriptorFactory(numbers[0]);
        peer = fileDescriptorFactory(numbers[1]);
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

Watch<FileDescriptor> onReadable(const Fd& fd, std::function<void()> handler) {
    return Watch<FileDescriptor>(fd, FileDescriptor::readableCountAttr, std::move(handler));
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
    const uint32_t descriptorsBefore_ = openDescriptors();
    const uint32_t objectsBefore_ = liveObjects();

  protected:
    std::optional<EventLoop> loop = std::optional<EventLoop>(std::in_place);
};

TEST_F(EventLoopTest, ReportsWhatWaitsAsOftenAsTheOwnerTriesToRead) {
    for (const int type : {0, int{SOCK_STREAM}, int{SOCK_DGRAM}}) {
        SCOPED_TRACE(type);
        const Ends idle(type);
        const Ends ignored(type);
        const Ends served(type);
        for (const Ends* each : {&idle, &ignored, &served}) {
            each->end->notifyOnReadableIs(true);
        }
        int bytes = 0;
        const auto serve = onReadable(served.end, [&] { bytes += readOne(*served.end); });
        EXPECT_EQ(turns(1000), 0u);
        ignored.send();
        EXPECT_EQ(turns(1), 1u);
        EXPECT_EQ(turns(1000), 0u);
        ignored.send();  // Costs nothing either, until its owner reads.
        EXPECT_EQ(turns(1000), 0u);
        served.send(3);
        for (const int expected : {1, 2, 3, 3}) {  // The last meets EAGAIN.
            EXPECT_EQ(turns(1), 1u);
            EXPECT_EQ(bytes, expected);
        }
        EXPECT_EQ(turns(1000), 0u);
        served.send();
        EXPECT_EQ(turns(1000), 2u);
        EXPECT_TRUE(readOne(*ignored.end));
        EXPECT_EQ(turns(1000), 1u);
        readAll(*ignored.end);
        EXPECT_FALSE(readOne(*ignored.end));
        EXPECT_EQ(turns(1000), 0u);
        EXPECT_EQ(idle.end->readableCount(), 0u);
        EXPECT_EQ(ignored.end->readableCount(), 2u);
        EXPECT_EQ(served.end->readableCount(), 6u);
    }
}

TEST_F(EventLoopTest, ReportsRoomOnceAfterAWriteThatMetNone) {
    const Ends ends;
    const Fd& writer = ends.end;
    writer->notifyOnReadableIs(true);
    EXPECT_EQ(turns(1000), 0u);
    fill(*writer);
    writer->writeMetNoRoom();
    writer->writeMetNoRoom();
    EXPECT_EQ(turns(1000), 0u);
    readAll(*ends.peer);
    EXPECT_EQ(turns(1), 1u);
    EXPECT_FALSE(writer->notifyOnWritable());
    EXPECT_EQ(turns(1000), 0u);
    EXPECT_EQ(writer->writableCount(), 1u);
    EXPECT_EQ(writer->readableCount(), 0u);

    // Who fills it again inside the report waits for room again.
    const Watch<FileDescriptor> refill(writer, FileDescriptor::writableCountAttr, [&] {
        fill(*writer);
        writer->writeMetNoRoom();
    });
    writer->writeMetNoRoom();
    writer->notifyOnReadableIs(false);
    writer->readTried(true);  // Nobody wants to hear of it.
    EXPECT_EQ(turns(1000), 1u);
    EXPECT_TRUE(writer->notifyOnWritable());
    readAll(*ends.peer);
    EXPECT_EQ(turns(1000), 1u);
}

TEST_F(EventLoopTest, WatchesByLevelAndByEdge) {
    const struct {
        Watching watching;
        uint32_t inTenTurns;  // With a byte that waits and is not read,
        uint32_t withMore;    // in ten turns more after another one,
        uint32_t askedAgain;  // when interest is set again,
        uint32_t toggled;     // and when it is switched off and on.
    } cases[] = {
        {Watching::tracked, 1, 0, 0, 1},
        {Watching::level, 10, 10, 10, 10},
        {Watching::edge, 1, 1, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.watching));
        const Ends ends;
        ends.end->watchingIs(c.watching);
        ends.end->notifyOnReadableIs(true);
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
        EXPECT_EQ(turns(10), c.watching == Watching::level  ? 20u
                             : c.watching == Watching::edge ? 2u
                                                            : 1u);
        ends.end->notifyOnWritableIs(false);
        ends.end->watchingIs(Watching::tracked);  // What waits is reported anew.
        EXPECT_EQ(turns(10), 1u);
        readAll(*ends.end);
        ends.end->watchingIs(c.watching);
        ends.end->readTried(true);  // Which only tracked watching listens to.
        EXPECT_EQ(turns(10), c.watching == Watching::tracked ? 1u : 0u);
    }
}

TEST_F(EventLoopTest, CountsHangUpsAndErrorsAsReadinessForWhateverInterestThereIs) {
    const struct {
        int type;       // Of the ends,
        bool isWriter;  // the pipe's writing one, which then has no reader: EPOLLERR.
        Watching watching;
        bool read, write;  // The interests.
        uint32_t reports;  // In 100 turns.
    } cases[] = {
        {0, false, Watching::tracked, false, false, 0},
        {0, false, Watching::level, false, false, 0},
        {SOCK_STREAM, false, Watching::level, false, false, 0},
        {0, false, Watching::tracked, true, false, 1},
        {0, false, Watching::level, true, false, 100},
        {0, false, Watching::edge, true, false, 1},
        {0, false, Watching::tracked, false, true, 1},
        {0, true, Watching::tracked, true, false, 1},
        {0, true, Watching::tracked, false, true, 1},
        {SOCK_STREAM, false, Watching::tracked, true, false, 1},
        {SOCK_STREAM, false, Watching::tracked, true, true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Ends ends(c.type);
        if (c.isWriter) {
            std::swap(ends.end, ends.peer);
            fill(*ends.end);  // Or there would be room as well.
        }
        ends.end->watchingIs(c.watching);
        ends.end->notifyOnReadableIs(true);
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
        }
    }
    void add() {
        const auto name = static_cast<char>('A' + ends.size());
        ends.emplace_back();
        const Fd& fd = ends.back().end;
        watches.push_back(onReadable(fd, [this, name] {
            log += name;
            if (name == 'A' && action) {
                std::exchange(action, nullptr)(*this);
            }
        }));
        fd->watchingIs(watching);
        fd->notifyOnReadableIs(true);
    }
    FileDescriptor& fd(int i) { return *ends[static_cast<std::size_t>(i)].end; }

    void destroy(int i) {
        watches[static_cast<std::size_t>(i)] = {};
        ends[static_cast<std::size_t>(i)].end = nullptr;
    }
    void takeAll(int i) {
        while (readOne(fd(i))) {
        }
        fd(i).notifyOnReadableIs(watching ==
                                 Watching::tracked);  // Others do not say what they met.
    }
    void waitForRoom(int i) {
        fill(fd(i));
        fd(i).writeMetNoRoom();
        fd(i).notifyOnReadableIs(false);
    }
    void toggle(int i) {
        fd(i).notifyOnReadableIs(false);
        fd(i).notifyOnReadableIs(true);
    }
    void replace(int i) {
        const int number = fd(i).descriptor();
        fd(i).close();
        add();
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
        {"nothing", [](Scene&) {}, "ABC", ""},
        {"closes itself", [](Scene& s) { s.fd(0).close(); }, "ABC", ""},
        {"closes the next", [](Scene& s) { s.fd(1).close(); }, "AC", ""},
        {"closes the last", [](Scene& s) { s.fd(2).close(); }, "AB", ""},
        {"destroys the next", [](Scene& s) { s.destroy(1); }, "AC", ""},
        {"destroys itself", [](Scene& s) { s.destroy(0); }, "ABC", ""},
        {"takes what the next would read", [](Scene& s) { s.takeAll(1); }, "AC", ""},
        {"makes the next wait for room", [](Scene& s) { s.waitForRoom(1); }, "AC", ""},
        {"ends the interest of the next", [](Scene& s) { s.fd(1).notifyOnReadableIs(false); }, "AC",
         ""},
        {"sets the interest of the next anew", [](Scene& s) { s.toggle(1); }, "AC", "B"},
        {"adds one that is ready", [](Scene& s) { s.add(), s.ends[3].send(); }, "ABC", "D"},
        {"adds one that is not, under the number of a ready one", [](Scene& s) { s.replace(1); },
         "AC", ""},
        {"throws", [](Scene&) { throw std::runtime_error("A"); }, "A!", "BC"},
        {"closes the next and throws",
         [](Scene& s) {
             s.fd(1).close();
             throw std::runtime_error("A");
         },
         "A!", "C"},
    };
    for (const Watching watching : {Watching::tracked, Watching::edge}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            Scene scene(watching);
            scene.action = c.action;
            for (const Ends& each : scene.ends) {
                each.send();
            }
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

TEST_F(EventLoopTest, AnExceptionLeavesTheRestToTheNextTurn) {
    for (const std::string thrower : {"timer", "deferred", "report"}) {
        const Ends ends;
        std::string log;
        const auto does = [&](const char* what) {
            return [&, what] {
                log += what + std::string(" ");
                if (thrower == what) {
                    throw std::runtime_error(what);
                }
            };
        };
        const auto reads = onReadable(ends.end, does("report"));
        ends.end->notifyOnReadableIs(true);
        ends.send();
        Timer first(loop->clock(), does("timer"));
        Timer second(loop->clock(), [&] { log += "timer2 "; });
        first.expiryIs(0);
        second.expiryIs(0);
        loop->defer(does("deferred"));
        loop->defer([&] { log += "deferred2 "; });
        EXPECT_THROW(loop->turn(0), std::runtime_error);
        log += "/ ";
        loop->turn(0);
        std::string expected = "timer timer2 deferred deferred2 report / ";
        if (thrower != "report") {
            expected.insert(expected.find(thrower) + thrower.size() + 1, "/ ");
            expected.resize(expected.size() - 2);
        }
        EXPECT_EQ(log, expected);
        EXPECT_EQ(turns(10), 0u);
    }
}

TEST_F(EventLoopTest, LooksAtTheInterestInWritingAgainAfterTheReadableHandler) {
    for (const bool closes : {false, true}) {
        const Ends ends;
        ends.send();
        const auto reads = onReadable(ends.end, [&] {
            if (closes) {
                ends.end->close();
            } else {
                ends.end->notifyOnWritableIs(false);
            }
        });
        ends.end->notifyOnReadableIs(true);
        ends.end->notifyOnWritableIs(true);
        EXPECT_EQ(turns(10), 1u);
        EXPECT_EQ(ends.end->writableCount(), 0u);
    }
}

TEST_F(EventLoopTest, DropsWhatTheKernelStillReportsOfADescriptorThatIsNotWatched) {
    const Ends old(0);
    const int duplicate = fcntl(old.end->descriptor(), F_DUPFD_CLOEXEC, 0);
    {  // Closed before its watching ended, as nobody should: the kernel keeps its entry.
        const int number = old.end->descriptorRelease();
        const Fd borrowed = fileDescriptorFactory(number, Ownership::borrowed);
        borrowed->notifyOnReadableIs(true);
        ::close(number);
    }
    EXPECT_EQ(watched(), 1);
    const Ends fresh(0);
    fresh.end->notifyOnReadableIs(true);  // In the place of the one before.
    old.send();
    EXPECT_EQ(turns(10), 0u);
    fresh.send();
    EXPECT_EQ(turns(10), 1u);
    ::close(duplicate);
}

TEST_F(EventLoopTest, ADuplicateOfAClosedDescriptorReportsNothing) {
    for (const Watching watching : {Watching::tracked, Watching::level, Watching::edge}) {
        const Ends ends;
        ends.end->watchingIs(watching);
        ends.end->notifyOnReadableIs(true);
        const Fd duplicate =
            fileDescriptorFactory(fcntl(ends.end->descriptor(), F_DUPFD_CLOEXEC, 0));
        ends.end->close();
        ends.send();
        EXPECT_EQ(watched(), 0);
        EXPECT_EQ(turns(100), 0u);
    }
}

TEST_F(EventLoopTest, ReportsAllThatAreReadyInOneTurn) {
    std::vector<Ends> many(200);
    for (const Ends& each : many) {
        each.end->watchingIs(Watching::level);
        each.end->notifyOnReadableIs(true);
        each.send();
    }
    EXPECT_EQ(turns(1), 200u);
    EXPECT_EQ(turns(1), 200u);
}

TEST_F(EventLoopTest, ClosesWhatItOwns) {
    const struct {
        const char* what;
        Ownership ownership;
        void (*act)(FileDescriptor& fd);
        bool closed;      // By `act`,
        bool closedLast;  // and with the last reference.
    } cases[] = {
        {"owned", Ownership::owned, [](FileDescriptor&) {}, false, true},
        {"borrowed", Ownership::borrowed, [](FileDescriptor&) {}, false, false},
        {"owned, closed", Ownership::owned, [](FileDescriptor& fd) { fd.close(); }, true, true},
        {"borrowed, closed", Ownership::borrowed, [](FileDescriptor& fd) { fd.close(); }, false,
         false},
        {"owned, given up", Ownership::owned, [](FileDescriptor& fd) { fd.descriptorRelease(); },
         false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Ends ends;
        const int number = fcntl(ends.end->descriptor(), F_DUPFD_CLOEXEC, 0);
        const uint32_t open = openDescriptors();
        Fd fd = fileDescriptorFactory(number, c.ownership);
        EXPECT_TRUE(fd->nonBlocking());
        fd->notifyOnReadableIs(true);
        c.act(*fd);
        EXPECT_EQ(fd->notifyOnReadable(), fd->descriptor() >= 0);
        EXPECT_EQ(openDescriptors(), open - (c.closed ? 1 : 0));
        fd = nullptr;
        EXPECT_EQ(watched(), 0);
        EXPECT_EQ(openDescriptors(), open - (c.closedLast ? 1 : 0));
        if (!c.closedLast) {
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
    ends.end->notifyOnReadableIs(true);
    {
        const PavoTest::FailSyscall fail(1, ENOMEM, "epoll_ctl");
        EXPECT_THROW(ends.end->notifyOnWritableIs(true), ErrnoException);
    }
    EXPECT_FALSE(ends.end->notifyOnWritable());
    ends.send();
    EXPECT_EQ(turns(10), 1u);
}

EventLoop* interrupted = nullptr;

// A signal that comes after a millisecond, and then each millisecond when it is to repeat.
class Alarm {
  public:
    Alarm(void (*handler)(int), bool repeats) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(SIGALRM, &action, &before_);
        const itimerval timer{{0, repeats ? 1000 : 0}, {0, 1000}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~Alarm() {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }

  private:
    struct sigaction before_ {};
};

TEST_F(EventLoopTest, WaitsOnAfterASignalUnlessThatStopsIt) {
    interrupted = &*loop;
    {
        const Alarm alarm([](int) { interrupted->stop(); }, false);
        loop->run();
    }
    loop->stop();
    loop->run();  // Stopped before it began.
    Timer timer(loop->clock(), [] {});
    {
        const Alarm alarm([](int) {}, true);
        timer.expiryIs(loop->clock()->now() + 0.02);
        EXPECT_EQ(loop->turn(60), 1u);
    }
    const Ends ends;
    ends.end->notifyOnReadableIs(true);
    ends.send();
    const PavoTest::FailSyscall fail(1, EINTR, "epoll_wait");
    EXPECT_EQ(turns(1), 1u);
    EXPECT_EQ(fail.count(), 2u);
}

TEST_F(EventLoopTest, AStopOnTheWayIntoTheWaitIsNotLost) {
    pollfd wait{loop->fd(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 0), 0);
    errno = ENOENT;
    loop->stop();
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(poll(&wait, 1, 0), 1);  // What a signal in between says, the kernel knows.
    EXPECT_EQ(loop->turn(), 0u);
    EXPECT_EQ(poll(&wait, 1, 0), 0);
    loop->run();
    int turnsRun = 0;
    loop->defer([&] {
        ++turnsRun;
        loop->stop();
    });
    loop->run();
    EXPECT_EQ(turnsRun, 1);
    EXPECT_EQ(poll(&wait, 1, 0), 0);
}

TEST_F(EventLoopTest, FiresTimersOnItsClock) {
    int fired = 0;
    Timer timer(loop->clock(), [&] { ++fired; });
    EXPECT_EQ(loop->secondsToWork(), Clock::idle);
    EXPECT_EQ(loop->turn(0.001), 0u);
    timer.expiryIs(loop->clock()->now() + 3600);
    EXPECT_EQ(turns(10), 0u);
    EXPECT_GT(loop->secondsToWork(), 3000);
    const double expiry = loop->clock()->now() + 0.001;
    timer.expiryIs(expiry);
    EXPECT_EQ(loop->turn(), 1u);
    EXPECT_GE(loop->clock()->now(), expiry);
    timer.expiryIs(expiry);
    EXPECT_EQ(loop->secondsToWork(), 0);
    EXPECT_EQ(turns(10), 1u);
    EXPECT_EQ(fired, 2);
}

TEST_F(EventLoopTest, MakesDeferredCallsOnceInTheNextTurn) {
    std::string log;
    const auto writes = [&](char name) { return [&log, name] { log += name; }; };
    Timer timer(loop->clock(), [&] {
        log += 'T';
        loop->defer(writes('t'));
    });
    const Ends ends;
    const auto reads = onReadable(ends.end, [&] {
        log += 'R';
        loop->defer(writes('r'));
    });
    loop->defer([&] {
        log += 'D';
        loop->defer(writes('d'));
    });
    timer.expiryIs(0);
    ends.end->notifyOnReadableIs(true);
    ends.send();
    for (const char* expected : {"TDR", "TDRtdr", "TDRtdr"}) {
        loop->turn(0);
        EXPECT_EQ(log, expected);
    }
}

TEST_F(EventLoopTest, NestsInAnotherLoop) {
    const int outer = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(outer, EPOLL_CTL_ADD, loop->fd(), &event), 0);
    const auto outerIsReady = [&] { return epoll_wait(outer, &event, 1, 0) == 1; };
    const Ends ends;
    const auto reads = onReadable(ends.end, [&] { readOne(*ends.end); });
    ends.end->notifyOnReadableIs(true);
    EXPECT_FALSE(outerIsReady());
    EXPECT_EQ(loop->secondsToWork(), Clock::idle);
    ends.send();
    EXPECT_TRUE(outerIsReady());
    EXPECT_EQ(turns(1), 1u);
    EXPECT_EQ(loop->secondsToWork(), 0);  // More may wait, of which the kernel says nothing again.
    EXPECT_EQ(turns(1), 1u);
    EXPECT_FALSE(outerIsReady());
    EXPECT_EQ(loop->secondsToWork(), Clock::idle);
    loop->defer([] {});
    EXPECT_EQ(loop->secondsToWork(), 0);
    EXPECT_EQ(turns(10), 1u);
    close(outer);
}

TEST_F(EventLoopTest, ItsDescriptorsMayOutliveIt) {
    const Ends ends;
    int reports = 0;
    const auto reads = onReadable(ends.end, [&] { ++reports; });
    ends.end->notifyOnReadableIs(true);
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
    EXPECT_EQ(reports, 1);
}

TEST_F(EventLoopTest, IsTheOnlyOneOfItsThread) {
    EXPECT_DEATH(EventLoop(), "assertion failed: !EventLoop::current\\(\\)");
    loop->defer([&] { loop->turn(0); });
    EXPECT_DEATH(loop->turn(0), "assertion failed: !inTurn_");
    std::thread([here = &*loop] {
        EXPECT_EQ(EventLoop::current(), nullptr);
        EventLoop there;
        EXPECT_EQ(EventLoop::current(), &there);
        EXPECT_NE(&there, here);
    }).join();
    EXPECT_EQ(EventLoop::current(), &*loop);
}

TEST(EventLoop, LeavesNothingOpenWhenItCannotBeMade) {
    const uint32_t before = openDescriptors();
    const unsigned failures = PavoTest::failEachSyscall(
        EMFILE,
        [] {
            try {
                const EventLoop loop;
                return 0;
            } catch (const ErrnoException& e) {
                return e.errnoValue();
            }
        },
        [&](const PavoTest::FailSyscall&, int error, int) {
            EXPECT_EQ(error, EMFILE);
            EXPECT_EQ(EventLoop::current(), nullptr);
            EXPECT_EQ(openDescriptors(), before);
        });
    EXPECT_GE(failures, 2u);
}

}  // namespace
}  // namespace Mox
