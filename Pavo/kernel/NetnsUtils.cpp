#include "Pavo/kernel/NetnsUtils.h"

#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "netns/netns.h"

#include "Pavo/kernel/NetNsRunDir.h"
#include "Pavo/kernel/NetlinkUtils.h"
#include "Pavo/kernel/NsUtils.h"
#include "Pavo/kernel/ScopedNetNs.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::NetnsUtils");

// The calling thread's namespace, on every thread.
constexpr char threadNetNsFile[] = "/proc/thread-self/ns/net";

// For traces: a null name stands for the default namespace.
const char* nameOf(const char* netNs) {
    return netNs == nullptr ? DEFAULT_NS : netNs;
}

// Traces the pieces and the text of `errno`; returns false, as its callers do.
template <class... Pieces>
bool failed(const Pieces&... pieces) {
    MOX_TRACE(facility, 0, pieces..., std::strerror(errno));
    return false;
}

int resultOf(bool good) {
    return good ? 0 : -1;
}

bool failedToOpenOwnNetNs() {
    return failed("Cannot open ", PROC_SELF_NS_NET_FILE, ": ");
}

// Closes its descriptor; `closeText` is the assertion that this succeeds, so `errno` is unchanged.
class OwnedFd {
  public:
    OwnedFd(int fd, const char* closeText) : fd_(fd), closeText_(closeText) {}
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { Mox::require(fd_ < 0 || close(fd_) == 0, closeText_); }

    int fd() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }

  private:
    int fd_;
    const char* closeText_;
};

// The file that gives a namespace its name.
class RunPath {
  public:
    explicit RunPath(const char* name) : isGood_(netnsRunPath(text_, sizeof(text_), name) == 0) {
        if (!isGood_) {
            MOX_TRACE(facility, 0, "No run path: ", netnsGetTracebuffer());
        }
    }

    bool isGood() const { return isGood_; }
    const char* text() const { return text_; }

  private:
    char text_[4096];
    bool isGood_;
};

// A file created to bind a namespace to, removed with its mount at the end of the scope, unless
// kept.
class MountPoint {
  public:
    explicit MountPoint(const RunPath& path) : path_(path) {}
    MountPoint(const MountPoint&) = delete;
    MountPoint& operator=(const MountPoint&) = delete;
    ~MountPoint();

    bool create() {
        const OwnedFd file(open(path_.text(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0),
                           "close( fd ) == 0");
        isTemporary_ = file.isOpen();
        return isTemporary_;
    }
    void keep() { isTemporary_ = false; }

  private:
    const RunPath& path_;
    bool isTemporary_ = false;
};

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

bool bindNetNs(const char* source, const char* target) {
    return mount(source, target, "none", MS_BIND, nullptr) == 0;
}

// The type of the file, as in `st_mode`; 0 if there is none.
mode_t fileType(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

bool removePath(const char* path) {
    const mode_t type = fileType(path);
    if (type == S_IFDIR) {  // Never a namespace: whatever is mounted there stays.
        errno = EISDIR;
        return failed("Cannot remove ", path, ": ");
    }
    // umount2(2) would follow a link and detach what it leads to.
    if (type != S_IFLNK && umount2(path, MNT_DETACH) != 0) {
        failed("Cannot umount ", path, ": ");
    }
    if (unlink(path) == 0) {
        return true;
    }
    if (errno == ENOENT) {
        MOX_TRACE(facility, 1, "Tried to delete a ns that didn't exist:", path);
        return true;
    }
    return failed("Cannot remove ", path, ": ");
}

MountPoint::~MountPoint() {
    if (isTemporary_) {
        const Mox::ErrnoKeeper keeper;
        removePath(path_.text());
    }
}

// After a failure the destructor of `wayBack` returns the thread.
bool bindNewNetNs(NetNsReturn& wayBack, const RunPath& path) {
    if (unshare(CLONE_NEWNET) != 0) {
        return failed("Cannot unshare ", path.text(), ": ");
    }
    wayBack.arm();
    if (!bindNetNs(threadNetNsFile, path.text())) {
        return failed("Cannot mount ", path.text(), " - ");
    }
    return wayBack.goBack() || failed("Cannot setns ", PROC_SELF_NS_NET_FILE, ": ");
}

bool setLoUp(const char* name) {
    const OwnedFd socket(socketAt(AF_INET, SOCK_STREAM, 0, name), "close( fd ) == 0");
    if (!socket.isOpen()) {
        return failed("Failed to open socket in ns ", name, ": ");
    }
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    if (ioctl(socket.fd(), SIOCGIFFLAGS, &request) != 0) {
        return failed("Error getting flags for kernel interface ", "lo", ": ");
    }
    if ((request.ifr_flags & IFF_UP) != 0) {
        return true;
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    return ioctl(socket.fd(), SIOCSIFFLAGS, &request) == 0 ||
           failed("Error setting kernel interface ", "lo", " up: ");
}

// For `socketAt` the default name is the namespace in which the process started, not the new one.
bool configureLo(const char* name) {
    return std::strcmp(name, DEFAULT_NS) == 0 || setLoUp(name) ||
           failed("Cannot configure interface lo. : ");
}

bool shareRunDir() {
    return mount("", netNsRunDir, "none", MS_SHARED | MS_REC, nullptr) == 0;
}

bool failedToShareRunDir() {
    return failed("Shared mount of ", netNsRunDir, " failed: ");
}

bool bindAndShareRunDir() {
    if (!bindNetNs(netNsRunDir, netNsRunDir)) {
        return failed("Bind mount ", netNsRunDir, " -> ", netNsRunDir, ": ");
    }
    if (shareRunDir()) {
        return true;
    }
    failedToShareRunDir();
    const Mox::ErrnoKeeper keeper;
    (void)umount2(netNsRunDir, MNT_DETACH);  // The first failure is the one to report.
    return false;
}

// A netlink socket for its scope.
class OwnedNetlinkSocket {
  public:
    explicit OwnedNetlinkSocket(const char* nsName)
        : isOpen_(createNetlinkSocket(&handle_, 0, nsName, SOCK_RAW, /*nonBlocking=*/false,
                                      NETLINK_ROUTE) == 0) {}
    OwnedNetlinkSocket(const OwnedNetlinkSocket&) = delete;
    OwnedNetlinkSocket& operator=(const OwnedNetlinkSocket&) = delete;
    ~OwnedNetlinkSocket() {
        if (isOpen_) {
            closeNetlinkSocket(&handle_);
        }
    }

    bool isOpen() const { return isOpen_; }
    netlinkHandle* handle() { return &handle_; }

  private:
    netlinkHandle handle_;
    bool isOpen_;
};

bool sendMove(netlinkHandle* handle, const char* intf, int netns) {
    constexpr int bound = 1056;
    NetlinkRequest<ifinfomsg, bound> request(RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK);
    const auto nameBytes = static_cast<int>(strnlen(intf, bound)) + 1;
    if (request.addAttribute(IFLA_NET_NS_FD, netns) != 0 ||
        addattr_l(request.header(), bound, IFLA_IFNAME, intf, nameBytes) != 0) {
        errno = ERANGE;  // The kernel's error for a name that is too long for it.
        return false;
    }
    return sendNetlinkMsg(handle, request.header()) == 0 || failed("sendNetlinkMsg failed: ");
}

bool moveIntf(const char* intf, const char* fromNs, const char* toNs) {
    OwnedNetlinkSocket socket(fromNs);
    if (!socket.isOpen()) {
        return failed("Cannot create netlink socket: ");
    }
    const OwnedFd netns(getnsByName(toNs, CLONE_NEWNET), "close( netns ) == 0");
    if (!netns.isOpen()) {
        MOX_TRACE(facility, 0, "Cannot getns ", netnsGetTracebuffer());
        return false;
    }
    return sendMove(socket.handle(), intf, netns.fd());
}

// Calls `enter`, which returns 0 when it has moved the thread to another namespace.
template <class Enter>
int validate(Enter enter, bool* valid) {
    NetNsReturn wayBack;
    if (!wayBack.isOpen()) {
        return resultOf(failedToOpenOwnNetNs());
    }
    *valid = enter() == 0;
    if (*valid) {
        wayBack.arm();
    }
    return 0;
}

}  // namespace

int mkNsRunDir() {
    if (mkdir(netNsRunDir, 0755) == 0 || errno == EEXIST) {
        return 0;
    }
    return resultOf(failed("Failed to create ns dir ", netNsRunDir, ": "));
}

DIR* openNsRunDir() {
    DIR* const directory = opendir(netNsRunDir);
    if (directory == nullptr) {
        failed("Failed to open ns dir ", netNsRunDir, ": ");
    }
    return directory;
}

int remountNsRunDir() {
    if (shareRunDir()) {
        return 0;
    }
    return resultOf(errno == EINVAL ? bindAndShareRunDir() : failedToShareRunDir());
}

int netNsExists(const char* name) {
    struct stat status;
    const RunPath path(name);
    if (!path.isGood()) {
        return 0;
    }
    if (stat(path.text(), &status) == 0) {
        return 1;
    }
    if (errno != ENOENT) {
        failed("stat failed for ", path.text(), ": ");
    }
    return 0;
}

int64_t netNsInode(const char* name) {
    struct stat status;
    const RunPath path(name);
    if (!path.isGood()) {
        return -1;
    }
    if (stat(path.text(), &status) != 0) {
        return resultOf(failed("stat failed for ", path.text(), ": "));
    }
    return static_cast<int64_t>(status.st_ino);
}

int netNsAdd(const char* name) {
    struct stat status;
    if (stat(threadNetNsFile, &status) != 0) {
        return resultOf(failed("stat failed for ", PROC_SELF_NS_NET_FILE, ": "));
    }
    const RunPath path(name);
    if (!path.isGood()) {
        return -1;
    }
    (void)mkNsRunDir();           // Where it fails, so does the mount point.
    MountPoint mountPoint(path);  // Outlives `wayBack`: the thread returns before it is removed.
    NetNsReturn wayBack;
    if (!wayBack.isOpen()) {
        return resultOf(failedToOpenOwnNetNs());
    }
    if (!mountPoint.create()) {
        return resultOf(failed("Cannot open ", path.text(), ": "));
    }
    if (!bindNewNetNs(wayBack, path) || !configureLo(name)) {
        return -1;
    }
    mountPoint.keep();
    return 0;
}

int netNsAddEvenIfPresent(const char* name) {
    return netNsDelete(name) == 0 ? netNsAdd(name) : -1;
}

int netNsDelete(const char* name) {
    const RunPath path(name);
    return resultOf(path.isGood() && removePath(path.text()));
}

int mountDefaultNetNs() {
    struct stat own;
    // The main thread's namespace, whichever thread calls.
    if (stat(PROC_SELF_NS_NET_FILE, &own) != 0) {
        return resultOf(failed("stat failed for ", PROC_SELF_NS_NET_FILE, ": "));
    }
    const RunPath path(DEFAULT_NS);
    struct stat named;
    if (stat(path.text(), &named) == 0) {
        if (isSameFile(named, own)) {
            MOX_TRACE(facility, 1, path.text(), " exists");
            return 0;
        }
    } else if (errno != ENOENT) {  // A file that cannot be examined is not replaced.
        return resultOf(failed("stat failed for ", path.text(), ": "));
    }
    (void)mkNsRunDir();
    if (!removePath(path.text())) {
        return -1;
    }
    MountPoint mountPoint(path);
    if (!mountPoint.create()) {
        return resultOf(failed("open failed for ", path.text(), ": "));
    }
    if (!bindNetNs(PROC_SELF_NS_NET_FILE, path.text())) {
        return resultOf(failed("Bind ", PROC_SELF_NS_NET_FILE, " -> ", path.text(), " failed: "));
    }
    mountPoint.keep();
    return 0;
}

int moveIntfNetNs(const char* intf, const char* fromNs, const char* toNs) {
    if (moveIntf(intf, fromNs, toNs)) {
        return 0;
    }
    MOX_TRACE(facility, 0, "Interface ", intf, " not moved from ", nameOf(fromNs), " to ",
              nameOf(toNs));
    return -1;
}

int validateNetNs(const Mox::String& name, bool* valid) {
    MOX_TRACE(facility, 9, "Net Namespace: ", name);
    const bool isWhole = name.view().find('\0') == std::string_view::npos;
    return validate([&] { return isWhole ? setNsByName(name.c_str()) : -1; }, valid);
}

int validateNetNs(int nsFd, bool* valid) {
    MOX_TRACE(facility, 9, "Net Namespace fd: ", nsFd);
    return validate([nsFd] { return setns(nsFd, CLONE_NEWNET); }, valid);
}

}  // namespace Pavo

int move_intf_netns(const char* intf, const char* fromNs, const char* toNs) {
    return Pavo::moveIntfNetNs(intf, fromNs, toNs);
}
