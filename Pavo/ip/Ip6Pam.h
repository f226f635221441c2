/// @file
/// IPv6 endpoints of control protocols.
#pragma once

#include <cstdint>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/Ip6SocketPam.h"
#include "Pavo/value/Ip6Addr.h"

namespace Pavo {

/// A packet and what goes with it, as an endpoint in a test sends or receives it.
///
/// Members: the packet and the fields of its header; `ifIndex` is the interface.
struct Ip6PktInfo {
    Mox::Ptr<Pkt> pkt;
    Ip6Addr src;
    Ip6Addr dst;
    uint32_t ifIndex = 0;
    uint8_t hopLimit = 0;
    uint8_t trafficClass = 0;
};

/// The IPv6 endpoint of an agent that speaks a control protocol. Destination, arrival interface,
/// hop limit and traffic class of received packets are reported from the start.
///
/// In a test there is no socket, and neither privilege nor event loop is needed: packets that the
/// agent sends are queued, and the agent reads those that the test puts into the other queue.
class PAVO_EXPORT Ip6Pam : public Mox::EntityOf<Ip6Pam, Ip6SocketPam> {
  public:
    /// Where packets come from and go to: a raw socket of the protocol, or queues.
    enum class Mode : uint32_t { icmp6, vrrp, test };
    /// The queues of an endpoint in a test: of sent packets, and of those to be received.
    enum class TestBuff : uint32_t { tx, rx };

    static constexpr Mox::Attribute<Ip6Pam> numRecvMsgErrorsAttr{36, "numRecvMsgErrors"};
    static constexpr Mox::Attribute<Ip6Pam> numCmsgDataErrorsAttr{37, "numCmsgDataErrors"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::Ip6Pam",
                                Mox::attribute(numRecvMsgErrorsAttr, &Ip6Pam::numRecvMsgErrors),
                                Mox::attribute(numCmsgDataErrorsAttr, &Ip6Pam::numCmsgDataErrors));
    }

    /// Disabled, in the namespace `netNs`.
    Ip6Pam(Mox::String name, Mode mode, NamespaceName netNs);

    /// @pre as for `RawIpPam`.
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void enabledIsImpl(bool enabled) override;
    void doGetRxPktSingle() override;
    int32_t doGetRxPktBulk() override;

    /// As it was made with.
    Mode mode() const { return mode_; }

    /// Packets received and sent.
    /// @{
    uint64_t rxPkts() const { return rxPktCount(); }
    uint64_t txPkts() const { return txPktCount(); }
    /// @}
    /// Reads that failed, without those that found nothing to read.
    uint32_t numRecvMsgErrors() const { return numRecvMsgErrors_; }
    void numRecvMsgErrorsIs(uint32_t errors) {
        attributeIs(numRecvMsgErrors_, errors, numRecvMsgErrorsAttr);
    }
    uint32_t numRecvMsgErrorsInc(uint32_t delta) {
        return attributeInc(numRecvMsgErrors_, delta, numRecvMsgErrorsAttr);
    }
    /// Packets received whose control data was cut, or lacked what the options ask for.
    uint32_t numCmsgDataErrors() const { return numCmsgDataErrors_; }
    void numCmsgDataErrorsIs(uint32_t errors) {
        attributeIs(numCmsgDataErrors_, errors, numCmsgDataErrorsAttr);
    }
    uint32_t numCmsgDataErrorsInc(uint32_t delta) {
        return attributeInc(numCmsgDataErrors_, delta, numCmsgDataErrorsAttr);
    }

    /// The records in a queue, in the order in which they came. A sent packet is a copy, with
    /// `txIfIndex` as its interface; `txIfName` is not looked up.
    const Mox::Queue<Ip6PktInfo>& testBuff(TestBuff buff) const { return buffOf(buff); }
    /// Adds a record; one to be received increments `readableCount` of an enabled endpoint.
    /// Assertion "info.pkt" for one without a packet.
    void testBuffPush(TestBuff buff, Ip6PktInfo info);
    /// Takes the oldest record; the result has no packet when there is none.
    Ip6PktInfo testBuffPop(TestBuff buff);

  protected:
    ~Ip6Pam() override;

  private:
    const Mox::Queue<Ip6PktInfo>& buffOf(TestBuff buff) const {
        return testBuffs_[static_cast<uint32_t>(buff)];
    }
    RxInfo rxInfoOf(const Ip6PktInfo& info) const;
    void testRead();
    int32_t testBulkRead();
    void countFaults();

    Mode mode_;
    uint32_t numRecvMsgErrors_ = 0;
    uint32_t numCmsgDataErrors_ = 0;
    Mox::Queue<Ip6PktInfo> testBuffs_[2];
};

/// The endpoint of VRRP on one interface (RFC 9568). While enabled it is a member of the group
/// there. Its attributes are set to send to the group, on that interface, with the hop limit 255
/// that receivers require. It also receives packets from other interfaces on which any socket has
/// joined the group; `rxIfIndex` says from which.
class PAVO_EXPORT Ip6PamVrrp : public Mox::EntityOf<Ip6PamVrrp, Ip6Pam> {
  public:
    static constexpr Mox::Attribute<Ip6PamVrrp> mcastGroupAttr{38, "mcastGroup"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::Ip6PamVrrp",
                                Mox::attribute(mcastGroupAttr, &Ip6PamVrrp::mcastGroup));
    }

    /// Disabled, for the interface with the index `ifIndex` in the namespace `netNs`.
    Ip6PamVrrp(Mox::String name, uint32_t ifIndex, NamespaceName netNs);

    /// @throws Mox::ErrnoException "setsockopt(IPV6_JOIN_GROUP)" too.
    void enabledIsImpl(bool enabled) override;

    /// As it was made with.
    uint32_t ifIndex() const { return ifIndex_; }
    /// The group, ff02::12 by default. While enabled, a change joins the new group and leaves the
    /// old one; a `txDstIpAddr` that is the old group becomes the new one.
    /// @throws Mox::ErrnoException "setsockopt(IPV6_JOIN_GROUP)" or "setsockopt(IPV6_LEAVE_GROUP)";
    /// the group and the membership are then those from before.
    const Ip6Addr& mcastGroup() const { return mcastGroup_; }
    void mcastGroupIs(const Ip6Addr& group);

  protected:
    ~Ip6PamVrrp() override;

  private:
    uint32_t ifIndex_;
    Ip6Addr mcastGroup_ = ip6AddrVrrp;
};

constexpr auto enumDescription(Ip6Pam::Mode) {
    using enum Ip6Pam::Mode;
    return Mox::enumeration<Ip6Pam::Mode>("Invalid Ip6Pam::Mode",
                                          {{icmp6, "icmp6"}, {vrrp, "vrrp"}, {test, "test"}});
}

/// A disabled endpoint in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<Ip6Pam> ip6PamFactory(Mox::String name, Ip6Pam::Mode mode,
                                           NamespaceName netNs);
PAVO_EXPORT Mox::Ptr<Ip6PamVrrp> ip6PamVrrpFactory(Mox::String name, uint32_t ifIndex,
                                                   NamespaceName netNs);

}  // namespace Pavo
