#include "Pavo/socket/SockBufUtils.h"

#include <cerrno>
#include <cstring>

#include "Mox/Trace.h"

namespace Pavo {

namespace {
Mox::TraceFacility facility("Pavo::SockBufUtils");
}

int setOptWithFallback(int fd, int value, SockOpt opt) {
    if (setsockopt(fd, SOL_SOCKET, opt.primary, &value, sizeof(value)) == 0) {
        return 0;
    }
    MOX_TRACE(facility, 1, "setOptWithFallback", " warning: failed to set primary ", opt.name,
              " for socket ", fd, ": ", std::strerror(errno));
    errno = 0;
    const int result = setsockopt(fd, SOL_SOCKET, opt.fallback, &value, sizeof(value));
    if (result != 0) {
        MOX_TRACE(facility, 1, "setOptWithFallback", " error: failed to set fallback ", opt.name,
                  " for socket ", fd, ": ", std::strerror(errno));
    }
    return result;
}

int setSocketBufferSize(int fd, int sndBuf, int rcvBuf) {
    if (sndBuf != -1) {
        if (const int result = setOptWithFallback(fd, sndBuf, sendBufferOpt)) {
            return result;
        }
    }
    return rcvBuf != -1 ? setOptWithFallback(fd, rcvBuf, receiveBufferOpt) : 0;
}

}  // namespace Pavo
