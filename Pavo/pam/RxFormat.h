/// @file
/// The messages that sockets of one kind receive. For the endpoints themselves; an agent does
/// not need it.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <cstring>

#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/RxInfo.h"

namespace Pavo {

/// Reads the addresses and control messages of the sockets of one kind. Each kind has one constant
/// object.
class RxFormat {
  public:
    /// Names the level of the control messages that this kind has; the size of its socket address;
    /// the room for all control messages of that level.
    constexpr RxFormat(int controlLevel, uint32_t addressBytes, uint32_t roomBytes)
        : level(controlLevel), nameBytes(addressBytes), controlBytes(roomBytes) {}

    /// Fills in the sender.
    virtual void takeName(const void* name, RxInfo* info) const = 0;
    /// Takes one message of `level`, which concerns the packet. Returns the bit of the option that
    /// asked for it; 0 for one that no option asked for, or that was cut.
    virtual uint32_t takeControl(const cmsghdr* message, Pkt* pkt, RxInfo* info) const = 0;
    /// Takes one entry of the error queue; false for one that is no error.
    virtual bool takeError(const msghdr& message, QueuedError* error) const = 0;

    const int level;
    const uint32_t nameBytes;
    const uint32_t controlBytes;

  protected:
    ~RxFormat() = default;
};

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

/// Makes a control message at the start of a buffer that has room for it.
template <class Value>
void writeControl(cmsghdr* message, int level, int type, const Value& value) {
    message->cmsg_level = level;
    message->cmsg_type = type;
    message->cmsg_len = CMSG_LEN(sizeof(Value));
    std::memcpy(CMSG_DATA(message), &value, sizeof(Value));
}

}  // namespace Pavo
