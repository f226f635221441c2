#include "Pavo/value/EthAddr.h"

#include "Mox/Hash.h"

#include "Pavo/base/IntMix.h"
#include "Pavo/value/EthText.h"
#include "Pavo/value/QuickText.h"

namespace Pavo {

Eui64 EthAddr::eui64() const {
    return Eui64(word(0), static_cast<uint16_t>(bytes_[2] << 8 | 0xff),
                 static_cast<uint16_t>(0xff00 | bytes_[3]), word(2));
}

Mox::String EthAddr::displayString() const {
    char text[14];
    for (int i = 0; i < 6; ++i) {
        std::memcpy(text + 2 * i + i / 2, &Mox::hexPairs[2u * bytes_[i]], 2);
    }
    text[4] = text[9] = '.';
    return Mox::String(text, sizeof(text));
}

uint32_t EthAddr::hash() const {
    return intMix(static_cast<uint32_t>(word(0) ^ word(1)) << 16 | word(2));
}

// Each word is mixed as a number with its first byte in the low bits.
uint32_t EthAddr::hash(uint32_t seed) const {
    Mox::Hash mixer(seed);
    for (int i = 0; i < 6; i += 2) {
        mixer.mix(static_cast<uint32_t>(bytes_[i] | bytes_[i + 1] << 8));
    }
    return mixer.result();
}

const char* EthAddr::parse(Mox::TextCursor& in) {
    if (const std::size_t length = quickMac(in.at(), in.end(), bytes_)) {
        in.atIs(in.at() + length);
        return nullptr;
    }
    return readHexBytes<6>(in, bytes_) ? nullptr : invalidText;
}

const char* Eui64::parse(Mox::TextCursor& in) {
    return readHexBytes<8>(in, bytes_) ? nullptr : EthAddr::invalidText;
}

void Eui64::print(Mox::TextWriter& out) const {
    out.bounded<23>([this](char* at) {
        for (int i = 0; i < 8; ++i) {
            std::memcpy(at + 3 * i, &Mox::hexPairs[2u * bytes_[i]], 2);
            if (i < 7) {
                at[3 * i + 2] = ':';
            }
        }
        return at + 23;
    });
}

}  // namespace Pavo
