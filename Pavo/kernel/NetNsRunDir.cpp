#include "Pavo/kernel/NetNsRunDir.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include "Mox/Exception.h"

#include "Pavo/kernel/NetnsUtils.h"

namespace Pavo {

namespace {

constexpr char parentDir[] = "/var/run";

int checkedFd(int fd, const char* call) {
    if (fd < 0) {
        Mox::throwErrnoException(call);
    }
    return fd;
}

// Any other error, such as EMFILE, says nothing about what there is.
bool isMissing(int error) {
    return error == ENOENT || error == ENOTDIR;
}

}  // namespace

std::optional<int64_t> netNsInodeOf(const NamespaceName& name) {
    const std::string path = std::string(netNsRunDir) + "/" + name.value().c_str();
    const int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0) {
        return isMissing(errno) ? std::optional<int64_t>(-1) : std::nullopt;
    }
    // Through one descriptor, so that both are about the same file.
    struct statfs fileSystem;
    struct stat status;
    const bool isRead = fstatfs(fd, &fileSystem) == 0 && fstat(fd, &status) == 0;
    (void)close(fd);
    if (!isRead) {
        return std::nullopt;
    }
    return fileSystem.f_type == NSFS_MAGIC ? static_cast<int64_t>(status.st_ino) : -1;
}

std::optional<std::map<NamespaceName, int64_t>> netNsInodes() {
    std::map<NamespaceName, int64_t> inodes;
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(netNsRunDir), closedir);
    if (!dir) {
        return isMissing(errno) ? std::optional(inodes) : std::nullopt;
    }
    errno = 0;
    while (const dirent* const entry = readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && name.size() <= NamespaceName::maxBytes) {
            const NamespaceName nsName{Mox::String(name)};
            const std::optional<int64_t> inode = netNsInodeOf(nsName);
            if (!inode) {
                return std::nullopt;
            }
            inodes[nsName] = *inode;
        }
        errno = 0;
    }
    return errno == 0 ? std::optional(inodes) : std::nullopt;
}

NetNsRunDirWatch::NetNsRunDirWatch(std::function<void()> handler)
    : handler_(std::move(handler)),
      inotify_(Mox::fileDescriptorFactory(
          checkedFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify_init1"))),
      mounts_(Mox::fileDescriptorFactory(
          checkedFd(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC), "open"))),
      nameWatch_(inotify_, Mox::FileDescriptor::readableCountAttr, [this] { handleNames(); }),
      mountWatch_(mounts_, Mox::FileDescriptor::readableCountAttr, [this] {
          watchDirectories();  // A mount may hide the directory that was watched.
          handler_();
      }) {
    watchDirectories();
    inotify_->watchingIs(Mox::FileDescriptor::Watching::level);
    inotify_->notifyOnReadableIs(true);
    // The file is readable at any time, and has an event with each change (proc(5)).
    mounts_->watchingIs(Mox::FileDescriptor::Watching::edge);
    mounts_->notifyOnReadableIs(true);
}

// The parent first, so that a directory that comes between the two calls is noticed. Watching again
// what is watched changes nothing.
void NetNsRunDirWatch::watchDirectories() {
    constexpr uint32_t comings = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
    inotify_add_watch(inotify_->descriptor(), parentDir, comings);
    inotify_add_watch(inotify_->descriptor(), netNsRunDir, comings | IN_DELETE | IN_MOVED_FROM);
}

// What the events say is read from the directory instead: they may have been too many.
void NetNsRunDirWatch::handleNames() {
    alignas(inotify_event) char buffer[4096];
    while (read(inotify_->descriptor(), buffer, sizeof(buffer)) > 0) {
    }
    watchDirectories();
    handler_();
}

}  // namespace Pavo
