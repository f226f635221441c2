#include "netns/netns.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "Pavo/ScopedNetNs.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace {

using namespace PavoTest;
using Pavo::ScopedNetNs;
using testing::HasSubstr;

// The inode of an open file, which is closed; 0 for a bad descriptor.
uint64_t inodeOf(int fd) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return 0;
    }
    close(fd);
    return status.st_ino;
}

// The namespace of a socket according to the kernel; the socket is closed.
uint64_t netnsOfSocket(int fd) {
    const uint64_t inode = inodeOf(ioctl(fd, SIOCGSKNS));
    close(fd);
    return inode;
}

int udpSocketAt(const char* name) {
    return netnsSocketAt(AF_INET, SOCK_DGRAM, 0, name);
}

class NetnsTest : public SandboxTest {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        makeNetns("blue");
        makeNetns("default");  // A file of that name must not be used.
        start_ = threadNetnsInode();
    }
    void TearDown() override {
        if (Sandbox::isEntered()) {
            EXPECT_EQ(threadNetnsInode(), start_);
            removeNetns("blue");
            removeNetns("default");
        }
    }

    uint64_t start_ = 0;
};

const struct {
    const char* name;
    int (*call)(const char* name);
} entryPoints[] = {
    {"netnsSocketAt", udpSocketAt},
    {"netnsOpenAt", [](const char* name) { return netnsOpenAt("/dev/null", O_RDONLY, name); }},
    {"setnsByName", [](const char* name) { return setnsByName(name, CLONE_NEWNET); }},
    {"getnsByName", [](const char* name) { return getnsByName(name, CLONE_NEWNET); }},
};

TEST_F(NetnsTest, RefusesABadNameInEveryFunction) {
    std::ofstream("/var/run/netns/plain") << "no namespace";
    mkfifo("/var/run/netns/fifo", 0600);
    const std::string tooLong(400, 'x');
    const struct {
        std::string name;
        int error;
        std::string trace;  // Without the error's own text.
    } cases[] = {
        {"absent", ENOENT, "open(/var/run/netns/absent)"},
        {"/blue", EINVAL, "netnsRunPath(/blue)"},
        {"..", EINVAL, "netnsRunPath(..)"},
        {".", EINVAL, "netnsRunPath(.)"},
        {std::string(255, 'x'), ENOENT, "open(/var/run/netns/" + std::string(255, 'x') + ")"},
        {std::string(256, 'x'), ENAMETOOLONG, "netnsRunPath(" + std::string(256, 'x') + ")"},
        {tooLong, ENAMETOOLONG, "netnsRunPath(" + tooLong.substr(0, 300) + ")"},
        {"plain", EINVAL, "(plain)"},
        {"fifo", EINVAL, "(fifo)"},  // Opened without waiting for its other end.
    };
    const auto descriptors = openDescriptors();
    for (const auto& c : cases) {
        for (const auto& function : entryPoints) {
            SCOPED_TRACE(function.name + std::string(" of ") + c.name);
            errno = 0;
            EXPECT_EQ(function.call(c.name.c_str()), -1);
            EXPECT_EQ(errno, c.error);
            EXPECT_THAT(netnsGetTracebuffer(), HasSubstr(c.trace + ": " + strerror(c.error)));
        }
    }
    std::thread([] { EXPECT_STREQ(netnsGetTracebuffer(), ""); }).join();  // One for each thread.
    EXPECT_EQ(openDescriptors(), descriptors);
    unlink("/var/run/netns/plain");
    unlink("/var/run/netns/fifo");
}

TEST(NetnsRunPath, FitsExactlyOrLeavesTheBufferUnchanged) {
    char buffer[21] = "unchanged";
    for (const char* name : {"", "a/b", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(netnsRunPath(buffer, sizeof(buffer), name), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(netnsRunPath(buffer, 19, "blue"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_STREQ(buffer, "unchanged");
    EXPECT_EQ(netnsRunPath(buffer, 20, "blue"), 0);
    EXPECT_STREQ(buffer, "/var/run/netns/blue");
}

// From every namespace to every name, on the main thread and on another: code that opens
// "/proc/self", the main thread's on every thread, fails in one of the rows.
TEST_F(NetnsTest, OpensInTheNamedNamespaceAndStaysWhereItWas) {
    const auto descriptors = openDescriptors();
    const struct {
        const char* name;
        uint64_t there;
    } targets[] = {
        {"blue", netnsInode("blue")}, {"default", start_}, {"", start_}, {nullptr, start_}};
    for (const char* from : {"default", "blue"}) {
        for (const auto& [name, there] : targets) {
            const auto work = [&, name = name, there = there] {
                SCOPED_TRACE(from + std::string(" to ") + (name == nullptr ? "null" : name));
                const ScopedNetNs elsewhere(from);
                const uint64_t here = threadNetnsInode();
                const int fd = udpSocketAt(name);
                ASSERT_GE(fd, 0) << netnsGetTracebuffer();
                EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
                EXPECT_EQ(netnsOfSocket(fd), there);
                EXPECT_EQ(inodeOf(netnsOpenAt("/proc/thread-self/ns/net", O_RDONLY, name)), there);
                const int namespaceFd = getnsByName(name, CLONE_NEWNET);
                EXPECT_EQ(fcntl(namespaceFd, F_GETFD), FD_CLOEXEC);
                EXPECT_EQ(inodeOf(namespaceFd), there);
                EXPECT_EQ(threadNetnsInode(), here);
                EXPECT_EQ(setnsByName(name, CLONE_NEWNET), 0);
                EXPECT_EQ(threadNetnsInode(), there);
            };
            work();
            std::thread(work).join();
        }
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(NetnsTest, SurvivesAFailedSwitchButNotAFailedReturn) {
    const auto failSwitch = [](unsigned n) {
        const FailSyscall fail(n, EPERM, "setns");
        return udpSocketAt("blue");
    };
    const auto descriptors = openDescriptors();
    EXPECT_EQ(failSwitch(1), -1);
    EXPECT_STREQ(netnsGetTracebuffer(), "setns(blue): Operation not permitted");
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_DEATH(failSwitch(2),
                 "netns: setns back\\(/proc/thread-self/ns/net\\): Operation not permitted; "
                 "the thread would stay in the wrong namespace");
}

TEST_F(NetnsTest, NoticesThatItsDescriptorWasClosed) {
    // A daemon that closes every descriptor, and goes on with one that reuses the number.
    EXPECT_EXIT(
        {
            closefrom(3);
            // Needs no descriptor.
            const bool isDirectGood = netnsOfSocket(udpSocketAt(DEFAULT_NS)) == start_;
            const int reused = open("/var/run/netns/blue", O_RDONLY);
            for (int fd = reused + 1; fd < 64; ++fd) {
                dup2(reused, fd);
            }
            const bool isRefused = setnsByName(DEFAULT_NS, CLONE_NEWNET) == -1 && errno == EBADF &&
                                   getnsByName(DEFAULT_NS, CLONE_NEWNET) == -1 && errno == EBADF;
            _exit(isDirectGood && isRefused ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
