/// @file
/// Opening sockets inside a named network namespace.
#pragma once

#include "Pavo/base/Export.h"

namespace Pavo {

/// A socket of the given domain, type and protocol inside the network namespace `netNsName` (empty,
/// null or `DEFAULT_NS`: the one in which the process started), with close-on-exec set; or -1 with
/// `errno` as the failing call left it. The thread is back in its own namespace afterwards.
PAVO_EXPORT int socketAt(int domain, int type, int protocol, const char* netNsName);

}  // namespace Pavo

/// `Pavo::socketAt` for C.
extern "C" PAVO_EXPORT int socket_at(int domain, int type, int protocol, const char* netNsName);
