/// @file
/// What every header record and every wrapper keeps.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/Pkt.h"

namespace Pavo {

/// A packet with these bytes in one iovec.
inline Mox::Ptr<Pkt> pktOf(const void* bytes, uint32_t length) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->bytesValueIs(Mox::Bytes(bytes, length), /*atTail=*/false);
    return pkt;
}

template <class Record>
Mox::Bytes imageOf(const Record& record) {
    return Mox::Bytes(&record, sizeof(record));
}

/// In a packet of 60 bytes that lie in one iovec behind nothing.
template <class Wrapper, class Hdr>
void expectBindsToTheLastByte(Mox::Ptr<Wrapper> (*factory)(const Mox::Ptr<Pkt>&, uint32_t)) {
    const std::string name(Hdr::recordName);
    SCOPED_TRACE(name);
    constexpr uint32_t last = 60 - sizeof(Hdr);
    const auto pkt = globalPktManager()->newPkt();
    std::memset(pkt->newSharedTailData(60), 0, 60);
    const auto wrapper = factory(pkt, last);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), pkt->frontData() + last);
    EXPECT_TRUE(wrapper->hasNotificationActive());
    EXPECT_EQ(wrapper->fwkType()->name, "Pavo::" + name + "Wrapper");

    const std::string text =
        "\\( offset_ \\+ sizeof\\( " + name + " \\) \\) <= pkt_->frontBytes\\(\\)";
    EXPECT_DEATH(factory(pkt, last + 1), text);
    EXPECT_DEATH(factory(pkt, 0xffffffff), text);  // Offset and size make a small number.
    EXPECT_DEATH(factory(Mox::make<Pkt>(), 0), text);

    uint8_t* front = pkt->newSharedHeadData(4);
    wrapper->handleHeader();  // The same offset, four bytes further to the front.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), front + last);
    pkt->delSharedTailData(5);
    EXPECT_DEATH(wrapper->handleHeader(), text);
}

/// A field of a record: setters for all its bits, and where these lie.
template <class Hdr>
struct FieldBits {
    const char* field;
    std::function<void(Hdr&)> allOnes;
    std::function<void(Hdr&)> allZeros;
    uint32_t firstByte;
    std::vector<uint8_t> mask;  // From the first byte on.
};

template <class Hdr>
void expectChangesItsBitsOnly(const FieldBits<Hdr>& c) {
    SCOPED_TRACE(c.field);
    uint8_t mask[sizeof(Hdr)] = {};
    std::copy(c.mask.begin(), c.mask.end(), mask + c.firstByte);
    uint8_t inverse[sizeof(Hdr)];
    for (uint32_t i = 0; i < sizeof(Hdr); ++i) {
        inverse[i] = static_cast<uint8_t>(~mask[i]);
    }
    Hdr record;
    std::memset(static_cast<void*>(&record), 0, sizeof(record));
    c.allOnes(record);
    EXPECT_EQ(imageOf(record), imageOf(mask));
    std::memset(static_cast<void*>(&record), 0xff, sizeof(record));
    c.allZeros(record);
    EXPECT_EQ(imageOf(record), imageOf(inverse));
}

}  // namespace Pavo
