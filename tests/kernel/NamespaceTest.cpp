#include "Pavo/Namespace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/NetlinkUtils.h"
#include "Pavo/NetnsUtils.h"
#include "Pavo/NsUtils.h"
#include "Pavo/ScopedNetNs.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using namespace PavoTest;
using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

const std::string runDir = "/var/run/netns", mountsPath = "/proc/thread-self/mountinfo";

std::set<std::string> namesInRunDir() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(runDir)) {
        names.insert(entry.path().filename());
    }
    return names;
}

// What a failure has to leave unchanged, and where the thread is.
auto state() {
    return std::make_tuple(openDescriptors(), fileText(mountsPath), namesInRunDir(),
                           threadNetnsInode());
}

// Once on this thread, and once on another that is in the namespace "away".
void hereAndAway(const std::function<void()>& work) {
    work();
    std::thread([&] {
        SCOPED_TRACE("away");
        ASSERT_EQ(setns_by_name("away"), 0);
        work();
    }).join();
}

std::string traces;  // Without digits, which are descriptors.

class NamespaceTest : public SandboxTest {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        // A test may have bound it onto itself.
        while (umount2(runDir.c_str(), MNT_DETACH) == 0) {
        }
        ASSERT_EQ(netNsAdd("away"), 0);
        Mox::traceSettingsIs("Pavo::Net*/0-1,Pavo::Ns*/0");
        Mox::traceSinkIs([](const char*, int, std::string_view text) {
            std::remove_copy_if(text.begin(), text.end(), std::back_inserter(traces), isdigit);
            traces += '\n';
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

// The names in the run directory and the inodes that they should have.
struct Model {
    // One operation on a name, by Pavo or by ip(8).
    void step(unsigned operation, const char* name) {
        const bool isPresent = inodes.contains(name);
        if (operation == 0) {
            EXPECT_EQ(netNsAdd(name) == 0 ? 0 : errno, isPresent ? EEXIST : 0);
        } else if (operation == 1 && !isPresent) {
            // A link is deleted instead of the namespace that it leads to.
            EXPECT_EQ(symlink("b", (runDir + '/' + name).c_str()), 0);
            EXPECT_EQ(netNsDelete(name), 0);
        } else if (operation == 2 && !isPresent) {
            run({"ip", "netns", "add", name});
        } else if (operation == 3 && isPresent) {
            run({"ip", "netns", "delete", name});
            inodes.erase(name);
        } else if (operation == 4) {
            EXPECT_EQ(netNsDelete(name), 0);
            inodes.erase(name);
        } else if (operation == 5) {
            EXPECT_EQ(mountDefaultNetNs(), 0);
            inodes[DEFAULT_NS] = start;
        }
        if ((operation == 0 || operation == 2) && !isPresent) {
            inodes[name] = netNsInode(name);
        }
    }
    void expectNames() const {
        std::set<int64_t> others = {start};
        for (const char* name : names) {
            const auto found = inodes.find(name);
            const int64_t inode = found == inodes.end() ? -1 : found->second;
            EXPECT_EQ(netNsExists(name), inode != -1);
            EXPECT_EQ(netNsInode(name), inode);
            bool valid = false;
            EXPECT_EQ(validateNetNs(Mox::String(name), &valid), 0);
            EXPECT_EQ(valid, inode != -1 || name == DEFAULT_NS);
            const bool isStart = name == DEFAULT_NS && inode == start;
            EXPECT_TRUE(inode == -1 || isStart || others.insert(inode).second);
        }
    }

    const char* const names[3] = {"a", "b", DEFAULT_NS};
    const int64_t start = static_cast<int64_t>(threadNetnsInode());
    std::map<std::string, int64_t> inodes;
};

TEST_F(NamespaceTest, FollowsAModelInARandomProgramThatSharesNamesWithIp) {
    ASSERT_EQ(netNsDelete("away") | remountNsRunDir(), 0);  // As the first `ip netns add` does.
    const auto before = state();
    for (const uint32_t seed : PavoTest::Seeds(1)) {
        Model model;
        std::mt19937 random(seed);
        for (int step = 0; step < 150; ++step) {
            const auto operation = static_cast<unsigned>(random() % 6);
            const char* const name = model.names[random() % 3];
            SCOPED_TRACE(testing::Message() << "step " << step << ": " << operation << " " << name);
            model.step(operation, name);
            model.expectNames();
        }
        for (const char* name : model.names) {
            model.step(4, name);
        }
        EXPECT_EQ(state(), before);
    }
}

TEST_F(NamespaceTest, BringsLoUpAndMovesInterfaces) {
    ASSERT_EQ(netNsAdd("blue"), 0);
    run({"ip", "link", "set", "lo", "down"});
    ASSERT_EQ(netNsAdd(DEFAULT_NS), 0);  // Changes neither its `lo` nor the process's.
    EXPECT_THAT(run({"ip", "link"}), Not(HasSubstr("LOOPBACK,UP")));
    run({"ip", "link", "set", "lo", "up"});
    EXPECT_THAT(run({"ip", "-n", DEFAULT_NS, "link"}), Not(HasSubstr("LOOPBACK,UP")));
    EXPECT_THAT(run({"ip", "-n", "blue", "link"}), HasSubstr("LOOPBACK,UP"));
    makeVethPair("va", "", "vb", "");
    const char* const way[] = {"", "blue", "away", "blue", DEFAULT_NS};
    for (size_t i = 1; i < std::size(way); ++i) {
        EXPECT_EQ(move_intf_netns("va", way[i - 1], way[i]), 0);
        const ScopedNetNs inside(way[i]);
        EXPECT_NE(if_nametoindex("va"), 0u) << i;
    }
    run({"ip", "link", "delete", "va"});
}

// 0, or -1 with the exception's errno.
int enterScope(const char* name) {
    try {
        const ScopedNetNs scope(name);
        return 0;
    } catch (const Mox::ErrnoException& error) {
        traces += error.what() + "\n"s;
        errno = error.errnoValue();
        return -1;
    }
}

int openNetlink() {
    netlinkHandle handle;
    const int result = createNetlinkSocket(&handle, 0, "", SOCK_RAW, true, NETLINK_ROUTE);
    EXPECT_EQ(handle.fd >= 0, result == 0);
    closeNetlinkSocket(&handle);
    return result;
}

// Whether a line of the trace is this text and the error that was made to happen.
bool isTraced(const std::string& text) {
    return ("\n" + traces).find("\n" + text + strerror(ENFILE) + "\n") != std::string::npos;
}

TEST_F(NamespaceTest, LeavesEverythingAsItWasWhicheverCallFails) {
    bool valid = false;
    const struct {
        std::function<int()> operation;
        std::function<void()> undo;
        std::set<std::string> traces;  // One of each failure, in any order.
        std::string printed = "";
    } cases[] = {
        {[] { return netNsAdd("blue"); },
         [] { netNsDelete("blue"); },
         {"stat failed for /proc/self/ns/net: ", "Cannot open /proc/self/ns/net: ",
          "Cannot open /var/run/netns/blue: ", "Failed to create ns dir /var/run/netns: ",
          "Cannot unshare /var/run/netns/blue: ", "Cannot mount /var/run/netns/blue - ",
          "Failed to open socket in ns blue: ", "Error getting flags for kernel interface lo: ",
          "Error setting kernel interface lo up: "}},
        {mountDefaultNetNs,
         [] { netNsDelete(DEFAULT_NS); },
         {"stat failed for /proc/self/ns/net: ", "stat failed for /var/run/netns/default: ",
          "Failed to create ns dir /var/run/netns: ", "Cannot umount /var/run/netns/default: ",
          "Cannot remove /var/run/netns/default: ", "open failed for /var/run/netns/default: ",
          "Bind /proc/self/ns/net -> /var/run/netns/default failed: "}},
        {remountNsRunDir,
         [] { umount2(runDir.c_str(), MNT_DETACH); },
         {"Shared mount of /var/run/netns failed: ",
          "Bind mount /var/run/netns -> /var/run/netns: "}},
        {[] { return moveIntfNetNs("va", "away", "green"); },
         [] { moveIntfNetNs("va", "green", "away"); },
         {"Cannot create netlink socket: ", "Cannot getns open(/var/run/netns/green): ",
          "Cannot getns ioctl NS_GET_NSTYPE(green): ", "sendNetlinkMsg failed: "}},
        {[&] { return validateNetNs("green", &valid) == 0 && valid ? 0 : -1; },
         [] {},
         {"Cannot open /proc/self/ns/net: ",
          "Cannot setns to green: open(/var/run/netns/green): "}},
        {[] { return enterScope("green"); },
         [] {},
         {"Cannot open /proc/self/ns/net: ", "Cannot setns to green: "}},
        {openNetlink,
         [] {},
         {"Cannot open netlink socket: ", "setNonblocking() fcntl failed due to ",
          "Cannot bind netlink socket ", "Cannot getsockname "},
         "fcntl(F_GETFL): "s + strerror(ENFILE) + "\nfcntl(F_SETFL): " + strerror(ENFILE) + "\n"},
    };
    ASSERT_EQ(netNsAdd("green"), 0);
    makeVethPair("va", "away", "vb", "");
    for (const auto& c : cases) {
        SCOPED_TRACE(*c.traces.begin());
        hereAndAway([&] {
            testing::internal::CaptureStderr();  // Opens a descriptor for its time.
            const auto before = state();
            std::set<std::string> found;
            const auto check = [&](const FailSyscall& fail, int result, int errnoLeft) {
                const std::string call = fail.name();
                const bool isIgnored = call == "mkdir" || call == "umount2";
                EXPECT_EQ(result, isIgnored ? 0 : -1);
                EXPECT_TRUE(isIgnored || errnoLeft == ENFILE) << strerror(errnoLeft);
                const auto text = std::find_if(c.traces.begin(), c.traces.end(), isTraced);
                EXPECT_TRUE(text != c.traces.end()) << traces;
                found.insert(text == c.traces.end() ? "" : *text);
                if (isIgnored) {
                    c.undo();
                }
                EXPECT_EQ(state(), before);
                c.undo();  // The interface has moved when only the answer was missing.
                traces.clear();
            };
            traces.clear();
            failEachSyscall(ENFILE, c.operation, check, "!setns");  // That has a test of its own.
            EXPECT_EQ(found, c.traces);
            c.undo();
            EXPECT_EQ(state(), before);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), c.printed);
        });
    }
    run({"ip", "link", "delete", "vb"});
}

TEST_F(NamespaceTest, ReturnsAtTheSecondAttemptOrEndsTheProcess) {
    const auto failing = [](unsigned n, bool andAllAfter, const std::function<int()>& work) {
        const FailSyscall fail(n, EPERM, "setns", andAllAfter);
        return work();
    };
    const auto add = [] { return netNsAdd("blue"); };
    hereAndAway([&] {
        const auto before = state();
        traces.clear();
        for (const unsigned n : {1u, 2u}) {  // The return, and entering it for `lo`.
            EXPECT_EQ(failing(n, false, add), -1);
            EXPECT_EQ(errno, EPERM);
            EXPECT_EQ(state(), before);
        }
        EXPECT_THAT(traces, AllOf(HasSubstr("Cannot setns /proc/self/ns/net: "),
                                  HasSubstr("Failed to open socket in ns blue"),
                                  HasSubstr("Cannot configure interface lo. : ")));
    });
    bool valid = false;
    const char* const death = "assertion failed: setns\\( curr_netns_fd, 0x40000000 \\) == 0";
    EXPECT_DEATH(failing(1, true, add), death);
    EXPECT_DEATH(failing(2, false, [&] { return validateNetNs("away", &valid); }), death);
    ASSERT_EQ(netNsAdd("green"), 0);
    EXPECT_DEATH(failing(2, false, [] { return enterScope("green"); }), death);
}

TEST_F(NamespaceTest, PassesOnWhyNothingWasChanged) {
    const auto move = [](const std::string& intf, const char* toNs) {
        return [=] { return moveIntfNetNs(intf.c_str(), "away", toNs); };
    };
    const struct {
        std::function<int()> call;
        int error;
        const char* trace;
    } cases[] = {
        {[] { return netNsAdd(".."); }, EINVAL, "No run path: netnsRunPath(..)"},
        {[] { return netNsDelete(nullptr); }, EINVAL, "No run path: netnsRunPath("},
        {[] { return enterScope("nowhere"); }, ENOENT,
         "Cannot setns to nowhere: No such file or directory\n"},
        {move("va", ""), ENODEV, "Interface va not moved from away to \n"},
        {move("lo", nullptr), EINVAL, "Interface lo not moved from away to default\n"},
        {move("va", "none"), ENOENT, "Cannot getns open(/var/run/netns/none): "},
        {move("sixteen-bytes-00", ""), ERANGE, "sendNetlinkMsg failed: "},
        {move(std::string(1200, 'x'), ""), ERANGE, " not moved from away to \n"},
    };
    const auto before = state();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.trace);
        traces.clear();
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_THAT(traces, HasSubstr(c.trace));
    }
    {
        const FailSyscall fail(1, EPERM, "umount2");  // Traced; then a mounted file stays.
        EXPECT_EQ(netNsDelete("away"), -1);
        EXPECT_EQ(errno, EBUSY);
    }
    EXPECT_EQ(state(), before);
}

TEST_F(NamespaceTest, CreatesAndSharesTheRunDirectory) {
    ASSERT_EQ(netNsDelete("away"), 0);
    ASSERT_TRUE(std::filesystem::remove(runDir));
    EXPECT_EQ(openNsRunDir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(remountNsRunDir(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mountDefaultNetNs(), 0);
    EXPECT_EQ(remountNsRunDir(), 0);
    const auto shared = fileText(mountsPath);
    EXPECT_THAT(shared, testing::ContainsRegex("/netns rw[^\n]* shared:"));
    EXPECT_EQ(remountNsRunDir(), 0);
    EXPECT_EQ(fileText(mountsPath), shared);
    EXPECT_EQ(closedir(openNsRunDir()), 0);
    EXPECT_EQ(umount2(runDir.c_str(), MNT_DETACH), 0);
}

}  // namespace
}  // namespace Pavo
