#include "Pavo/kernel/Link.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

constexpr uint16_t highestLinkAttribute = IFLA_LINKINFO;
static_assert(IFLA_STATS64 > IFLA_LINKINFO);

LinkOperState operStateOf(const NetlinkAttributes& attributes) {
    uint8_t number = 0;
    attributes.read(IFLA_OPERSTATE, &number);
    return number > static_cast<uint8_t>(LinkOperState::up) ? LinkOperState::unknown
                                                            : static_cast<LinkOperState>(number);
}

void readKind(const NetlinkAttributes& attributes, Link::Properties* properties) {
    const NetlinkAttributes info = attributes.nested(IFLA_LINKINFO, IFLA_INFO_DATA);
    properties->kind = Mox::String(info.text(IFLA_INFO_KIND));
    if (properties->kind == "vrf") {
        info.nested(IFLA_INFO_DATA, IFLA_VRF_TABLE).read(IFLA_VRF_TABLE, &properties->vrfTable);
    }
}

// Messages about a bridge port have the bridge's family, those of wireless events say nothing else.
bool isOfLink(const ifinfomsg* body, const NetlinkAttributes& attributes) {
    return body->ifi_family == AF_UNSPEC && body->ifi_index > 0 && attributes.isSound() &&
           attributes.find(IFLA_WIRELESS) == nullptr;
}

}  // namespace

uint64_t Link::commit(const Properties& properties) {
    const bool wasUp = isUp();
    const bool wasRunning = isRunning();
    uint64_t changed = stored(properties_.name, properties.name, nameAttr) |
                       stored(properties_.ethAddr, properties.ethAddr, ethAddrAttr) |
                       stored(properties_.mtu, properties.mtu, mtuAttr) |
                       stored(properties_.flags, properties.flags, flagsAttr) |
                       stored(properties_.operState, properties.operState, operStateAttr) |
                       stored(properties_.master, properties.master, masterAttr);
    properties_.vrfTable = properties.vrfTable;
    changed |= wasUp != isUp() ? uint64_t{1} << isUpAttr.number : 0;
    changed |= wasRunning != isRunning() ? uint64_t{1} << isRunningAttr.number : 0;
    return changed;
}

void Link::announce(uint64_t changed) {
    KernelObject::announce(changed, {&nameAttr, &ethAddrAttr, &mtuAttr, &flagsAttr, &isUpAttr,
                                     &isRunningAttr, &operStateAttr, &masterAttr});
}

std::optional<Link::Properties> Link::read(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ifinfomsg>(message);
    const NetlinkAttributes attributes(message, sizeof(ifinfomsg), highestLinkAttribute);
    const std::string_view name = attributes.text(IFLA_IFNAME);
    if (body == nullptr || !isOfLink(body, attributes) || name.empty() || name.size() >= IFNAMSIZ) {
        return {};
    }
    Link::Properties properties;
    properties.index = static_cast<uint32_t>(body->ifi_index);
    properties.name = Mox::String(name);
    if (attributes.payload(IFLA_ADDRESS).size() == sizeof(EthAddr)) {
        attributes.read(IFLA_ADDRESS, &properties.ethAddr);
    }
    attributes.read(IFLA_MTU, &properties.mtu);
    properties.flags = body->ifi_flags;
    properties.operState = operStateOf(attributes);
    attributes.read(IFLA_MASTER, &properties.master);
    readKind(attributes, &properties);
    return properties;
}

}  // namespace Pavo
