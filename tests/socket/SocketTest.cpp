#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Mox/Trace.h"
#include "Pavo/ScopedNetNs.h"
#include "Pavo/SockBufUtils.h"
#include "Pavo/SocketAt.h"
#include "Pavo/deferClose.h"
#include "netns/netns.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

std::string traced;

class SocketTest : public PavoTest::SandboxTest {
  protected:
    SocketTest() {
        traced.clear();
        Mox::traceSinkIs([](const char*, int level, std::string_view message) {
            traced += std::to_string(level) + " " + std::string(message) + "\n";
        });
        Mox::traceSettingsIs("Pavo::SockBufUtils/0-9,Pavo::SocketAt/0-9");
    }
    ~SocketTest() override {
        Mox::traceSettingsIs("Pavo::SockBufUtils/,Pavo::SocketAt/");
        Mox::traceSinkIs(nullptr);
    }
};

TEST_F(SocketTest, SetsBufferSizesWithPrivilegeAndElseWithout) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    PavoTest::FailSyscall fail(1, EPERM, "setsockopt");
    EXPECT_EQ(setSocketBufferSize(fd, 8192, 8192), 0);
    EXPECT_EQ(fail.count(), 3u);  // The failed call, its fallback, and the other buffer.
    EXPECT_EQ(traced, "1 setOptWithFallback warning: failed to set primary SO_SNDBUF for socket " +
                          std::to_string(fd) + ": Operation not permitted\n");
    close(fd);
    EXPECT_EQ(setSocketBufferSize(-1, -1, -1), 0);
    EXPECT_EQ(setSocketBufferSize(-1, 8192, 8192), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fail.count(), 5u);  // The receive buffer is not tried.
}

TEST_F(SocketTest, OpensInTheNamedNamespaceAndTracesFailures) {
    PavoTest::makeNetns("blue");
    const auto here = PavoTest::threadNetnsInode();
    const int fd = socket_at(AF_INET, SOCK_DGRAM, 0, "blue");
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
    EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, "green"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(traced.find("9  opened socket " + std::to_string(fd) + "\n"), std::string::npos);
    const std::string failed = std::string("0 netnsSocketAt failed : ") + netnsGetTracebuffer();
    EXPECT_TRUE(traced.ends_with(failed + "\n")) << traced;
    EXPECT_EQ(PavoTest::threadNetnsInode(), here);
    PavoTest::removeNetns("blue");
}

// The counters: queued, closed by the thread, closed at once.
using Counts = std::vector<uint32_t>;

Counts countsNow() {
    const DeferCloseStats& stats = *deferCloseStats();
    return {stats.queued, stats.closedByThread, stats.closedAtOnce};
}

// Waits until no descriptor is queued.
void drain() {
    while (deferCloseStats()->queued != deferCloseStats()->closedByThread) {
        sched_yield();
    }
}

int newDescriptor() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// A connection that is never accepted and has more data to send than its peer has room for, so that
// its close blocks while the listener is open.
struct LingeringConnection {
    LingeringConnection() {
        sockaddr_in name{};
        auto* const address = reinterpret_cast<sockaddr*>(&name);
        socklen_t length = sizeof(name);
        EXPECT_EQ(listen(listener, 1), 0);  // On a port that the kernel chooses.
        EXPECT_EQ(getsockname(listener, address, &length), 0);
        EXPECT_EQ(connect(sender, address, length), 0);
        const linger untilSent{/*l_onoff=*/1, /*l_linger=*/100};
        EXPECT_EQ(setsockopt(sender, SOL_SOCKET, SO_LINGER, &untilSent, sizeof(untilSent)), 0);
        const std::vector<char> bytes(1 << 20);
        while (send(sender, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// The closer thread runs in the namespace of the process, with signals blocked: all but SIGILL,
// SIGBUS, SIGFPE, SIGSEGV, those that cannot be blocked (9 and 19), and the C library's (32 and
// 33).
void expectCloserThread() {
    int found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "status");
        const std::string status{std::istreambuf_iterator<char>(file), {}};
        if (status.starts_with("Name:\tdeferClose\n")) {
            ++found;
            EXPECT_NE(status.find("SigBlk:\tfffffffe7ffbfa37"), std::string::npos);
            EXPECT_EQ(std::filesystem::read_symlink(task.path() / "ns/net"),
                      std::filesystem::read_symlink("/proc/thread-self/ns/net"));
        }
    }
    EXPECT_EQ(found, 1);
}

// Without a thread the caller closes.
void startCloser() {
    sigset_t before{};
    sigset_t after{};
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    {
        const PavoTest::FailSyscall fail(1, EAGAIN, "pthread_create");
        EXPECT_EQ(deferClose(newDescriptor()), 0);
    }
    EXPECT_EQ(countsNow(), (Counts{0, 0, 1}));
    PavoTest::makeNetns("away");
    {
        const ScopedNetNs away("away");
        errno = ERANGE;
        EXPECT_EQ(deferClose(newDescriptor()), 0);
        EXPECT_EQ(errno, ERANGE);
    }
    drain();
    EXPECT_EQ(countsNow(), (Counts{1, 1, 1}));
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(memcmp(&before, &after, sizeof(before)), 0);
    expectCloserThread();
    PavoTest::removeNetns("away");
}

void fillTheQueue() {
    const LingeringConnection connection;
    EXPECT_EQ(deferClose(connection.sender), 0);
    for (int i = 1; i < 512; ++i) {
        EXPECT_EQ(deferClose(newDescriptor()), 0);
    }
    EXPECT_EQ(countsNow(), (Counts{513, 1, 1}));
    const int oneMore = newDescriptor();
    EXPECT_EQ(deferClose(oneMore), 0);
    errno = 0;
    EXPECT_EQ(deferClose(oneMore), -1);  // It is closed already.
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(countsNow(), (Counts{513, 1, 3}));
    close(connection.listener);
    drain();
    EXPECT_EQ(countsNow(), (Counts{513, 513, 3}));
}

TEST_F(SocketTest, DescriptorsAreClosedByAThreadAndByTheCallerWhen512Wait) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // In a new process, which has no thread yet.
    EXPECT_EXIT(
        {
            const auto descriptors = PavoTest::openDescriptors();
            startCloser();
            fillTheQueue();
            EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
            exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
}  // namespace Pavo
