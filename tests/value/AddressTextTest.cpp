#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Pavo/EthAddr.h"
#include "Pavo/EthText.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/Ip6Text.h"
#include "Pavo/IpAddr.h"
#include "Pavo/IpText.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using Random = std::mt19937;

std::string randomText(Random& random) {
    const auto number = [&random](uint32_t below) {
        return static_cast<uint32_t>(random() % below);
    };
    const uint32_t kind = number(3);
    const int groups[] = {4, static_cast<int>(1 + number(8)), 6};
    const char* const formats[] = {"%u", number(2) ? "%x" : "%04X", "%02x"};
    const char* const separators[] = {".", ":", number(4) ? ":" : "-"};
    std::string text;
    for (int i = 0; i < groups[kind]; ++i) {
        char group[16];
        const uint32_t bits = kind == 1 ? number(17) : 8;
        const char* const format = kind == 0 && number(4) == 0 ? "%04u" : formats[kind];
        std::snprintf(group, sizeof(group), format, number(1u << bits));
        text += (i > 0 ? separators[kind] : "") + std::string(group);
        text += kind == 1 && number(6) == 0 ? ":" : "";
    }
    const char* const ends[] = {"", "", "/24", ".5 and more", "::", ":8", "%eth0, and more text"};
    text += ends[number(std::size(ends))];
    constexpr std::string_view others = "0123456789abcdefABCDEF:::..-/%gG@` \x01\x8a";
    for (uint32_t i = number(2) * number(4); i > 0; --i) {
        const uint32_t at = number(static_cast<uint32_t>(text.size()) + 1);
        text.replace(at, number(3), number(3), others[number(others.size())]);
    }
    return text;
}

// The value and what is left, as one text.
template <class T, class Read>
std::string outcome(const std::vector<char>& text, Read read) {
    Mox::TextCursor in(text.data(), text.data() + text.size());
    T value;
    const char* const error = read(in, &value);
    return error != nullptr ? error
                            : std::string(value.stringValue()) + " " + std::string(in.rest());
}

template <class T>
const char* parsed(Mox::TextCursor& in, T* value) {
    return value->parse(in);
}

// A text ends where its memory does, for the sanitizers.
TEST(AddressText, IsReadInWholeAsCharacterByCharacter) {
    for (const uint32_t seed : PavoTest::Seeds(20'000)) {
        Random random(seed);
        const std::string whole = randomText(random);
        SCOPED_TRACE(whole);
        const std::vector<char> text(whole.begin(), whole.end());
        EXPECT_EQ(outcome<IpAddr>(text, parsed<IpAddr>),
                  outcome<IpAddr>(text, [](Mox::TextCursor& in, IpAddr* value) {
                      uint8_t bytes[4] = {};
                      const bool isRead = readDottedQuad(in, bytes) == DottedFault::none;
                      value->copyFromBuffer(bytes);
                      return isRead ? nullptr : IpAddr::invalidText;
                  }));
        EXPECT_EQ(outcome<Ip6Addr>(text, parsed<Ip6Addr>),
                  outcome<Ip6Addr>(text, readPlainIp6Text));
        EXPECT_EQ(outcome<EthAddr>(text, parsed<EthAddr>),
                  outcome<EthAddr>(text, [](Mox::TextCursor& in, EthAddr* value) {
                      uint8_t bytes[6] = {};
                      const bool isRead = readHexBytes<6>(in, bytes);
                      value->copyFromBuffer(bytes);
                      return isRead ? nullptr : EthAddr::invalidText;
                  }));
    }
}

}  // namespace
}  // namespace Pavo
