/// @file
/// What every header record and every wrapper keeps.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
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

/// A wrapper is named after its record.
template <class... Wrapper>
void expectNamesOfWrappers() {
    const auto expectName = [](std::string_view typeName, std::string_view recordName) {
        EXPECT_EQ(typeName, "Pavo::" + std::string(recordName) + "Wrapper");
    };
    (expectName(Wrapper::typeName,
                std::remove_pointer_t<decltype(std::declval<Wrapper&>().header())>::recordName),
     ...);
}

}  // namespace Pavo
