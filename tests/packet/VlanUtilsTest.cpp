#include <gtest/gtest.h>

#include "Pavo/VlanUtils.h"

namespace Pavo {
namespace {

TEST(VlanUtilsDeath, RefusesAnIdentifierAbove12Bits) {
    for (const bool isBeside : {false, true}) {
        const auto pkt = globalPktManager()->newPkt();
        pkt->bytesValueIs(Mox::Bytes("ddddddssssss\x81\0\0\1\x08\0", 18), /*atTail=*/false);
        if (isBeside) {
            pkt->newSeparateVlanTag(1, 0x8100);
        }
        EXPECT_DEATH(fixupPktVlanTag(pkt, 0x1000, /*rewrite=*/true),
                     "\\( _tciVlanId & ~0x0fff\\) == 0");
    }
}

}  // namespace
}  // namespace Pavo
