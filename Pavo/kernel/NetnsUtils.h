/// @file
/// Named network namespaces: creating, removing and checking them, and moving interfaces between
/// them.
///
/// A name is a file below "/var/run/netns" onto which the namespace is bound, in the layout of
/// ip-netns(8), so that the namespaces of Pavo and of that tool are interchangeable. Creating one
/// takes CAP_SYS_ADMIN.
///
/// Unless stated otherwise the functions return 0, or -1 with `errno` as the first failing call
/// left it and a trace of level 0. A name that is null, empty, "." or "..", or has a slash in it,
/// fails with EINVAL, one of more than 255 bytes with ENAMETOOLONG, before anything is changed.
/// `DEFAULT_NS` is a name like any other where a file is created, removed or examined, and the
/// namespace in which the process started where a namespace is entered.
///
/// Only the calling thread switches between namespaces, and it is back in its own when a function
/// returns; when it cannot return, the process ends with the assertion
/// "setns( curr_netns_fd, 0x40000000 ) == 0".
#pragma once

#include <dirent.h>

#include <cstdint>

#include "Mox/String.h"

#include "Pavo/base/Export.h"

namespace Pavo {

/// Creates "/var/run/netns", with mode 0755. Returns 0 also when it exists already.
PAVO_EXPORT int mkNsRunDir();
/// Opens "/var/run/netns" for reading; the caller closes it. Null on failure.
PAVO_EXPORT DIR* openNsRunDir();
/// Makes "/var/run/netns", which must exist, a mount point that is shared with other mount
/// namespaces, so that names bound there later are visible in them. Where it is not a mount point
/// yet, it is bound onto itself, which hides names that were bound before. Idempotent.
PAVO_EXPORT int remountNsRunDir();

/// 1 when there is a file of that name, whether a namespace or not; else 0.
PAVO_EXPORT int netNsExists(const char* name);
/// The inode number of the name's file, which identifies the namespace; or -1.
PAVO_EXPORT int64_t netNsInode(const char* name);

/// Creates a network namespace of that name. Its `lo` is up, unless the name is `DEFAULT_NS`. Fails
/// with EEXIST when the name is taken. A failure removes what the call created, and nothing else.
PAVO_EXPORT int netNsAdd(const char* name);
/// As `netNsAdd`, after `netNsDelete`.
PAVO_EXPORT int netNsAddEvenIfPresent(const char* name);
/// Removes the name; returns 0 also when there is none. The namespace itself ends with its last
/// socket and thread. A symbolic link is removed, and what it leads to is left alone. Fails with
/// EISDIR for a directory, which is left as it is, and with EBUSY, after one of the mounts was
/// detached, when several are stacked on the name.
PAVO_EXPORT int netNsDelete(const char* name);
/// Binds the process's namespace, that of its main thread, to the name `DEFAULT_NS`, and replaces
/// what had the name. Changes nothing when the name stands for that namespace already, and fails
/// when the file cannot be examined.
PAVO_EXPORT int mountDefaultNetNs();

/// Moves an interface, which arrives down and without its addresses. Both names are as for
/// `socketAt`.
PAVO_EXPORT int moveIntfNetNs(const char* intf, const char* fromNs, const char* toNs);

/// Whether the calling thread can enter a namespace, given by name (as for `setNsByName`) or by
/// descriptor. Returns -1, with `*valid` unchanged, when that cannot be tried.
/// @{
PAVO_EXPORT int validateNetNs(const Mox::String& name, bool* valid);
PAVO_EXPORT int validateNetNs(int nsFd, bool* valid);
/// @}

}  // namespace Pavo

/// `Pavo::moveIntfNetNs` for C.
extern "C" PAVO_EXPORT int move_intf_netns(const char* intf, const char* fromNs, const char* toNs);
