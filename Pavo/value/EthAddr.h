/// @file
/// Ethernet addresses: the 48-bit MAC, the 64-bit extended identifier, and a MAC with a mask.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "Mox/Lifetime.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/NetOrder.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

class Eui64;

/// A MAC address (IEEE 802-2014, 8): six bytes in transmission order, so that the value may lie
/// over a frame. Also seen as three 16-bit words; word i holds bytes 2i (high) and 2i + 1 (low).
///
/// Text is six two-digit lowercase hexadecimal bytes joined by ":". Bytes of any number of digits
/// and either case are read with ":" or "-" between them, and 16-bit groups with "." between them:
/// 00:11:22:0a:0b:0c, 0-11-22-A-B-C and 0011.220a.0b0c are one address. The first separator is the
/// separator of the whole text. Order is that of the 48-bit number.
class EthAddr : public Mox::ValueType<EthAddr> {
  public:
    constexpr EthAddr() = default;
    /// EthAddr(0x0011, 0x220a, 0x0b0c) is 00:11:22:0a:0b:0c.
    constexpr EthAddr(uint16_t word0, uint16_t word1, uint16_t word2) {
        storeNet(bytes_, word0);
        storeNet(bytes_ + 2, word1);
        storeNet(bytes_ + 4, word2);
    }
    /// @throws Mox::RangeException "Invalid EthAddr"
    EthAddr(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit EthAddr(std::string_view text) { readWhole(text); }
    EthAddr(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Word `i`, 0 to 2, in host order.
    /// @throws Mox::RangeException "EthAddr::word: index out of range"
    constexpr uint16_t word(unsigned i) const {
        return loadNet<uint16_t>(bytes_ + checkedWord(i, "EthAddr::word: index out of range"));
    }
    /// @throws Mox::RangeException "EthAddr::wordIs: index out of range"
    constexpr void wordIs(unsigned i, uint16_t value) {
        storeNet(bytes_ + checkedWord(i, "EthAddr::wordIs: index out of range"), value);
    }
    /// Zeroes the word.
    /// @throws Mox::RangeException "EthAddr::wordDel: index out of range"
    constexpr void wordDel(unsigned i) {
        storeNet(bytes_ + checkedWord(i, "EthAddr::wordDel: index out of range"), uint16_t{0});
    }

    /// Byte `i`, 0 to 5, in transmission order.
    /// @throws Mox::RangeException "EthAddr::byte: index out of range"
    constexpr uint8_t byte(unsigned i) const {
        return bytes_[checkedByte(i, "EthAddr::byte: index out of range")];
    }
    /// @throws Mox::RangeException "EthAddr::byteIs: index out of range"
    constexpr void byteIs(unsigned i, uint8_t value) {
        bytes_[checkedByte(i, "EthAddr::byteIs: index out of range")] = value;
    }
    /// Zeroes the byte.
    /// @throws Mox::RangeException "EthAddr::byteDel: index out of range"
    constexpr void byteDel(unsigned i) {
        bytes_[checkedByte(i, "EthAddr::byteDel: index out of range")] = 0;
    }

    /// The first three bytes as a 24-bit number: the organisation that assigned the
    /// address.
    constexpr uint32_t oui() const { return static_cast<uint32_t>(number() >> 24); }
    /// The last three bytes as a 24-bit number.
    constexpr uint32_t station() const { return static_cast<uint32_t>(number() & 0xffffff); }

    /// Bytes 0 to 2, 0xff, 0xff, bytes 3 to 5. This is not the interface identifier of an IPv6
    /// address (`ip6LinkLocalFromMac`): the inserted bytes are not ff:fe, and the universal/local
    /// bit stays as it is.
    PAVO_EXPORT Eui64 eui64() const;

    /// Copies the six bytes in transmission order.
    void copyToBuffer(unsigned char* buffer) const { std::memcpy(buffer, bytes_, sizeof(bytes_)); }
    /// Reads the six bytes in transmission order.
    void copyFromBuffer(const unsigned char* buffer) {
        std::memcpy(bytes_, buffer, sizeof(bytes_));
    }

    /// The group bit, bit 0 of byte 0, is clear.
    constexpr bool isUnicast() const { return (bytes_[0] & 1) == 0; }
    /// ff:ff:ff:ff:ff:ff.
    constexpr bool isBroadcast() const { return number() == 0xffffffffffff; }
    /// The group bit is set, and this is not the broadcast address.
    constexpr bool isMulticast() const { return !isUnicast() && !isBroadcast(); }
    /// 33:33:xx:xx:xx:xx (RFC 2464, 7).
    constexpr bool isIp6Multicast() const { return number() >> 32 == 0x3333; }
    /// 01:00:5e:00:00:00 to 01:00:5e:00:00:ff, the groups 224.0.0.0/24 (RFC 1112, 6.4).
    constexpr bool isIp4LinkLocalMulticast() const { return number() >> 8 == 0x01005e0000; }
    /// 01:80:c2:00:00:00 to 01:80:c2:00:00:0f, which no bridge forwards (IEEE 802.1Q-2018, 8.6.3),
    /// or 01:00:0c:cc:cc:cd.
    constexpr bool isIEEELinkConstrained() const {
        return number() >> 4 == 0x0180c200000 || number() == 0x01000ccccccd;
    }

    /// Three four-digit lowercase hexadecimal words joined by ".": 0011.220a.0b0c.
    PAVO_EXPORT Mox::String displayString() const;

    /// The same in every process, on both word sizes.
    PAVO_EXPORT uint32_t hash() const;
    PAVO_EXPORT uint32_t hash(uint32_t seed) const;

    friend constexpr bool operator==(const EthAddr& a, const EthAddr& b) {
        return a.number() == b.number();
    }
    friend constexpr std::strong_ordering operator<=>(const EthAddr& a, const EthAddr& b) {
        return a.number() <=> b.number();
    }

    // In the log, the six bytes are the three 16-bit words.
    static constexpr auto description() {
        return Mox::record("Pavo::EthAddr", Mox::field("bytes", &EthAddr::bytes_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    void print(Mox::TextWriter& out) const {
        out.bounded<17>([this](char* at) {
            for (int i = 0; i < 6; ++i) {
                std::memcpy(at + 3 * i, &Mox::hexPairs[2u * bytes_[i]], 2);
                if (i < 5) {
                    at[3 * i + 2] = ':';
                }
            }
            return at + 17;
        });
    }

  private:
    static constexpr unsigned checkedByte(unsigned i, const char* error) {
        if (i >= 6) {
            Mox::throwRangeException(error);
        }
        return i;
    }
    // The offset of a word.
    static constexpr unsigned checkedWord(unsigned i, const char* error) {
        if (i >= 3) {
            Mox::throwRangeException(error);
        }
        return 2 * i;
    }
    constexpr uint64_t number() const {
        return uint64_t{loadNet<uint32_t>(bytes_)} << 16 | loadNet<uint16_t>(bytes_ + 4);
    }

    uint8_t bytes_[6] = {};
};
static_assert(std::is_trivially_copyable_v<EthAddr> && sizeof(EthAddr) == 6 &&
              alignof(EthAddr) == 1);

/// The index of a byte in an `Eui64`, 0 to 7.
class Eui64U8Key : public Ordinal<Eui64U8Key, uint8_t, 7> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::Eui64U8Key";
    static constexpr const char* rangeText = "Eui64U8Key::value < 0 or > 7 not allowed";
};

/// A 64-bit extended identifier: eight bytes in transmission order. Text is eight two-digit
/// lowercase hexadecimal bytes joined by ":", and is read in all forms that `EthAddr` reads, with
/// eight bytes or four words. Order is that of the 64-bit number.
class Eui64 : public Mox::ValueType<Eui64> {
  public:
    constexpr Eui64() = default;
    /// Eui64(0x0011, 0x22ff, 0xff0a, 0x0b0c) is 00:11:22:ff:ff:0a:0b:0c.
    constexpr Eui64(uint16_t word0, uint16_t word1, uint16_t word2, uint16_t word3) {
        storeNet(bytes_, word0);
        storeNet(bytes_ + 2, word1);
        storeNet(bytes_ + 4, word2);
        storeNet(bytes_ + 6, word3);
    }
    /// @throws Mox::RangeException "Invalid EthAddr"
    Eui64(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit Eui64(std::string_view text) { readWhole(text); }
    Eui64(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Word `i`, 0 to 3: bytes 2i (high) and 2i + 1 (low), in host order.
    /// @throws Mox::RangeException "Eui64::word: index out of range"
    constexpr uint16_t word(unsigned i) const {
        return loadNet<uint16_t>(bytes_ + checkedWord(i, "Eui64::word: index out of range"));
    }
    /// @throws Mox::RangeException "Eui64::wordIs: index out of range"
    constexpr void wordIs(unsigned i, uint16_t value) {
        storeNet(bytes_ + checkedWord(i, "Eui64::wordIs: index out of range"), value);
    }
    /// Zeroes the word.
    /// @throws Mox::RangeException "Eui64::wordDel: index out of range"
    constexpr void wordDel(unsigned i) {
        storeNet(bytes_ + checkedWord(i, "Eui64::wordDel: index out of range"), uint16_t{0});
    }

    /// Byte 0 is sent first.
    constexpr uint8_t byte(Eui64U8Key key) const { return bytes_[key.value()]; }
    constexpr void byteIs(Eui64U8Key key, uint8_t value) { bytes_[key.value()] = value; }
    /// Zeroes the byte.
    constexpr void byteDel(Eui64U8Key key) { bytes_[key.value()] = 0; }
    /// Zeroes all bytes.
    constexpr void byteDelAll() { *this = Eui64(); }

    friend constexpr auto operator<=>(const Eui64&, const Eui64&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::Eui64", Mox::field("bytes", &Eui64::bytes_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    static constexpr unsigned checkedWord(unsigned i, const char* error) {
        if (i >= 4) {
            Mox::throwRangeException(error);
        }
        return 2 * i;
    }

    uint8_t bytes_[8] = {};
};
static_assert(std::is_trivially_copyable_v<Eui64> && sizeof(Eui64) == 8 && alignof(Eui64) == 1);

/// A MAC address and a mask in the shape of one, for masked matching. No relation between the two
/// is enforced. Ordered by `mac`, then by `mask`.
class EthAddrWithMask : public Mox::ValueType<EthAddrWithMask> {
  public:
    constexpr EthAddrWithMask() = default;
    constexpr EthAddrWithMask(const EthAddr& mac, const EthAddr& mask) : mac_(mac), mask_(mask) {}
    EthAddrWithMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit EthAddrWithMask(std::string_view text) { readWhole(text); }
    EthAddrWithMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// As it was given: bits outside the mask are kept.
    constexpr const EthAddr& mac() const MOX_LIFETIME_BOUND { return mac_; }
    /// Its one bits are those that count.
    constexpr const EthAddr& mask() const MOX_LIFETIME_BOUND { return mask_; }

    friend constexpr auto operator<=>(const EthAddrWithMask&, const EthAddrWithMask&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::EthAddrWithMask", Mox::field("mac", &EthAddrWithMask::mac_),
                           Mox::field("mask", &EthAddrWithMask::mask_));
    }

  private:
    EthAddr mac_;
    EthAddr mask_;
};
static_assert(std::is_trivially_copyable_v<EthAddrWithMask> && sizeof(EthAddrWithMask) == 12);

}  // namespace Pavo
