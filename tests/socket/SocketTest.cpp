#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "Mox/Trace.h"
#include "Pavo/ScopedNetNs.h"
#include "Pavo/SockBufUtils.h"
#include "Pavo/deferClose.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using testing::HasSubstr;
using SocketTest = PavoTest::SandboxTest;

TEST_F(SocketTest, SetsBufferSizesWithPrivilegeAndElseWithout) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    Mox::traceSettingsIs("Pavo::SockBufUtils/1");
    testing::internal::CaptureStderr();
    PavoTest::FailSyscall fail(1, EPERM, "setsockopt");
    int bytes = 1 << 29;  // More than one without privilege may have.
    socklen_t length = sizeof(bytes);
    EXPECT_EQ(setSocketBufferSize(fd, bytes, 8192), 0);
    EXPECT_EQ(fail.count(), 3u);  // The failed call, its fallback, and the other buffer.
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        HasSubstr("setOptWithFallback warning: failed to set primary SO_SNDBUF for socket " +
                  std::to_string(fd) + ": Operation not permitted\n"));
    Mox::traceSettingsIs("Pavo::SockBufUtils/");
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &length), 0);
    EXPECT_LT(bytes, 1 << 29);
    close(fd);
    EXPECT_EQ(setSocketBufferSize(-1, -1, -1), 0);
    EXPECT_EQ(setSocketBufferSize(-1, 8192, 8192), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fail.count(), 5u);  // The receive buffer is not tried.
}

// Queued, closed by the thread, closed at once. On request it waits until no descriptor is queued.
using Counts = std::vector<uint32_t>;
Counts counts(bool drained) {
    const DeferCloseStats& stats = *deferCloseStats();
    if (drained) {
        deferCloseWait();
    }
    return {stats.queued, stats.closedByThread, stats.closedAtOnce};
}

int deferOne() {
    return deferClose(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// A socket with more unsent data than its peer has room for, so that its close blocks until the
// listener is closed.
int lingeringSocket(int listener) {
    sockaddr_in name{};
    auto* const address = reinterpret_cast<sockaddr*>(&name);
    socklen_t length = sizeof(name);
    const int sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const linger untilSent{/*l_onoff=*/1, /*l_linger=*/100};
    EXPECT_EQ(setsockopt(sender, SOL_SOCKET, SO_LINGER, &untilSent, sizeof(untilSent)), 0);
    EXPECT_EQ(listen(listener, 1) | getsockname(listener, address, &length), 0);
    EXPECT_EQ(connect(sender, address, length), 0);
    while (send(sender, std::string(1 << 20, ' ').data(), 1 << 20, MSG_DONTWAIT) > 0) {
    }
    return sender;
}

// The thread runs in the namespace of the process, with signals blocked: all but SIGILL, SIGBUS,
// SIGFPE, SIGSEGV, those that cannot be blocked (9 and 19), and the C library's (32 and 33).
void expectCloserThread() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string status = PavoTest::fileText(task.path() / "status");
        if (status.starts_with("Name:\tdeferClose\n")) {
            EXPECT_NE(status.find("SigBlk:\tfffffffe7ffbfa37"), std::string::npos);
            EXPECT_EQ(std::filesystem::read_symlink(task.path() / "ns/net"),
                      std::filesystem::read_symlink("/proc/thread-self/ns/net"));
            return;
        }
    }
    ADD_FAILURE() << "no thread";
}

// The first calls of a process.
void closeDescriptors() {
    const auto descriptors = PavoTest::openDescriptors();
    {
        const PavoTest::FailSyscall fail(1, EAGAIN, "pthread_create");
        EXPECT_EQ(deferOne(), 0);
    }
    EXPECT_EQ(counts(false), (Counts{0, 0, 1}));
    PavoTest::makeNetns("away");
    {
        const ScopedNetNs away("away");
        EXPECT_EQ(deferOne(), 0);
    }
    EXPECT_EQ(counts(true), (Counts{1, 1, 1}));
    expectCloserThread();
    PavoTest::removeNetns("away");

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(deferClose(lingeringSocket(listener)), 0);
    for (int i = 1; i < 512; ++i) {
        EXPECT_EQ(deferOne(), 0);
    }
    EXPECT_EQ(counts(false), (Counts{513, 1, 1}));
    EXPECT_EQ(deferOne(), 0);
    EXPECT_EQ(deferClose(-1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(counts(false), (Counts{513, 1, 3}));
    close(listener);
    EXPECT_EQ(counts(true), (Counts{513, 513, 3}));
    EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
}

TEST_F(SocketTest, DescriptorsAreClosedByAThreadAndByTheCallerWhen512Wait) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // In a new process, which has no thread yet.
    EXPECT_EXIT((closeDescriptors(), exit(HasFailure())), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Pavo
