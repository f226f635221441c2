/// @file
/// The socket options and receive filters of endpoints.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/Enum.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// Socket options of an IP endpoint, as bits; each stands for the Linux option named beside it
/// (ip(7), socket(7)), or that of IPv6 which `Ip6SocketPam` names.
enum IpSocketOptions : uint32_t {
    none = 0,
    ipFreeBind = 0x0001,  ///< IP_FREEBIND
    ipHdrIncl = 0x0002,   ///< IP_HDRINCL: packets are sent with their IP header
    /// IP_MULTICAST_LOOP: groups of which this host is a member receive what is sent to them. The
    /// kernel's default is on: an endpoint that is enabled without this bit still loops.
    /// Only a change of the bit while enabled, or `ipNoMulticastLoop`, turns looping off.
    ipMulticastLoop = 0x0004,
    ipPktInfo = 0x0008,          ///< IP_PKTINFO: fills `rxIfIndex` and `rxDstIpAddr`
    ipRecvErr = 0x0010,          ///< IP_RECVERR; the error queue is drained and counted
    ipRecvOrigDstAddr = 0x0020,  ///< IP_RECVORIGDSTADDR: fills `rxOrigDstIpAddr`
    ipRecvTOS = 0x0040,          ///< IP_RECVTOS: fills `rxTOS`
    ipRecvTTL = 0x0080,          ///< IP_RECVTTL: fills `rxTTL`
    ipRouterAlert = 0x0100,      ///< IP_ROUTER_ALERT: receives forwarded packets with the alert
    ipTransparent = 0x0200,      ///< IP_TRANSPARENT
    ipAttachFilter = 0x0400,     ///< SO_ATTACH_FILTER with `rxFilter`
    ipRcvBuf = 0x0800,           ///< SO_RCVBUFFORCE with `rxBuf`
    ipPriority = 0x1000,         ///< SO_PRIORITY with `priority`
    ipv6Checksum = 0x2000,       ///< IPV6_CHECKSUM, of the IPv6 endpoints
    /// IP_MULTICAST_LOOP off, from every enabling on; it prevails over `ipMulticastLoop`. Taking
    /// the bit away while enabled turns looping on again.
    ipNoMulticastLoop = 0x4000,
    /// SO_RXQ_OVFL: the kernel's drops are added to `rxDrops`, when the next packet is read.
    ipRecvDrops = 0x8000,
    ipRecvTimestamp = 0x10000,  ///< SO_TIMESTAMPNS: fills `RxInfo::timestampNs`
    ipBroadcast = 0x20000,      ///< SO_BROADCAST
    ipReuseAddr = 0x40000,      ///< SO_REUSEADDR, of UDP endpoints
    ipReusePort = 0x80000,      ///< SO_REUSEPORT, of UDP endpoints
};

constexpr auto enumDescription(IpSocketOptions) {
    return Mox::enumeration<IpSocketOptions>("Invalid IpSocketOptions",
                                             {{none, "none"},
                                              {ipFreeBind, "ipFreeBind"},
                                              {ipHdrIncl, "ipHdrIncl"},
                                              {ipMulticastLoop, "ipMulticastLoop"},
                                              {ipPktInfo, "ipPktInfo"},
                                              {ipRecvErr, "ipRecvErr"},
                                              {ipRecvOrigDstAddr, "ipRecvOrigDstAddr"},
                                              {ipRecvTOS, "ipRecvTOS"},
                                              {ipRecvTTL, "ipRecvTTL"},
                                              {ipRouterAlert, "ipRouterAlert"},
                                              {ipTransparent, "ipTransparent"},
                                              {ipAttachFilter, "ipAttachFilter"},
                                              {ipRcvBuf, "ipRcvBuf"},
                                              {ipPriority, "ipPriority"},
                                              {ipv6Checksum, "ipv6Checksum"},
                                              {ipNoMulticastLoop, "ipNoMulticastLoop"},
                                              {ipRecvDrops, "ipRecvDrops"},
                                              {ipRecvTimestamp, "ipRecvTimestamp"},
                                              {ipBroadcast, "ipBroadcast"},
                                              {ipReuseAddr, "ipReuseAddr"},
                                              {ipReusePort, "ipReusePort"}});
}

/// A set of option bits as text, in ascending order: "ipPktInfo|ipRecvTTL". Bits that are no option
/// come last, as one decimal number; the empty set is "none".
PAVO_EXPORT Mox::String ipSocketOptionsText(uint32_t options);

/// Bands of socket priority, for `priority` (the kernel's TC_PRIO_ numbers).
enum IpTrafficControl : uint32_t {
    tcPrioBestEffort = 0,
    tcPrioFiller = 1,
    tcPrioBulk = 2,
    tcPrioInteractiveBulk = 4,
    tcPrioInteractive = 6,
    tcPrioControl = 7,
    tcPrioMax = 15,
};

constexpr auto enumDescription(IpTrafficControl) {
    return Mox::enumeration<IpTrafficControl>("Invalid IpTrafficControl",
                                              {{tcPrioBestEffort, "tcPrioBestEffort"},
                                               {tcPrioFiller, "tcPrioFiller"},
                                               {tcPrioBulk, "tcPrioBulk"},
                                               {tcPrioInteractiveBulk, "tcPrioInteractiveBulk"},
                                               {tcPrioInteractive, "tcPrioInteractive"},
                                               {tcPrioControl, "tcPrioControl"},
                                               {tcPrioMax, "tcPrioMax"}});
}

/// One classic BPF instruction, laid out as the kernel's `sock_filter`, in host order.
class IpFilter : public Mox::ValueType<IpFilter> {
  public:
    constexpr IpFilter() = default;
    constexpr IpFilter(uint16_t code, uint8_t jt, uint8_t jf, uint32_t k)
        : code_(code), jt_(jt), jf_(jf), k_(k) {}
    IpFilter(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpFilter(std::string_view text) { readWhole(text); }
    IpFilter(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The operation, as in <linux/bpf_common.h>.
    constexpr uint16_t code() const { return code_; }
    /// Instructions to skip when the test of a jump holds, and when it does not.
    /// @{
    constexpr uint8_t jt() const { return jt_; }
    constexpr uint8_t jf() const { return jf_; }
    /// @}
    /// The operand; its meaning depends on the code.
    constexpr uint32_t k() const { return k_; }

    friend constexpr auto operator<=>(const IpFilter&, const IpFilter&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::IpFilter", Mox::field("code", &IpFilter::code_),
                           Mox::field("jt", &IpFilter::jt_), Mox::field("jf", &IpFilter::jf_),
                           Mox::field("k", &IpFilter::k_));
    }

  private:
    uint16_t code_ = 0;
    uint8_t jt_ = 0;
    uint8_t jf_ = 0;
    uint32_t k_ = 0;
};
static_assert(std::is_trivially_copyable_v<IpFilter> && sizeof(IpFilter) == 8);

}  // namespace Pavo
