// Laws of addresses, with and without a mask, over many random ones.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "Pavo/IpGenPrefix.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

std::mt19937_64 newRandom() {
    return std::mt19937_64(20240501);
}

// Draws values that differ in a few bits and lengths only, so that many of them are equal, nested
// or adjacent, which is where orders fail.
class Draw {
  public:
    void next(IpGenPrefixBase* value) { *value = {address(family()), length(ipv6)}; }
    void next(IpGenPrefix* value) { *value = prefix(family()); }
    void next(Prefix* value) { *value = prefix(ipv4); }
    void next(Ip6Prefix* value) { *value = prefix(ipv6); }
    void next(IpGenAddrWithMask* value) { *value = withMask(family()); }
    void next(IpAddrWithMask* value) { *value = withMask(ipv4).v4AddrWithMask(); }
    void next(Ip6AddrWithMask* value) { *value = withMask(ipv6).v6AddrWithMask(); }
    void next(IpGenAddrWithFullMask* value) { *value = fullMask(upTo(1) == 0 ? ipv4 : ipv6); }
    void next(IpAddrWithFullMask* value) { *value = fullMask(ipv4).v4AddrWithFullMask(); }
    void next(Ip6AddrWithFullMask* value) { *value = fullMask(ipv6).v6AddrWithFullMask(); }

  private:
    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random_() % (most + 1)); }
    AddressFamily family() { return AddressFamilyInstance(upTo(2)); }
    uint32_t length(AddressFamily af) {
        const uint32_t most = addressBits(af);
        const uint32_t lengths[] = {0, 1, most - 1, most};
        return most == 0 ? 0 : lengths[upTo(3)];
    }
    IpGenAddr address(AddressFamily af) {
        if (af == ipv4) {
            return IpAddr(upTo(1) << 31 | upTo(3));
        }
        return {af, af == ipunknown ? Ip6Addr() : Ip6Addr(uint64_t{upTo(1)} << 63, upTo(3))};
    }
    IpGenPrefix prefix(AddressFamily af) {
        const uint32_t len = length(af);
        return {{af, address(af).address().ip6AddrMaskedByLength(len)}, len};
    }
    IpGenAddrWithMask withMask(AddressFamily af) { return {address(af), length(af)}; }
    IpGenAddrWithFullMask fullMask(AddressFamily af) {
        return af == ipv4 ? IpGenAddrWithFullMask(address(af).v4Addr(), address(af).v4Addr())
                          : IpGenAddrWithFullMask(address(af).v6Addr(), address(af).v6Addr());
    }

    std::mt19937_64 random_ = newRandom();
};

template <class T>
class AddressOrder : public testing::Test {};

using Types = testing::Types<IpAddrWithMask, IpAddrWithFullMask, Prefix, Ip6AddrWithMask,
                             Ip6AddrWithFullMask, Ip6Prefix, IpGenPrefixBase, IpGenPrefix,
                             IpGenAddrWithMask, IpGenAddrWithFullMask>;
TYPED_TEST_SUITE(AddressOrder, Types);

TYPED_TEST(AddressOrder, IsStrictAndTransitive) {
    Draw draw;
    std::vector<TypeParam> samples(120);
    for (TypeParam& each : samples) {
        draw.next(&each);
    }
    expectStrictWeakOrder(samples);
}

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
    std::mt19937_64 random = newRandom();
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
