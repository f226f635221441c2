/// @file
/// Numbers in network byte order, at any address.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Pavo {

/// The number whose `sizeof(Word)` bytes, most significant first, begin at `bytes`.
template <std::unsigned_integral Word>
constexpr Word loadNet(const uint8_t* bytes) {
    if (!std::is_constant_evaluated() && std::endian::native == std::endian::little) {
        Word word;
        std::memcpy(&word, bytes, sizeof(word));
        if constexpr (sizeof(Word) == 8) {
            return __builtin_bswap64(word);
        } else if constexpr (sizeof(Word) == 4) {
            return __builtin_bswap32(word);
        } else if constexpr (sizeof(Word) == 2) {
            return __builtin_bswap16(word);
        } else {
            return word;
        }
    }
    Word word = 0;
    for (unsigned i = 0; i < sizeof(Word); ++i) {
        word = static_cast<Word>(uint64_t{word} << 8 | bytes[i]);
    }
    return word;
}

/// Stores `word` at `bytes`, most significant byte first.
template <std::unsigned_integral Word>
constexpr void storeNet(uint8_t* bytes, Word word) {
    if (!std::is_constant_evaluated()) {
        const Word image = loadNet<Word>(reinterpret_cast<const uint8_t*>(&word));
        std::memcpy(bytes, &image, sizeof(image));
        return;
    }
    for (unsigned i = 0; i < sizeof(Word); ++i) {
        bytes[i] = static_cast<uint8_t>(word >> (8 * (sizeof(Word) - 1 - i)));
    }
}

}  // namespace Pavo
