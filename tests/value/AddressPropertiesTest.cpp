// The text of addresses against the C library, over many random ones.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

// An octet with leading zeros, which glibc does not read.
bool hasLeadingZeros(const std::string& text) {
    for (std::size_t dot = text.find('.'); dot != text.npos; dot = text.find('.', dot + 1)) {
        const auto isZero = [&](std::size_t at) {
            return text[at] == '0' && isdigit(text[at + 1]);
        };
        const std::size_t first = text.find_last_of(".:", dot - 1) + 1;  // 0 where there is none.
        if (isZero(first) || isZero(dot + 1)) {
            return true;
        }
    }
    return false;
}

// Prints random addresses, then changes, removes or adds a character and reads the text.
template <class T>
void expectAgreesWithGlibc(int af) {
    std::mt19937_64 random(20240501);
    int good = 0;
    for (int i = 0; i < 100000; ++i) {
        uint16_t groups[8] = {0, 0, 0, 0, 0, 0xffff};   // v4-mapped, every eighth time.
        for (int k = i % 8 == 0 ? 6 : 0; k < 8; ++k) {  // With zeros and short groups.
            groups[k] =
                static_cast<uint16_t>((random() & 0xffff) >> (random() % 2 * random() % 17));
        }
        T address;
        std::memcpy(static_cast<void*>(&address), groups, sizeof(address));
        char printed[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(af, &address, printed, sizeof(printed)), nullptr);
        std::string text(address.stringValue().view());
        // glibc prints v4-compatible addresses, from ::1:0 on, with a dotted quad.
        ASSERT_TRUE(text == printed || (text.starts_with("::") && std::strchr(printed, '.')))
            << printed;
        text = i % 4 == 1 ? printed : text;
        text.replace(random() % (text.size() + 1), random() % 2, random() % 2,
                     "0123456789abcdefA:.:g -"[random() % 23]);
        T read;
        const bool isGood = inet_pton(af, text.c_str(), &read) == 1;
        const auto value = Mox::tryParse<T>(text);
        ASSERT_EQ(value.has_value(), isGood || (value && hasLeadingZeros(text))) << text;
        ASSERT_TRUE(!isGood || *value == read) << text;
        good += isGood ? 1 : 0;
    }
    EXPECT_GT(good, 30000);
    EXPECT_LT(good, 95000);
}

TEST(AddressText, IsWhatTheCLibraryReadsAndPrints) {
    expectAgreesWithGlibc<IpAddr>(AF_INET);
    expectAgreesWithGlibc<Ip6Addr>(AF_INET6);
}

}  // namespace
}  // namespace Pavo
