/// @file
/// What every header record and every wrapper keeps.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

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

/// A wrapper binds at the last offset at which the record fits, dies at the next, and holds its
/// packet.
template <class Wrapper>
void expectBindsToTheLastByte(Mox::Ptr<Wrapper> (*factory)(const Mox::Ptr<Pkt>&, uint32_t)) {
    using Hdr = std::remove_pointer_t<decltype(std::declval<Wrapper&>().header())>;
    const std::string name(Hdr::recordName);
    SCOPED_TRACE(name);
    constexpr uint32_t last = 60 - sizeof(Hdr);
    const auto pkt = globalPktManager()->newPkt();
    std::memset(pkt->newSharedTailData(60), 0, 60);
    const auto wrapper = factory(pkt, last);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), pkt->frontData() + last);
    EXPECT_EQ(wrapper->fwkType()->name, "Pavo::" + name + "Wrapper");
    EXPECT_EQ(pkt->references(), 2u);

    const std::string text =
        "\\( offset_ \\+ sizeof\\( " + name + " \\) \\) <= pkt_->frontBytes\\(\\)";
    EXPECT_DEATH(factory(pkt, last + 1), text);
    EXPECT_DEATH(factory(pkt, 0xffffffff), text);  // Offset and size make a small number.
    uint8_t* front = pkt->newSharedHeadData(4);
    wrapper->handleHeader();  // The same offset, four bytes further to the front.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), front + last);
}

}  // namespace Pavo
