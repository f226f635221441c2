/// @file
/// A small host in user space.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Pavo/Ip.h"
#include "Pavo/PamMux.h"
#include "host/Answers.h"

namespace Host {

/// A host on an endpoint of frames: it answers ARP requests, neighbour solicitations, pings of both
/// families, and datagrams to one port, which it sends back. Each of these is a service of its own,
/// a client of one multiplexer. The host opens nothing: the endpoint is a tap device in service,
/// and the end of a connector in a test.
class Host {
  public:
    /// Enables the multiplexer, which reads the endpoint from now on. `clock` is that of the event
    /// loop, or of a test.
    Host(const Config& config, Mox::Ptr<Pavo::Pam> frames, Mox::Clock* clock,
         Pavo::Port echoPort = 7);
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The frames that a service has answered: "arp", "icmp", "icmp6" or "udp".
    uint32_t answers(const std::string& service) const;
    /// Frames that no service wants.
    uint64_t ignored() const { return mux_->unclaimedPkts(); }

  private:
    using Answer = Mox::Ptr<Pavo::Pkt> (*)(const Config&, const Mox::Ptr<Pavo::Pkt>&);
    struct Service {
        Mox::Ptr<Pavo::PamMuxPam> pam;
        Mox::Watch<Pavo::Pam> readable;
        uint32_t answers = 0;
    };

    void add(const char* name, Pavo::PamMuxMatch match, Answer answer);

    Config config_;
    Mox::Ptr<Pavo::PamMux> mux_;
    std::list<Service> services_;
};

}  // namespace Host
