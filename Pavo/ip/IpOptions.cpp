#include "Pavo/ip/IpOptions.h"

#include "Pavo/ip/IpFamily.h"

namespace Pavo {

void socketTosIs(const SocketSettings& settings, int fd) {
    settings.family->tosIs(fd, settings.tos.value());
    if ((settings.options & ipPriority) != 0) {
        socketPriorityIs(settings.trace, fd, settings.priority);
    }
}

void ipTosStep(const SocketOptionChange& change) {
    const SocketSettings& settings = change.settings;
    if (settings.tos != IpDscp()) {
        MOX_TRACE(settings.trace, 9, "TOS=", settings.tos);
        settings.family->tosIs(change.fd, settings.tos.value());
    }
}

}  // namespace Pavo
