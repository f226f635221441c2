/// @file
/// The endpoints of a host inside the process. For `IpHost` itself; an agent does not need it.
#pragma once

#include <sys/types.h>  // First: pcap/bpf.h needs its types.

#include <pcap/bpf.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "Mox/Ptr.h"
#include "Pavo/ip/IpArrival.h"
#include "Pavo/ip/IpHost.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/pam/PamMux.h"

namespace Pavo {

/// The end of an endpoint that is attached to a host.
class IpHostEnd : public IpTransport {
  public:
    ~IpHostEnd() override;

    void close() override;
    int send(const Pkt& pkt, const TxInfo& info, const Mox::String& ifName) override;
    RxRound readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                    RxInfo* info) override;
    void membershipIs(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr* source,
                      bool member) override;

    /// Whether the packet under way is for this end.
    bool isReceiver = false;

    /// The source that the endpoint wants for the next packet.
    virtual const IpGenAddr& txSource() const = 0;
    /// How well an end fits a packet that is not to many; 0 for one that does not.
    virtual uint32_t fit(const IpArrival& arrival) const = 0;
    /// Whether an end that fits takes a packet to many.
    virtual bool wantsFromGroup(const IpArrival& arrival) const = 0;
    /// Drops what a filter of the endpoint refuses, and counts it; else true.
    virtual bool passes(const IpArrival& arrival) = 0;

    bool isUdp() const { return isUdp_; }
    AddressFamily family() const { return family_; }
    const IpGenAddr& local() const { return local_; }
    Port port() const { return port_; }
    const IpGenAddrAndPort& peer() const { return peer_; }
    uint32_t device() const { return device_; }
    uint32_t options() const { return options_(*pam_); }
    /// The interface of packets to groups that name none; 0 for any.
    virtual uint32_t groupIfIndex() const { return 0; }
    /// Where a message has a checksum that the kernel fills in and verifies; -1 for none.
    virtual int32_t checksumOffset() const { return -1; }

    bool isMember(const IpGenAddr& group, uint32_t ifIndex) const;
    bool isMemberFor(const IpArrival& arrival) const;
    /// Keeps an error that the next send or read returns, and has the endpoint reported as readable
    /// in the next turn.
    /// @pre it is open.
    void errorIs(int error);
    void hostDel() { host_ = nullptr; }

  protected:
    using Options = uint32_t (*)(const Pam& pam);

    IpHostEnd(IpHost* host, Pam* pam, bool isUdp, Options optionsOf);

    IpHost& requireHost(const char* failure) const;
    void start(PamSocket* socket);
    /// @throws Mox::ErrnoException as `attachSocketFilter`, where `ipAttachFilter` is on.
    void attachFilter(const Mox::Array<IpFilter>& filter);
    bool passesFilter(const Mox::Array<IpFilter>& filter, const IpArrival& arrival,
                      uint32_t offset);

    IpHost* host_;
    Pam* pam_;
    Options options_;
    bool isUdp_;
    AddressFamily family_ = ipunknown;
    IpGenAddr local_;
    Port port_;
    IpGenAddrAndPort peer_;  // Without a family, unless connected.
    uint32_t device_ = 0;    // The index of its interface; 0 for all.
    uint32_t drops_ = 0;     // Since it was opened.

  private:
    struct Membership {
        uint32_t ifIndex;
        IpGenAddr group;
        IpGenAddr source;  // Without a family for all, zero for none.

        friend bool operator==(const Membership&, const Membership&) = default;
    };

    static void fill(Pkt* pkt, const IpArrival& arrival, const RxSettings& settings, RxInfo* info);
    uint32_t describe(const IpArrival& arrival, const RxSettings& settings, RxInfo* info) const;
    int membershipError(const Membership& wanted, bool member) const;
    void sourceIsNamed(const Membership& wanted);

    int error_ = 0;
    uint32_t reportedDrops_ = 0;  // As the last read that reported them counted.
    std::vector<Membership> memberships_;
    bool hasProgram_ = false;
    std::vector<bpf_insn> program_;  // The filter, while `ipAttachFilter` is on.
    Mox::Ptr<PamMuxPam> client_;     // While open.
};

/// The ends of UDP endpoints, and of raw ones.
/// @{
class UdpHostEnd final : public IpHostEnd {
  public:
    UdpHostEnd(IpHost* host, UdpPam* pam);

    Port open(AddressFamily family, PamSocket* socket) override;
    const IpGenAddr& txSource() const override { return pam().txSrcIpAddr(); }
    uint32_t fit(const IpArrival& arrival) const override;
    uint32_t groupIfIndex() const override { return pam().txMcastIfIndex(); }
    bool wantsFromGroup(const IpArrival& arrival) const override { return isMemberFor(arrival); }
    bool passes(const IpArrival& arrival) override;

  private:
    void bind();
    void connect();
    const UdpPam& pam() const { return static_cast<const UdpPam&>(*pam_); }
};

class RawHostEnd final : public IpHostEnd {
  public:
    RawHostEnd(IpHost* host, RawIpPam* pam);

    Port open(AddressFamily family, PamSocket* socket) override;
    int send(const Pkt& pkt, const TxInfo& info, const Mox::String& ifName) override;
    int32_t checksumOffset() const override;
    const IpGenAddr& txSource() const override { return pam().txSrcIpAddr(); }
    uint32_t fit(const IpArrival& arrival) const override;
    bool wantsFromGroup(const IpArrival& arrival) const override;
    bool passes(const IpArrival& arrival) override;

  private:
    const RawIpPam& pam() const { return static_cast<const RawIpPam&>(*pam_); }
};
/// @}

}  // namespace Pavo
