#include "Pavo/deferClose.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

// The counters: queued, closed by the thread, closed at once.
using Counts = std::vector<uint32_t>;

Counts countsSince(const Counts& before) {
    const DeferCloseStats& stats = *deferCloseStats();
    return {stats.queued - before[0], stats.closedByThread - before[1],
            stats.closedAtOnce - before[2]};
}

Counts countsNow() {
    return countsSince({0, 0, 0});
}

// Waits until the closer thread has nothing to do.
void drain() {
    while (deferCloseStats()->queued != deferCloseStats()->closedByThread) {
        sched_yield();
    }
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

int newDescriptor() {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    return fd;
}

// A connection whose one end has more to send than the other takes, so that its close blocks for
// as long as the other end is open.
class LingeringConnection {
  public:
    LingeringConnection() {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const address = reinterpret_cast<sockaddr*>(&name);
        socklen_t length = sizeof(name);
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener, address, length), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, address, &length), 0);
        sender_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(sender_, address, length), 0);
        receiver_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(receiver_, 0);
        close(listener);

        const linger untilSent{/*l_onoff=*/1, /*l_linger=*/100};
        EXPECT_EQ(setsockopt(sender_, SOL_SOCKET, SO_LINGER, &untilSent, sizeof(untilSent)), 0);
        const std::vector<char> bytes(1 << 20);
        while (send(sender_, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }
    ~LingeringConnection() { reset(); }

    int releaseSender() { return std::exchange(sender_, -1); }
    // Ends the connection, and with it the other end's waiting.
    void reset() {
        if (receiver_ >= 0) {
            close(std::exchange(receiver_, -1));
        }
    }

  private:
    int sender_ = -1;
    int receiver_ = -1;
};

TEST(DeferClose, The513thIsClosedByItsCaller) {
    const auto descriptors = PavoTest::openDescriptors();
    drain();
    LingeringConnection connection;
    const Counts before = countsNow();
    EXPECT_EQ(deferClose(connection.releaseSender()), 0);
    std::vector<int> waiting;
    for (int i = 1; i < 512; ++i) {
        waiting.push_back(newDescriptor());
        EXPECT_EQ(deferClose(waiting.back()), 0);
    }
    EXPECT_EQ(countsSince(before), (Counts{512, 0, 0}));
    EXPECT_TRUE(std::all_of(waiting.begin(), waiting.end(), isOpen));

    const int oneMore = newDescriptor();
    EXPECT_EQ(deferClose(oneMore), 0);
    EXPECT_FALSE(isOpen(oneMore));
    errno = 0;
    EXPECT_EQ(deferClose(oneMore), -1);  // What close(2) says.
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(countsSince(before), (Counts{512, 0, 2}));
    EXPECT_TRUE(isOpen(waiting.front()));

    connection.reset();
    drain();
    EXPECT_EQ(countsSince(before), (Counts{512, 512, 2}));
    EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
}

TEST(DeferClose, ClosesInOrderAndPassesOverWhatCannotBeClosed) {
    int pipes[2][2];
    ASSERT_EQ(pipe2(pipes[0], O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(pipes[1], O_CLOEXEC), 0);
    drain();
    const Counts before = countsNow();
    for (const int fd : {-1, pipes[0][1], -1, pipes[1][1]}) {
        EXPECT_EQ(deferClose(fd), 0);
    }
    char byte;
    EXPECT_EQ(read(pipes[1][0], &byte, 1), 0);  // The end of file comes with the last close.
    EXPECT_FALSE(isOpen(pipes[0][1]));
    drain();
    EXPECT_EQ(countsSince(before), (Counts{4, 4, 0}));
    close(pipes[0][0]);
    close(pipes[1][0]);
}

TEST(DeferClose, LosesNoneOfMany) {
    const uint32_t many = getenv("PAVO_LONG_TESTS") != nullptr ? 1000000 : 20000;
    const auto descriptors = PavoTest::openDescriptors();
    drain();
    const Counts before = countsNow();
    for (uint32_t i = 0; i < many; ++i) {
        ASSERT_EQ(deferClose(newDescriptor()), 0);
    }
    drain();
    const Counts moved = countsSince(before);
    EXPECT_EQ(moved[0] + moved[2], many);
    EXPECT_EQ(moved[1], moved[0]);
    EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
}

// The folder of the closer thread below /proc, "" when there is none.
std::string closerThread() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name == "deferClose") {
            return task.path();
        }
    }
    return "";
}

std::string blockedSignals(const std::string& thread) {
    std::ifstream status(thread + "/status");
    for (std::string word; status >> word;) {
        if (word == "SigBlk:") {
            status >> word;
            return word;
        }
    }
    return "";
}

// The process's first calls: only in a process of their own.
void startCloser() {
    const auto close = [] { return deferClose(newDescriptor()); };
    const auto descriptors = PavoTest::openDescriptors();
    const std::string mask = blockedSignals("/proc/thread-self");
    {
        PavoTest::FailSyscall fail(1, EAGAIN, "pthread_create");
        EXPECT_EQ(close(), 0);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(countsNow(), (Counts{0, 0, 1}));
    EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
    EXPECT_EQ(closerThread(), "");

    PavoTest::makeNetns("away");
    {
        const PavoTest::ScopedNetns away("away");
        errno = ERANGE;
        EXPECT_EQ(close(), 0);
        EXPECT_EQ(errno, ERANGE);
    }
    drain();
    EXPECT_EQ(countsNow(), (Counts{1, 1, 1}));
    EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
    EXPECT_EQ(blockedSignals("/proc/thread-self"), mask);
    struct stat netns;
    ASSERT_EQ(stat((closerThread() + "/ns/net").c_str(), &netns), 0);
    EXPECT_EQ(netns.st_ino, PavoTest::threadNetnsInode());
    // All but SIGILL, SIGBUS, SIGFPE, SIGSEGV, what cannot be blocked (9 and 19), and the two
    // that the C library keeps for itself (32 and 33).
    EXPECT_EQ(blockedSignals(closerThread()), "fffffffe7ffbfa37");
    PavoTest::removeNetns("away");
}

class DeferCloseDeathTest : public PavoTest::SandboxTest {};

TEST_F(DeferCloseDeathTest, StartsItsThreadAwayFromSignalsAndOtherNamespaces) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // The program from the top.
    EXPECT_EXIT(
        {
            startCloser();
            exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
}  // namespace Pavo
