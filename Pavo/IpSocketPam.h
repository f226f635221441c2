/// @file
/// Raw IPv4 endpoints on Linux sockets.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Pavo/Export.h"
#include "Pavo/IpPam.h"

namespace Pavo {

/// What a received packet's control messages said of it; what they did not say is zero.
struct RxPacketInfo {
    IpGenAddr srcIpAddr;
    IpGenAddr dstIpAddr;
    IpGenAddr origDstIpAddr;
    uint32_t ifIndex = 0;
    uint8_t tos = 0;
    uint8_t ttl = 0;
};

/// A raw IPv4 endpoint on an AF_INET, SOCK_RAW socket (raw(7)).
///
/// Enabling opens the socket in `netNs`, applies what the attributes ask for, and starts the
/// machine that bumps the counts; it either succeeds whole or leaves no descriptor. A received
/// packet begins with its IP header. A packet is sent without one, unless `ipHdrIncl` is on.
///
/// A send that finds no room is counted and dropped, as every other failure is; `writableCount` is
/// then bumped once, as soon as there is room.
class PAVO_EXPORT IpSocketPam : public IpPam {
  public:
    static constexpr Mox::Attribute<IpSocketPam, IpPktOption> ipPktOptionAttr{32, "ipPktOption"};
    static const Mox::FwkType type;

    IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs);

    const Mox::FwkType* fwkType() const override;

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
    /// @throws Mox::ErrnoException "setsockopt(IP_TOS)" or "setsockopt(SO_PRIORITY)".
    virtual void handleTxTos() const;
    /// Applies `txTTL`; 0 restores the kernel's default.
    /// @throws Mox::ErrnoException "setsockopt(IP_TTL)".
    virtual void handleTxTtl() const;
    /// Closes the socket and takes the endpoint to disabled.
    virtual void handleCleanup();

    /// The IP options that sent packets carry, applied while the socket is open.
    /// @throws Mox::ErrnoException "setsockopt(IP_OPTIONS)".
    bool ipPktOption(IpPktOption option) const { return ipPktOptions_.contains(option); }
    void ipPktOptionIs(IpPktOption option, bool wanted);
    void ipPktOptionDel(IpPktOption option) { ipPktOptionIs(option, false); }
    void ipPktOptionDelAll();
    void setIpPktOptions();

    /// What is known of the packet in a slot after a bulk read.
    RxPacketInfo savedPacketInfo(uint32_t slot) const;

  protected:
    ~IpSocketPam() override;

  private:
    struct BulkRead;

    int socket() const;
    void open();
    bool prepareBulkRead();
    int32_t nothingInBulk();
    void optionChange(uint32_t bit, bool on);
    void receiveFailed(int error);
    void drainErrorQueue();
    void packetInfoIs(const RxPacketInfo& info, uint32_t present);
    bool sendOn(int fd, const Pkt& pkt) const;

    Mox::Set<IpPktOption> ipPktOptions_;
    std::vector<RxPacketInfo> savedPacketInfo_;
    std::unique_ptr<BulkRead> bulkRead_;
};

/// A disabled endpoint for `protocol` in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                                     NamespaceName netNs);

}  // namespace Pavo
