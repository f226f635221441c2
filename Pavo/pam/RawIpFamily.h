/// @file
/// The differences between the raw IP endpoints of the two families. For the endpoints themselves;
/// an agent does not need it.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <span>

#include "Mox/Trace.h"
#include "Pavo/pam/RawIpOptions.h"
#include "Pavo/pam/RxInfo.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// What makes a raw endpoint one of IPv4 or IPv6: names and numbers of the socket options, and the
/// few things that are done in another way. Each family has one constant of static storage.
struct RawIpFamily {
    /// The endpoint's class, for traces.
    const char* className;
    const Mox::TraceFacility* trace;
    AddressFamily addressFamily;
    /// AF_ and IPPROTO_ numbers.
    int domain;
    int level;
    /// Names the failures of joining and of leaving a multicast group.
    const char* joinFailure;
    const char* leaveFailure;
    /// In the order of enabling and of every later change.
    std::span<const RawIpOption> options;
    /// A received packet begins after its IP header, except for endpoints of the reserved protocol.
    bool isRxIpHdrWithKernel;
    /// `txTTL` applies to packets to groups too.
    bool isTtlForGroups;

    // Set on an open socket; each throws a `Mox::ErrnoException` that names the option.
    void (*tosIs)(int fd, uint8_t tos);
    /// -1 stands for the kernel's default.
    void (*ttlIs)(int fd, int ttl);
    void (*routerAlertIs)(int fd, bool on);

    /// Bytes of a socket address; of all control messages that the options of this family's level
    /// can ask for; of the one control message that names interface and source of a sent packet.
    uint32_t nameBytes;
    uint32_t rxControlBytes;
    uint32_t txControlBytes;
    /// The types of control messages of this family's level.
    int pktInfoType;
    int origDstType;
    int tosType;
    int ttlType;
    /// Writes `nameBytes` for a destination of this family.
    void (*nameIs)(sockaddr* name, const IpGenAddr& address);
    /// Fills in the source, and the interface where the socket address has it.
    void (*takeName)(const void* name, PktInfo* info);
    void (*pktInfoIs)(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source);
    /// Fills in interface and destination; false where the message was cut.
    bool (*takePktInfo)(const cmsghdr* message, PktInfo* info);
};

/// A family's constant from the members of `Family` that have these names.
template <class Family>
constexpr RawIpFamily rawIpFamily(const Mox::TraceFacility* trace) {
    return {
        .className = Family::className,
        .trace = trace,
        .addressFamily = Family::addressFamily,
        .domain = Family::domain,
        .level = Family::level,
        .joinFailure = Family::joinFailure,
        .leaveFailure = Family::leaveFailure,
        .options = Family::options,
        .isRxIpHdrWithKernel = Family::isRxIpHdrWithKernel,
        .isTtlForGroups = Family::isTtlForGroups,
        .tosIs = Family::tosIs,
        .ttlIs = Family::ttlIs,
        .routerAlertIs = Family::routerAlertIs,
        .nameBytes = sizeof(typename Family::Name),
        .rxControlBytes = Family::rxControlBytes,
        .txControlBytes = CMSG_SPACE(sizeof(typename Family::KernelPktInfo)),
        .pktInfoType = Family::pktInfoType,
        .origDstType = Family::origDstType,
        .tosType = Family::tosType,
        .ttlType = Family::ttlType,
        .nameIs = Family::nameIs,
        .takeName = Family::takeName,
        .pktInfoIs = Family::pktInfoIs,
        .takePktInfo = Family::takePktInfo,
    };
}

/// Copies the value of a control message, if it is all there: the kernel cuts the last one where
/// the buffer ends.
template <class Value>
bool readControl(const cmsghdr* message, Value* value) {
    if (message->cmsg_len < CMSG_LEN(sizeof(Value))) {
        return false;
    }
    std::memcpy(value, CMSG_DATA(message), sizeof(Value));
    return true;
}

/// Makes a control message of the whole buffer that it begins.
template <class Value>
void writeControl(cmsghdr* message, int level, int type, const Value& value) {
    message->cmsg_level = level;
    message->cmsg_type = type;
    message->cmsg_len = CMSG_LEN(sizeof(Value));
    std::memcpy(CMSG_DATA(message), &value, sizeof(Value));
}

}  // namespace Pavo
