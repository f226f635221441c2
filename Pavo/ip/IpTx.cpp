#include "Pavo/ip/IpTx.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "Pavo/ip/IpFamily.h"
#include "Pavo/pam/SocketOptions.h"

namespace Pavo {

int ipTxAddressError(const IpTxSettings& settings) {
    const AddressFamily af = settings.family.addressFamily();
    if (settings.destination.af() == ipunknown) {
        return EDESTADDRREQ;
    }
    const bool isForeignSource = settings.source.af() != ipunknown && settings.source.af() != af;
    return isForeignSource || settings.destination.af() != af ? EAFNOSUPPORT : 0;
}

int ipTxHeadIs(TxHead* head, int fd, const IpTxSettings& settings, Port port, bool connected) {
    if (const int error = ipTxAddressError(settings)) {
        return error;
    }
    if (settings.ifIndex > INT_MAX) {  // The kernel's indices are ints.
        return ENODEV;
    }
    const bool byName = settings.ifIndex == 0 && !settings.ifName.empty();
    const int ifIndex =
        byName ? interfaceIndexAt(fd, settings.ifName) : static_cast<int>(settings.ifIndex);
    if (ifIndex < 0) {
        return errno;
    }
    head->flags = settings.flags;
    if (!connected) {
        head->nameBytes = settings.family.nameBytes;
        settings.family.nameIs(reinterpret_cast<sockaddr*>(&head->name), settings.destination,
                               port);
    }
    if (ifIndex != 0 || !settings.source.address().isZero()) {
        head->controlBytes = settings.family.txControlBytes();
        std::fill_n(head->control, head->controlBytes, '\0');
        settings.family.pktInfoIs(reinterpret_cast<cmsghdr*>(head->control),
                                  static_cast<uint32_t>(ifIndex), settings.source);
    }
    return 0;
}

}  // namespace Pavo
