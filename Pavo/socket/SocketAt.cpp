#include "Pavo/socket/SocketAt.h"

#include "Mox/Trace.h"
#include "netns/netns.h"

namespace Pavo {

namespace {
Mox::TraceFacility facility("Pavo::SocketAt");
}

int socketAt(int domain, int type, int protocol, const char* netNsName) {
    MOX_TRACE(facility, 9, "int Pavo::socketAt(int, int, int, const char*)");
    const int fd = netnsSocketAt(domain, type, protocol, netNsName);
    if (fd < 0) {
        MOX_TRACE(facility, 0, "netnsSocketAt failed : ", netnsGetTracebuffer());
        return fd;
    }
    MOX_TRACE(facility, 9, " opened socket ", fd);
    return fd;
}

}  // namespace Pavo

int socket_at(int domain, int type, int protocol, const char* netNsName) {
    return Pavo::socketAt(domain, type, protocol, netNsName);
}
