#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "Pavo/VlanUtils.h"

namespace Pavo {
namespace {

// A tag of identifier 0x123 in a frame, of which the first `bytes` are kept.
Mox::Ptr<Pkt> taggedPkt(uint32_t bytes) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->bytesValueIs(Mox::Bytes("ddddddssssss\x81\0\x51\x23\x08\0...", bytes), /*atTail=*/false);
    return pkt;
}

TEST(VlanUtils, TakesATagOnlyWhereATypeFollowsIt) {
    for (uint32_t bytes = 0; bytes <= 21; ++bytes) {
        SCOPED_TRACE(bytes);
        const std::string frame(taggedPkt(bytes)->stringValue());
        const bool isTagged = bytes >= 18;
        EXPECT_EQ(vlanIdFromEthPkt(taggedPkt(bytes)), isTagged ? 0x123 : 0);
        std::string expected = frame;
        if (isTagged) {
            expected.erase(12, 4);
        }
        const auto stripped = taggedPkt(bytes);
        stripPktVlanTag(stripped);
        EXPECT_EQ(stripped->stringValue(), expected);
        const auto offloaded = taggedPkt(bytes);
        maybeOffloadAnyVlanTag(offloaded);
        EXPECT_EQ(offloaded->stringValue(), expected);
        EXPECT_EQ(offloaded->separateVlanTci(), isTagged ? 0x5123 : 0);
        const auto rewritten = taggedPkt(bytes);
        fixupPktVlanTag(rewritten, 0x456, /*rewrite=*/true);
        expected = frame;
        if (isTagged) {
            expected.replace(14, 2, "\x54\x56");
        }
        EXPECT_EQ(rewritten->stringValue(), expected);
        const auto tagged = taggedPkt(bytes);
        addPktVlanTag(tagged, 1);
        EXPECT_EQ(tagged->totalBytes(), bytes < 14 ? bytes : bytes + 4);
    }
}

TEST(VlanUtilsDeath, RefusesAnIdentifierAbove12Bits) {
    const auto pkt = taggedPkt(18);
    for (int round = 0; round < 2; ++round) {
        EXPECT_DEATH(fixupPktVlanTag(pkt, 0x1000, /*rewrite=*/true),
                     "\\( _tciVlanId & ~0x0fff\\) == 0");
        maybeOffloadAnyVlanTag(pkt);
    }
}

}  // namespace
}  // namespace Pavo
