/// @file
/// What tells the raw IP endpoints of the two families apart. For the endpoints themselves; an
/// agent does not need it.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <span>

#include "Mox/Collections.h"
#include "Mox/Trace.h"
#include "Pavo/pam/RawIpPam.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// What makes a raw endpoint one of IPv4 or IPv6: names and numbers of the socket options, and the
/// few things that are done in another way. One constant of static storage a family.
struct RawIpFamily {
    /// An option that one of `IpSocketOptions` stands for, at the family's level.
    struct Switch {
        uint32_t bit;
        int option;
        const char* failure;
        /// The value that switches it; null for the plain 1 and 0. May throw.
        int (*value)(const RawIpPam& pam, bool on) = nullptr;
    };

    /// Room for the control messages of a received packet, whatever the family and word size.
    static constexpr uint32_t maxRxControlBytes = 144;
    /// The same for the one control message of a sent packet.
    static constexpr uint32_t maxTxControlBytes = 48;

    /// Of the endpoint's class, for traces.
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
    std::span<const Switch> switches;
    Switch transparent;

    // Set on an open socket; each throws a `Mox::ErrnoException` that names the option.
    void (*tosIs)(int fd, uint8_t tos);
    /// -1 stands for the kernel's own.
    void (*ttlIs)(int fd, int ttl);
    void (*pktOptionsIs)(int fd, const Mox::Set<IpPktOption>& options);

    /// Bytes of a socket address, of all control messages that the options can ask for, and of the
    /// one control message that names interface and source of a packet.
    uint32_t nameBytes;
    uint32_t rxControlBytes;
    uint32_t txControlBytes;
    /// Writes `nameBytes` for a destination of this family, or of none.
    void (*nameIs)(sockaddr* name, const IpGenAddr& address);
    void (*pktInfoIs)(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source);
    /// Fills in what the sender's address says.
    void (*takeName)(const sockaddr* name, RxPacketInfo* info);
    /// Fills in what the control messages say; returns the bits of the options that asked for them.
    /// One that nobody asked for, or that was cut, is left out.
    uint32_t (*takeControls)(const msghdr& message, RxPacketInfo* info);
};

/// setsockopt(2).
/// @throws Mox::ErrnoException with the text `failure`.
void socketOptionIs(int fd, int level, int option, const void* value, uint32_t bytes,
                    const char* failure);
template <class Value>
void socketOptionIs(int fd, int level, int option, const Value& value, const char* failure) {
    socketOptionIs(fd, level, option, &value, sizeof(value), failure);
}

/// A family's `takeControls`: `takeOne` fills in what one message says, and returns its bit or 0.
template <uint32_t (*takeOne)(const cmsghdr* message, RxPacketInfo* info)>
uint32_t takeEachControl(const msghdr& message, RxPacketInfo* info) {
    uint32_t carried = none;
    for (const cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(each))) {
        carried |= takeOne(each, info);
    }
    return carried;
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
