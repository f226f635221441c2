#include <cstdint>
#include <initializer_list>

#include <gtest/gtest.h>

#include "Mox/Hash.h"

#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/NetU.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

template <class T>
void expectNetworkImage(T value, std::initializer_list<uint8_t> bytes, const char* strep) {
    SCOPED_TRACE(strep);
    const Mox::Bytes image(bytes);
    ASSERT_EQ(sizeof(value), image.bytes());
    EXPECT_EQ(Mox::Bytes(&value, sizeof(value)), image);
    EXPECT_EQ(T(value.value()), value);
    EXPECT_EQ(valueToStrep(value), strep);

    Mox::NboAttrLog::Out log;
    log << value;
    EXPECT_EQ(log.bytes, image);
    Mox::Hash hash(7);
    for (const uint8_t byte : image) {
        hash.mix(byte);
    }
    EXPECT_EQ(value.hash(7), hash.result());
}

TEST(NetU, LiesInMemoryLogAndHashAsItIsSent) {
    expectNetworkImage(NetU8(0xfe), {0xfe}, "254");
    expectNetworkImage(NetU16(0x01fe), {1, 0xfe}, "Value('Pavo::NetU16', ** {'v0': 1, 'v1': 254})");
    expectNetworkImage(NetU32(0x01020304), {1, 2, 3, 4},
                       "Value('Pavo::NetU32', ** {'v0': 1, 'v1': 2, 'v2': 3, 'v3': 4})");
    expectNetworkImage(NetU64(0x0102030405060708), {1, 2, 3, 4, 5, 6, 7, 8},
                       "Value('Pavo::NetU64', ** {'v0': 1, 'v1': 2, 'v2': 3, 'v3': 4, 'v4': 5, "
                       "'v5': 6, 'v6': 7, 'v7': 8})");
    expectNetworkImage(IpChecksum(0x220d), {0x22, 0x0d},
                       "Value('Pavo::IpChecksum', ** {'v0': 34, 'v1': 13})");
    expectNetworkImage(IpTotalLen(20), {0, 20},
                       "Value('Pavo::IpTotalLen', ** {'v0': 0, 'v1': 20})");
    expectNetworkImage(IpId(256), {1, 0}, "Value('Pavo::IpId', ** {'v0': 1, 'v1': 0})");
    expectNetworkImage(IpFragmentOffsetAndFlags(0x4000), {0x40, 0},
                       "Value('Pavo::IpFragmentOffsetAndFlags', ** {'v0': 64, 'v1': 0})");
    expectNetworkImage(IpVersionTrafficClassAndFlowLabel(0x60000001), {0x60, 0, 0, 1},
                       "Value('Pavo::IpVersionTrafficClassAndFlowLabel', ** {'v0': 96, 'v1': 0, "
                       "'v2': 0, 'v3': 1})");
}

TEST(NetU, KeepsTheValueLaws) {  // Each step up is one that another byte order would turn round.
    expectValueLaws<NetU8>({NetU8(), NetU8(9), NetU8(10), NetU8(255)});
    expectValueLaws<NetU16>({NetU16(), NetU16(0x00ff), NetU16(0x0100), NetU16(0xffff)});
    expectValueLaws<NetU32>({NetU32(0x01020304), NetU32(0x01020305), NetU32(0x02000000)});
    expectValueLaws<NetU64>({NetU64(), NetU64(0xffffffff), NetU64(0x100000000)});
    expectValueLaws<IpChecksum>({IpChecksum(), IpChecksum(0x0d22), IpChecksum(0x220d)});
    expectValueLaws<IpTotalLen>({IpTotalLen(), IpTotalLen(20), IpTotalLen(0xffff)});
    expectValueLaws<IpId>({IpId(), IpId(255), IpId(256)});
    expectValueLaws<IpFragmentOffsetAndFlags>(
        {IpFragmentOffsetAndFlags(), IpFragmentOffsetAndFlags(0x8000)});
    expectValueLaws<IpVersionTrafficClassAndFlowLabel>(
        {IpVersionTrafficClassAndFlowLabel(1), IpVersionTrafficClassAndFlowLabel(0x60000000)});
    expectValueLaws<IpVersionAndHeaderLen>({IpVersionAndHeaderLen(), IpVersionAndHeaderLen(0x45)});
    expectValueLaws<IpHdrLen>({IpHdrLen(), IpHdrLen(5), IpHdrLen(15)});
    expectValueLaws<IpFlags>({IpFlags(), IpFlags(2), IpFlags(7)});
    expectValueLaws<IpFragmentOffset>({IpFragmentOffset(), IpFragmentOffset(0x1fff)});
    expectValueLaws<OrdinalU8>({OrdinalU8(), OrdinalU8(255)});
}

TEST(NetU, RefusesTextThatIsNotItsOwnRecord) {
    NetU16 value(7);
    for (const char* text : {
             "",
             "258",
             "Value('Pavo::NetU32', ** {'v0': 1, 'v1': 2})",
             "Value('Pavo::NetU16', ** {'v1': 1, 'v0': 2})",
             "Value('Pavo::NetU16', ** {'v0': 1,'v1': 2})",
             "Value('Pavo::NetU16', ** {'v0': 1, 'v1': 256})",
             "Value('Pavo::NetU16', ** {'v0': -1, 'v1': 2})",
             "Value('Pavo::NetU16', ** {'v0': 1, 'v1': 2}",
             "Value('Pavo::NetU16', ** {'v0': 1, 'v1': 2}) ",
         }) {
        EXPECT_EQ(rangeErrorOf([&] { value.stringValueIs(text); }), "Invalid NetU16") << text;
    }
    EXPECT_EQ(value, NetU16(7));
    NetU8 byte(7);
    EXPECT_EQ(rangeErrorOf([&] { byte.stringValueIs("256"); }), "Invalid NetU8");
    EXPECT_EQ(byte, NetU8(7));
}

TEST(NetU, IsTrueAs64BitsWhenAnyByteIsSet) {
    EXPECT_FALSE(NetU64());
    EXPECT_TRUE(NetU64(1));
    EXPECT_TRUE(NetU64(uint64_t{1} << 63));
}

}  // namespace
}  // namespace Pavo
