#include "Pavo/kernel/Neighbour.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include "Mox/Text.h"

#include "Pavo/kernel/NetlinkAddress.h"
#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

// The kernel's states are single bits.
NeighbourState stateOf(uint16_t number) {
    return number > NUD_PERMANENT || (number & (number - 1)) != 0
               ? NeighbourState::none
               : static_cast<NeighbourState>(number);
}

}  // namespace

Mox::String NeighbourKey::stringValue() const {
    return Mox::printedString([this](Mox::TextWriter& out) {
        address.printText(out);
        out.text(" of link ");
        out.decimal(ifIndex);
    });
}

uint64_t Neighbour::commit(const Properties& properties) {
    return stored(properties_.ethAddr, properties.ethAddr, ethAddrAttr) |
           stored(properties_.state, properties.state, stateAttr) |
           stored(properties_.flags, properties.flags, flagsAttr);
}

void Neighbour::announce(uint64_t changed) {
    KernelObject::announce(changed, {&ethAddrAttr, &stateAttr, &flagsAttr});
}

std::optional<Neighbour::Properties> Neighbour::read(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ndmsg>(message);
    const NetlinkAttributes attributes(message, sizeof(ndmsg), NDA_LLADDR);
    if (body == nullptr || !attributes.isSound() || body->ndm_ifindex <= 0 ||
        (body->ndm_flags & NTF_PROXY) != 0) {
        return {};
    }
    Neighbour::Properties properties;
    properties.key.ifIndex = static_cast<uint32_t>(body->ndm_ifindex);
    if (!readAddress(attributes, NDA_DST, body->ndm_family, &properties.key.address)) {
        return {};
    }
    if (attributes.payload(NDA_LLADDR).size() == sizeof(EthAddr)) {
        attributes.read(NDA_LLADDR, &properties.ethAddr);
    }
    properties.state = stateOf(body->ndm_state);
    properties.flags = body->ndm_flags;
    return properties;
}

}  // namespace Pavo
