/// @file
/// Work in another network namespace for the length of a scope.
#pragma once

#include "Pavo/base/Export.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The way back to the network namespace in which the calling thread is when this is constructed,
/// for code that leaves it by a call of its own, such as unshare(2). Once armed, the thread returns
/// at the end of the scope; when it cannot, the process ends with the assertion
/// "setns( curr_netns_fd, 0x40000000 ) == 0". `errno` is unchanged at the end of the scope.
class PAVO_EXPORT NetNsReturn {
  public:
    /// Opens the thread's namespace. When that fails `isOpen()` is false, with `errno` as open(2)
    /// left it, and the namespace must not be left.
    NetNsReturn();
    NetNsReturn(const NetNsReturn&) = delete;
    NetNsReturn& operator=(const NetNsReturn&) = delete;
    ~NetNsReturn();

    /// Whether the way back is open.
    bool isOpen() const { return fd_ >= 0; }
    /// To be called when the thread has left. A thread that stays needs no return, for which it may
    /// lack the privilege.
    void arm() { isArmed_ = true; }
    /// Returns before the scope ends; or fails, with `errno` set, and the end of the scope tries
    /// again.
    bool goBack();

  private:
    int fd_;
    bool isArmed_ = false;
};

/// Moves the calling thread into a network namespace for the length of a scope. At its end, also
/// after an exception, the thread returns to the namespace it came from, with `errno` unchanged;
/// when it cannot return, the process ends with the assertion of `NetNsReturn`. Requires
/// CAP_SYS_ADMIN.
///
/// Only the calling thread moves, and it has to destroy the object itself, the innermost first. A
/// socket opened inside the scope stays in the named namespace. Do not run inside
/// - code that starts threads: they would stay in the named namespace;
/// - a turn of an event loop, or anything that notifies observers: their code would run there too;
/// - a call that enters a namespace for good (`setNsByName`): the end of the scope undoes it.
///
/// `socketAt` opens a single socket without a scope.
class PAVO_EXPORT ScopedNetNs {
  public:
    /// The name is as for `setNsByName`.
    /// @throws Mox::ErrnoException "Cannot open /proc/self/ns/net", or "Cannot setns to " and the
    /// name; the thread is then where it was.
    [[nodiscard]] explicit ScopedNetNs(const char* name);
    /// As with the text of the name.
    [[nodiscard]] explicit ScopedNetNs(const NamespaceName& name)
        : ScopedNetNs(name.value().c_str()) {}

  private:
    NetNsReturn wayBack_;
};

}  // namespace Pavo
