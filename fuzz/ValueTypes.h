/// @file
/// All value types and enumerations, listed once: a type that is added here is fuzzed, and compared
/// between word sizes.
#pragma once

#include <type_traits>

#include "Pavo/ArpEntry.h"
#include "Pavo/ArpKey.h"
#include "Pavo/ArpSm.h"
#include "Pavo/AutonomousSystem.h"
#include "Pavo/EthAddr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/IntfId.h"
#include "Pavo/IntfIdDesc.h"
#include "Pavo/IntfIdTrie.h"
#include "Pavo/Ip.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/Ip6Pam.h"
#include "Pavo/IpAddr.h"
#include "Pavo/IpGenAddr.h"
#include "Pavo/IpGenAddrAndPort.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "Pavo/IpGenPrefix.h"
#include "Pavo/IpHdr.h"
#include "Pavo/IpPam.h"
#include "Pavo/Mpls.h"
#include "Pavo/MplsLabelStack.h"
#include "Pavo/Namespace.h"
#include "Pavo/NamespaceName.h"
#include "Pavo/NetU.h"
#include "Pavo/Netlink.h"
#include "Pavo/PktErrors.h"
#include "Pavo/RouteDistinguisher.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpConfig.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/TcpPduPam.h"
#include "Pavo/TcpStatus.h"
#include "Pavo/UdpHdr.h"
#include "Pavo/UdpPam.h"
#include "Pavo/VrfId.h"
#include "Pavo/VrfName.h"

namespace fuzz {

template <class... T>
struct TypeList {};

template <class... T, class... U, class... V>
constexpr auto joined(TypeList<T...>, TypeList<U...>, V... more) {
    if constexpr (sizeof...(V) == 0) {
        return TypeList<T..., U...>();
    } else {
        return joined(TypeList<T..., U...>(), more...);
    }
}

/// Calls `visit(std::type_identity<T>())` for each type of the list.
template <class... T, class Visit>
void forEachType(TypeList<T...>, Visit visit) {
    (visit(std::type_identity<T>()), ...);
}

using EthTypes = TypeList<Pavo::EthAddr, Pavo::Eui64, Pavo::EthAddrWithMask>;
using IpTypes = TypeList<Pavo::IpAddr, Pavo::IpAddrWithMask, Pavo::IpAddrWithFullMask, Pavo::Prefix,
                         Pavo::IpAndPort>;
using Ip6Types =
    TypeList<Pavo::Ip6Addr, Pavo::Ip6AddrWithMask, Pavo::Ip6AddrWithFullMask, Pavo::Ip6Prefix>;
using IpGenTypes =
    TypeList<Pavo::IpGenAddr, Pavo::IpGenPrefixBase, Pavo::IpGenPrefix, Pavo::IpGenAddrWithMask,
             Pavo::IpGenAddrWithFullMask, Pavo::IpGenAddrAndPort>;
using FieldTypes =
    TypeList<Pavo::IpVersion, Pavo::IpTtl, Pavo::IpDscp, Pavo::IpTrafficClass, Pavo::IpFlowLabel,
             Pavo::Port, Pavo::Eui64U8Key, Pavo::Ip6AddrU8Key, Pavo::Ip6PrefixLen,
             Pavo::IpVersionAndHeaderLen, Pavo::IpHdrLen, Pavo::IpFlags, Pavo::IpFragmentOffset,
             Pavo::OrdinalU8, Pavo::IpGenAddrWithFullMask::PrefixLen, Pavo::NetU8, Pavo::NetU16,
             Pavo::NetU32, Pavo::NetU64, Pavo::IpChecksum, Pavo::IpTotalLen, Pavo::IpId,
             Pavo::IpFragmentOffsetAndFlags, Pavo::IpVersionTrafficClassAndFlowLabel,
             Pavo::NamespaceName, Pavo::IpFilter, Pavo::NetlinkFamily, Pavo::NetlinkMsgType,
             Pavo::NetlinkMsgFlags, Pavo::NetlinkPortId, Pavo::NetlinkGroups, Pavo::ArpKey,
             Pavo::VrfId, Pavo::VrfName>;
using TransportTypes =
    TypeList<Pavo::TcpPort, Pavo::TcpSequenceNumber, Pavo::TcpAcknowledgementNumber,
             Pavo::TcpDataOffsetAndFlags, Pavo::TcpWindow, Pavo::TcpUrgentPointer, Pavo::TcpLen,
             Pavo::TcpLenIp6, Pavo::TcpDataOffset, Pavo::TcpReserved, Pavo::TcpPseudoHdr,
             Pavo::TcpPseudoHdrIpv6, Pavo::UdpPort, Pavo::UdpLen, Pavo::UdpLenIp6,
             Pavo::UdpPseudoHdr, Pavo::UdpPseudoHdrIpv6, Pavo::SctpPort, Pavo::SctpChecksum,
             Pavo::TcpSocketOptions, Pavo::TcpKeepaliveOptions, Pavo::TcpPduPamReadReturn>;
using RdTypes = TypeList<Pavo::AutonomousSystem, Pavo::RouteDistinguisher>;
using IntfTypes = TypeList<Pavo::IntfId, Pavo::GenericIntfId, Pavo::IntfIdPart, Pavo::IntfIdPartKey,
                           Pavo::SubIntfIdKey, Pavo::ShortPrefix>;
// Without MplsLabelStack, whose text is not read.
using LabelTypes =
    TypeList<Pavo::MplsLabel, Pavo::MplsStackEntryIndex, Pavo::BoundedMplsLabelStack,
             Pavo::BoundedMplsLabelStackResult, Pavo::DynamicMplsLabelStack, Pavo::MplsLabelEntry,
             Pavo::MplsLabelOperation, Pavo::UnboundedMplsLabelOperation, Pavo::MplsLabelAndAction,
             Pavo::SmushResult, Pavo::SmushResult::SmushError>;
using ValueTypes = decltype(joined(EthTypes(), IpTypes(), Ip6Types(), IpGenTypes(), FieldTypes(),
                                   TransportTypes(), RdTypes(), IntfTypes(), LabelTypes()));

using EnumTypes =
    TypeList<Pavo::AddressFamily, Pavo::IpProtocolNumber, Pavo::PktErrors, Pavo::IcmpType,
             Pavo::Icmp6Type, Pavo::Ip6HdrOptionType, Pavo::NamespaceState,
             Pavo::TcpClientStatus::ConnectionStatus, Pavo::TcpPduPamEnableMode,
             Pavo::TcpPduPamReadResult, Pavo::RouteDistinguisher::Type,
             Pavo::RouteDistinguisher::Type0LocalType, Pavo::MplsLabelAction,
             Pavo::BoundedMplsLabelStackError, Pavo::IpSocketOptions, Pavo::IpTrafficControl,
             Pavo::IpPktOption, Pavo::Ip6Pam::Mode, Pavo::UdpPam::Mode, Pavo::ArpState,
             Pavo::ArpClaim, Pavo::ArpAddressState>;

/// Whether the strep of `value` gives the value again, as it does for all but the few below.
template <class T>
bool readsBack(const T&) {
    return true;
}
/// Parts and logs allow one length that text does not.
inline bool readsBack(const Pavo::Prefix& value) {
    return value.len() <= 32;
}
/// Parts and logs allow lengths that text does not.
inline bool readsBack(const Pavo::Ip6AddrWithMask& value) {
    return value.len() <= 128;
}
/// Text shows what is matched, without the host bits.
inline bool readsBack(const Pavo::Ip6AddrWithFullMask& value) {
    return !value.hasPrefixRepr() ||
           value.address() == value.address().ip6AddrMaskedByLength(value.prefixLen().value());
}
/// What has no family prints as IPv6.
inline bool readsBack(const Pavo::IpGenAddr& value) {
    return value.af() != Pavo::ipunknown;
}
inline bool readsBack(const Pavo::IpGenAddrAndPort& value) {
    return value.address().af() != Pavo::ipunknown;
}
inline bool readsBack(const Pavo::IpGenPrefix& value) {
    return value.af() != Pavo::ipunknown;
}
inline bool readsBack(const Pavo::IpGenAddrWithMask& value) {
    return value.af() == Pavo::ipv4 || (value.af() == Pavo::ipv6 && value.len() <= 128);
}
/// What no descriptor covers has no name.
inline bool readsBack(const Pavo::IntfId& value) {
    return value.printToBuffer(nullptr, 0) != 0;
}
/// As for `Ip6AddrWithFullMask`.
inline bool readsBack(const Pavo::IpGenAddrWithFullMask& value) {
    const bool hasLength = value.prefixLen() != Pavo::IpGenAddrWithFullMask::PrefixLen::invalid;
    return value.af() != Pavo::ipunknown && (!hasLength || value.validAsPrefix());
}

}  // namespace fuzz
