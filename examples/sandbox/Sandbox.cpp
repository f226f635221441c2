#include "sandbox/Sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "Pavo/NetnsUtils.h"
#include "Pavo/NsUtils.h"
#include "sandbox/SystemCalls.h"

namespace PavoSandbox {
namespace {

constexpr char netnsDir[] = "/var/run/netns";
constexpr char threadNetnsPath[] = "/proc/thread-self/ns/net";
// Holds the id of the process that entered, so that a child that inherits it knows that it did not.
constexpr char enteredVariable[] = "PAVO_SANDBOX";

std::string reasonNotEntered = "it was not entered";

void writeFile(const std::string& path, const std::string& text) {
    const OwnedFd file(openOrThrow(path, O_WRONLY));
    check(write(file.fd(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          "write " + text + " to " + path);
}

// In the calling thread's namespace.
void setLoopbackUp() {
    const OwnedFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    check(socket.fd() >= 0, "socket for lo");
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    check(ioctl(socket.fd(), SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS of lo");
}

void unshareAll() {
    constexpr int flags = CLONE_NEWNS | CLONE_NEWNET;
    if (unshare(flags) == 0) {
        return;
    }
    const std::string first = strerror(errno);
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | flags) != 0) {
        throw std::runtime_error("unshare of mount and network namespaces: " + first +
                                 "; with a user namespace: " + strerror(errno) +
                                 " (run as root, or allow user namespaces)");
    }
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

bool makeMountsPrivate() {
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

std::string workingDirectory() {
    const std::unique_ptr<char, decltype(&free)> path(getcwd(nullptr, 0), &free);
    check(path != nullptr, "getcwd");
    return path.get();
}

// In a chroot "/" is usually no mount point, so it cannot be made private, which ip(8) requires.
// Entering a mount namespace, even one's own, leads to its real root: there all mounts are made
// private and the chroot's directory becomes a mount point; then the process returns to the chroot.
void makeMountsPrivateFromChroot() {
    const std::string directory = workingDirectory();
    const OwnedFd root(openOrThrow("/", O_PATH | O_DIRECTORY));
    const OwnedFd ownMounts(openOrThrow("/proc/self/ns/mnt", O_RDONLY));
    check(setns(ownMounts.fd(), CLONE_NEWNS) == 0, "setns to the own mount namespace");
    check(makeMountsPrivate(), "mount the real / private");
    check(fchdir(root.fd()) == 0, "chdir to the chroot");
    const std::string path = workingDirectory();
    check(mount(path.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          "bind the chroot");
    check(chroot(path.c_str()) == 0 && chdir(directory.c_str()) == 0, "return to the chroot");
}

void separateMounts() {
    if (!makeMountsPrivate()) {
        check(errno == EINVAL, "mount / private");
        makeMountsPrivateFromChroot();
    }
}

// Tools and the code under test use "/var/run", which may be a link: its target is mounted over.
void mountRunDir() {
    const std::unique_ptr<char, decltype(&free)> path(realpath("/var/run", nullptr), &free);
    check(path != nullptr, "find /var/run");
    check(mount("tmpfs", path.get(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0,
          std::string("mount tmpfs on ") + path.get());
    check(mkdir(netnsDir, 0755) == 0, std::string("mkdir ") + netnsDir);
}

[[noreturn]] void executeAgain() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    file.close();  // It would stay open in the new program.
    std::vector<char*> arguments;
    for (size_t at = 0; at < text.size(); at += strlen(&text[at]) + 1) {
        arguments.push_back(&text[at]);
    }
    arguments.push_back(nullptr);
    setenv(enteredVariable, std::to_string(getpid()).c_str(), /*overwrite=*/1);
    execv("/proc/self/exe", arguments.data());
    throw systemError("execute the program again inside");
}

struct CloseDir {
    void operator()(DIR* directory) const { closedir(directory); }
};

std::vector<std::string> ipCommand(const std::string& ns) {
    return ns.empty() ? std::vector<std::string>{"ip"} : std::vector<std::string>{"ip", "-n", ns};
}

void ip(const std::string& ns, const std::vector<std::string>& arguments) {
    std::vector<std::string> command = ipCommand(ns);
    command.insert(command.end(), arguments.begin(), arguments.end());
    run(command);
}

// From the sandbox's own namespace to a named one.
void moveTo(const std::string& ns, const std::string& device) {
    if (!ns.empty()) {
        check(Pavo::moveIntfNetNs(device.c_str(), Pavo::DEFAULT_NS, ns.c_str()) == 0,
              "move " + device + " to namespace " + ns);
    }
}

// The kernel accepts an address at once, but delivers packets to it only after a task of its own
// has added the route.
void awaitLocalRoute(const std::string& ns, const std::string& address) {
    const std::string route = "local " + address + " ";
    for (int tries = 0; tries < 1000; ++tries) {
        const std::string routes = run({"ip", "-n", ns, "-6", "route", "show", "table", "local"});
        if (routes.find(route) != std::string::npos) {
            return;
        }
    }
    throw std::runtime_error("no route " + route);
}

}  // namespace

bool Sandbox::enter(std::string* why) {
    if (isEntered()) {
        return true;
    }
    try {
        unshareAll();
        separateMounts();
        mountRunDir();
        setLoopbackUp();
        executeAgain();
    } catch (const std::exception& fault) {
        reasonNotEntered = fault.what();
        *why = reasonNotEntered;
        return false;
    }
}

bool Sandbox::isEntered() {
    const char* const entered = getenv(enteredVariable);
    return entered != nullptr && entered == std::to_string(getpid());
}

const std::string& Sandbox::whyNot() {
    return reasonNotEntered;
}

void makeNetns(const std::string& name) {
    check(Pavo::netNsAdd(name.c_str()) == 0, "create namespace " + name);
}

void removeNetns(const std::string& name) {
    check(Pavo::netNsDelete(name.c_str()) == 0, "remove namespace " + name);
}

uint64_t threadNetnsInode() {
    struct stat status;
    check(stat(threadNetnsPath, &status) == 0, std::string("stat ") + threadNetnsPath);
    return status.st_ino;
}

uint64_t netnsInode(const std::string& name) {
    const int64_t inode = Pavo::netNsInode(name.c_str());
    check(inode >= 0, "stat namespace " + name);
    return static_cast<uint64_t>(inode);
}

void makeVethPair(const std::string& a, const std::string& nsA, const std::string& b,
                  const std::string& nsB) {
    ip("", {"link", "add", "name", a, "type", "veth", "peer", "name", b});
    moveTo(nsA, a);
    moveTo(nsB, b);
}

void addAddress(const std::string& ns, const std::string& device, const std::string& address) {
    std::vector<std::string> arguments = {"addr", "add", address, "dev", device};
    if (address.find(':') != std::string::npos) {
        arguments.push_back("nodad");  // Duplicate detection would hold it back for a second.
    }
    ip(ns, arguments);
}

void setUp(const std::string& ns, const std::string& device) {
    ip(ns, {"link", "set", "dev", device, "up"});
}

void makeWire() {
    makeNetns("left");
    makeNetns("right");
    connectWire();
}

void connectWire() {
    makeVethPair("veth-left", "left", "veth-right", "right");
    addAddress("left", "veth-left", "192.0.2.1/24");
    addAddress("right", "veth-right", "192.0.2.2/24");
    setUp("left", "veth-left");
    setUp("right", "veth-right");
}

void cutWire() {
    ip("left", {"link", "del", "veth-left"});  // Its peer goes with it.
}

void addWire6() {
    for (const std::string end : {"left", "right"}) {
        const std::string host = end == "left" ? "1" : "2";
        for (const std::string prefix : {"2001:db8::", "fe80::"}) {
            addAddress(end, "veth-" + end, prefix + host + "/64");
            awaitLocalRoute(end, prefix + host);
        }
    }
}

void removeWire() {
    try {
        cutWire();
    } catch (const std::runtime_error&) {
        // It was removed before.
    }
    removeNetns("left");
    removeNetns("right");
}

std::map<int, std::string> openDescriptors() {
    const std::unique_ptr<DIR, CloseDir> directory(opendir("/proc/self/fd"));
    check(directory != nullptr, "open /proc/self/fd");
    std::map<int, std::string> found;
    while (const dirent* const entry = readdir(directory.get())) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(directory.get())) {
            continue;
        }
        char target[PATH_MAX];
        const ssize_t bytes =
            readlinkat(dirfd(directory.get()), entry->d_name, target, sizeof(target));
        check(bytes >= 0, std::string("readlink of descriptor ") + entry->d_name);
        found[fd].assign(target, static_cast<size_t>(bytes));
    }
    return found;
}

}  // namespace PavoSandbox
