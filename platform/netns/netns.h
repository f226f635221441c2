/// @file
/// Named network namespaces for the calling thread: opening a socket or a file in one, entering
/// one, getting a descriptor of one. A C interface, usable alone.
///
/// A namespace is named by a file below "/var/run/netns", in the layout of ip-netns(8).
/// `DEFAULT_NS`, the empty name and a null pointer mean the namespace in which the process
/// started: the library opens it when it is loaded and needs no file for it, and a file that
/// happens to have that name is ignored.
///
/// Every function acts on the calling thread alone and may be called from several threads at once.
/// A failure leaves `errno` as the failing system call set it, and a description in the trace
/// buffer.
#pragma once

#if defined(__GNUC__)
/// Before a function: its symbol is visible outside the library.
#define NETNS_EXPORT __attribute__((visibility("default")))
#else
#define NETNS_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// The name of the namespace in which the process started: "default".
extern NETNS_EXPORT const char DEFAULT_NS[];

/// A socket of the given domain, type and protocol that lives in the named namespace, or -1. The
/// descriptor has close-on-exec set whether `type` asks for it or not.
///
/// The thread returns to the namespace it came from, whatever fails; when it cannot, the process
/// ends with a message on standard error, since every later socket would be in the wrong namespace.
/// A thread that is in the namespace already is not switched and needs no privilege. Without /proc
/// a thread cannot be switched: then only sockets of the namespace in which the process started can
/// be opened, by a thread that is in it (Linux 5.14); others fail with ENOENT.
NETNS_EXPORT int netnsSocketAt(int domain, int type, int protocol, const char* name);

/// A descriptor of the file `path`, opened with `flags` (open(2), without O_CREAT) by a thread that
/// is in the named namespace, or -1: for devices that belong to the namespace of their opener, such
/// as /dev/net/tun. The rest is as for `netnsSocketAt`, but without /proc it fails with ENOENT.
NETNS_EXPORT int netnsOpenAt(const char* path, int flags, const char* name);

/// Writes "/var/run/netns/<name>" and its terminating zero to `buffer`, which holds `size` bytes.
/// Returns 0, or -1 with the buffer unchanged: EINVAL for a name that is null, empty, "." or "..",
/// or has a slash in it; ENAMETOOLONG for one of more than 255 bytes, or one that does not fit.
/// `DEFAULT_NS` is a name like any other here.
NETNS_EXPORT int netnsRunPath(char* buffer, unsigned size, const char* name);

/// Moves the calling thread into the named namespace, for good. `nstype` is CLONE_NEWNET, or 0 for
/// whatever kind the file is. Returns 0, or -1 with the thread where it was.
NETNS_EXPORT int setnsByName(const char* name, int nstype);

/// A new descriptor of the named namespace, with close-on-exec set, which the caller closes; or -1.
/// A file that is not a namespace of kind `nstype` (CLONE_NEWNET, or 0 for any kind) fails with
/// EINVAL.
NETNS_EXPORT int getnsByName(const char* name, int nstype);

/// The last failure in this library on the calling thread: the call, its object and the error's
/// text. Empty before the first failure; valid until the thread's next one.
NETNS_EXPORT const char* netnsGetTracebuffer(void);

#ifdef __cplusplus
}
#endif
