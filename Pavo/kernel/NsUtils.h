/// @file
/// What namespace code shares: the names of the default namespace, and entering a namespace.
#pragma once

#include "Mox/String.h"

#include "Pavo/base/Export.h"

namespace Pavo {

/// The name of the namespace in which the process started, as a C string, which is there before any
/// code runs, and as text, which is there once this library is loaded.
PAVO_EXPORT extern const char* const DEFAULT_NS;
PAVO_EXPORT extern const Mox::String defaultNsStr;

/// The current network namespace. To the kernel it is that of the main thread, whatever thread
/// asks; functions here that say this path mean the calling thread's, save
/// `mountDefaultNetNs`.
inline constexpr char PROC_SELF_NS_NET_FILE[] = "/proc/self/ns/net";

/// Moves the calling thread into the named network namespace, for good (empty, null or
/// `DEFAULT_NS`: the one in which the process started). Gives 0; or -1 with `errno` as the failing
/// call left it and the thread where it was.
PAVO_EXPORT int setNsByName(const char* name);

}  // namespace Pavo

/// `Pavo::setNsByName` for C.
extern "C" PAVO_EXPORT int setns_by_name(const char* name);
