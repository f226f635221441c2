/// @file
/// The common part of the raw IP endpoints of both families.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/IpPam.h"

namespace Pavo {

struct IpTxSettings;
struct RawIpFamily;
struct RxRound;
struct RxSettings;
struct SocketSettings;
struct TxResult;
struct TxInfo;
class IpHost;
class IpTransport;
class PktReceiver;

/// The former name of `RxInfo`.
using RxPacketInfo = RxInfo;

/// A raw endpoint of either family on a SOCK_RAW socket (raw(7)); `IpSocketPam` and `Ip6SocketPam`
/// name the family.
///
/// Enabling opens the socket in `netNs`, applies what the attributes ask for, and starts the
/// machine that increments the counts; it either succeeds whole or leaves no descriptor. It needs
/// an event loop on the calling thread.
///
/// A failed read counts an `rxErrors`. After an error other than EAGAIN the endpoint is reported
/// readable once more, since packets may wait after an error; from the second failure in a row on,
/// only at the next event of the socket, or after a change of `rxFlags` or `enableBulkRead`.
///
/// A send that finds no room is counted and dropped, as every other failure is; `writableCount` is
/// then incremented once, as soon as there is room. A missing destination is such a failure too,
/// EDESTADDRREQ, and so is a destination or source of the other family, EAFNOSUPPORT. All packets
/// of a batch (`txPktsIs`) have the same destination.
class PAVO_EXPORT RawIpPam : public Mox::EntityOf<RawIpPam, IpPam> {
  public:
    static constexpr Mox::Attribute<RawIpPam, IpPktOption> ipPktOptionAttr{34, "ipPktOption"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::RawIpPam", Mox::attribute(ipPktOptionAttr));
    }

    /// @pre enabled (assertion "enabled()"), with a packet (assertion "pkt != nullptr").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    int32_t doGetBulkRxPkt() override;
    void handleTxTOS() override;
    void handleTxTTL() override;
    void optionsIsImpl(uint32_t options) override;
    /// @pre to enable: an event loop on this thread (assertion "EventLoop::current(): enabling
    /// needs an event loop on this thread").
    void enabledIsImpl(bool enabled) override;

    /// Reads with one recvmsg(2) into `rxPkt`; a failure, including EAGAIN, counts an `rxErrors`.
    virtual void doGetRxPktSingle();
    /// Reads with one recvmmsg(2) into `savedPacket` and returns how many packets came. The single
    /// `rx` attributes then describe the last one, `rxInfo(slot)` each. The next batch reuses
    /// packets that the agent no longer holds. While observers of the slots are notified it reads
    /// nothing and returns 0.
    virtual int32_t doGetRxPktBulk();
    /// Applies `txTOS`, and after it the priority, which the kernel overwrites with the TOS.
    /// @throws Mox::ErrnoException "setsockopt(IP_TOS)" or "setsockopt(IPV6_TCLASS)", or
    /// "setsockopt(SO_PRIORITY)".
    virtual void handleTxTos() const;
    /// Applies `txTTL`; 0 restores the kernel's default.
    /// @throws Mox::ErrnoException "setsockopt(IP_TTL)", or "setsockopt(IPV6_UNICAST_HOPS)",
    /// "setsockopt(IPV6_MULTICAST_HOPS)" or "getsockopt(IPV6_UNICAST_HOPS)"; nothing has changed.
    virtual void handleTxTtl() const;
    /// Closes the socket and takes the endpoint to disabled.
    virtual void handleCleanup();

    /// The IP options that sent packets carry, applied while the socket is open.
    /// @throws Mox::ErrnoException "setsockopt(IP_OPTIONS)" or "setsockopt(IPV6_HOPOPTS)".
    /// @{
    bool ipPktOption(IpPktOption option) const { return ipPktOptions_.contains(option); }
    void ipPktOptionIs(IpPktOption option, bool wanted);
    void ipPktOptionDel(IpPktOption option) { ipPktOptionIs(option, false); }
    void ipPktOptionDelAll();
    void setIpPktOptions();
    /// @}

    /// Joins a multicast group on an interface of the endpoint's namespace (0: the kernel's
    /// choice), or leaves it. Memberships end with the socket: one that is enabled again has none.
    /// @pre enabled (assertion "enabled()").
    /// @throws Mox::ErrnoException "setsockopt(IP_ADD_MEMBERSHIP)" or
    /// "setsockopt(IPV6_JOIN_GROUP)", "setsockopt(IP_DROP_MEMBERSHIP)" or
    /// "setsockopt(IPV6_LEAVE_GROUP)"; with EAFNOSUPPORT for a group of the other family.
    /// @{
    void doJoinMcastGroup(uint32_t ifIndex, const IpGenAddr& group);
    void doLeaveMcastGroup(uint32_t ifIndex, const IpGenAddr& group);
    /// @}

    /// With the option `ipRecvErr`, what the last failed read took from the socket's error queue:
    /// which destinations could not be reached, and why.
    const std::vector<QueuedError>& queuedErrors() const;

    /// The same as `rxInfo(slot)`.
    RxInfo savedPacketInfo(uint32_t slot) const { return rxInfo(slot); }

  protected:
    /// Disabled; `family` outlives the endpoint.
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

    // For an endpoint that sends its packets elsewhere.

    /// Why a packet cannot be sent from `txSrcIpAddr` to `txDstIpAddr`, as an `errno`; or 0.
    int addressError() const;
    /// Shows the tap a packet with what the attributes say of it.
    void tapTx(const Pkt& pkt, bool isIpHdrWithKernel) const;
    /// Counts a send that ended with `error`, or 0. When there was no room on `fd`, which may be
    /// null, room is reported later.
    void sendEnded(const Mox::Ptr<Mox::FileDescriptor>& fd, int error);
    /// The same for a batch. Returns how many packets were taken.
    uint32_t sendEnded(const Mox::Ptr<Mox::FileDescriptor>& fd, const TxResult& result);

    // For an endpoint that gets its packets elsewhere.

    /// The metadata that every packet of this endpoint begins with.
    RxInfo newRxInfo() const;
    /// Sets the `rx` attributes: the source, and of the rest those that the bits `carried` of
    /// `IpSocketOptions` fill.
    void packetInfoIs(const RxInfo& info, uint32_t carried);
    /// Puts a received packet into a slot of a batch, in order from slot 0.
    void slotIs(uint32_t slot, const Mox::Ptr<Pkt>& pkt, const RxInfo& info);
    /// Nothing was read: no slot holds a packet of this round. Returns 0.
    int32_t nothingInBulk();

    /// What was counted since the last call: failed reads, without those that found nothing;
    /// packets whose control data was cut, or lacked what `ipPktInfo`, `ipRecvTOS` and `ipRecvTTL`
    /// ask for.
    /// @{
    uint32_t takeFailedReads() { return std::exchange(failedReads_, 0); }
    uint32_t takeFaultyControlData() { return std::exchange(faultyControlData_, 0); }
    /// @}

  private:
    friend class IpHost;

    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);

    void transportIs(std::unique_ptr<IpTransport> transport);
    int send(const Mox::Ptr<Mox::FileDescriptor>& fd, const Pkt& pkt) const;
    TxInfo txInfo(bool isIpHdrWithKernel) const;
    int socket() const;
    SocketSettings socketSettings() const;
    RxSettings rxSettings() const;
    IpTxSettings txSettings() const;
    bool sendsIpHdrWithKernel() const;
    void countRead(const RxRound& round);

    const RawIpFamily& family_;
    uint32_t failedReads_ = 0;
    uint32_t faultyControlData_ = 0;
    Mox::Set<IpPktOption> ipPktOptions_;
    std::unique_ptr<PktReceiver> receiver_;
    std::unique_ptr<IpTransport> transport_;  // In place of a socket, where there is one.
};

}  // namespace Pavo
