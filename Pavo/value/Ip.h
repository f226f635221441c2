/// @file
/// The small fields of IP and transport headers, as values.
#pragma once

#include <cstdint>
#include <type_traits>

#include "Mox/Enum.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// The protocol after an IP header, as assigned by IANA ("Protocol Numbers"). The unassigned
/// numbers 147 to 252 are not members.
enum class IpProtocolNumber : uint32_t {
    hopopt = 0,
    icmp = 1,
    igmp = 2,
    ggp = 3,
    ipv4 = 4,
    st = 5,
    tcp = 6,
    cbt = 7,
    egp = 8,
    igp = 9,
    bbnRccMon = 10,
    nvpII = 11,
    pup = 12,
    argus = 13,
    emcon = 14,
    xnet = 15,
    chaos = 16,
    udp = 17,
    mux = 18,
    dcnMeas = 19,
    hmp = 20,
    prm = 21,
    xnsIdp = 22,
    trunk1 = 23,
    trunk2 = 24,
    leaf1 = 25,
    leaf2 = 26,
    rdp = 27,
    irtp = 28,
    isoTp4 = 29,
    netblt = 30,
    mfeNsp = 31,
    meritInp = 32,
    dccp = 33,
    threePc = 34,
    idpr = 35,
    xtp = 36,
    ddp = 37,
    idprCmtp = 38,
    tpPlusPlus = 39,
    il = 40,
    ipv6 = 41,
    sdrp = 42,
    ipv6Route = 43,
    ipv6Frag = 44,
    idrp = 45,
    rsvp = 46,
    gre = 47,
    dsr = 48,
    bna = 49,
    esp = 50,
    ah = 51,
    iNlsp = 52,
    swipe = 53,
    narp = 54,
    mobile = 55,
    tlsp = 56,
    skip = 57,
    ipv6Icmp = 58,
    ipv6NoNxt = 59,
    ipv6Opts = 60,
    anyHostInternal = 61,
    cftp = 62,
    anyLocalNetwork = 63,
    satExpak = 64,
    kryptolan = 65,
    rvd = 66,
    ippc = 67,
    anyDistributedFileSystem = 68,
    satMon = 69,
    visa = 70,
    ipcv = 71,
    cpnx = 72,
    cphb = 73,
    wsn = 74,
    pvp = 75,
    brSatMon = 76,
    sunNd = 77,
    wbMon = 78,
    wbExpak = 79,
    isoIp = 80,
    vmtp = 81,
    secureVmtp = 82,
    vines = 83,
    iptm = 84,
    nsfnetIgp = 85,
    dgp = 86,
    tcf = 87,
    eigrp = 88,
    ospf = 89,
    spriteRpc = 90,
    larp = 91,
    mtp = 92,
    ax25 = 93,
    ipip = 94,
    micp = 95,
    sccSp = 96,
    etherip = 97,
    encap = 98,
    anyPrivateEncryption = 99,
    gmtp = 100,
    ifmp = 101,
    pnni = 102,
    pim = 103,
    aris = 104,
    scps = 105,
    qnx = 106,
    activeNetworks = 107,
    ipComp = 108,
    snp = 109,
    compaqPeer = 110,
    ipxInIp = 111,
    vrrp = 112,
    pgm = 113,
    anyZeroHop = 114,
    l2tp = 115,
    ddx = 116,
    iatp = 117,
    stp = 118,
    srp = 119,
    uti = 120,
    smp = 121,
    sm = 122,
    ptp = 123,
    isisOverIpv4 = 124,
    fire = 125,
    crtp = 126,
    crudp = 127,
    sscopmce = 128,
    iplt = 129,
    sps = 130,
    pipe = 131,
    sctp = 132,
    fc = 133,
    rsvpE2eIgnore = 134,
    mobilityHeader = 135,
    udpLite = 136,
    mplsInIp = 137,
    manet = 138,
    hip = 139,
    shim6 = 140,
    wesp = 141,
    rohc = 142,
    ethernet = 143,
    aggfrag = 144,
    nsh = 145,
    homa = 146,
    experiment1 = 253,
    experiment2 = 254,
    reserved = 255,
};

/// @throws Mox::RangeException "Invalid IpProtocolNumber"
PAVO_EXPORT IpProtocolNumber IpProtocolNumberInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid IpProtocolNumber"
PAVO_EXPORT IpProtocolNumber IpProtocolNumberInstance(const Mox::String& name);
/// A protocol byte of a packet as the number that it is; 255, `reserved`, for one that is not
/// assigned.
PAVO_EXPORT IpProtocolNumber protocolNumFromByte(uint8_t byte);

constexpr auto enumDescription(IpProtocolNumber) {
    return Mox::enumeration<IpProtocolNumber>(
        "Invalid IpProtocolNumber",
        {
            {IpProtocolNumber::hopopt, "hopopt"},
            {IpProtocolNumber::icmp, "icmp"},
            {IpProtocolNumber::igmp, "igmp"},
            {IpProtocolNumber::ggp, "ggp"},
            {IpProtocolNumber::ipv4, "ipv4"},
            {IpProtocolNumber::st, "st"},
            {IpProtocolNumber::tcp, "tcp"},
            {IpProtocolNumber::cbt, "cbt"},
            {IpProtocolNumber::egp, "egp"},
            {IpProtocolNumber::igp, "igp"},
            {IpProtocolNumber::bbnRccMon, "bbnRccMon"},
            {IpProtocolNumber::nvpII, "nvpII"},
            {IpProtocolNumber::pup, "pup"},
            {IpProtocolNumber::argus, "argus"},
            {IpProtocolNumber::emcon, "emcon"},
            {IpProtocolNumber::xnet, "xnet"},
            {IpProtocolNumber::chaos, "chaos"},
            {IpProtocolNumber::udp, "udp"},
            {IpProtocolNumber::mux, "mux"},
            {IpProtocolNumber::dcnMeas, "dcnMeas"},
            {IpProtocolNumber::hmp, "hmp"},
            {IpProtocolNumber::prm, "prm"},
            {IpProtocolNumber::xnsIdp, "xnsIdp"},
            {IpProtocolNumber::trunk1, "trunk1"},
            {IpProtocolNumber::trunk2, "trunk2"},
            {IpProtocolNumber::leaf1, "leaf1"},
            {IpProtocolNumber::leaf2, "leaf2"},
            {IpProtocolNumber::rdp, "rdp"},
            {IpProtocolNumber::irtp, "irtp"},
            {IpProtocolNumber::isoTp4, "isoTp4"},
            {IpProtocolNumber::netblt, "netblt"},
            {IpProtocolNumber::mfeNsp, "mfeNsp"},
            {IpProtocolNumber::meritInp, "meritInp"},
            {IpProtocolNumber::dccp, "dccp"},
            {IpProtocolNumber::threePc, "threePc"},
            {IpProtocolNumber::idpr, "idpr"},
            {IpProtocolNumber::xtp, "xtp"},
            {IpProtocolNumber::ddp, "ddp"},
            {IpProtocolNumber::idprCmtp, "idprCmtp"},
            {IpProtocolNumber::tpPlusPlus, "tpPlusPlus"},
            {IpProtocolNumber::il, "il"},
            {IpProtocolNumber::ipv6, "ipv6"},
            {IpProtocolNumber::sdrp, "sdrp"},
            {IpProtocolNumber::ipv6Route, "ipv6Route"},
            {IpProtocolNumber::ipv6Frag, "ipv6Frag"},
            {IpProtocolNumber::idrp, "idrp"},
            {IpProtocolNumber::rsvp, "rsvp"},
            {IpProtocolNumber::gre, "gre"},
            {IpProtocolNumber::dsr, "dsr"},
            {IpProtocolNumber::bna, "bna"},
            {IpProtocolNumber::esp, "esp"},
            {IpProtocolNumber::ah, "ah"},
            {IpProtocolNumber::iNlsp, "iNlsp"},
            {IpProtocolNumber::swipe, "swipe"},
            {IpProtocolNumber::narp, "narp"},
            {IpProtocolNumber::mobile, "mobile"},
            {IpProtocolNumber::tlsp, "tlsp"},
            {IpProtocolNumber::skip, "skip"},
            {IpProtocolNumber::ipv6Icmp, "ipv6Icmp"},
            {IpProtocolNumber::ipv6NoNxt, "ipv6NoNxt"},
            {IpProtocolNumber::ipv6Opts, "ipv6Opts"},
            {IpProtocolNumber::anyHostInternal, "anyHostInternal"},
            {IpProtocolNumber::cftp, "cftp"},
            {IpProtocolNumber::anyLocalNetwork, "anyLocalNetwork"},
            {IpProtocolNumber::satExpak, "satExpak"},
            {IpProtocolNumber::kryptolan, "kryptolan"},
            {IpProtocolNumber::rvd, "rvd"},
            {IpProtocolNumber::ippc, "ippc"},
            {IpProtocolNumber::anyDistributedFileSystem, "anyDistributedFileSystem"},
            {IpProtocolNumber::satMon, "satMon"},
            {IpProtocolNumber::visa, "visa"},
            {IpProtocolNumber::ipcv, "ipcv"},
            {IpProtocolNumber::cpnx, "cpnx"},
            {IpProtocolNumber::cphb, "cphb"},
            {IpProtocolNumber::wsn, "wsn"},
            {IpProtocolNumber::pvp, "pvp"},
            {IpProtocolNumber::brSatMon, "brSatMon"},
            {IpProtocolNumber::sunNd, "sunNd"},
            {IpProtocolNumber::wbMon, "wbMon"},
            {IpProtocolNumber::wbExpak, "wbExpak"},
            {IpProtocolNumber::isoIp, "isoIp"},
            {IpProtocolNumber::vmtp, "vmtp"},
            {IpProtocolNumber::secureVmtp, "secureVmtp"},
            {IpProtocolNumber::vines, "vines"},
            {IpProtocolNumber::iptm, "iptm"},
            {IpProtocolNumber::nsfnetIgp, "nsfnetIgp"},
            {IpProtocolNumber::dgp, "dgp"},
            {IpProtocolNumber::tcf, "tcf"},
            {IpProtocolNumber::eigrp, "eigrp"},
            {IpProtocolNumber::ospf, "ospf"},
            {IpProtocolNumber::spriteRpc, "spriteRpc"},
            {IpProtocolNumber::larp, "larp"},
            {IpProtocolNumber::mtp, "mtp"},
            {IpProtocolNumber::ax25, "ax25"},
            {IpProtocolNumber::ipip, "ipip"},
            {IpProtocolNumber::micp, "micp"},
            {IpProtocolNumber::sccSp, "sccSp"},
            {IpProtocolNumber::etherip, "etherip"},
            {IpProtocolNumber::encap, "encap"},
            {IpProtocolNumber::anyPrivateEncryption, "anyPrivateEncryption"},
            {IpProtocolNumber::gmtp, "gmtp"},
            {IpProtocolNumber::ifmp, "ifmp"},
            {IpProtocolNumber::pnni, "pnni"},
            {IpProtocolNumber::pim, "pim"},
            {IpProtocolNumber::aris, "aris"},
            {IpProtocolNumber::scps, "scps"},
            {IpProtocolNumber::qnx, "qnx"},
            {IpProtocolNumber::activeNetworks, "activeNetworks"},
            {IpProtocolNumber::ipComp, "ipComp"},
            {IpProtocolNumber::snp, "snp"},
            {IpProtocolNumber::compaqPeer, "compaqPeer"},
            {IpProtocolNumber::ipxInIp, "ipxInIp"},
            {IpProtocolNumber::vrrp, "vrrp"},
            {IpProtocolNumber::pgm, "pgm"},
            {IpProtocolNumber::anyZeroHop, "anyZeroHop"},
            {IpProtocolNumber::l2tp, "l2tp"},
            {IpProtocolNumber::ddx, "ddx"},
            {IpProtocolNumber::iatp, "iatp"},
            {IpProtocolNumber::stp, "stp"},
            {IpProtocolNumber::srp, "srp"},
            {IpProtocolNumber::uti, "uti"},
            {IpProtocolNumber::smp, "smp"},
            {IpProtocolNumber::sm, "sm"},
            {IpProtocolNumber::ptp, "ptp"},
            {IpProtocolNumber::isisOverIpv4, "isisOverIpv4"},
            {IpProtocolNumber::fire, "fire"},
            {IpProtocolNumber::crtp, "crtp"},
            {IpProtocolNumber::crudp, "crudp"},
            {IpProtocolNumber::sscopmce, "sscopmce"},
            {IpProtocolNumber::iplt, "iplt"},
            {IpProtocolNumber::sps, "sps"},
            {IpProtocolNumber::pipe, "pipe"},
            {IpProtocolNumber::sctp, "sctp"},
            {IpProtocolNumber::fc, "fc"},
            {IpProtocolNumber::rsvpE2eIgnore, "rsvpE2eIgnore"},
            {IpProtocolNumber::mobilityHeader, "mobilityHeader"},
            {IpProtocolNumber::udpLite, "udpLite"},
            {IpProtocolNumber::mplsInIp, "mplsInIp"},
            {IpProtocolNumber::manet, "manet"},
            {IpProtocolNumber::hip, "hip"},
            {IpProtocolNumber::shim6, "shim6"},
            {IpProtocolNumber::wesp, "wesp"},
            {IpProtocolNumber::rohc, "rohc"},
            {IpProtocolNumber::ethernet, "ethernet"},
            {IpProtocolNumber::aggfrag, "aggfrag"},
            {IpProtocolNumber::nsh, "nsh"},
            {IpProtocolNumber::homa, "homa"},
            {IpProtocolNumber::experiment1, "experiment1"},
            {IpProtocolNumber::experiment2, "experiment2"},
            {IpProtocolNumber::reserved, "reserved"},
        });
}

/// The version nibble of an IP header: 4 and 6 are in use, but a packet may hold any.
class IpVersion : public Ordinal<IpVersion, uint8_t, 15> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpVersion";
    static constexpr const char* rangeText = "IpVersion::value < 0 or > 15 not allowed";
};

/// A time to live, or an IPv6 hop limit, in hops.
class IpTtl : public Ordinal<IpTtl, uint8_t, 255> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpTtl";
    static constexpr const char* rangeText = "IpTtl::value < 0 or > 255 not allowed";
};

/// The whole type-of-service byte of an IPv4 header, as it is: the six bits of the code point lie
/// above the two of congestion notification (RFC 2474, 3; RFC 3168, 5).
class IpDscp : public Ordinal<IpDscp, uint8_t, 255> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpDscp";
    static constexpr const char* rangeText = "IpDscp::value < 0 or > 255 not allowed";
};

/// The traffic class of an IPv6 header: the same byte as `IpDscp` (RFC 8200, 7).
class IpTrafficClass : public Ordinal<IpTrafficClass, uint8_t, 255> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpTrafficClass";
    static constexpr const char* rangeText = "IpTrafficClass::value < 0 or > 255 not allowed";
};

/// The 20-bit flow label of an IPv6 header (RFC 6437).
class IpFlowLabel : public Ordinal<IpFlowLabel, uint32_t, 0xfffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::IpFlowLabel";
    static constexpr const char* rangeText = "IpFlowLabel::value < 0 or > 1048575 not allowed";
};

/// A TCP, UDP or SCTP port number, in host order.
class Port : public Ordinal<Port, uint16_t, 0xffff> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::Port";
    static constexpr const char* rangeText = "Port::value < 0 or > 65535 not allowed";
};

static_assert(sizeof(IpVersion) == 1 && sizeof(IpTtl) == 1 && sizeof(IpDscp) == 1 &&
              sizeof(IpTrafficClass) == 1 && sizeof(IpFlowLabel) == 4 && sizeof(Port) == 2);
static_assert(std::is_trivially_copyable_v<IpTtl> && std::is_trivially_copyable_v<IpFlowLabel>);

}  // namespace Pavo
