/// @file
/// What the raw IP endpoints of both families have in common.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/IpPam.h"

struct msghdr;

namespace Pavo {

struct RawIpFamily;

/// What a received packet's control messages said of it; what they did not say is zero.
struct RxPacketInfo {
    IpGenAddr srcIpAddr;
    IpGenAddr dstIpAddr;
    IpGenAddr origDstIpAddr;
    uint32_t ifIndex = 0;
    uint8_t tos = 0;
    uint8_t ttl = 0;
};

/// A raw endpoint of either family on a SOCK_RAW socket (raw(7)); `IpSocketPam` and `Ip6SocketPam`
/// name the family.
///
/// Enabling opens the socket in `netNs`, applies what the attributes ask for, and starts the
/// machine that bumps the counts; it either succeeds whole or leaves no descriptor.
///
/// A send that finds no room is counted and dropped, as every other failure is; `writableCount` is
/// then bumped once, as soon as there is room. A destination or source of the other family is such
/// a failure too, EAFNOSUPPORT.
class PAVO_EXPORT RawIpPam : public Mox::EntityOf<RawIpPam, IpPam> {
  public:
    static constexpr Mox::Attribute<RawIpPam, IpPktOption> ipPktOptionAttr{32, "ipPktOption"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::RawIpPam", Mox::attribute(ipPktOptionAttr));
    }

    /// @pre enabled (assertion "enabled()").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    int32_t doGetBulkRxPkt() override;
    void handleTxTOS() override;
    void handleTxTTL() override;
    void optionsIsImpl(uint32_t options) override;
    void enabledIsImpl(bool enabled) override;

    /// Reads with one recvmsg(2) into `rxPkt`; a failure, EAGAIN among them, counts an `rxErrors`.
    virtual void doGetRxPktSingle();
    /// Reads with one recvmmsg(2) into `savedPacket` and returns how many packets came. The single
    /// `rx` attributes then describe the last one, `savedPacketInfo` each. Packets are read into
    /// again in the next round; one that somebody holds is replaced, so to keep one, hold it.
    virtual int32_t doGetRxPktBulk();
    /// Applies `txTOS`, and after it the priority, which the kernel overwrites with the TOS.
    /// @throws Mox::ErrnoException "setsockopt(IP_TOS)" or "setsockopt(IPV6_TCLASS)", or
    /// "setsockopt(SO_PRIORITY)".
    virtual void handleTxTos() const;
    /// Applies `txTTL`; 0 restores the kernel's default.
    /// @throws Mox::ErrnoException "setsockopt(IP_TTL)", or "setsockopt(IPV6_UNICAST_HOPS)" or
    /// "setsockopt(IPV6_MULTICAST_HOPS)".
    virtual void handleTxTtl() const;
    /// Closes the socket and takes the endpoint to disabled.
    virtual void handleCleanup();

    /// The IP options that sent packets carry, applied while the socket is open.
    /// @throws Mox::ErrnoException "setsockopt(IP_OPTIONS)" or "setsockopt(IPV6_HOPOPTS)".
    bool ipPktOption(IpPktOption option) const { return ipPktOptions_.contains(option); }
    void ipPktOptionIs(IpPktOption option, bool wanted);
    void ipPktOptionDel(IpPktOption option) { ipPktOptionIs(option, false); }
    void ipPktOptionDelAll();
    void setIpPktOptions();

    /// Joins a multicast group on an interface of the endpoint's namespace (0: the kernel's
    /// choice), or leaves it. Memberships end with the socket: one that is enabled again has none.
    /// @pre enabled (assertion "enabled()").
    /// @throws Mox::ErrnoException "setsockopt(IP_ADD_MEMBERSHIP)" or
    /// "setsockopt(IPV6_JOIN_GROUP)", "setsockopt(IP_DROP_MEMBERSHIP)" or
    /// "setsockopt(IPV6_LEAVE_GROUP)"; with EAFNOSUPPORT for a group of the other family.
    void doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group);
    void doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group);

    /// What is known of the packet in a slot after a bulk read.
    RxPacketInfo savedPacketInfo(uint32_t slot) const;

  protected:
    RawIpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs,
             const RawIpFamily& family);
    ~RawIpPam() override;

    // The halves of enabling.

    /// Opens and configures the socket; on failure nothing is left of it.
    void open();
    /// Takes the endpoint to enabled and starts its machine. When an observer throws, it is
    /// disabled.
    void start();

    /// Joins or leaves a group; nothing without a socket. Throws as `doJoinMcastGroup` does.
    void membershipIs(uint32_t ifIndex, const IpGenAddr& group, bool member);
    /// Neither of the family nor unknown.
    bool isForeign(const IpGenAddr& address) const;

    // For an endpoint that gets its packets elsewhere.

    /// Takes over what a packet carried: the addresses as they are, of the rest the members that
    /// the bits `carried` of `IpSocketOptions` fill.
    void packetInfoIs(const RxPacketInfo& info, uint32_t carried);
    /// Puts a received packet into a slot of a batch, in order from slot 0.
    void slotIs(uint32_t slot, const Mox::Ptr<Pkt>& pkt, const RxPacketInfo& info);
    /// Nothing was read: no slot holds a packet of this round. Returns 0.
    int32_t nothingInBulk();

    /// What was counted since the last call: failed reads, without those that found nothing;
    /// packets whose control data was cut, or lacked what `ipPktInfo`, `ipRecvTOS` and `ipRecvTTL`
    /// ask for.
    uint32_t takeFailedReads() { return std::exchange(failedReads_, 0); }
    uint32_t takeFaultyControlData() { return std::exchange(faultyControlData_, 0); }

  private:
    struct BulkRead;

    int socket() const;
    bool prepareBulkRead();
    void attachFilter(int fd) const;
    void transparentIs(int fd, bool on) const;
    void socketPriorityIs(int fd, uint32_t priority) const;
    void optionChange(uint32_t bit, bool on);
    uint32_t readMessage(const msghdr& message, RxPacketInfo* info);
    void receiveFailed(int error);
    void drainErrorQueue();
    bool sendOn(int fd, const Pkt& pkt) const;

    const RawIpFamily& family_;
    uint32_t failedReads_ = 0;
    uint32_t faultyControlData_ = 0;
    Mox::Set<IpPktOption> ipPktOptions_;
    std::vector<RxPacketInfo> savedPacketInfo_;
    std::unique_ptr<BulkRead> bulkRead_;
};

}  // namespace Pavo
