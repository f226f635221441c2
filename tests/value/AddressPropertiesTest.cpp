// What holds for any address with a mask, and for any prefix, over many generated ones.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "Pavo/IpGenPrefix.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

// Draws values of a type. Crowded ones differ in a few bits and lengths only, so that many of them
// are equal, nested or neighbours, which is where orders go wrong.
class Draw {
  public:
    explicit Draw(bool crowded) : crowded_(crowded) {}

    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random_() % (most + 1)); }
    uint32_t length(uint32_t most) {
        const uint32_t few[] = {0, 1, most - 1, most};
        return crowded_ ? few[upTo(3)] : upTo(most);
    }
    Ip6Addr ip6() {
        if (!crowded_) {
            Ip6Addr address(random_(), random_());
            for (unsigned i = 0; i < 8; ++i) {
                if (upTo(1) == 0) {
                    address.u16Del(i);
                }
            }
            return address;
        }
        return Ip6Addr(uint64_t{upTo(1)} << 63, upTo(3));
    }
    IpAddr ip() { return IpAddr(crowded_ ? upTo(1) << 31 | upTo(3) : upTo(0xfffffffe)); }
    IpGenAddr any() {
        switch (upTo(crowded_ ? 2 : 1)) {
            case 0:
                return ip();
            case 1:
                return ip6();
            default:
                return IpGenAddr();
        }
    }

    void next(IpAddrWithMask* value) { *value = {ip(), length(32)}; }
    void next(Prefix* value) {
        const uint32_t len = length(32);
        *value = {IpAddr(static_cast<uint32_t>(ip().value() & ~uint64_t{0} << (32 - len))), len};
    }
    void next(IpAddrWithFullMask* value) { *value = {ip(), ip().value()}; }
    void next(Ip6AddrWithMask* value) { *value = {ip6(), length(128)}; }
    void next(Ip6Prefix* value) {
        const uint32_t len = length(128);
        *value = {ip6().ip6AddrMaskedByLength(len), len};
    }
    void next(Ip6AddrWithFullMask* value) {
        const Ip6Addr mask = upTo(1) == 0 ? ip6() : ip6AddrFromPrefixLen(length(128));
        const Ip6Addr address = ip6();
        const auto len = ip6AddrToPrefixLen(mask);
        *value = {len == 129 ? address : address.ip6AddrMaskedByLength(len), mask};
    }
    void next(IpGenPrefixBase* value) { *value = {any(), length(128)}; }
    void next(IpGenPrefix* value) {
        const IpGenAddr address = any();
        const uint32_t most = addressBits(address.af());
        const uint32_t len = most == 0 ? 0 : length(most);
        *value = {{address.af(), address.address().ip6AddrMaskedByLength(len)}, len};
    }
    void next(IpGenAddrWithMask* value) {
        const IpGenAddr address = any();
        *value = {address, address.af() == ipunknown ? 0 : length(addressBits(address.af()))};
    }
    void next(IpGenAddrWithFullMask* value) {
        if (upTo(1) == 0) {
            Ip6AddrWithFullMask masked;
            next(&masked);
            *value = {masked.address(), masked.mask()};
            return;
        }
        IpAddrWithFullMask masked;
        next(&masked);
        if (upTo(1) == 0) {
            Prefix prefix;
            next(&prefix);
            *value = {prefix.address(), static_cast<uint8_t>(prefix.len())};
            return;
        }
        // The last bit without the one before makes it a mask without a length.
        *value = {masked.address(), IpAddr((masked.mask() | 1) & ~2u)};
    }

  private:
    std::mt19937_64 random_{20240501};
    bool crowded_;
};

template <class T>
class AddressProperties : public testing::Test {};

using Types = testing::Types<IpAddrWithMask, IpAddrWithFullMask, Prefix, Ip6AddrWithMask,
                             Ip6AddrWithFullMask, Ip6Prefix, IpGenPrefixBase, IpGenPrefix,
                             IpGenAddrWithMask, IpGenAddrWithFullMask>;
TYPED_TEST_SUITE(AddressProperties, Types);

TYPED_TEST(AddressProperties, TextGivesTheValueAgain) {
    Draw draw(/*crowded=*/false);
    for (int i = 0; i < 100000; ++i) {
        TypeParam value;
        draw.next(&value);
        const Mox::String text = valueToStrep(value);
        const auto read = Mox::tryParse<TypeParam>(text);
        ASSERT_TRUE(read.has_value()) << text;
        ASSERT_EQ(*read, value) << text;
    }
}

TYPED_TEST(AddressProperties, OrderIsStrictAndTransitive) {
    Draw draw(/*crowded=*/true);
    std::vector<TypeParam> samples(120);
    for (TypeParam& each : samples) {
        draw.next(&each);
    }
    expectStrictWeakOrder(samples);
}

}  // namespace
}  // namespace Pavo
