/// @file
/// The names of the default namespace, and entering a namespace.
#pragma once

#include "Mox/String.h"

#include "Pavo/base/Export.h"

namespace Pavo {

/// The name of the namespace in which the process started: as a C string, initialized before any
/// code runs, and as text, initialized when this library is loaded.
/// @{
PAVO_EXPORT extern const char* const DEFAULT_NS;
PAVO_EXPORT extern const Mox::String defaultNsStr;
/// @}

/// The network namespace of the main thread, whichever thread opens it. Traces and errors show this
/// path also where a function uses the calling thread's namespace.
inline constexpr char PROC_SELF_NS_NET_FILE[] = "/proc/self/ns/net";

/// Moves the calling thread into the named network namespace, for good (empty, null or
/// `DEFAULT_NS`: the one in which the process started). Returns 0; or -1 with `errno` as the
/// failing call left it and the thread where it was. `ScopedNetNs` is the form that returns.
PAVO_EXPORT int setNsByName(const char* name);

}  // namespace Pavo

/// `Pavo::setNsByName` for C.
extern "C" PAVO_EXPORT int setns_by_name(const char* name);
