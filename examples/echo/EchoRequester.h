/// @file
/// An agent that pings.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Pavo/IpSocketPam.h"
#include "echo/EchoResponder.h"

namespace Echo {

/// Sends ICMP echo requests to one address, at intervals, each with an IP header of its own making,
/// and tells of every answer.
class EchoRequester {
  public:
    static constexpr uint8_t requestTtl = 61;
    static constexpr uint8_t requestTos = 0x10;

    struct Config {
        Pavo::NamespaceName netNs;
        Pavo::IpAddr from;
        Pavo::IpAddr to;
        uint16_t count;
        double intervalSeconds;
        uint32_t payloadBytes;
    };

    /// Opens the endpoint and sends the first request in the next turn of the loop; `answered` is
    /// told of each answer and of the seconds it took.
    /// @throws Mox::ErrnoException naming the call that failed.
    EchoRequester(const Config& config, Mox::Clock* clock,
                  std::function<void(const Packet&, double seconds)> answered);

    uint16_t sent() const { return static_cast<uint16_t>(sentAt_.size()); }
    const Pavo::IpSocketPam& pam() const { return *pam_; }

  private:
    void sendOne();
    void readOne();
    Mox::Ptr<Pavo::Pkt> newRequest(uint16_t sequence) const;

    static constexpr uint16_t echoId = 0x5061;

    Config config_;
    Mox::Clock* clock_;
    std::function<void(const Packet&, double)> answered_;
    std::vector<double> sentAt_;
    Mox::Ptr<Pavo::IpSocketPam> pam_;
    Mox::Watch<Pavo::IpSocketPam> readable_;
    Mox::Timer next_;
};

}  // namespace Echo
