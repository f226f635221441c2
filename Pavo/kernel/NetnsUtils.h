/// @file
/// Named network namespaces: making, removing and checking them, and moving interfaces between
/// them.
///
/// A name is a file below "/var/run/netns" onto which the namespace is bound, in the layout of
/// ip-netns(8), so that namespaces made here and there are interchangeable. Making one takes
/// CAP_SYS_ADMIN.
///
/// Unless stated otherwise the functions give 0, or -1 with `errno` as the first failing call left
/// it and its story in the trace. A name that is null, empty, "." or "..", or has a slash in it,
/// fails with EINVAL, one of more than 255 bytes with ENAMETOOLONG, before anything is touched.
/// `DEFAULT_NS` is a name like any other where a file is made, removed or looked at, and the
/// namespace in which the process started where a namespace is entered.
///
/// Namespaces are switched for the calling thread alone, whichever it is, and it is back in its own
/// when a function returns; when it cannot return, the process ends with the assertion
/// "setns( curr_netns_fd, 0x40000000 ) == 0".
#pragma once

#include <dirent.h>

#include <cstdint>

#include "Mox/String.h"

#include "Pavo/base/Export.h"

namespace Pavo {

/// Makes "/var/run/netns", with mode 0755. Gives 0 also when it is there already.
PAVO_EXPORT int mkNsRunDir();
/// Opens "/var/run/netns", for the caller to read and to close; or null.
PAVO_EXPORT DIR* openNsRunDir();
/// Makes "/var/run/netns", which must exist, a mount point that is shared with other mount
/// namespaces, so that names that are bound there later are seen in them. Where it is not a mount
/// point yet, it is bound onto itself, which hides names that were bound before. May be repeated.
PAVO_EXPORT int remountNsRunDir();

/// 1 when there is a file of that name, be it a namespace or not; else 0.
PAVO_EXPORT int netNsExists(const char* name);
/// The inode number of the name's file, which tells namespaces apart; or -1.
PAVO_EXPORT int64_t netNsInode(const char* name);

/// Makes a network namespace of that name, with its `lo` up, unless the name is `DEFAULT_NS`.
/// Fails with EEXIST when the name is taken. A failure removes what the call has made, and nothing
/// else.
PAVO_EXPORT int netNsAdd(const char* name);
/// As `netNsAdd`, in place of a namespace that has the name.
PAVO_EXPORT int netNsAddEvenIfPresent(const char* name);
/// Takes the name away; gives 0 also when there is none. The namespace itself goes when its last
/// socket and thread have left.
PAVO_EXPORT int netNsDelete(const char* name);
/// Binds the process's namespace, that of its main thread, to the name `DEFAULT_NS`, instead of
/// whatever has the name. Does nothing when that is the same one, and fails where it cannot look.
PAVO_EXPORT int mountDefaultNetNs();

/// Moves an interface, which arrives down and without its addresses. Both names are as for
/// `socketAt`.
PAVO_EXPORT int moveIntfNetNs(const char* intf, const char* fromNs, const char* toNs);

/// Tells whether the calling thread can enter a namespace, of a name (as for `setNsByName`) or of a
/// descriptor. Gives -1, with `*valid` unchanged, when that cannot be tried.
/// @{
PAVO_EXPORT int validateNetNs(const Mox::String& name, bool* valid);
PAVO_EXPORT int validateNetNs(int nsFd, bool* valid);
/// @}

}  // namespace Pavo

/// `Pavo::moveIntfNetNs` for C.
extern "C" PAVO_EXPORT int move_intf_netns(const char* intf, const char* fromNs, const char* toNs);
