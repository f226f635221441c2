/// @file
/// Buffer sizes of sockets.
#pragma once

#include <sys/socket.h>

#include "Pavo/base/Export.h"

namespace Pavo {

/// A buffer-size option at level SOL_SOCKET: its name, the privileged form that ignores the
/// kernel's ceiling, and the form that obeys it (socket(7)).
///
/// Members: the name for errors, and the numbers of the two forms.
struct SockOpt {
    const char* name;
    int primary;
    int fallback;
};

/// The size of the send buffer; the kernel doubles what is set.
inline constexpr SockOpt sendBufferOpt{"SO_SNDBUF", SO_SNDBUFFORCE, SO_SNDBUF};
/// The size of the receive buffer; the kernel doubles what is set.
inline constexpr SockOpt receiveBufferOpt{"SO_RCVBUF", SO_RCVBUFFORCE, SO_RCVBUF};

/// Sets `opt` to `value`, in bytes, with the primary option; if that fails, with the fallback.
/// Returns 0, or the fallback's result with its `errno`.
PAVO_EXPORT int setOptWithFallback(int fd, int value, SockOpt opt);

/// Sets the sizes of the send buffer and then of the receive buffer, in bytes; -1 leaves a size
/// unchanged. Returns 0, or the first failing result with `errno`: when the send buffer fails, the
/// receive buffer is not tried.
PAVO_EXPORT int setSocketBufferSize(int fd, int sndBuf, int rcvBuf);

}  // namespace Pavo
