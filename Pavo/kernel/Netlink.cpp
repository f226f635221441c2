#include "Pavo/kernel/Netlink.h"

#include "Mox/Assert.h"

namespace Pavo {

void NetlinkMessageCallback::callback(nlmsghdr*) {
    Mox::require(false, "NetlinkMessageCallback::callback not overwritten");
}

}  // namespace Pavo
