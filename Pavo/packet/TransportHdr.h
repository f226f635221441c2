/// @file
/// What TCP and UDP have in common: pseudo headers, which put the addresses of the IP header into a
/// checksum, and wrappers that hold one.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <utility>

#include "Mox/Ptr.h"
#include "Mox/ValueType.h"

#include "Pavo/base/ValueFunctions.h"
#include "Pavo/packet/Checksum.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// What stands for the IPv4 header in a checksum (RFC 768, RFC 9293, 3.1), in the order in which it
/// is summed. By default all is zero but the protocol:
///
///     | source (4)      |
///     | destination (4) |
///     | zero (1) | protocol (1) | length of header and data (2) |
///
/// The type `T` derives from this, inherits the constructors, gives access to its length, which is
/// a `Len`, and names `typeName` and the length's `lenName`.
///
/// Members: the fields of the drawing, in host order.
template <class T, class Len, IpProtocolNumber number>
class PseudoHdr : public Mox::ValueType<T> {
  public:
    using typename Mox::ValueType<T>::TextIt;
    using Address = IpAddr;

    constexpr PseudoHdr() = default;
    constexpr PseudoHdr(IpAddr src, IpAddr dst, uint16_t bytes)
        : src_(src), dst_(dst), len_(bytes) {}
    PseudoHdr(TextIt& it, const TextIt& end) { this->readText(it, end); }
    explicit PseudoHdr(std::string_view text) { this->readWhole(text); }
    PseudoHdr(Mox::NboAttrLog::In* in, Mox::StreamBogon) { this->readLog(in); }

    IpAddr src() const { return src_; }
    void srcIs(IpAddr src) { src_ = src; }
    IpAddr dst() const { return dst_; }
    void dstIs(IpAddr dst) { dst_ = dst; }
    uint8_t zero() const { return zero_; }
    void zeroIs(uint8_t zero) { zero_ = zero; }
    uint8_t protocol() const { return protocol_; }
    void protocolIs(uint8_t protocol) { protocol_ = protocol; }

    /// The unfolded sum (see `ipChecksumChunk`). From the fields, since a load that spans several
    /// of them would wait for their stores.
    uint32_t sum() const {
        return addressSumOf(src_, dst_) + uint32_t{zero_} * 256 + protocol_ + len_.value();
    }

    friend constexpr auto operator<=>(const PseudoHdr&, const PseudoHdr&) = default;

    static constexpr auto description() {
        return Mox::record(T::typeName, Mox::field<T, IpAddr>("src", &PseudoHdr::src_),
                           Mox::field<T, IpAddr>("dst", &PseudoHdr::dst_),
                           Mox::field<T, uint8_t>("zero", &PseudoHdr::zero_),
                           Mox::field<T, uint8_t>("protocol", &PseudoHdr::protocol_),
                           Mox::field<T, Len>(T::lenName, &PseudoHdr::len_));
    }

  protected:
    IpAddr src_;
    IpAddr dst_;
    uint8_t zero_ = 0;
    uint8_t protocol_ = static_cast<uint8_t>(number);
    Len len_;
};

/// The same for the IPv6 header (RFC 8200, 8.1):
///
///     | source (16)                   |
///     | destination (16)              |
///     | length of header and data (4) |
///     | zeros (2) | zero (1) | protocol (1) |
///
/// Members: the fields of the drawing, in host order.
template <class T, class Len, IpProtocolNumber number>
class PseudoHdrIpv6 : public Mox::ValueType<T> {
  public:
    using typename Mox::ValueType<T>::TextIt;
    using Address = Ip6Addr;

    constexpr PseudoHdrIpv6() = default;
    constexpr PseudoHdrIpv6(const Ip6Addr& src, const Ip6Addr& dst, uint32_t bytes)
        : src_(src), dst_(dst), len_(bytes) {}
    PseudoHdrIpv6(TextIt& it, const TextIt& end) { this->readText(it, end); }
    explicit PseudoHdrIpv6(std::string_view text) { this->readWhole(text); }
    PseudoHdrIpv6(Mox::NboAttrLog::In* in, Mox::StreamBogon) { this->readLog(in); }

    Ip6Addr src() const { return src_; }
    void srcIs(const Ip6Addr& src) { src_ = src; }
    Ip6Addr dst() const { return dst_; }
    void dstIs(const Ip6Addr& dst) { dst_ = dst; }
    uint16_t zeros() const { return zeros_.value(); }
    void zerosIs(uint16_t zeros) { zeros_.valueIs(zeros); }
    uint8_t zero() const { return zero_; }
    void zeroIs(uint8_t zero) { zero_ = zero; }
    /// The number of the upper header, whatever extension headers are in between.
    uint8_t protocol() const { return protocol_; }
    void protocolIs(uint8_t protocol) { protocol_ = protocol; }

    /// The unfolded sum (see `ipChecksumChunk`).
    uint32_t sum() const { return ipChecksumChunk(this, sizeof(T), 0); }

    friend constexpr auto operator<=>(const PseudoHdrIpv6&, const PseudoHdrIpv6&) = default;

    static constexpr auto description() {
        return Mox::record(T::typeName, Mox::field<T, Ip6Addr>("src", &PseudoHdrIpv6::src_),
                           Mox::field<T, Ip6Addr>("dst", &PseudoHdrIpv6::dst_),
                           Mox::field<T, Len>(T::lenName, &PseudoHdrIpv6::len_),
                           Mox::field<T, NetU16>("zeros", &PseudoHdrIpv6::zeros_),
                           Mox::field<T, uint8_t>("zero", &PseudoHdrIpv6::zero_),
                           Mox::field<T, uint8_t>("protocol", &PseudoHdrIpv6::protocol_));
    }

  protected:
    Ip6Addr src_;
    Ip6Addr dst_;
    Len len_;
    NetU16 zeros_;
    uint8_t zero_ = 0;
    uint8_t protocol_ = static_cast<uint8_t>(number);
};

/// A wrapper that holds what the checksum needs beside the packet: the addresses, which are zero
/// until they are set.
///
/// Members: the addresses of the pseudo header.
template <class Self, class Hdr, class Pseudo>
class TransportHdrWrapper : public HdrWrapper<Self, Hdr> {
  public:
    using HdrWrapper<Self, Hdr>::HdrWrapper;
    using Address = typename Pseudo::Address;

    Address src() const { return pseudo_.src(); }
    void srcIs(const Address& src) { pseudo_.srcIs(src); }
    Address dst() const { return pseudo_.dst(); }
    void dstIs(const Address& dst) { pseudo_.dstIs(dst); }

  protected:
    Pseudo pseudo_;
};

}  // namespace Pavo
