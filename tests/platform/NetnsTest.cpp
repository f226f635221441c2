#include "netns/netns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace {

using namespace PavoTest;

// The inode of an open file, which is closed; 0 when it is none.
uint64_t inodeOf(int fd) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return 0;
    }
    close(fd);
    return status.st_ino;
}

// Where a socket lives, as the kernel tells; it is closed.
uint64_t netnsOfSocket(int fd) {
    const uint64_t inode = inodeOf(ioctl(fd, SIOCGSKNS));
    close(fd);
    return inode;
}

int udpSocketAt(const char* name) {
    return netnsSocketAt(AF_INET, SOCK_DGRAM, 0, name);
}

void inThread(const std::function<void()>& work) {
    std::thread(work).join();
}

class NetnsTest : public SandboxTest {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        makeNetns("blue");
        makeNetns("default");  // A decoy: the name never leads here.
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

// The three functions that take a name, called so that success leaves nothing behind.
const struct {
    const char* name;
    int (*call)(const char* name);
} doors[] = {
    {"netnsSocketAt", udpSocketAt},
    {"setnsByName", [](const char* name) { return setnsByName(name, CLONE_NEWNET); }},
    {"getnsByName", [](const char* name) { return getnsByName(name, CLONE_NEWNET); }},
};

TEST_F(NetnsTest, RefusesABadNameAtEveryDoor) {
    std::ofstream("/var/run/netns/plain") << "no namespace";
    const std::string longest(255, 'x');
    const std::string tooLong(256, 'x');
    const struct {
        std::string name;
        int error;
        std::string story;  // But for the error's own text.
    } cases[] = {
        {"absent", ENOENT, "open(/var/run/netns/absent)"},
        {"/blue", EINVAL, "netnsRunPath(/blue)"},
        {"..", EINVAL, "netnsRunPath(..)"},
        {".", EINVAL, "netnsRunPath(.)"},
        {longest, ENOENT, "open(/var/run/netns/" + longest + ")"},
        {tooLong, ENAMETOOLONG, "netnsRunPath(" + tooLong + ")"},
        // The story keeps its end.
        {std::string(400, 'x'), ENAMETOOLONG, "netnsRunPath(" + std::string(300, 'x') + ")"},
        {"plain", EINVAL, "setns(plain)"},
    };
    const auto descriptors = openDescriptors();
    for (const auto& c : cases) {
        for (const auto& door : doors) {
            SCOPED_TRACE(door.name + std::string(" of ") + c.name);
            const bool onlyLooks = c.name == "plain" && door.name == std::string("getnsByName");
            errno = 0;
            EXPECT_EQ(door.call(c.name.c_str()), -1);
            EXPECT_EQ(errno, c.error);
            EXPECT_EQ(netnsGetTracebuffer(),
                      (onlyLooks ? "not a namespace of the wanted kind(plain)" : c.story) + ": " +
                          strerror(c.error));
        }
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    unlink("/var/run/netns/plain");
}

TEST(NetnsRunPath, FitsExactlyOrLeavesTheBufferAlone) {
    const struct {
        const char* name;
        unsigned size;
        int error;  // 0 when good.
    } cases[] = {
        {"blue", 20, 0},   {"blue", 19, ENAMETOOLONG}, {"blue", 0, ENAMETOOLONG},
        {"a..b", 4096, 0}, {"", 4096, EINVAL},         {nullptr, 4096, EINVAL},
    };
    for (const auto& c : cases) {
        std::string buffer(c.size, '#');
        const std::string expected =
            c.error != 0 ? buffer : std::string("/var/run/netns/") + c.name;
        errno = 0;
        EXPECT_EQ(netnsRunPath(buffer.data(), c.size, c.name), c.error == 0 ? 0 : -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(buffer.c_str(), expected);
    }
}

// From every namespace to every name, on the main thread and off it: "/proc/self" is the main
// thread's everywhere, so that code that asks it goes wrong in one of the rows.
TEST_F(NetnsTest, OpensInTheNamedNamespaceAndStaysWhereItWas) {
    const uint64_t blue = netnsInode("blue");
    const struct {
        const char* from;
        const char* name;
        uint64_t where;
    } cases[] = {
        {"default", "blue", blue},    {"default", "default", start_}, {"default", "", start_},
        {"default", nullptr, start_}, {"blue", "blue", blue},         {"blue", "default", start_},
        {"blue", "", start_},         {"blue", nullptr, start_},
    };
    const auto descriptors = openDescriptors();
    for (const auto& c : cases) {
        const auto work = [&] {
            SCOPED_TRACE(testing::Message()
                         << "from " << c.from << " to " << (c.name == nullptr ? "null" : c.name));
            const ScopedNetns elsewhere(c.from);
            const uint64_t here = threadNetnsInode();
            const int fd = udpSocketAt(c.name);
            ASSERT_GE(fd, 0) << netnsGetTracebuffer();
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(netnsOfSocket(fd), c.where);
            const int namespaceFd = getnsByName(c.name, CLONE_NEWNET);
            EXPECT_EQ(fcntl(namespaceFd, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(inodeOf(namespaceFd), c.where);
            EXPECT_EQ(threadNetnsInode(), here);
            EXPECT_EQ(setnsByName(c.name, CLONE_NEWNET), 0);
            EXPECT_EQ(threadNetnsInode(), c.where);
        };
        work();
        inThread(work);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(NetnsTest, LeavesNothingBehindWhicheverCallFails) {
    const struct { const char *from, *to; } ways[] = {{"default", "blue"}, {"blue", "default"}};
    for (const auto& way : ways) {
        for (const auto& door : doors) {
            SCOPED_TRACE(std::string(door.name) + " to " + way.to);
            const ScopedNetns elsewhere(way.from);
            const uint64_t here = threadNetnsInode();
            const auto descriptors = openDescriptors();
            const auto check = [&](const FailSyscall& fail, int result, int errnoLeft) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(errnoLeft, EMFILE);
                const std::string story = netnsGetTracebuffer();
                EXPECT_TRUE(story.starts_with(fail.name())) << story;
                EXPECT_TRUE(story.ends_with(strerror(EMFILE))) << story;
                EXPECT_EQ(threadNetnsInode(), here);
                EXPECT_EQ(openDescriptors(), descriptors);
            };
            int result = -1;
            const auto operation = [&] { return result = door.call(way.to); };
            // The way back of the socket opener has its own test.
            const char* const filter = door.call == udpSocketAt ? "!setns" : "";
            EXPECT_GT(failEachSyscall(EMFILE, operation, check, filter), 0u);
            EXPECT_GE(result, 0);
            if (result > 0) {
                close(result);
            }
        }
    }
}

TEST_F(NetnsTest, SurvivesAFailedSwitchButNotAFailedWayBack) {
    const auto openAndFail = [](unsigned n) {
        FailSyscall fail(n, EPERM, "setns");
        return udpSocketAt("blue");
    };
    const auto descriptors = openDescriptors();
    EXPECT_EQ(openAndFail(1), -1);
    EXPECT_STREQ(netnsGetTracebuffer(), "setns(blue): Operation not permitted");
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_DEATH(openAndFail(2),
                 "netns: setns back\\(/proc/thread-self/ns/net\\): Operation not permitted; "
                 "the thread would stay in the wrong namespace");
}

TEST_F(NetnsTest, NoticesThatSomebodyClosedItsDescriptor) {
    // A daemon that closes every descriptor, and goes on with one that reuses the number.
    EXPECT_EXIT(
        {
            closefrom(3);
            // Needs no descriptor.
            const bool goodDirect = netnsOfSocket(udpSocketAt(DEFAULT_NS)) == start_;
            const int reused = open("/var/run/netns/blue", O_RDONLY);
            for (int fd = reused + 1; fd < 64; ++fd) {
                dup2(reused, fd);
            }
            const bool refused = setnsByName(DEFAULT_NS, CLONE_NEWNET) == -1 && errno == EBADF &&
                                 getnsByName(DEFAULT_NS, CLONE_NEWNET) == -1 && errno == EBADF;
            _exit(goodDirect && refused ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(NetnsTest, KeepsTheStoryPerThread) {
    EXPECT_EQ(udpSocketAt("absent"), -1);
    inThread([] {
        EXPECT_STREQ(netnsGetTracebuffer(), "");
        EXPECT_EQ(netnsSocketAt(AF_INET, SOCK_STREAM, IPPROTO_UDP, "blue"), -1);
        EXPECT_EQ(errno, EPROTONOSUPPORT);
        EXPECT_STREQ(netnsGetTracebuffer(), "socket(2, 1, 17 in blue): Protocol not supported");
    });
    EXPECT_STREQ(netnsGetTracebuffer(), "open(/var/run/netns/absent): No such file or directory");
}

}  // namespace
