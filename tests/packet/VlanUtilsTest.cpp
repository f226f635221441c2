#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "Pavo/VlanUtils.h"
#include "packet/GuardedPkt.h"

namespace Pavo {
namespace {

std::string net(uint16_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

const std::string addresses = "ddddddssssss";
const std::string plain = addresses + net(0x0800) + "payload";

// A frame and the tag beside it; TPID 0 for none.
struct Tagged {
    std::string frame;
    uint16_t tpid = 0;
    uint16_t tci = 0;
};

// `plain` with a tag in it.
Tagged inFrame(uint16_t tpid, uint16_t tci, uint16_t tpidBeside = 0, uint16_t tciBeside = 0) {
    return {addresses + net(tpid) + net(tci) + net(0x0800) + "payload", tpidBeside, tciBeside};
}

Tagged beside(uint16_t tpid, uint16_t tci) {
    return {plain, tpid, tci};
}

void expectIs(const Mox::Ptr<Pkt>& pkt, const Tagged& expected) {
    EXPECT_EQ(std::string(pkt->stringValue()), expected.frame);
    EXPECT_EQ(pkt->hasSeparateVlanTag(), expected.tpid != 0);
    if (expected.tpid != 0) {
        EXPECT_EQ(pkt->separateVlanTpid(), expected.tpid);
        EXPECT_EQ(pkt->separateVlanTci(), expected.tci);
    }
    pkt->checkMagic();
}

// The packet ends at a page that must not be touched, and is split between private and shared data
// at every place.
TEST(VlanUtils, ActOnTheOutermostTag) {
    using Act = void (*)(const Mox::Ptr<Pkt>&);
    const Act add = [](const auto& pkt) { addPktVlanTag(pkt, 0x0456); };
    const Act strip = [](const auto& pkt) { stripPktVlanTag(pkt); };
    const Act offload = [](const auto& pkt) { maybeOffloadAnyVlanTag(pkt); };
    const Act fixup = [](const auto& pkt) { fixupPktVlanTag(pkt, 0x0fed, /*rewrite=*/true); };
    const Tagged dot1Q = inFrame(0x8100, 0xb123);
    const Tagged dot1Ad = inFrame(0x88a8, 0xb123);
    const Tagged thirteen = {plain.substr(0, 13)};
    const Tagged eighteen = {dot1Q.frame.substr(0, 18)};
    const struct {
        const char* what;
        Act act;
        Tagged before, after;
        uint16_t vlanId;  // Of the packet before.
    } cases[] = {
        {"add to 14 bytes",
         add,
         {plain.substr(0, 14)},
         {addresses + net(0x8100) + net(0x456) + net(0x0800)},
         0},
        {"add to 13 bytes", add, thirteen, thirteen, 0},
        {"add: the tag beside moves in without its priority", add, beside(0x88a8, 0xb123),
         inFrame(0x88a8, 0x0123, 0x8100, 0x0456), 0},
        {"strip from 18 bytes", strip, eighteen, {plain.substr(0, 14)}, 0x123},
        {"strip from beside", strip, inFrame(0x8100, 1, 0x8100, 0xf002), inFrame(0x8100, 1), 2},
        {"strip: another beside", strip, inFrame(0x8100, 1, 0x88a8, 2),
         inFrame(0x8100, 1, 0x88a8, 2), 0},
        {"offload a service tag", offload, dot1Ad, beside(0x88a8, 0xb123), 0},
        {"offload: the place is taken", offload, inFrame(0x8100, 1, 0x88a8, 0),
         inFrame(0x8100, 1, 0x88a8, 0), 0},
        {"fix up beside", fixup, inFrame(0x8100, 1, 0x8100, 0xb002),
         inFrame(0x8100, 1, 0x8100, 0xbfed), 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto bytes = static_cast<uint32_t>(c.before.frame.size());
        for (uint32_t priv = 0; priv <= bytes; ++priv) {
            SCOPED_TRACE(priv);
            const GuardedPkt guarded(reinterpret_cast<const uint8_t*>(c.before.frame.data()), bytes,
                                     priv);
            if (c.before.tpid != 0) {
                guarded.pkt()->newSeparateVlanTag(c.before.tci, c.before.tpid);
            }
            EXPECT_EQ(vlanIdFromEthPkt(guarded.pkt()), c.vlanId);
            c.act(guarded.pkt());
            expectIs(guarded.pkt(), c.after);
        }
    }
}

TEST(VlanUtilsDeath, RefusesAnIdentifierAbove12Bits) {
    for (const Tagged& tagged : {inFrame(0x8100, 1), beside(0x8100, 1)}) {
        const auto pkt = globalPktManager()->newPkt();
        pkt->stringValueIs(Mox::String(tagged.frame), /*atTail=*/false);
        if (tagged.tpid != 0) {
            pkt->newSeparateVlanTag(tagged.tci, tagged.tpid);
        }
        EXPECT_DEATH(fixupPktVlanTag(pkt, 0x1000, /*rewrite=*/true),
                     "\\( _tciVlanId & ~0x0fff\\) == 0");
    }
}

}  // namespace
}  // namespace Pavo
