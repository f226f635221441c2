// No header that declares an interposed function is included here (pthread_create excepted, which
// comes with the C++ library): on i386 with 64-bit time those headers rename functions, and with
// fortification they define some.
#include "support/FailSyscall.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace PavoTest {
namespace {

// Constant-initialized and trivial, so that the first calls of a starting program may look at it.
constinit thread_local FailSyscall* innermost = nullptr;

}  // namespace

FailSyscall::FailSyscall(unsigned n, int error, std::string_view filter, bool andAllAfter)
    : n_(n), error_(error), filter_(filter), andAllAfter_(andAllAfter), outer_(innermost) {
    innermost = this;
}

void FailSyscall::disarm() {
    if (armed_) {
        armed_ = false;
        innermost = outer_;
    }
}

bool FailSyscall::counts(const char* name) const {
    if (filter_.empty() || filter_[0] == '!') {
        return strcmp(name, "writev") != 0 &&
               filter_.compare(filter_.empty() ? 0 : 1, std::string::npos, name) != 0;
    }
    return filter_ == name;
}

bool FailSyscall::failsNow(const char* name, long b, long c) {
    FailSyscall* const scope = innermost;
    if (scope == nullptr || !scope->counts(name)) {
        return false;
    }
    ++scope->count_;
    if (scope->count_ < scope->n_ || (scope->count_ > scope->n_ && !scope->andAllAfter_)) {
        return false;
    }
    scope->name_ = name;
    if (strcmp(name, "send") == 0) {
        scope->sent_.assign(reinterpret_cast<const char*>(b), static_cast<size_t>(c));
    }
    errno = scope->error_;
    return true;
}

}  // namespace PavoTest

namespace {

// Six words carry the arguments of every function here, variadic ones included: on x86-64 they
// are the six argument registers; on i386 they are on the stack, where a function of fewer
// arguments has its caller's frame after them, which is passed on unread.
using Word = long;
using Function = Word (*)(Word, Word, Word, Word, Word, Word);

// Under a sanitizer linked into the program the interposed function takes the place of the
// sanitizer's own, which stays reachable under this prefix. (One in a shared library is simply the
// next in line; both ways lead to it.)
constexpr char sanitizerPrefix[] = "__interceptor_";

Function nextFunction(const char* symbol) {
    char sanitizerSymbol[64];
    snprintf(sanitizerSymbol, sizeof(sanitizerSymbol), "%s%s", sanitizerPrefix, symbol);
    void* found = dlsym(RTLD_DEFAULT, sanitizerSymbol);
    if (found == nullptr) {
        found = dlsym(RTLD_NEXT, symbol);
    }
    if (found == nullptr) {
        fprintf(stderr, "FailSyscall: no %s after the interposed one\n", symbol);
        abort();
    }
    return reinterpret_cast<Function>(found);
}

}  // namespace

// Defines `symbol`, which counts as `name`. The asm label gives the function its symbol without a
// word to the compiler, which has its own ideas about some of these names. Two threads that meet
// here first look up the same address. `failure` is what a call that fails returns.
#define PAVO_INTERPOSE(symbol, name, failure)                                                  \
    extern "C" __attribute__((visibility("default")))                                          \
    Word interposed_##symbol(Word a, Word b, Word c, Word d, Word e, Word f) __asm__(#symbol); \
    extern "C" Word interposed_##symbol(Word a, Word b, Word c, Word d, Word e, Word f) {      \
        static Function next = nullptr;                                                        \
        Function function = __atomic_load_n(&next, __ATOMIC_RELAXED);                          \
        if (function == nullptr) {                                                             \
            function = nextFunction(#symbol);                                                  \
            __atomic_store_n(&next, function, __ATOMIC_RELAXED);                               \
        }                                                                                      \
        if (PavoTest::FailSyscall::failsNow(#name, b, c)) {                                    \
            return failure;                                                                    \
        }                                                                                      \
        return function(a, b, c, d, e, f);                                                     \
    }

#define PAVO_COUNTED(symbol, name) PAVO_INTERPOSE(symbol, name, -1)

#define PAVO_COUNTED3(a, b, c) PAVO_COUNTED(a, a) PAVO_COUNTED(b, b) PAVO_COUNTED(c, c)

PAVO_COUNTED3(socket, bind, accept4)
PAVO_COUNTED3(getsockname, setsockopt, getsockopt)
PAVO_COUNTED3(send, sendmsg, recv)
PAVO_COUNTED3(recvfrom, recvmsg, fcntl)
PAVO_COUNTED3(connect, sendmmsg, recvmmsg)
PAVO_COUNTED3(ioctl, epoll_ctl, epoll_wait)
PAVO_COUNTED3(open, stat, fstat)
PAVO_COUNTED3(mkdir, unlink, mount)
PAVO_COUNTED3(umount2, setns, unshare)
PAVO_COUNTED(writev, writev)
// What headers make of some of them for 64-bit files and times on i386, and with fortification.
PAVO_COUNTED(__recv_chk, recv)
PAVO_COUNTED(__recvfrom_chk, recvfrom)
PAVO_COUNTED(fcntl64, fcntl)
PAVO_COUNTED(open64, open)
PAVO_COUNTED(__open_2, open)
PAVO_COUNTED(__open64_2, open)
PAVO_COUNTED(stat64, stat)
PAVO_COUNTED(fstat64, fstat)
PAVO_INTERPOSE(pthread_create, pthread_create, errno)
#ifdef __i386__
PAVO_COUNTED(__setsockopt64, setsockopt)
PAVO_COUNTED(__getsockopt64, getsockopt)
PAVO_COUNTED(__sendmsg64, sendmsg)
PAVO_COUNTED(__recvmsg64, recvmsg)
PAVO_COUNTED(__sendmmsg64, sendmmsg)
PAVO_COUNTED(__recvmmsg64, recvmmsg)
PAVO_COUNTED(__fcntl_time64, fcntl)
PAVO_COUNTED(__ioctl_time64, ioctl)
PAVO_COUNTED(__stat64_time64, stat)
PAVO_COUNTED(__fstat64_time64, fstat)
#endif
