#include "Pavo/MplsHdr.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "packet/HdrLaws.h"
#include "support/Errors.h"

namespace Pavo {
namespace {

TEST(MplsHdr, ReadsAndWritesWhatLiesInThePacket) {
    // After a byte: 0x12345, 5, no, 64.
    const uint8_t wire[] = {0xee, 0x12, 0x34, 0x5a, 0x40, 0xee};
    const auto pkt = pktOf(wire, sizeof(wire));
    const auto mpls = mplsHdrWrapperFactory(pkt, 1);
    EXPECT_EQ(mpls->label(), MplsLabel(0x12345));
    EXPECT_EQ(mpls->cos(), 5);
    EXPECT_FALSE(mpls->bos());
    EXPECT_EQ(mpls->ttl(), 0x40);
    for (const uint32_t label : {0x100000u, 0x800000u, 0xffffffffu}) {
        EXPECT_EQ(
            rangeErrorOf([&] { mpls->labelIs(label); }),
            "MplsHdrWrapper::label < MplsHdrWrapper::min or > MplsHdrWrapper::null not allowed");
    }
    EXPECT_EQ(rangeErrorOf([&] { mpls->cosIs(8); }), "MplsHdrWrapper::cos > 7 not allowed");
    EXPECT_EQ(Mox::Bytes(pkt->frontData(), 6), Mox::Bytes(wire, 6));
    mpls->labelIs(MplsLabel(0xfedcb));
    mpls->cosIs(2);
    mpls->bosIs(true);
    mpls->ttlIs(255);
    EXPECT_EQ(Mox::Bytes(pkt->frontData(), 6), (Mox::Bytes{0xee, 0xfe, 0xdc, 0xb5, 0xff, 0xee}));
    EXPECT_TRUE(tryHdr<MplsHdr>(pkt, 2));
    EXPECT_EQ(tryHdr<MplsHdr>(pkt, 3).error(), PktErrors::pktTooShort);
}

}  // namespace
}  // namespace Pavo
