/// @file
/// Numbers as they lie in a packet: bytes in network order, of alignment 1, laid over a header
/// without conversion.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Mox/ValueType.h"

#include "Pavo/base/NetOrder.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// The bytes of a number, `v0` the most significant; each width adds to the one before it.
template <std::size_t count>
class NetBytes;

/// One byte.
///
/// Members: see `NetBytes`.
template <>
class NetBytes<1> {
  public:
    constexpr uint8_t v0() const { return v0_; }

  protected:
    static constexpr auto members() { return std::array<uint8_t NetBytes::*, 1>{&NetBytes::v0_}; }

    uint8_t v0_ = 0;
};

/// Two bytes.
///
/// Members: see `NetBytes`.
template <>
class NetBytes<2> : public NetBytes<1> {
  public:
    constexpr uint8_t v1() const { return v1_; }

  protected:
    static constexpr auto members() {
        return std::array<uint8_t NetBytes::*, 2>{&NetBytes::v0_, &NetBytes::v1_};
    }

    uint8_t v1_ = 0;
};

/// Four bytes.
///
/// Members: see `NetBytes`.
template <>
class NetBytes<4> : public NetBytes<2> {
  public:
    constexpr uint8_t v2() const { return v2_; }
    constexpr uint8_t v3() const { return v3_; }

  protected:
    static constexpr auto members() {
        return std::array<uint8_t NetBytes::*, 4>{&NetBytes::v0_, &NetBytes::v1_, &NetBytes::v2_,
                                                  &NetBytes::v3_};
    }

    uint8_t v2_ = 0, v3_ = 0;
};

/// Eight bytes.
///
/// Members: see `NetBytes`.
template <>
class NetBytes<8> : public NetBytes<4> {
  public:
    constexpr uint8_t v4() const { return v4_; }
    constexpr uint8_t v5() const { return v5_; }
    constexpr uint8_t v6() const { return v6_; }
    constexpr uint8_t v7() const { return v7_; }

  protected:
    static constexpr auto members() {
        return std::array<uint8_t NetBytes::*, 8>{&NetBytes::v0_, &NetBytes::v1_, &NetBytes::v2_,
                                                  &NetBytes::v3_, &NetBytes::v4_, &NetBytes::v5_,
                                                  &NetBytes::v6_, &NetBytes::v7_};
    }

    uint8_t v4_ = 0, v5_ = 0, v6_ = 0, v7_ = 0;
};

/// A field of a header: a `Number` in network order, as the type `T`, which derives from it and
/// adds its `typeName`. Strep and hash are those of a record of the bytes `v0`, `v1` and on. The
/// log holds the bytes as they are, without widening.
template <class T, std::unsigned_integral Number>
class NetField : public Mox::ValueType<T>, public NetBytes<sizeof(Number)> {
    using Bytes = NetBytes<sizeof(Number)>;
    using Image = std::array<uint8_t, sizeof(Number)>;
    using Bits = std::common_type_t<Number, uint32_t>;  // Which a narrower number is promoted to.

  public:
    using typename Mox::ValueType<T>::TextIt;

    constexpr NetField() = default;
    /// From a number in host order.
    constexpr explicit NetField(Number value) { valueIs(value); }
    NetField(TextIt& it, const TextIt& end) { this->readText(it, end); }
    explicit NetField(std::string_view text) { this->readWhole(text); }
    NetField(Mox::NboAttrLog::In* in, Mox::StreamBogon) { this->readLog(in); }

    /// The number in host order.
    constexpr Number value() const {
        const auto image = std::bit_cast<Image>(static_cast<const Bytes&>(*this));
        return loadNet<Number>(image.data());
    }
    constexpr void valueIs(Number value) {
        Image image{};
        storeNet(image.data(), value);
        static_cast<Bytes&>(*this) = std::bit_cast<Bytes>(image);
    }
    /// Replaces the bits that are set in `mask` by those of `bits`; the others stay.
    constexpr void bitsIs(Bits mask, Bits bits) {
        valueIs(static_cast<Number>((value() & ~mask) | (bits & mask)));
    }

    // The first byte that differs decides, which is the order of the numbers.
    friend constexpr bool operator==(const NetField& a, const NetField& b) {
        return a.value() == b.value();
    }
    friend constexpr auto operator<=>(const NetField& a, const NetField& b) {
        return a.value() <=> b.value();
    }

    static constexpr auto description() {
        return describe(std::make_index_sequence<sizeof(Number)>());
    }
    void toLog(Mox::NboAttrLog::Out& out) const {
        out.raw(static_cast<const Bytes*>(this), sizeof(Bytes));
    }
    void fromLog(Mox::NboAttrLog::In& in) { in.raw(static_cast<Bytes*>(this), sizeof(Bytes)); }

  private:
    template <std::size_t... i>
    static constexpr auto describe(std::index_sequence<i...>) {
        constexpr std::string_view names[] = {"v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7"};
        return Mox::record(T::typeName, Mox::field<T, uint8_t>(names[i], Bytes::members()[i])...);
    }
};

/// A byte, whose text is its number.
class NetU8 : public NetField<NetU8, uint8_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::NetU8";
    const char* parse(Mox::TextCursor& in) {
        uint32_t number = 0;
        if (!in.decimal(&number) || number > 0xff) {
            return invalidText;
        }
        valueIs(static_cast<uint8_t>(number));
        return nullptr;
    }
    void print(Mox::TextWriter& out) const { out.decimal(value()); }
};

/// Two bytes, whose text is the record of them.
class NetU16 : public NetField<NetU16, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::NetU16";
};

/// Four bytes, whose text is the record of them.
class NetU32 : public NetField<NetU32, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::NetU32";
};

/// Eight bytes, whose text is the record of them.
class NetU64 : public NetField<NetU64, uint64_t> {
  public:
    using NetField::NetField;

    /// Not 0.
    explicit constexpr operator bool() const { return *this != NetU64(); }

    static constexpr std::string_view typeName = "Pavo::NetU64";
};

/// An Internet checksum as it is sent (RFC 1071).
class IpChecksum : public NetField<IpChecksum, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::IpChecksum";
};

/// True for what may be laid over packet bytes at any address: `bytes` long, no padding, no
/// constructor to run.
template <class T>
constexpr bool isOverlay(std::size_t bytes) {
    return sizeof(T) == bytes && alignof(T) == 1 && std::is_trivially_copyable_v<T>;
}

static_assert(isOverlay<NetU8>(1) && isOverlay<NetU16>(2) && isOverlay<NetU32>(4));
static_assert(isOverlay<NetU64>(8) && isOverlay<IpChecksum>(2));

}  // namespace Pavo
