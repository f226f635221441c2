#include "netns/netns.h"

#include <fcntl.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr char runDir[] = "/var/run/netns/";
// "/proc/self" is the main thread, whichever thread opens it.
constexpr char processNamespacePath[] = "/proc/self/ns/net";
constexpr char threadNamespacePath[] = "/proc/thread-self/ns/net";
constexpr unsigned maxPathBytes = sizeof(runDir) + NAME_MAX;

thread_local char traceBuffer[512];

// Describes the error that `errno` holds in the trace buffer, and leaves `errno` as it was.
void traceError(const char* call, const char* object) {
    const int error = errno;
    char text[128];
    // A long object is cut, so that the error's text has room.
    snprintf(traceBuffer, sizeof(traceBuffer), "%.64s(%.300s): %s", call, object,
             strerror_r(error, text, sizeof(text)));
    errno = error;
}

int failed(const char* call, const char* object) {
    traceError(call, object);
    return -1;
}

int failedWith(int error, const char* call, const char* object) {
    errno = error;
    return failed(call, object);
}

// A descriptor whose `close` cannot lose data, so that its result is ignored.
class OwnedFd {
  public:
    explicit OwnedFd(int fd = -1) : fd_(fd) {}
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() {
        if (fd_ >= 0) {
            const int error = errno;
            close(fd_);
            errno = error;
        }
    }

    int fd() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    void fdIs(int fd) { fd_ = fd; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

// The namespace that a file refers to: two files of one namespace have the same identity.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const Identity&) const = default;
};

Identity identityIn(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

// The namespace in which the process started.
struct StartNamespace {
    int fd = -1;
    int error = 0;  // The errno with which it could not be opened, or 0.
    Identity identity;
    uint64_t cookie = 0;
};

constinit StartNamespace startNamespace;

// The kernel's number for the namespace of a socket; 0 where it has none (before Linux 5.14).
uint64_t cookieOf(const OwnedFd& socket) {
    uint64_t cookie = 0;
    socklen_t bytes = sizeof(cookie);
    (void)getsockopt(socket.fd(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &bytes);
    return cookie;
}

// Runs while the library is loaded, and early in a program that has it linked in, so that it
// precedes every switch.
[[gnu::constructor(101)]] void openStartNamespace() {
    startNamespace.cookie = cookieOf(OwnedFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
    startNamespace.fd = open(processNamespacePath, O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (startNamespace.fd < 0 || fstat(startNamespace.fd, &status) != 0) {
        startNamespace.error = errno;
        return;
    }
    startNamespace.identity = identityIn(status);
}

bool isStartName(const char* name) {
    return name == nullptr || *name == '\0' || strcmp(name, DEFAULT_NS) == 0;
}

// A namespace by its name: the start namespace's descriptor, borrowed, or the run path's, owned.
class Namespace {
  public:
    explicit Namespace(const char* name) : name_(isStartName(name) ? DEFAULT_NS : name) {}

    bool isStart() const { return isStartName(name_); }
    const char* name() const { return name_; }
    int fd() const { return isStart() ? startNamespace.fd : file_.fd(); }

    // These three return false, with the trace buffer filled, when they fail.
    bool open();
    bool getIdentity(Identity* identity) const;
    // A daemon that closes every descriptor when it goes into the background closes that of the
    // start namespace too, and its number may have been reused since.
    bool isUsable() const;

    int releaseFd() { return file_.release(); }

  private:
    const char* name_;
    OwnedFd file_;
};

bool Namespace::open() {
    if (isStart()) {
        if (startNamespace.error != 0) {
            failedWith(startNamespace.error, "open at start-up", processNamespacePath);
        }
        return startNamespace.error == 0;
    }
    char path[maxPathBytes];
    if (netnsRunPath(path, sizeof(path), name_) != 0) {
        return false;
    }
    file_.fdIs(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));  // A FIFO must not block.
    if (!file_.isOpen()) {
        failed("open", path);
    }
    return file_.isOpen();
}

bool Namespace::getIdentity(Identity* identity) const {
    if (isStart()) {
        *identity = startNamespace.identity;
        return true;
    }
    struct stat status;
    if (fstat(file_.fd(), &status) != 0) {
        failed("fstat", name_);
        return false;
    }
    *identity = identityIn(status);
    return true;
}

bool Namespace::isUsable() const {
    if (!isStart()) {
        return true;
    }
    struct stat status;
    if (fstat(startNamespace.fd, &status) != 0) {
        failed("fstat of the descriptor opened at start-up", processNamespacePath);
        return false;
    }
    if (identityIn(status) != startNamespace.identity) {
        failedWith(EBADF, "the descriptor opened at start-up was closed", processNamespacePath);
        return false;
    }
    return true;
}

// Returns the thread to the namespace `from`, or ends the process. Keeps `errno`.
void goBack(const OwnedFd& from) {
    const int error = errno;
    if (setns(from.fd(), CLONE_NEWNET) != 0) {
        failed("setns back", threadNamespacePath);
        fprintf(stderr, "netns: %s; the thread would stay in the wrong namespace\n", traceBuffer);
        abort();
    }
    errno = error;
}

int openSocket(int domain, int type, int protocol, const char* name) {
    const int fd = socket(domain, type | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        char object[NAME_MAX + 64];
        snprintf(object, sizeof(object), "%d, %d, %d in %s", domain, type, protocol, name);
        traceError("socket", object);
    }
    return fd;
}

// Calls `open` with the thread in the target, which it may be in already. The thread's own
// namespace is opened first, and not looked up: the look-up by path costs most of what opening it
// does.
template <class Open>
int openFrom(Namespace& target, Open open) {
    const OwnedFd from(::open(threadNamespacePath, O_RDONLY | O_CLOEXEC));
    if (!from.isOpen()) {
        return failed("open", threadNamespacePath);
    }
    struct stat here;
    if (fstat(from.fd(), &here) != 0) {
        return failed("fstat", threadNamespacePath);
    }
    Identity there;
    if (!target.open() || !target.getIdentity(&there)) {
        return -1;
    }
    if (identityIn(here) == there) {
        return open();
    }
    if (!target.isUsable()) {
        return -1;
    }
    if (setns(target.fd(), CLONE_NEWNET) != 0) {
        return failed("setns", target.name());
    }
    const int fd = open();
    goBack(from);
    return fd;
}

// Opens a socket of the start namespace. Most threads are in it: the socket itself shows whether
// this one is, which costs a tenth of what /proc does, and works without /proc. Only a thread that
// is elsewhere, or may be, asks /proc.
int openStartSocket(int domain, int type, int protocol) {
    OwnedFd opened(openSocket(domain, type, protocol, DEFAULT_NS));
    const int error = errno;
    if (!opened.isOpen() && (error == EMFILE || error == ENFILE || error == ENOMEM)) {
        return -1;  // As it would be in any namespace.
    }
    if (opened.isOpen() && startNamespace.cookie != 0) {
        const uint64_t cookie = cookieOf(opened);
        if (cookie == 0) {
            return failed("getsockopt", "SO_NETNS_COOKIE");
        }
        if (cookie == startNamespace.cookie) {
            return opened.release();
        }
    }
    struct stat here;
    const bool isHereKnown = stat(threadNamespacePath, &here) == 0;
    const bool hasProc = startNamespace.error != ENOENT && (isHereKnown || errno != ENOENT);
    if (hasProc && !isHereKnown) {
        return failed("stat", threadNamespacePath);
    }
    if (hasProc && identityIn(here) != startNamespace.identity) {
        Namespace start(DEFAULT_NS);
        return openFrom(start, [&] { return openSocket(domain, type, protocol, DEFAULT_NS); });
    }
    if (opened.isOpen() && !hasProc) {
        return failedWith(ENOENT, "stat", threadNamespacePath);
    }
    errno = error;
    return opened.release();
}

// Whether the open file is a namespace of the requested kind; 0 stands for any.
bool checkKind(int fd, int nstype, const char* name) {
    const int kind = ioctl(fd, NS_GET_NSTYPE);
    if (kind < 0 && errno != ENOTTY) {
        failed("ioctl NS_GET_NSTYPE", name);
        return false;
    }
    if (kind < 0 || (nstype != 0 && kind != nstype)) {
        failedWith(EINVAL, "not a namespace of the wanted kind", name);
        return false;
    }
    return true;
}

}  // namespace

const char DEFAULT_NS[] = "default";

int netnsSocketAt(int domain, int type, int protocol, const char* name) {
    Namespace target(name);
    if (target.isStart()) {
        return openStartSocket(domain, type, protocol);
    }
    return openFrom(target, [&] { return openSocket(domain, type, protocol, target.name()); });
}

int netnsOpenAt(const char* path, int flags, const char* name) {
    Namespace target(name);
    return openFrom(target, [&] {
        const int fd = open(path, flags | O_CLOEXEC);
        return fd >= 0 ? fd : failed("open", path);
    });
}

int netnsRunPath(char* buffer, unsigned size, const char* name) {
    if (name == nullptr || *name == '\0') {
        return failedWith(EINVAL, "netnsRunPath", "empty namespace name");
    }
    if (strchr(name, '/') != nullptr || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
        return failedWith(EINVAL, "netnsRunPath", name);
    }
    const size_t nameBytes = strlen(name);
    if (nameBytes > NAME_MAX || sizeof(runDir) + nameBytes > size) {
        return failedWith(ENAMETOOLONG, "netnsRunPath", name);
    }
    memcpy(buffer, runDir, sizeof(runDir) - 1);
    memcpy(buffer + sizeof(runDir) - 1, name, nameBytes + 1);
    return 0;
}

int setnsByName(const char* name, int nstype) {
    Namespace target(name);
    if (!target.open() || !target.isUsable()) {
        return -1;
    }
    return setns(target.fd(), nstype) == 0 ? 0 : failed("setns", target.name());
}

int getnsByName(const char* name, int nstype) {
    Namespace target(name);
    if (!target.open() || !target.isUsable() || !checkKind(target.fd(), nstype, target.name())) {
        return -1;
    }
    if (!target.isStart()) {
        return target.releaseFd();
    }
    const int copy = fcntl(target.fd(), F_DUPFD_CLOEXEC, 0);
    return copy >= 0 ? copy : failed("fcntl F_DUPFD_CLOEXEC", target.name());
}

const char* netnsGetTracebuffer() {
    return traceBuffer;
}
