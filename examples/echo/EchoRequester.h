/// @file
/// An agent that pings.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "echo/Echo.h"

namespace Echo {

/// Sends ICMP echo requests to one address, at intervals, and reports each answer. It makes the IP
/// header of IPv4 requests itself; for IPv6 the kernel does, with the same TTL and TOS.
class EchoRequester {
  public:
    static constexpr uint8_t requestTtl = 61;
    static constexpr uint8_t requestTos = 0x10;

    struct Config {
        Pavo::NamespaceName netNs;
        /// Of the same family.
        Pavo::IpGenAddr from;
        Pavo::IpGenAddr to;
        /// The interface to send on, for an address that needs one; else empty.
        Mox::String ifName;
        uint16_t count;
        double intervalSeconds;
        uint32_t payloadBytes;
    };

    /// Opens the endpoint and sends the first request in the next turn of the loop; `answered` is
    /// called with each answer and the round trip in seconds.
    /// @throws Mox::ErrnoException naming the call that failed.
    EchoRequester(const Config& config, Mox::Clock* clock,
                  std::function<void(const Packet&, double seconds)> answered);

    uint16_t sent() const { return static_cast<uint16_t>(sentAt_.size()); }
    const Pavo::RawIpPam& pam() const { return *pam_; }

  private:
    void sendOne();
    void readOne();
    Mox::Ptr<Pavo::Pkt> newRequest(uint16_t sequence) const;
    void addIpHeader(const Mox::Ptr<Pavo::Pkt>& pkt) const;

    static constexpr uint16_t echoId = 0x5061;

    Config config_;
    Mox::Clock* clock_;
    std::function<void(const Packet&, double)> answered_;
    std::vector<double> sentAt_;
    Mox::Ptr<Pavo::RawIpPam> pam_;
    Mox::Watch<Pavo::RawIpPam> readable_;
    Mox::Timer next_;
};

}  // namespace Echo
