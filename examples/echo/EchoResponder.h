/// @file
/// An agent that answers pings.
#pragma once

#include <cstdint>
#include <functional>

#include "Mox/Entity.h"
#include "echo/Echo.h"

namespace Echo {

/// Answers the ICMP echo requests of a family that arrive in one network namespace, with a TTL of
/// its own, which distinguishes its answers from those of the kernel, which answers too.
class EchoResponder {
  public:
    static constexpr uint8_t answerTtl = 255;

    /// Opens the endpoint; `seen` is called with each request that was answered.
    /// @throws Mox::ErrnoException naming the call that failed.
    EchoResponder(Pavo::AddressFamily family, const Pavo::NamespaceName& netNs,
                  std::function<void(const Packet&)> seen);

    const Pavo::RawIpPam& pam() const { return *pam_; }

  private:
    void answerOne();

    std::function<void(const Packet&)> seen_;
    Mox::Ptr<Pavo::RawIpPam> pam_;
    Mox::Watch<Pavo::RawIpPam> readable_;
};

}  // namespace Echo
