/// @file
/// An agent that answers pings.
#pragma once

#include <cstdint>
#include <functional>

#include "Mox/Entity.h"
#include "Pavo/IpSocketPam.h"

namespace Echo {

/// What the endpoint said of a packet, and what its headers hold.
struct Packet {
    Pavo::IpAddr from;
    Pavo::IpAddr to;
    uint32_t ifIndex;
    uint8_t ttl;
    uint8_t tos;
    uint16_t sequence;
    uint32_t bytes;
};

/// Answers the ICMP echo requests that arrive in one network namespace, with a TTL of its own, so
/// that its answers can be told from those of the kernel, which answers too.
class EchoResponder {
  public:
    static constexpr uint8_t answerTtl = 255;

    /// Opens the endpoint; `seen` is told of each request that was answered.
    /// @throws Mox::ErrnoException naming the call that failed.
    EchoResponder(const Pavo::NamespaceName& netNs, std::function<void(const Packet&)> seen);

    const Pavo::IpSocketPam& pam() const { return *pam_; }

  private:
    void answerOne();

    std::function<void(const Packet&)> seen_;
    Mox::Ptr<Pavo::IpSocketPam> pam_;
    Mox::Watch<Pavo::IpSocketPam> readable_;
};

}  // namespace Echo
