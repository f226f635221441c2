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
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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

// Where a socket lives, as the kernel tells.
uint64_t netnsOfSocket(int fd) {
    return inodeOf(ioctl(fd, SIOCGSKNS));
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

class NetnsToolsTest : public SandboxTest {};

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
        std::vector<std::string> story;  // Of the doors, in turn; one stands for all.
    } cases[] = {
        {"absent", ENOENT, {"open(/var/run/netns/absent): No such file or directory"}},
        {"../netns/blue", EINVAL, {"netnsRunPath(../netns/blue): Invalid argument"}},
        {"/blue", EINVAL, {"netnsRunPath(/blue): Invalid argument"}},
        {"..", EINVAL, {"netnsRunPath(..): Invalid argument"}},
        {".", EINVAL, {"netnsRunPath(.): Invalid argument"}},
        {longest, ENOENT, {"open(/var/run/netns/" + longest + "): No such file or directory"}},
        {tooLong, ENAMETOOLONG, {"netnsRunPath(" + tooLong + "): File name too long"}},
        {std::string(400, 'x'),  // The story keeps its end.
         ENAMETOOLONG,
         {"netnsRunPath(" + std::string(300, 'x') + "): File name too long"}},
        {"plain",
         EINVAL,
         {"setns(plain): Invalid argument", "setns(plain): Invalid argument",
          "not a namespace of the wanted kind(plain): Invalid argument"}},
    };
    const auto descriptors = openDescriptors();
    for (const auto& c : cases) {
        for (size_t i = 0; i < std::size(doors); ++i) {
            SCOPED_TRACE(doors[i].name + std::string(" of ") + c.name);
            errno = 0;
            EXPECT_EQ(doors[i].call(c.name.c_str()), -1);
            EXPECT_EQ(errno, c.error);
            EXPECT_EQ(netnsGetTracebuffer(), c.story[i % c.story.size()]);
            EXPECT_EQ(threadNetnsInode(), start_);
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
        {"blue", 20, 0},         {"blue", 19, ENAMETOOLONG}, {"blue", 0, ENAMETOOLONG},
        {"a..b", 4096, 0},       {"default", 4096, 0},       {"", 4096, EINVAL},
        {nullptr, 4096, EINVAL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const std::string untouched(c.size, '#');
        std::string buffer = untouched;
        errno = 0;
        EXPECT_EQ(netnsRunPath(buffer.data(), c.size, c.name), c.error == 0 ? 0 : -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_STREQ(buffer.c_str(), c.error != 0
                                         ? untouched.c_str()
                                         : (std::string("/var/run/netns/") + c.name).c_str());
    }
}

// From every namespace to every name, on the main thread and off it: "/proc/self" is the main
// thread's everywhere, so that code that asks it goes wrong in one of the rows.
TEST_F(NetnsTest, OpensInTheNamedNamespaceAndStaysWhereItWas) {
    const uint64_t blue = netnsInode("blue");
    const struct {
        const char* from;  // "" is where the program started.
        const char* name;
        uint64_t where;
    } cases[] = {
        {"", "blue", blue},    {"", "default", start_},   {"", "", start_},
        {"", nullptr, start_}, {"blue", "blue", blue},    {"blue", "default", start_},
        {"blue", "", start_},  {"blue", nullptr, start_},
    };
    const auto descriptors = openDescriptors();
    for (const auto& c : cases) {
        const auto work = [&] {
            SCOPED_TRACE(testing::Message()
                         << "from " << c.from << " to " << (c.name == nullptr ? "null" : c.name));
            const std::optional<ScopedNetns> elsewhere =
                *c.from == '\0' ? std::nullopt : std::optional<ScopedNetns>(std::in_place, c.from);
            const uint64_t here = threadNetnsInode();
            const int fd = udpSocketAt(c.name);
            ASSERT_GE(fd, 0) << netnsGetTracebuffer();
            EXPECT_EQ(netnsOfSocket(fd), c.where);
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
            close(fd);
            const int namespaceFd = getnsByName(c.name, CLONE_NEWNET);
            EXPECT_EQ(fcntl(namespaceFd, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(inodeOf(namespaceFd), c.where);
            EXPECT_EQ(threadNetnsInode(), here);
            EXPECT_EQ(setnsByName(c.name, CLONE_NEWNET), 0);
            EXPECT_EQ(threadNetnsInode(), c.where);
            EXPECT_EQ(setnsByName(DEFAULT_NS, 0), 0);
        };
        work();
        inThread(work);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(NetnsTest, LeavesNothingBehindWhicheverCallFails) {
    for (const char* name : {"blue", "default"}) {
        for (const auto& door : doors) {
            SCOPED_TRACE(std::string(door.name) + " to " + name);
            inThread([&] {
                // From another namespace than the named one.
                ASSERT_EQ(setnsByName(name == std::string("blue") ? "default" : "blue", 0), 0);
                const uint64_t here = threadNetnsInode();
                const auto descriptors = openDescriptors();
                const auto check = [&](const FailSyscall& fail, int result, int errnoLeft) {
                    EXPECT_EQ(result, -1);
                    EXPECT_EQ(errnoLeft, EMFILE);
                    const std::string story = netnsGetTracebuffer();
                    EXPECT_EQ(story.find(fail.name()), 0u) << story;
                    EXPECT_NE(story.find(strerror(EMFILE)), std::string::npos) << story;
                    EXPECT_EQ(threadNetnsInode(), here);
                    EXPECT_EQ(openDescriptors(), descriptors);
                };
                int result = -1;
                const auto operation = [&] { return result = door.call(name); };
                // The way back of the socket opener has its own test.
                const char* const filter = door.call == udpSocketAt ? "!setns" : "";
                EXPECT_GT(failEachSyscall(EMFILE, operation, check, filter), 0u);
                EXPECT_GE(result, 0);
                if (result > 0) {
                    close(result);
                }
            });
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
            const int direct = udpSocketAt(DEFAULT_NS);  // Needs no descriptor.
            const int reused = open("/var/run/netns/blue", O_RDONLY);
            const bool goodDirect = netnsOfSocket(direct) == start_;
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

// Not in NetnsTest: ip(8) hides the names that were there before it.
TEST_F(NetnsToolsTest, FindsTheNamesThatTheSystemsToolsMake) {
    run({"ip", "netns", "add", "green"});
    const int fd = udpSocketAt("green");
    EXPECT_EQ(netnsOfSocket(fd), netnsInode("green"));
    close(fd);
    run({"ip", "netns", "delete", "green"});
    EXPECT_EQ(udpSocketAt("green"), -1);
}

}  // namespace
