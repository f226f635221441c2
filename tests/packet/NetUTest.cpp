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
    expectNetworkImage(NetU64(0x0102030405060708), {1, 2, 3, 4, 5, 6, 7, 8},
                       "Value('Pavo::NetU64', ** {'v0': 1, 'v1': 2, 'v2': 3, 'v3': 4, 'v4': 5, "
                       "'v5': 6, 'v6': 7, 'v7': 8})");
    expectNetworkImage(IpChecksum(0x220d), {0x22, 0x0d},
                       "Value('Pavo::IpChecksum', ** {'v0': 34, 'v1': 13})");
    expectNetworkImage(IpVersionTrafficClassAndFlowLabel(0x60000001), {0x60, 0, 0, 1},
                       "Value('Pavo::IpVersionTrafficClassAndFlowLabel', ** {'v0': 96, 'v1': 0, "
                       "'v2': 0, 'v3': 1})");
}

// Each step up is one that another byte order would turn round.
TEST(NetU, KeepsTheValueLaws) {
    expectValueLaws<NetU8>({NetU8(), NetU8(9), NetU8(10), NetU8(255)});
    expectValueLaws<NetU64>({NetU64(), NetU64(0xffffffff), NetU64(0x100000000)});
    expectValueLaws<IpHdrLen>({IpHdrLen(), IpHdrLen(5), IpHdrLen(15)});
}

}  // namespace
}  // namespace Pavo
