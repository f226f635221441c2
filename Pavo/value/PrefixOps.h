/// @file
/// The networks above and below a prefix, for the prefix types of all families.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/ValueType.h"

namespace Pavo {

/// The address next to the last one of the network; zero when that is the last of all. `len` is at
/// most that of an address.
template <class Address>
constexpr Address addressAfterNetwork(const Address& network, uint32_t len) {
    if constexpr (sizeof(Address) == 4) {
        return Address(network.value() + (len == 0 ? 0 : uint32_t{1} << (32 - len)));
    } else {
        const uint64_t low = network.u64(1) + (len > 64 ? uint64_t{1} << (128 - len) : 0);
        const bool isHighStep = len > 64 ? low == 0 : len > 0;
        const uint64_t step = isHighStep ? uint64_t{1} << (len > 64 ? 0 : 64 - len) : 0;
        return Address(network.u64(0) + step, low);
    }
}

/// The networks of one length that a prefix consists of, in ascending order of address:
/// `for (const Prefix& subnet : prefix.subnets(24))`. Each is made when the loop comes to it, so
/// that a range of 2^128 takes no memory either.
template <class T>
class Subnets {
  public:
    /// The end of the range, which holds nothing.
    struct End {};
    /// At one network. It holds the whole prefix, and is valid without the range.
    class Iterator {
      public:
        /// What `std::input_iterator` asks for.
        using value_type = T;
        /// What `std::input_iterator` asks for.
        using difference_type = std::ptrdiff_t;

        constexpr Iterator() = default;
        /// At the first network.
        constexpr Iterator(const T& whole, uint32_t len)
            : whole_(whole), at_(whole.networkOf(whole.address(), len)) {}

        /// The network, by value.
        constexpr T operator*() const { return at_; }
        /// Moves to the next network; at the last one to the end.
        constexpr Iterator& operator++() {
            const auto next = addressAfterNetwork(at_.address(), at_.len());
            at_ = whole_.networkOf(next, at_.len());
            // After the last network of all addresses comes the first.
            isAtEnd_ = next == whole_.address() || !whole_.contains(at_);
            return *this;
        }
        /// As `++it`; yields the iterator before.
        constexpr Iterator operator++(int) {
            const Iterator before = *this;
            ++*this;
            return before;
        }

        friend constexpr bool operator==(const Iterator&, const Iterator&) = default;
        friend constexpr bool operator==(const Iterator& it, End) { return it.isAtEnd_; }

      private:
        T whole_;
        T at_;
        bool isAtEnd_ = false;
    };

    /// `len` is at least the length of `whole`, as `PrefixOps::subnets` checks.
    constexpr Subnets(const T& whole, uint32_t len) : begin_(whole, len) {}

    constexpr Iterator begin() const { return begin_; }
    constexpr End end() const { return {}; }

  private:
    Iterator begin_;
};

/// A base of prefix type `T`, which needs `address()`, `len()`, `contains(const T&)` and
/// `containing(address, len)`, and, for several families, `addressBits` and `networkOf` of its own.
template <class T>
class PrefixOps {
  public:
    /// The prefix of the length `len` that covers this one.
    /// @throws Mox::RangeException "Invalid supernet length" for a `len` above this one's own, or
    /// above that of an address
    [[nodiscard]] constexpr T supernet(uint32_t len) const {
        if (len > ownLen()) {
            Mox::throwRangeException("Invalid supernet length");
        }
        return self().networkOf(self().address(), len);
    }
    /// The prefixes of the length `len` that this one consists of, itself for its own length.
    /// @throws Mox::RangeException "Invalid subnet length" for a `len` below this one's own, or
    /// above that of an address
    [[nodiscard]] constexpr Subnets<T> subnets(uint32_t len) const {
        if (len < ownLen() || len > self().addressBits()) {
            Mox::throwRangeException("Invalid subnet length");
        }
        return Subnets<T>(self(), len);
    }

    /// The length of an address of the family.
    static constexpr uint32_t addressBits() { return 8 * sizeof(std::declval<T>().address()); }
    /// The prefix of the family that `address` lies in.
    template <class Address>
    static constexpr T networkOf(const Address& address, uint32_t len) {
        return T::containing(address, len);
    }

    // The defaulted comparisons of T compare this empty base too.
    template <std::same_as<PrefixOps> Base>
    friend constexpr bool operator==(const Base&, const Base&) {
        return true;
    }

  private:
    constexpr const T& self() const { return static_cast<const T&>(*this); }
    // A `Prefix` of the length 0xffffffff is one address.
    constexpr uint32_t ownLen() const {
        return self().len() < self().addressBits() ? self().len() : self().addressBits();
    }
};

/// A prefix type.
template <class T>
concept PrefixValue = Mox::Value<T> && std::derived_from<T, PrefixOps<T>>;

}  // namespace Pavo

/// Mixed of address and length as numbers, and not by `hash()`: a lookup in a table takes the hash
/// of each prefix on its way, and is two to five times as fast. Every bit depends on all of address
/// and length, since networks are zero in the low bits that many tables use.
template <Pavo::PrefixValue T>
struct std::hash<T> {
    std::size_t operator()(const T& prefix) const noexcept {
        uint64_t key = prefix.len();
        if constexpr (requires { prefix.af(); }) {
            key |= static_cast<uint64_t>(prefix.af()) << 32;
        }
        if constexpr (sizeof(prefix.address()) == 4) {
            key |= uint64_t{prefix.address().value()} << 32;
        } else {
            key = mixed(key ^ prefix.address().u64(1)) ^ prefix.address().u64(0);
        }
        return static_cast<uint32_t>(mixed(mixed(key)) >> 32);
    }

  private:
    static constexpr uint64_t mixed(uint64_t key) {
        return (key ^ key >> 32) * 0x9e3779b97f4a7c15;  // 2^64 divided by the golden ratio.
    }
};
