/// @file
/// The common part of the sources of the sandbox: failures as exceptions, and descriptors with an
/// owner.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace PavoSandbox {

inline std::runtime_error systemError(const std::string& what) {
    return std::runtime_error(what + ": " + strerror(errno));
}

inline void check(bool good, const std::string& what) {
    if (!good) {
        throw systemError(what);
    }
}

class OwnedFd {
  public:
    explicit OwnedFd(int fd) : fd_(fd) {}
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { close(); }

    int fd() const { return fd_; }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

  private:
    int fd_;
};

inline int openOrThrow(const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC, 0600);
    check(fd >= 0, "open " + path);
    return fd;
}

}  // namespace PavoSandbox
