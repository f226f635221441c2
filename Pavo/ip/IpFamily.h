/// @file
/// The differences between the sockets of the two IP families. For the endpoints themselves; an
/// agent does not need it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "Pavo/pam/RxFormat.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// The sockets of one IP family: numbers and names of the system, and the few things that are done
/// in another way.
class IpFamily : public RxFormat {
  public:
    /// The system's names of the family.
    struct Names {
        /// AF_ number.
        int domain;
        /// The types of control messages of the family's level.
        int pktInfoType;
        int origDstType;
        int tosType;
        int ttlType;
        int errorType;
        /// Name the failures of joining and of leaving a multicast group.
        const char* joinFailure;
        const char* leaveFailure;
    };

    AddressFamily addressFamily() const { return addressFamily_; }
    const Names& names() const { return names_; }
    /// Bytes of the control message that names interface and source of a sent packet.
    uint32_t txControlBytes() const { return txControlBytes_; }

    void takeName(const void* name, RxInfo* info) const override = 0;
    uint32_t takeControl(const cmsghdr* message, Pkt* pkt, RxInfo* info) const override;
    bool takeError(const msghdr& message, QueuedError* error) const override;

    /// Writes `nameBytes` for a destination of this family.
    virtual void nameIs(sockaddr* name, const IpGenAddr& address, Port port) const = 0;
    /// Makes the control message that names interface and source of a packet to be sent.
    virtual void pktInfoIs(cmsghdr* message, uint32_t ifIndex, const IpGenAddr& source) const = 0;

    /// Set on an open socket; each throws a `Mox::ErrnoException` that names the option. A TTL of
    /// -1 stands for the kernel's default.
    /// @{
    virtual void tosIs(int fd, uint8_t tos) const = 0;
    virtual void ttlIs(int fd, int ttl) const = 0;
    virtual void mcastTtlIs(int fd, int ttl) const = 0;
    virtual void mcastIfIndexIs(int fd, uint32_t ifIndex) const = 0;
    /// @}

    /// Joins or leaves a multicast group; with a source, only for what that one sends.
    /// @throws Mox::ErrnoException naming the option; EAFNOSUPPORT for an address of another
    /// family.
    void membershipIs(int fd, uint32_t ifIndex, const IpGenAddr& group, bool member) const;
    void membershipIs(int fd, uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr& source,
                      bool member) const;

  protected:
    constexpr IpFamily(AddressFamily addressFamily, int controlLevel, uint32_t addressBytes,
                       uint32_t rxControlBytes, uint32_t txControlBytes, const Names& names)
        : RxFormat(controlLevel, addressBytes, rxControlBytes),
          addressFamily_(addressFamily),
          txControlBytes_(txControlBytes),
          names_(names) {}
    ~IpFamily() = default;

  private:
    // Fills in interface and destination; false where the message was cut.
    virtual bool takePktInfo(const cmsghdr* message, PktInfo* info) const = 0;
    bool takeOrigDst(const cmsghdr* message, RxInfo* info) const;

    AddressFamily addressFamily_;
    uint32_t txControlBytes_;
    Names names_;
};

/// The two families.
/// @{
const IpFamily& ip4Family();
const IpFamily& ip6Family();
/// @}

}  // namespace Pavo
