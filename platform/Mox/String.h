/// @file
/// The framework's string and byte-string values.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mox/Lifetime.h"

namespace Mox {

/// A text: contiguous, with storage for short texts inside the object, made from and viewed as a
/// `std::string_view`. Its bytes are not interpreted and may include NUL.
class String {
  public:
    /// Contiguous, so that a parser is a loop over two pointers.
    using IteratorConst = const char*;

    String() = default;
    String(const char* text) : text_(text) {}
    String(std::string_view text) : text_(text) {}
    String(std::string text) : text_(std::move(text)) {}
    /// Copies `bytes` bytes, NUL among them.
    String(const char* data, uint32_t bytes) : text_(data, bytes) {}

    /// The length in bytes.
    uint32_t bytes() const { return static_cast<uint32_t>(text_.size()); }
    /// Without a byte.
    bool empty() const { return text_.empty(); }

    IteratorConst begin() const MOX_LIFETIME_BOUND { return text_.data(); }
    IteratorConst end() const MOX_LIFETIME_BOUND { return text_.data() + text_.size(); }
    /// The bytes, `bytes()` of them and a NUL.
    const char* data() const MOX_LIFETIME_BOUND { return text_.data(); }
    /// The text, terminated by a NUL.
    const char* c_str() const MOX_LIFETIME_BOUND { return text_.c_str(); }
    /// A view that is valid until the string changes.
    /// @{
    std::string_view view() const MOX_LIFETIME_BOUND { return text_; }
    operator std::string_view() const MOX_LIFETIME_BOUND { return text_; }
    /// @}

    /// Appends the bytes.
    String& operator+=(std::string_view more) {
        text_ += more;
        return *this;
    }

    friend bool operator==(const String& a, const String& b) { return a.text_ == b.text_; }
    template <std::convertible_to<std::string_view> T>
    friend bool operator==(const String& a, const T& b) {
        return a.view() == std::string_view(b);
    }
    friend auto operator<=>(const String& a, const String& b) { return a.text_ <=> b.text_; }
    /// Both texts, one after the other.
    friend String operator+(String a, std::string_view b) { return std::move(a += b); }
    // A template, so that only a caller that prints needs the definition of a stream.
    /// Writes the bytes.
    template <class Traits>
    friend std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out,
                                                        const String& s) {
        return out << s.text_;
    }

  private:
    std::string text_;
};

/// A string of bytes.
class Bytes {
  public:
    Bytes() = default;
    Bytes(std::initializer_list<uint8_t> bytes) : bytes_(bytes) {}
    /// Copies `bytes` bytes.
    Bytes(const void* data, uint32_t bytes)
        : bytes_(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + bytes) {}

    /// The length in bytes.
    uint32_t bytes() const { return static_cast<uint32_t>(bytes_.size()); }
    /// Without a byte.
    bool empty() const { return bytes_.empty(); }
    /// The bytes, `bytes()` of them.
    const uint8_t* data() const MOX_LIFETIME_BOUND { return bytes_.data(); }
    const uint8_t* begin() const MOX_LIFETIME_BOUND { return data(); }
    const uint8_t* end() const MOX_LIFETIME_BOUND { return data() + bytes_.size(); }
    /// @pre `i < bytes()`.
    uint8_t operator[](uint32_t i) const { return bytes_[i]; }

    /// Copies `bytes` bytes to the end.
    void append(const void* data, uint32_t bytes) {
        // Not `insert`, in which g++ 12 warns of an overflow where it inlines all of a log.
        const std::size_t before = bytes_.size();
        bytes_.resize(before + bytes);
        if (bytes != 0) {
            std::memcpy(bytes_.data() + before, data, bytes);
        }
    }

    friend bool operator==(const Bytes&, const Bytes&) = default;
    friend auto operator<=>(const Bytes&, const Bytes&) = default;

  private:
    std::vector<uint8_t> bytes_;
};

}  // namespace Mox

template <>
struct std::hash<Mox::String> {
    std::size_t operator()(const Mox::String& s) const noexcept {
        return std::hash<std::string_view>()(s.view());
    }
};
