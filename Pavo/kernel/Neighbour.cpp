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

uint64_t Neighbour::commit(const Facts& facts) {
    return stored(facts_.ethAddr, facts.ethAddr, ethAddrAttr) |
           stored(facts_.state, facts.state, stateAttr) |
           stored(facts_.flags, facts.flags, flagsAttr);
}

void Neighbour::announce(uint64_t changed) {
    KernelObject::announce(changed, {&ethAddrAttr, &stateAttr, &flagsAttr});
}

std::optional<Neighbour::Facts> Neighbour::read(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ndmsg>(message);
    const NetlinkAttributes attributes(message, sizeof(ndmsg), NDA_LLADDR);
    if (body == nullptr || !attributes.isSound() || body->ndm_ifindex <= 0 ||
        (body->ndm_flags & NTF_PROXY) != 0) {
        return {};
    }
    Neighbour::Facts facts;
    facts.key.ifIndex = static_cast<uint32_t>(body->ndm_ifindex);
    if (!readAddress(attributes, NDA_DST, body->ndm_family, &facts.key.address)) {
        return {};
    }
    if (attributes.payload(NDA_LLADDR).size() == sizeof(EthAddr)) {
        attributes.read(NDA_LLADDR, &facts.ethAddr);
    }
    facts.state = stateOf(body->ndm_state);
    facts.flags = body->ndm_flags;
    return facts;
}

}  // namespace Pavo
