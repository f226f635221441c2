// What holds for any address, with or without a mask, over many generated ones.
#include <arpa/inet.h>
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
// are equal, nested or neighbours, which is where orders go wrong; and some have no family, of
// which text tells nothing.
class Draw {
  public:
    explicit Draw(bool crowded) : crowded_(crowded) {}

    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random_() % (most + 1)); }

    void next(IpAddr* value) { *value = address(ipv4).v4Addr(); }
    void next(Ip6Addr* value) { *value = address(ipv6).v6Addr(); }
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
    AddressFamily family() { return AddressFamilyInstance(crowded_ ? upTo(2) : 1 + upTo(1)); }
    uint32_t length(AddressFamily af) {
        const uint32_t most = addressBits(af);
        if (most == 0) {
            return 0;
        }
        const uint32_t few[] = {0, 1, most - 1, most};
        return crowded_ ? few[upTo(3)] : upTo(most);
    }
    IpGenAddr address(AddressFamily af) {
        if (af == ipv4) {
            return IpAddr(crowded_ ? upTo(1) << 31 | upTo(3) : static_cast<uint32_t>(random_()));
        }
        if (af == ipunknown || crowded_) {
            return {af, af == ipunknown ? Ip6Addr() : Ip6Addr(uint64_t{upTo(1)} << 63, upTo(3))};
        }
        Ip6Addr address(random_(), random_());
        for (unsigned i = 0; i < 8; ++i) {  // Zero groups and short ones are what texts are about.
            address.u16Is(i, static_cast<uint16_t>(address.u16(i) >> (upTo(1) * upTo(16))));
        }
        return upTo(15) == 0 ? Ip6Addr(0, uint64_t{0xffff} << 32 | address.u32(3)) : address;
    }
    IpGenPrefix prefix(AddressFamily af) {
        const uint32_t len = length(af);
        return {{af, address(af).address().ip6AddrMaskedByLength(len)}, len};
    }
    IpGenAddrWithMask withMask(AddressFamily af) { return {address(af), length(af)}; }
    // Text shows no host bits under a mask with a length, so there are none.
    IpGenAddrWithFullMask fullMask(AddressFamily af) {
        const IpGenPrefix net = prefix(af);
        const auto len = static_cast<uint8_t>(net.len());
        if (upTo(1) == 0) {
            return af == ipv4 ? IpGenAddrWithFullMask(net.v4Addr(), len)
                              : IpGenAddrWithFullMask(net.v6Addr(), len);
        }
        Ip6Addr mask = address(ipv6).v6Addr();
        mask.u32Is(3, (mask.u32(3) | 1) & ~2u);  // A last bit without the one before.
        return af == ipv4 ? IpGenAddrWithFullMask(address(af).v4Addr(), IpAddr(mask.u32(3)))
                          : IpGenAddrWithFullMask(address(af).v6Addr(), mask);
    }

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

// The text without the leading zeros of its octets, which are leading zeros here, and which glibc
// does not read.
std::string withoutLeadingZeros(const std::string& text) {
    std::size_t at = text.rfind(':') + 1;  // Wraps to 0 where there is none.
    std::string plain = text.substr(0, at);
    for (bool inOctet = false; at < text.size(); ++at) {
        const bool last = at + 1 == text.size() || text[at + 1] == '.';
        inOctet = text[at] != '.' && (inOctet || text[at] != '0' || last);
        plain += inOctet || text[at] == '.' ? text.substr(at, 1) : "";
    }
    return text.find('.') == text.npos ? text : plain;
}

// An address as text, and as often as not with a fault or two.
std::string mutated(std::string text, Draw& draw) {
    if (draw.upTo(3) == 0) {
        text.replace(text.rfind(':') + 1, text.npos, "1.20.255." + std::to_string(draw.upTo(300)));
    }
    for (auto faults = draw.upTo(3); faults > 1; --faults) {
        const char wrong = "0123456789abcdefABCDEF:::..g -"[draw.upTo(29)];
        text.insert(draw.upTo(static_cast<uint32_t>(text.size())), draw.upTo(1) + 1, wrong);
        text.erase(draw.upTo(static_cast<uint32_t>(text.size()) - 1), draw.upTo(1));
    }
    return text;
}

template <class T>
void expectWhatGlibcSays(int af) {
    Draw draw(/*crowded=*/false);
    int good = 0;
    for (int i = 0; i < 100000; ++i) {
        T address;
        draw.next(&address);
        char printed[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(af, &address, printed, sizeof(printed)), nullptr);
        const std::string ours(address.stringValue().view());
        // glibc prints v4-compatible addresses, from ::1:0 on, with a dotted quad.
        const bool v4Compatible = ours.rfind("::", 0) == 0 && std::string(printed, 7) != "::ffff:";
        ASSERT_TRUE(ours == printed || (v4Compatible && std::strchr(printed, '.'))) << printed;

        const std::string text = mutated(ours, draw);
        const std::string plain = withoutLeadingZeros(text);
        const auto value = Mox::tryParse<T>(text);
        T read;
        const bool isGood = inet_pton(af, plain.c_str(), &read) == 1;
        // In IPv6 an octet has three digits at most, leading zeros among them.
        const bool mayDiffer = af == AF_INET6 && plain != text;
        ASSERT_TRUE(value.has_value() == isGood || (mayDiffer && !value)) << text;
        ASSERT_TRUE(!value || *value == read) << text;
        good += isGood ? 1 : 0;
    }
    EXPECT_GT(good, 30000);
    EXPECT_LT(good, 95000);
}

TEST(AddressProperties, TextIsWhatTheCLibraryReadsAndPrints) {
    expectWhatGlibcSays<IpAddr>(AF_INET);
    expectWhatGlibcSays<Ip6Addr>(AF_INET6);
}

}  // namespace
}  // namespace Pavo
