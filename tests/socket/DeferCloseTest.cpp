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
#include <vector>

#include "Pavo/ScopedNetNs.h"
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

// A connection that is never accepted and has more data to send than its peer has room for, so that
// its close blocks while the listener is open.
struct LingeringConnection {
    LingeringConnection() {
        sockaddr_in name{};
        auto* const address = reinterpret_cast<sockaddr*>(&name);
        socklen_t length = sizeof(name);
        EXPECT_EQ(listen(listener, 1), 0);  // On a port of the kernel's choice.
        EXPECT_EQ(getsockname(listener, address, &length), 0);
        EXPECT_EQ(connect(sender, address, length), 0);
        const linger untilSent{/*l_onoff=*/1, /*l_linger=*/100};
        EXPECT_EQ(setsockopt(sender, SOL_SOCKET, SO_LINGER, &untilSent, sizeof(untilSent)), 0);
        const std::vector<char> bytes(1 << 20);
        while (send(sender, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST(DeferClose, The513thIsClosedByItsCaller) {
    const auto descriptors = PavoTest::openDescriptors();
    drain();
    const LingeringConnection connection;
    const Counts before = countsNow();
    EXPECT_EQ(deferClose(connection.sender), 0);
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
    EXPECT_EQ(deferClose(oneMore), -1);  // As close(2) does.
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(countsSince(before), (Counts{512, 0, 2}));
    EXPECT_TRUE(isOpen(waiting.front()));

    close(connection.listener);
    drain();
    EXPECT_EQ(countsSince(before), (Counts{512, 512, 2}));
    EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
}

TEST(DeferClose, ClosesInOrderAndSkipsInvalidDescriptors) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    drain();
    const Counts before = countsNow();
    const int first = newDescriptor();
    for (const int fd : {-1, first, -1, ends[1]}) {
        EXPECT_EQ(deferClose(fd), 0);
    }
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0);  // The end of file comes with the last close.
    EXPECT_FALSE(isOpen(first));
    drain();
    EXPECT_EQ(countsSince(before), (Counts{4, 4, 0}));
    close(ends[0]);
}

TEST(DeferClose, ClosesEachOfManyDescriptors) {
    const auto descriptors = PavoTest::openDescriptors();
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(deferClose(newDescriptor()), 0);
    }
    drain();
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
    std::string word;
    while (status >> word && word != "SigBlk:") {
    }
    status >> word;
    return word;
}

// Makes the first calls of a process, so it needs a process of its own.
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
        const ScopedNetNs away("away");
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

TEST_F(DeferCloseDeathTest, StartsItsThreadWithSignalsBlockedInTheProcessNamespace) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // In a new process.
    EXPECT_EXIT(
        {
            startCloser();
            exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
}  // namespace Pavo
