/// @file
/// Opening sockets inside a named network namespace.
#pragma once

#include "Pavo/base/Export.h"

namespace Pavo {

/// Opens a socket of the given domain, type and protocol inside the network namespace `netNsName`
/// (empty, null or `DEFAULT_NS`: the one in which the process started), with close-on-exec set.
/// Returns the descriptor, or -1 with the `errno` of the failing call. In both cases the thread is
/// back in its own namespace.
PAVO_EXPORT int socketAt(int domain, int type, int protocol, const char* netNsName);

}  // namespace Pavo

/// `Pavo::socketAt` for C.
extern "C" PAVO_EXPORT int socket_at(int domain, int type, int protocol, const char* netNsName);
