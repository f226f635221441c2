#include "Pavo/kernel/LinkAddress.h"

#include <linux/rtnetlink.h>

#include "Mox/Text.h"

#include "Pavo/kernel/NetlinkAddress.h"
#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

// The kernel calls the own address "local", and "address" what the network is made of: the peer's
// address where there is one, else the own one again. Of IPv6 "local" comes only with a peer.
bool readAddresses(const NetlinkAttributes& attributes, uint8_t family,
                   LinkAddress::Properties* properties) {
    IpGenAddr network;
    if (!readAddress(attributes, IFA_ADDRESS, family, &network)) {
        return false;
    }
    properties->key.address = network;
    readAddress(attributes, IFA_LOCAL, family, &properties->key.address);
    properties->peer = network == properties->key.address ? IpGenAddr() : network;
    if (family == AF_INET) {
        properties->key.network = IpGenPrefix::containing(network, properties->len);
    }
    readAddress(attributes, IFA_BROADCAST, family, &properties->broadcast);
    return true;
}

}  // namespace

Mox::String LinkAddressKey::stringValue() const {
    return Mox::printedString([this](Mox::TextWriter& out) {
        address.printText(out);
        out.text(" of link ");
        out.decimal(ifIndex);
        if (network.af() != ipunknown) {
            out.text(" in ");
            network.printText(out);
        }
    });
}

LinkAddressKey linkAddressKey(uint32_t ifIndex, const IpGenAddr& address, uint32_t len) {
    const IpGenPrefix network = IpGenPrefix::containing(address, len);
    return {ifIndex, address, address.af() == ipv4 ? network : IpGenPrefix()};
}

Mox::String LinkAddress::name() const {
    return address().stringValue() + "/" + std::to_string(len());
}

uint64_t LinkAddress::commit(const Properties& properties) {
    return stored(properties_.len, properties.len, lenAttr) |
           stored(properties_.peer, properties.peer, peerAttr) |
           stored(properties_.broadcast, properties.broadcast, broadcastAttr) |
           stored(properties_.scope, properties.scope, scopeAttr) |
           stored(properties_.flags, properties.flags, flagsAttr);
}

void LinkAddress::announce(uint64_t changed) {
    KernelObject::announce(changed, {&lenAttr, &peerAttr, &broadcastAttr, &scopeAttr, &flagsAttr});
}

std::optional<LinkAddress::Properties> LinkAddress::read(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ifaddrmsg>(message);
    const NetlinkAttributes attributes(message, sizeof(ifaddrmsg), IFA_FLAGS);
    if (body == nullptr || !attributes.isSound() || body->ifa_index == 0 ||
        body->ifa_prefixlen > addressBits(familyOf(body->ifa_family))) {
        return {};
    }
    LinkAddress::Properties properties;
    properties.key.ifIndex = body->ifa_index;
    properties.len = body->ifa_prefixlen;
    properties.scope = body->ifa_scope;
    properties.flags = body->ifa_flags;  // The low byte, from before there were more.
    attributes.read(IFA_FLAGS, &properties.flags);
    if (!readAddresses(attributes, body->ifa_family, &properties)) {
        return {};
    }
    return properties;
}

}  // namespace Pavo
