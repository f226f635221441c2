#include "Pavo/Namespace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <tuple>

#include "Mox/Trace.h"

#include "Pavo/NetnsUtils.h"
#include "Pavo/NsUtils.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using namespace PavoTest;
using testing::HasSubstr;
using testing::Not;

const std::string runDir = "/var/run/netns";

std::string mounts() {
    std::ifstream file("/proc/thread-self/mountinfo");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

long mountCount() {
    const std::string lines = mounts();
    return std::count(lines.begin(), lines.end(), '\n');
}

std::set<std::string> namesInRunDir() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(runDir)) {
        names.insert(entry.path().filename());
    }
    return names;
}

// What a failure has to leave as it was: descriptors, mounts, names, and where the thread is.
auto state() {
    return std::make_tuple(openDescriptors(), mounts(), namesInRunDir(), threadNetnsInode());
}

// Once here, and once on a thread that is in the namespace "away".
void hereAndAway(const std::function<void()>& work) {
    work();
    std::thread([&] {
        SCOPED_TRACE("away");
        ASSERT_EQ(setns_by_name("away"), 0);
        work();
    }).join();
}

std::string traces;

class NamespaceTest : public SandboxTest {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        // An ip(8) of another test, or one of the tests here, may have bound it onto itself.
        while (umount2(runDir.c_str(), MNT_DETACH) == 0) {
        }
        ASSERT_EQ(netNsAdd("away"), 0);
        Mox::traceSettingsIs("Pavo::Net*/0-1,Pavo::Ns*/0");
        Mox::traceSinkIs([](const char*, int, std::string_view text) {
            traces += std::string(text) + "\n";
            errno = ENOTTY;
        });
    }
    void TearDown() override {
        Mox::traceSettingsIs("Pavo::*/");
        Mox::traceSinkIs(nullptr);
        for (const std::string& name : namesInRunDir()) {
            EXPECT_EQ(netNsDelete(name.c_str()), 0) << name;
        }
    }
};

TEST_F(NamespaceTest, SharesNamesWithTheSystemsTools) {
    ASSERT_EQ(netNsDelete("away"), 0);  // The first name that ip(8) adds hides those before it.
    run({"ip", "netns", "add", "theirs"});
    ASSERT_EQ(netNsAdd("ours"), 0);
    run({"ip", "link", "set", "lo", "down"});  // To see that the default name touches neither.
    ASSERT_EQ(netNsAdd(DEFAULT_NS), 0);
    EXPECT_THAT(run({"ip", "link"}), Not(HasSubstr("LOOPBACK,UP")));
    run({"ip", "link", "set", "lo", "up"});
    EXPECT_THAT(run({"ip", "netns", "list"}), AllOf(HasSubstr("ours"), HasSubstr("theirs")));
    EXPECT_THAT(run({"ip", "netns", "exec", "ours", "ip", "link"}), HasSubstr("LOOPBACK,UP"));
    EXPECT_THAT(run({"ip", "-n", "default", "link"}), Not(HasSubstr("LOOPBACK,UP")));

    makeVethPair("va", "", "vb", "");
    const char* const way[] = {"", "ours", "theirs", "ours"};
    for (size_t i = 1; i < std::size(way); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(move_intf_netns("va", way[i - 1], way[i]), 0);
        EXPECT_THAT(run({"ip", "-n", way[i], "link"}), HasSubstr("va@"));
    }
    EXPECT_EQ(move_intf_netns("va", "ours", DEFAULT_NS), 0);
    run({"ip", "link", "delete", "va"});
    run({"ip", "netns", "delete", "ours"});
    EXPECT_EQ(netNsDelete("theirs"), 0);
    EXPECT_THAT(run({"ip", "netns", "list"}), Not(AnyOf(HasSubstr("ours"), HasSubstr("theirs"))));
}

TEST_F(NamespaceTest, LeavesNothingBehindInAThousandRounds) {
    const auto before = state();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(netNsAdd("blue"), 0);
        ASSERT_EQ(netNsDelete("blue"), 0);
    }
    EXPECT_EQ(state(), before);
}

// Whether a line of the trace is this and the error that was made to happen.
bool isTold(const std::string& text) {
    return ("\n" + traces).find("\n" + text + strerror(ENFILE) + "\n") != std::string::npos;
}

TEST_F(NamespaceTest, LeavesEverythingAsItWasWhicheverCallFails) {
    bool valid = false;
    const int away = open("/var/run/netns/away", O_RDONLY | O_CLOEXEC);
    const struct {
        const char* name;
        std::function<int()> operation;
        std::function<void()> undo;
        std::set<std::string> told;  // What the failures are told with, in any order.
    } cases[] = {
        {"netNsAdd",
         [] { return netNsAdd("blue"); },
         [] { netNsDelete("blue"); },
         {"stat failed for /proc/self/ns/net: ", "Cannot open /proc/self/ns/net: ",
          "Cannot open /var/run/netns/blue: ", "Failed to create ns dir /var/run/netns: ",
          "Cannot unshare /var/run/netns/blue: ", "Cannot mount /var/run/netns/blue - ",
          "Failed to open socket in ns blue: ", "Error getting flags for kernel interface lo: ",
          "Error setting kernel interface lo up: "}},
        {"mountDefaultNetNs",
         mountDefaultNetNs,
         [] { netNsDelete(DEFAULT_NS); },
         {"stat failed for /proc/self/ns/net: ", "stat failed for /var/run/netns/default: ",
          "Failed to create ns dir /var/run/netns: ", "Cannot umount /var/run/netns/default: ",
          "Cannot remove /var/run/netns/default: ", "open failed for /var/run/netns/default: ",
          "Bind /proc/self/ns/net -> /var/run/netns/default failed: "}},
        {"remountNsRunDir",
         remountNsRunDir,
         [] { umount2(runDir.c_str(), MNT_DETACH); },
         {"Shared mount of /var/run/netns failed: ",
          "Bind mount /var/run/netns -> /var/run/netns: "}},
        {"moveIntfNetNs",
         [] { return moveIntfNetNs("va", "away", "green"); },
         [] { moveIntfNetNs("va", "green", "away"); },
         {"Cannot create netlink socket: ", "Cannot getns open(/var/run/netns/green): ",
          "Cannot getns ioctl NS_GET_NSTYPE(green): ", "sendNetlinkMsg failed: "}},
        {"validateNetNs, name",
         [&] { return validateNetNs("green", &valid) == 0 && valid ? 0 : -1; },
         [] {},
         {"Cannot open /proc/self/ns/net: ",
          "Cannot setns to green: open(/var/run/netns/green): "}},
        {"validateNetNs, fd",
         [&] { return validateNetNs(away, &valid) == 0 && valid ? 0 : -1; },
         [] {},
         {"Cannot open /proc/self/ns/net: "}},
    };
    ASSERT_EQ(netNsAdd("green"), 0);
    makeVethPair("va", "away", "vb", "");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        hereAndAway([&] {
            const auto before = state();
            std::set<std::string> told;
            const auto check = [&](const FailSyscall& fail, int result, int errnoLeft) {
                const std::string call = fail.name();
                const bool isPassedOver = call == "mkdir" || call == "umount2";
                EXPECT_EQ(result, isPassedOver ? 0 : -1);
                EXPECT_TRUE(isPassedOver || errnoLeft == ENFILE) << strerror(errnoLeft);
                const auto found = std::find_if(c.told.begin(), c.told.end(), isTold);
                EXPECT_TRUE(found != c.told.end()) << traces;
                told.insert(found == c.told.end() ? "" : *found);
                if (isPassedOver) {
                    c.undo();
                }
                EXPECT_EQ(state(), before);
                c.undo();  // The interface has moved when no more than the answer was missing.
                traces.clear();
            };
            traces.clear();
            failEachSyscall(ENFILE, c.operation, check, "!setns");  // That has a test of its own.
            EXPECT_EQ(told, c.told);
            c.undo();
            EXPECT_EQ(state(), before);
        });
    }
    run({"ip", "link", "delete", "vb"});
    close(away);
}

TEST_F(NamespaceTest, ReturnsAtTheSecondTryOrNotAtAll) {
    const auto add = [](unsigned n, bool andAllAfter) {
        const FailSyscall fail(n, EPERM, "setns", andAllAfter);
        return netNsAdd("blue");
    };
    const auto validate = [] {
        const FailSyscall fail(2, EPERM, "setns");
        bool valid = false;
        return validateNetNs("away", &valid);
    };
    hereAndAway([&] {
        const auto before = state();
        traces.clear();
        for (const unsigned n : {1, 2}) {  // Back from making, and into it for `lo`.
            EXPECT_EQ(add(n, false), -1);
            EXPECT_EQ(errno, EPERM);
            EXPECT_EQ(state(), before);
        }
        EXPECT_THAT(traces, AllOf(HasSubstr("Cannot setns /proc/self/ns/net: "),
                                  HasSubstr("Failed to open socket in ns blue"),
                                  HasSubstr("Cannot configure interface lo. : ")));
    });
    const char* const death = "assertion failed: setns\\( curr_netns_fd, 0x40000000 \\) == 0";
    EXPECT_DEATH(add(1, true), death);
    EXPECT_DEATH(validate(), death);
}

TEST_F(NamespaceTest, KeepsAddedReplacedAndDeletedNamesApart) {
    const auto start = static_cast<int64_t>(threadNetnsInode());
    hereAndAway([&] {
        const auto before = state();
        ASSERT_EQ(netNsAdd("blue"), 0);
        const int64_t blue = netNsInode("blue");
        EXPECT_NE(blue, start);
        EXPECT_NE(blue, netNsInode("away"));
        const auto withBlue = state();
        EXPECT_EQ(netNsAdd("blue"), -1);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(netNsInode("blue"), blue);
        {
            const FailSyscall fail(1, EPERM, "umount2");  // Told of, but what fails is the unlink.
            EXPECT_EQ(netNsDelete("blue"), -1);
            EXPECT_EQ(errno, EBUSY);
            EXPECT_EQ(state(), withBlue);
        }
        const int held = open("/var/run/netns/blue", O_RDONLY);  // Else its number may come again.
        EXPECT_EQ(netNsAddEvenIfPresent("blue"), 0);
        EXPECT_NE(netNsInode("blue"), blue);
        close(held);
        {
            const FailSyscall fail(1, EPERM, "unlink");
            EXPECT_EQ(netNsAddEvenIfPresent("blue"), -1);
            EXPECT_EQ(errno, EPERM);
        }
        EXPECT_EQ(netNsExists("blue"), 1);
        EXPECT_EQ(netNsDelete("blue"), 0);
        traces.clear();
        EXPECT_EQ(netNsDelete("blue"), 0);
        EXPECT_THAT(traces,
                    HasSubstr("Tried to delete a ns that didn't exist:/var/run/netns/blue\n"));
        EXPECT_EQ(netNsExists("blue"), 0);
        EXPECT_EQ(state(), before);
    });
}

TEST_F(NamespaceTest, RefusesBadNamesBeforeItTouchesAnything) {
    const std::string tooLong(256, 'x');
    const struct {
        const char* name;
        int error;
    } cases[] = {
        {nullptr, EINVAL},   {"", EINVAL},    {"..", EINVAL},    {".", EINVAL},
        {"../away", EINVAL}, {"a/b", EINVAL}, {"/away", EINVAL}, {tooLong.c_str(), ENAMETOOLONG},
    };
    const auto before = state();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name == nullptr ? "null" : c.name);
        for (const auto call : {netNsAdd, netNsAddEvenIfPresent, netNsDelete}) {
            traces.clear();
            EXPECT_EQ(call(c.name), -1);
            EXPECT_EQ(errno, c.error);
            EXPECT_THAT(traces, HasSubstr("No run path: netnsRunPath("));
        }
        EXPECT_EQ(netNsInode(c.name), -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(netNsExists(c.name), 0);
    }
    EXPECT_EQ(state(), before);
}

TEST_F(NamespaceTest, AsksForAMoveAndPassesTheRefusalOn) {
    const std::string tooLong(1200, 'x');
    const struct {
        const char* intf;
        const char* toNs;
        int error;
    } cases[] = {
        {"va", "", ENODEV},
        {"lo", "", EINVAL},
        {"va", "a/b", EINVAL},
        {"va", "none", ENOENT},
        {"sixteen-bytes-00", "", ERANGE},
        {tooLong.c_str(), "", ERANGE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.intf);
        errno = 0;
        EXPECT_EQ(moveIntfNetNs(c.intf, "away", c.toNs), -1);
        EXPECT_EQ(errno, c.error);
    }
    const FailSyscall fail(1, EPERM, "send");
    EXPECT_EQ(moveIntfNetNs("va", "away", ""), -1);
    using namespace std::string_literals;
    const std::string& sent = fail.sent();
    ASSERT_EQ(sent.size(), 48u);
    EXPECT_EQ(sent.substr(0, 8), "\x30\0\0\0\x10\0\x05\0"s);  // RTM_NEWLINK, to be acknowledged.
    EXPECT_EQ(sent.substr(16, 20), std::string(16, '\0') + "\x08\0\x1c\0"s);  // IFLA_NET_NS_FD
    EXPECT_EQ(sent.substr(40), "\x07\0\x03\0va\0\0"s);                        // IFLA_IFNAME
}

TEST_F(NamespaceTest, MountsTheProcessesNamespaceOnceAndSharesTheRunDirectory) {
    const auto start = static_cast<int64_t>(threadNetnsInode());
    const long before = mountCount();
    hereAndAway([&] {
        ASSERT_EQ(netNsAddEvenIfPresent(DEFAULT_NS), 0);  // To be replaced.
        EXPECT_EQ(mountDefaultNetNs(), 0);
        EXPECT_EQ(netNsInode(DEFAULT_NS), start);
        EXPECT_EQ(mountCount(), before + 1);
        const auto once = state();
        traces.clear();
        EXPECT_EQ(mountDefaultNetNs(), 0);
        EXPECT_EQ(traces, "/var/run/netns/default exists\n");
        EXPECT_EQ(state(), once);
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(remountNsRunDir(), 0);
        EXPECT_THAT(mounts(), testing::ContainsRegex("/netns rw[^\n]* shared:"));
        EXPECT_EQ(mountCount(), before + 2);
    }
    EXPECT_EQ(umount2(runDir.c_str(), MNT_DETACH), 0);
}

TEST_F(NamespaceTest, MakesTheRunDirectoryWhenItIsMissing) {
    ASSERT_EQ(netNsDelete("away"), 0);
    ASSERT_TRUE(std::filesystem::remove(runDir));
    EXPECT_EQ(openNsRunDir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(remountNsRunDir(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(netNsAdd("blue"), 0);
    DIR* const directory = openNsRunDir();
    EXPECT_NE(directory, nullptr);
    closedir(directory);
}

TEST_F(NamespaceTest, TellsWhatCanBeEntered) {
    std::ofstream("/var/run/netns/plain") << "no namespace";
    const struct {
        const char* name;
        const char* path;  // Of a descriptor; "" for none.
        bool validName;
        bool validFd;
    } cases[] = {
        {"away", "/var/run/netns/away", true, true},
        {"", "/proc/self/ns/net", true, true},
        {"default", "", true, false},
        {"plain", "/var/run/netns/plain", false, false},
        {"none", "/proc/self/ns/uts", false, false},
        {"a/b", "", false, false},
    };
    hereAndAway([&] {
        const auto before = state();
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            bool valid = !c.validName;
            EXPECT_EQ(validateNetNs(c.name, &valid), 0);
            EXPECT_EQ(valid, c.validName);
            const int fd = open(c.path, O_RDONLY);
            valid = !c.validFd;
            EXPECT_EQ(validateNetNs(fd, &valid), 0);
            EXPECT_EQ(valid, c.validFd);
            close(fd);
        }
        EXPECT_EQ(state(), before);
    });
}

TEST(NamespaceEntities, TellObserversWhichNamespaceCameOrWent) {
    std::string told;
    const auto tell = [&told](const NamespaceName& key) { told += key.value().c_str(); };
    const NamespaceName a("a");
    const NamespaceName b("b");
    const auto dir = namespaceStatusLocalDirFactory("dir");
    const Mox::Watch<NamespaceStatusLocalDir> dirWatch(dir, NamespaceStatusLocalDir::nsAttr, tell);
    const auto status = dir->nsIs(b);
    const Mox::Watch<NamespaceStatusLocal> stateWatch(status, NamespaceStatusLocal::stateAttr,
                                                      [&] { told += "!"; });
    dir->nsIs(a);
    EXPECT_EQ(dir->nsIs(b), status);
    EXPECT_EQ(status->nsName(), b);
    EXPECT_EQ(status->state(), NamespaceState::initializing);
    status->stateIs(NamespaceStateInstance("deleting"));
    status->stateIs(NamespaceState::deleting);
    dir->nsDel(a);
    dir->nsDel(a);
    EXPECT_EQ(dir->ns(a), nullptr);
    dir->nsIs(a);
    dir->nsDelAll();
    EXPECT_EQ(told, "ba!aaab");
    EXPECT_EQ(dir->ns().members(), 0u);

    told.clear();
    const auto factory = netnsFactoryFactory("factory");
    const Mox::Watch<NetnsFactory> factoryWatch(factory, NetnsFactory::netnsAttr, tell);
    const auto netns = factory->netnsIs(a);
    EXPECT_EQ(factory->netnsIs(a), netns);
    EXPECT_NE(factory->netnsIs(b), netns);
    EXPECT_EQ(netns->ns(), a);
    factory->netnsDel(a);
    EXPECT_EQ(factory->netns(a), nullptr);
    EXPECT_EQ(told, "aba");
}

}  // namespace
}  // namespace Pavo
