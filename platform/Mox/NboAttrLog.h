/// @file
/// The attribute log: values as bytes in network order, shared between processes of both word
/// sizes.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Export.h"
#include "Mox/String.h"

namespace Mox {

/// The tag of constructors that read from a log.
struct StreamBogon {};

/// The writer and the reader of a log.
class NboAttrLog {
  public:
    /// Appends to `bytes`, most significant byte first.
    class Out {
      public:
        /// The number, in as many bytes as its type has.
        /// @{
        void u8(uint8_t value) { bytes.append(&value, 1); }
        void u16(uint16_t value) { number(value, 2); }
        void u32(uint32_t value) { number(value, 4); }
        void u64(uint64_t value) { number(value, 8); }
        /// @}
        /// The bytes themselves, without a length.
        void raw(const void* data, uint32_t length) { bytes.append(data, length); }
        /// The length as 32 bits, then the bytes.
        void string(std::string_view text) {
            u32(static_cast<uint32_t>(text.size()));
            raw(text.data(), static_cast<uint32_t>(text.size()));
        }

        /// The log.
        Bytes bytes;

      private:
        MOX_EXPORT void number(uint64_t value, int width);
    };

    /// Reads what `Out` wrote, from memory that must outlive the reader.
    /// @throws Mox::RangeException "NboAttrLog: premature end" when fewer bytes are left than asked
    /// for; nothing is then consumed.
    class In {
      public:
        /// From the first byte on.
        explicit In(const Bytes& data) : at_(data.begin()), end_(data.end()) {}
        /// From `length` bytes at `data` on.
        In(const void* data, uint32_t length)
            : at_(static_cast<const uint8_t*>(data)), end_(at_ + length) {}

        /// The next number, of as many bytes as its type has.
        /// @{
        uint8_t u8() { return static_cast<uint8_t>(number(1)); }
        uint16_t u16() { return static_cast<uint16_t>(number(2)); }
        uint32_t u32() { return static_cast<uint32_t>(number(4)); }
        uint64_t u64() { return number(8); }
        /// @}
        /// Copies the next `length` bytes.
        MOX_EXPORT void raw(void* data, uint32_t length);
        /// A length of 32 bits, then as many bytes.
        MOX_EXPORT String string();

        /// Bytes not read yet.
        uint32_t left() const { return static_cast<uint32_t>(end_ - at_); }

      private:
        MOX_EXPORT const uint8_t* take(uint32_t length);
        MOX_EXPORT uint64_t number(int width);

        const uint8_t* at_;
        const uint8_t* end_;
    };
};

}  // namespace Mox
