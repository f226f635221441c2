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

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "netns/netns.h"

#include "Pavo/kernel/NetlinkUtils.h"
#include "Pavo/kernel/NsUtils.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::NetnsUtils");

constexpr char netNsRunDir[] = "/var/run/netns";
// What PROC_SELF_NS_NET_FILE stands for, off the main thread too.
constexpr char threadNetNsFile[] = "/proc/thread-self/ns/net";

// For traces: null means the default namespace too.
const char* nameOf(const char* netNs) {
    return netNs == nullptr ? DEFAULT_NS : netNs;
}

// Traces the pieces and the text of `errno`; gives false, for a caller to return.
template <class... Pieces>
bool failed(const Pieces&... pieces) {
    MOX_TRACE(facility, 0, pieces..., std::strerror(errno));
    return false;
}

// What the functions of the interface return.
int resultOf(bool good) {
    return good ? 0 : -1;
}

// Closes the descriptor, with `closeText` as the assertion that this works, so that `errno` stays.
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

// The thread's namespace, to come back to.
class CurrentNetNs : public OwnedFd {
  public:
    CurrentNetNs()
        : OwnedFd(open(threadNetNsFile, O_RDONLY | O_CLOEXEC), "close( curr_netns_fd ) == 0") {
        if (!isOpen()) {
            failed("Cannot open ", PROC_SELF_NS_NET_FILE, ": ");
        }
    }
};

// Made where a namespace has been left; leads back at the end of the scope, or ends the process.
class WayBack {
  public:
    explicit WayBack(const CurrentNetNs& from) : from_(from) {}
    WayBack(const WayBack&) = delete;
    WayBack& operator=(const WayBack&) = delete;
    ~WayBack() { Mox::require(isBack_ || goBack(), "setns( curr_netns_fd, 0x40000000 ) == 0"); }

    // Goes back before the scope ends. When that fails the end of the scope tries again.
    bool goBack() {
        isBack_ = setns(from_.fd(), CLONE_NEWNET) == 0;
        return isBack_;
    }

  private:
    const CurrentNetNs& from_;
    bool isBack_ = false;
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

// A file made to bind a namespace to, removed with what is bound to it unless it is to be kept.
class MountPoint {
  public:
    explicit MountPoint(const RunPath& path) : path_(path) {}
    MountPoint(const MountPoint&) = delete;
    MountPoint& operator=(const MountPoint&) = delete;
    ~MountPoint();

    bool create() {
        const OwnedFd file(open(path_.text(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0),
                           "close( fd ) == 0");
        isToGo_ = file.isOpen();
        return isToGo_;
    }
    void keep() { isToGo_ = false; }

  private:
    const RunPath& path_;
    bool isToGo_ = false;
};

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

bool bindNetNs(const char* source, const char* target) {
    return mount(source, target, "none", MS_BIND, nullptr) == 0;
}

bool removePath(const char* path) {
    if (umount2(path, MNT_DETACH) != 0) {
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
    if (isToGo_) {
        const Mox::ErrnoKeeper keeper;
        removePath(path_.text());
    }
}

// Leaves the thread where it was.
bool bindNewNetNs(const CurrentNetNs& here, const RunPath& path) {
    if (unshare(CLONE_NEWNET) != 0) {
        return failed("Cannot unshare ", path.text(), ": ");
    }
    WayBack wayBack(here);
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

// `socketAt` takes the default name for the namespace in which the process started, whose `lo` is
// not this function's business.
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
    (void)umount2(netNsRunDir, MNT_DETACH);  // What failed first is what is reported.
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
        errno = ERANGE;  // As the kernel says of a name that is too long, but fits here.
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

// Calls `enter`, which gives 0 when it has taken the thread to another namespace. A thread that
// stayed has no way back to go, for which it may lack the privilege as well.
template <class Enter>
int validate(Enter enter, bool* valid) {
    const CurrentNetNs here;
    if (!here.isOpen()) {
        return -1;
    }
    const bool entered = enter() == 0;
    if (entered) {
        const WayBack wayBack(here);
    }
    *valid = entered;
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
    (void)mkNsRunDir();  // Without it the mount point fails.
    const CurrentNetNs here;
    if (!here.isOpen()) {
        return -1;
    }
    MountPoint mountPoint(path);
    if (!mountPoint.create()) {
        return resultOf(failed("Cannot open ", path.text(), ": "));
    }
    if (!bindNewNetNs(here, path) || !configureLo(name)) {
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
    // Here the main thread's is meant, wherever the calling thread may be.
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
    } else if (errno != ENOENT) {  // What cannot be looked at is not replaced.
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
    return validate([&] { return setNsByName(name.c_str()); }, valid);
}

int validateNetNs(int nsFd, bool* valid) {
    MOX_TRACE(facility, 9, "Net Namespace fd: ", nsFd);
    return validate([nsFd] { return setns(nsFd, CLONE_NEWNET); }, valid);
}

}  // namespace Pavo

int move_intf_netns(const char* intf, const char* fromNs, const char* toNs) {
    return Pavo::moveIntfNetNs(intf, fromNs, toNs);
}
