/// @file
/// The results of packet checks.
#pragma once

#include <cstdint>

#include "Mox/Enum.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// The result of a check of a packet: `noError`, or one negative number a fault, in a group of its
/// own for each protocol.
enum class PktErrors : int32_t {
    noError = 0,
    pktTooShort = -1,
    wrongEthType = -2,

    // IPv4.
    badIpHdrChecksum = -50,
    badIpPayloadLen = -51,
    nonIpHdr = -52,
    wrongIpOption = -53,
    ipFragment = -54,

    // IPv6.
    nonIp6Hdr = -101,
    badIp6PayloadLen = -102,
    wrongIp6Option = -103,

    // ICMPv6 and neighbour discovery (RFC 4861, 7.1).
    nextHdrIsNotIcmp6 = -200,
    badIcmp6Checksum = -201,
    icmp6TypeNotSupported = -202,
    icmp6PayloadLenTooShortForHdr = -203,
    icmp6OptLenZero = -204,
    icmp6OptLenExceedPayloadLen = -205,
    nonOnLink = -206,
    notIcmp6NsType = -207,
    icmp6NsTgtMcast = -208,
    unspecifiedSrcAddrAndNotSolicitedNodeDst = -209,
    unspecSrcAddrSrcLinkLayerAddr = -210,
    noSrcLinkLayerOptInMcastNs = -211,
    notIcmp6NaType = -212,
    icmp6NaTgtMcast = -213,
    icmp6McastDstIpAndNonZeroSolicitation = -214,
    badIcmp6Code = -215,
    nonLinkLocalSrc = -216,
    icmp6RedirectDstMcast = -217,
    icmp6RedirectTgt = -218,

    // ARP.
    badArpPkt = -300,

    // VRRP (RFC 5798, 7.1).
    nonVrrpProto = -400,
    nonVrrpMac = -401,
    nonVrrpDstAddr = -402,
    badVrrpVersion = -403,
    badVrrpLen = -404,
    badVrrpChecksum = -405,
    badVrrpAuth = -406,
    badVrrpLinkLocal = -407,
    vrrpVridMacMismatch = -408,
    badVrrpType = -409,

    // The authentication header (RFC 4302).
    nextHdrIsNotAh = -500,
    badAhLen = -501,
    nonAhHmac96 = -502,

    // IGMP (RFC 2236, RFC 3376).
    nonIgmpProto = -600,
    badIgmpChecksum = -601,
    badIgmpType = -602,
    badIgmpLen = -603,
    badIgmpGroup = -604,

    // PIM (RFC 7761, 4.9).
    nonPimProto = -700,
    badPimVersion = -701,
    badPimLen = -702,
    badPimChecksum = -703,

    // Tunnels: GRE (RFC 2784, RFC 2890), VXLAN (RFC 7348), pseudowires (RFC 4385), I-TAGs
    // (IEEE 802.1Q, 9.7).
    nonGreProto = -800,
    badGreVersion = -801,
    badGreFlags = -802,
    badGreLen = -803,
    badGreChecksum = -804,
    badVxlanFlags = -805,
    nonPwControlWord = -806,
    badPwLen = -807,
    badMimReserved = -808,
};

/// @throws Mox::RangeException "Invalid PktErrors"
PAVO_EXPORT PktErrors PktErrorsInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid PktErrors"
PAVO_EXPORT PktErrors PktErrorsInstance(const Mox::String& name);

// clang-format off
constexpr auto enumDescription(PktErrors) {
    return Mox::enumeration<PktErrors>("Invalid PktErrors", {
        {PktErrors::noError, "noError"},
        {PktErrors::pktTooShort, "pktTooShort"},
        {PktErrors::wrongEthType, "wrongEthType"},
        {PktErrors::badIpHdrChecksum, "badIpHdrChecksum"},
        {PktErrors::badIpPayloadLen, "badIpPayloadLen"},
        {PktErrors::nonIpHdr, "nonIpHdr"},
        {PktErrors::wrongIpOption, "wrongIpOption"},
        {PktErrors::ipFragment, "ipFragment"},
        {PktErrors::nonIp6Hdr, "nonIp6Hdr"},
        {PktErrors::badIp6PayloadLen, "badIp6PayloadLen"},
        {PktErrors::wrongIp6Option, "wrongIp6Option"},
        {PktErrors::nextHdrIsNotIcmp6, "nextHdrIsNotIcmp6"},
        {PktErrors::badIcmp6Checksum, "badIcmp6Checksum"},
        {PktErrors::icmp6TypeNotSupported, "icmp6TypeNotSupported"},
        {PktErrors::icmp6PayloadLenTooShortForHdr, "icmp6PayloadLenTooShortForHdr"},
        {PktErrors::icmp6OptLenZero, "icmp6OptLenZero"},
        {PktErrors::icmp6OptLenExceedPayloadLen, "icmp6OptLenExceedPayloadLen"},
        {PktErrors::nonOnLink, "nonOnLink"},
        {PktErrors::notIcmp6NsType, "notIcmp6NsType"},
        {PktErrors::icmp6NsTgtMcast, "icmp6NsTgtMcast"},
        {PktErrors::unspecifiedSrcAddrAndNotSolicitedNodeDst,
         "unspecifiedSrcAddrAndNotSolicitedNodeDst"},
        {PktErrors::unspecSrcAddrSrcLinkLayerAddr, "unspecSrcAddrSrcLinkLayerAddr"},
        {PktErrors::noSrcLinkLayerOptInMcastNs, "noSrcLinkLayerOptInMcastNs"},
        {PktErrors::notIcmp6NaType, "notIcmp6NaType"},
        {PktErrors::icmp6NaTgtMcast, "icmp6NaTgtMcast"},
        {PktErrors::icmp6McastDstIpAndNonZeroSolicitation,
         "icmp6McastDstIpAndNonZeroSolicitation"},
        {PktErrors::badIcmp6Code, "badIcmp6Code"},
        {PktErrors::nonLinkLocalSrc, "nonLinkLocalSrc"},
        {PktErrors::icmp6RedirectDstMcast, "icmp6RedirectDstMcast"},
        {PktErrors::icmp6RedirectTgt, "icmp6RedirectTgt"},
        {PktErrors::badArpPkt, "badArpPkt"},
        {PktErrors::nonVrrpProto, "nonVrrpProto"},
        {PktErrors::nonVrrpMac, "nonVrrpMac"},
        {PktErrors::nonVrrpDstAddr, "nonVrrpDstAddr"},
        {PktErrors::badVrrpVersion, "badVrrpVersion"},
        {PktErrors::badVrrpLen, "badVrrpLen"},
        {PktErrors::badVrrpChecksum, "badVrrpChecksum"},
        {PktErrors::badVrrpAuth, "badVrrpAuth"},
        {PktErrors::badVrrpLinkLocal, "badVrrpLinkLocal"},
        {PktErrors::vrrpVridMacMismatch, "vrrpVridMacMismatch"},
        {PktErrors::badVrrpType, "badVrrpType"},
        {PktErrors::nextHdrIsNotAh, "nextHdrIsNotAh"},
        {PktErrors::badAhLen, "badAhLen"},
        {PktErrors::nonAhHmac96, "nonAhHmac96"},
        {PktErrors::nonIgmpProto, "nonIgmpProto"},
        {PktErrors::badIgmpChecksum, "badIgmpChecksum"},
        {PktErrors::badIgmpType, "badIgmpType"},
        {PktErrors::badIgmpLen, "badIgmpLen"},
        {PktErrors::badIgmpGroup, "badIgmpGroup"},
        {PktErrors::nonPimProto, "nonPimProto"},
        {PktErrors::badPimVersion, "badPimVersion"},
        {PktErrors::badPimLen, "badPimLen"},
        {PktErrors::badPimChecksum, "badPimChecksum"},
        {PktErrors::nonGreProto, "nonGreProto"},
        {PktErrors::badGreVersion, "badGreVersion"},
        {PktErrors::badGreFlags, "badGreFlags"},
        {PktErrors::badGreLen, "badGreLen"},
        {PktErrors::badGreChecksum, "badGreChecksum"},
        {PktErrors::badVxlanFlags, "badVxlanFlags"},
        {PktErrors::nonPwControlWord, "nonPwControlWord"},
        {PktErrors::badPwLen, "badPwLen"},
        {PktErrors::badMimReserved, "badMimReserved"},
    });
}
// clang-format on

}  // namespace Pavo
