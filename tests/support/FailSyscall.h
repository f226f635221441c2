/// @file
/// Makes the n-th system call of a piece of code fail, without a hook in the product.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

namespace PavoTest {

/// While an object of this class lives, the system calls that its thread makes through the C
/// library's functions are counted, and the n-th fails with a chosen error without reaching the
/// kernel. The functions are defined in the test program, so the calls of shared libraries come
/// here too; those of other threads and of the C library itself do not.
///
/// Counted are the calls of the libraries that open, set up, switch, mount, look up or transfer
/// (the list is in the source), but not `close`, and not `read` and `write`, which traces and test
/// output use; `writev`, which they use too, only where the filter names it. A function and its
/// variants count under the plain name: `fcntl64` is "fcntl".
///
/// A filter is empty, a name ("setns": count only these) or an exclamation mark and a name
/// ("!setns": count all but these, for calls whose failure ends the process).
///
/// Keep everything but the code under test out of the scope. Scopes nest; the innermost counts.
class FailSyscall {
  public:
    /// Fails the n-th counted call, from 1, with `error`, and on request all that follow; with a
    /// filter, those that pass it.
    FailSyscall(unsigned n, int error, std::string_view filter = {}, bool andAllAfter = false);
    FailSyscall(const FailSyscall&) = delete;
    FailSyscall& operator=(const FailSyscall&) = delete;
    ~FailSyscall() { disarm(); }

    /// Ends the counting before the scope does.
    void disarm();

    bool happened() const { return name_ != nullptr; }
    /// The plain name of the call that was made to fail, "" while none was.
    const char* name() const { return happened() ? name_ : ""; }
    /// What that call was to transfer, when it was a `send`.
    const std::string& sent() const { return sent_; }
    /// Calls counted so far, the failed one among them.
    unsigned count() const { return count_; }

    /// For the interposed functions: whether this call, with its second and
    /// third argument, is the one to fail; `errno` is then set.
    static bool failsNow(const char* name, long b, long c);

  private:
    bool counts(const char* name) const;

    unsigned n_;
    int error_;
    std::string filter_;
    bool andAllAfter_;
    unsigned count_ = 0;
    const char* name_ = nullptr;
    std::string sent_;
    FailSyscall* outer_;
    bool armed_ = true;
};

/// Runs `operation()` with its first call failing, then its second, and so on, until a run ends
/// before the failure happened. After each run with a failure, calls
/// `check(const FailSyscall& fail, result, errnoLeft)` with `operation`'s result. Gives the number
/// of failures, for a test to see that there were some; the last run, which met none, leaves
/// whatever the operation leaves on success.
template <typename Operation, typename Check>
unsigned failEachSyscall(int error, Operation operation, Check check,
                         std::string_view filter = {}) {
    for (unsigned n = 1;; ++n) {
        FailSyscall fail(n, error, filter);
        errno = 0;
        const auto result = operation();
        const int errnoLeft = errno;
        fail.disarm();
        if (!fail.happened()) {
            return n - 1;
        }
        SCOPED_TRACE("call " + std::to_string(n) + ", " + fail.name() + ": " + strerror(error));
        check(fail, result, errnoLeft);
    }
}

}  // namespace PavoTest
