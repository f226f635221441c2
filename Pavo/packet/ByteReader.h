/// @file
/// Reading and writing messages in network byte order, within the bounds of their memory.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "Pavo/base/NetOrder.h"

namespace Pavo {

/// Takes the bytes of a received message apart, from the first to the last. Numbers are in network
/// byte order. The bytes are the caller's and have to outlive the reader and every span that it
/// gives.
///
/// A read past the end gives 0, or an empty span, and fails the reader for good: `rest()` is then
/// empty and every later read fails too, since what follows a missing field would be read from the
/// wrong place. So a parser reads all fields of a message first and asks `ok()` once, before it
/// uses them, and a loop over `rest()` ends. No exception is thrown.
///
///     Pavo::ByteReader in(message);
///     const uint16_t type = in.u16();
///     const auto value = in.bytes(in.u16());
///     if (!in.ok()) { return "message too short"; }
class ByteReader {
  public:
    /// Of no bytes.
    constexpr ByteReader() = default;
    /// Of these bytes.
    constexpr explicit ByteReader(std::span<const uint8_t> bytes)
        : begin_(bytes.data()), at_(begin_), end_(begin_ + bytes.size()) {}
    /// Of the characters of a text.
    explicit ByteReader(std::string_view text)
        : ByteReader({reinterpret_cast<const uint8_t*>(text.data()), text.size()}) {}

    /// The next number, of as many bits.
    /// @{
    constexpr uint8_t u8() { return number<uint8_t>(); }
    constexpr uint16_t u16() { return number<uint16_t>(); }
    constexpr uint32_t u24() {
        const uint8_t* const at = take(3);
        return at == nullptr ? 0 : uint32_t{loadNet<uint16_t>(at)} << 8 | at[2];
    }
    constexpr uint32_t u32() { return number<uint32_t>(); }
    constexpr uint64_t u64() { return number<uint64_t>(); }
    /// @}
    /// The next `count` bytes, all of them or none.
    constexpr std::span<const uint8_t> bytes(std::size_t count) {
        const uint8_t* const at = take(count);
        return at == nullptr ? std::span<const uint8_t>() : std::span(at, count);
    }
    /// The same as text.
    std::string_view text(std::size_t count) {
        const std::span<const uint8_t> taken = bytes(count);
        return {reinterpret_cast<const char*>(taken.data()), taken.size()};
    }
    /// Passes over `count` bytes.
    constexpr void skip(std::size_t count) { (void)take(count); }

    /// The bytes that were not read yet; reads none. Empty after a failure.
    constexpr std::span<const uint8_t> rest() const { return {at_, end_}; }
    /// Bytes read so far; after a failure, those before the read that failed.
    constexpr std::size_t offset() const { return static_cast<std::size_t>(at_ - begin_); }
    /// No read went past the end.
    constexpr bool ok() const { return ok_; }

  private:
    // Null, and the failure, when there are fewer.
    constexpr const uint8_t* take(std::size_t count) {
        if (static_cast<std::size_t>(end_ - at_) < count) {
            end_ = at_;
            ok_ = false;
            return nullptr;
        }
        const uint8_t* const at = at_;
        at_ += count;
        return at;
    }
    template <std::unsigned_integral Word>
    constexpr Word number() {
        const uint8_t* const at = take(sizeof(Word));
        return at == nullptr ? Word{0} : loadNet<Word>(at);
    }

    const uint8_t* begin_ = nullptr;
    const uint8_t* at_ = nullptr;
    const uint8_t* end_ = nullptr;
    bool ok_ = true;
};

/// Puts a message together in memory of a fixed size, such as that of `Pkt::newSharedTailData`, or
/// an array. Numbers are in network byte order. The memory is the caller's and has to outlive the
/// writer.
///
/// What does not fit, a number too large for its field included, is not written and fails the
/// writer for good: nothing is written after it, so that no field lies in the wrong place, and
/// `ok()` is asked once, before the message is sent. A length that is known only later is written
/// as 0 first:
///
///     const auto lengthAt = out.offset();
///     out.u16(0);
///     out.text(name);
///     out.u16At(lengthAt, out.offset() - lengthAt);
class ByteWriter {
  public:
    /// Into this memory.
    constexpr explicit ByteWriter(std::span<uint8_t> room) : room_(room) {}

    /// Appends a number of as many bits; one that needs more is a failure.
    /// @{
    constexpr void u8(uint64_t number) { append<uint8_t, 1>(number); }
    constexpr void u16(uint64_t number) { append<uint16_t, 2>(number); }
    constexpr void u24(uint64_t number) { append<uint32_t, 3>(number); }
    constexpr void u32(uint64_t number) { append<uint32_t, 4>(number); }
    constexpr void u64(uint64_t number) { append<uint64_t, 8>(number); }
    /// @}
    /// Appends bytes, all of them or none.
    void bytes(std::span<const uint8_t> bytes) {
        uint8_t* const at = take(bytes.size());
        if (at != nullptr && !bytes.empty()) {
            std::memcpy(at, bytes.data(), bytes.size());
        }
    }
    /// The same for the characters of a text.
    void text(std::string_view text) {
        bytes({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    }
    /// Appends bytes of 0.
    void zeros(std::size_t count) {
        uint8_t* const at = take(count);
        if (at != nullptr && count != 0) {
            std::memset(at, 0, count);
        }
    }

    /// Replaces bytes that were written before, from `offset` on. A field that reaches past what is
    /// written is a failure, as is a number that needs more bits.
    /// @{
    constexpr void u8At(std::size_t offset, uint64_t number) {
        replace<uint8_t, 1>(offset, number);
    }
    constexpr void u16At(std::size_t offset, uint64_t number) {
        replace<uint16_t, 2>(offset, number);
    }
    constexpr void u24At(std::size_t offset, uint64_t number) {
        replace<uint32_t, 3>(offset, number);
    }
    constexpr void u32At(std::size_t offset, uint64_t number) {
        replace<uint32_t, 4>(offset, number);
    }
    /// @}

    /// Bytes written.
    constexpr std::size_t offset() const { return offset_; }
    /// What was written: after a failure, what fitted before it.
    constexpr std::span<const uint8_t> written() const { return room_.first(offset_); }
    /// Everything fitted.
    constexpr bool ok() const { return ok_; }

  private:
    // Null, and the failure, when there is less room.
    constexpr uint8_t* take(std::size_t count) {
        if (!ok_ || room_.size() - offset_ < count) {
            ok_ = false;
            return nullptr;
        }
        uint8_t* const at = room_.data() + offset_;
        offset_ += count;
        return at;
    }
    template <std::unsigned_integral Word, unsigned count>
    static constexpr bool fits(uint64_t number) {
        return count == 8 || number >> (8 * count % 64) == 0;
    }
    template <std::unsigned_integral Word, unsigned count>
    static constexpr void store(uint8_t* at, uint64_t number) {
        if constexpr (count == 3) {
            at[0] = static_cast<uint8_t>(number >> 16);
            storeNet(at + 1, static_cast<uint16_t>(number));
        } else {
            storeNet(at, static_cast<Word>(number));
        }
    }
    template <std::unsigned_integral Word, unsigned count>
    constexpr void append(uint64_t number) {
        ok_ = ok_ && fits<Word, count>(number);
        if (uint8_t* const at = take(count)) {
            store<Word, count>(at, number);
        }
    }
    template <std::unsigned_integral Word, unsigned count>
    constexpr void replace(std::size_t offset, uint64_t number) {
        ok_ = ok_ && fits<Word, count>(number) && offset <= offset_ && offset_ - offset >= count;
        if (ok_) {
            store<Word, count>(room_.data() + offset, number);
        }
    }

    std::span<uint8_t> room_;
    std::size_t offset_ = 0;
    bool ok_ = true;
};

}  // namespace Pavo
