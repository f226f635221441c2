#include "bfd/BfdAgent.h"

#include <cerrno>

#include "Mox/Exception.h"

namespace Bfd {

namespace {

constexpr Pavo::IpTtl maxTtl(255);
constexpr Pavo::IpDscp networkControl(0xc0);

// From some port on, the first one that is free.
void enableFromSourcePort(Pavo::UdpPam* pam, uint32_t draw) {
    constexpr uint32_t ports = 65536 - BfdAgent::firstSourcePort;
    for (uint32_t tries = 1;; ++tries) {
        const uint32_t port = BfdAgent::firstSourcePort + (draw + tries) % ports;
        pam->localPortIs(Pavo::Port(static_cast<uint16_t>(port)));
        try {
            pam->enabledIs(true);
            return;
        } catch (const Mox::ErrnoException& error) {
            if (error.errnoValue() != EADDRINUSE || tries == ports) {
                throw;
            }
        }
    }
}

}  // namespace

BfdAgent::BfdAgent(const Place& place, const SessionConfig& config, const Endpoints& endpoints,
                   Mox::Clock* clock)
    : peer_(place.peer),
      endpoints_(endpoints),
      session_(Mox::make<BfdSession>(
          config, clock, [this](const BfdHdr& pkt) { send(pkt); }, [this] { receiveWaiting(); })),
      readable_(endpoints.rx, Pavo::Pam::readableCountAttr, [this] { receiveOne(); }) {
    for (Pavo::UdpPam* const pam : {endpoints.rx.ptr(), endpoints.tx.ptr()}) {
        pam->localAddrIs(place.local);
        pam->deviceIs(place.device);
    }
    endpoints.tx->remoteIs({place.peer, Pavo::Port(port)});
    endpoints.tx->txTtlIs(maxTtl);
    endpoints.tx->txTosIs(networkControl);
    enableFromSourcePort(endpoints.tx.ptr(), config.localDiscr);
    endpoints.rx->localPortIs(Pavo::Port(port));
    endpoints.rx->rxMinTtlIs(maxTtl);
    try {
        endpoints.rx->enabledIs(true);
    } catch (const Mox::ErrnoException&) {
        endpoints.tx->enabledIs(false);
        throw;
    }
}

BfdAgent::~BfdAgent() {
    session_->end();
    endpoints_.rx->enabledIs(false);
    endpoints_.tx->enabledIs(false);
}

// When the session took the packet, the agent may be destroyed.
BfdAgent::Receipt BfdAgent::receiveOne() {
    const Mox::Ptr<Pavo::Pkt> pkt = endpoints_.rx->rxPkt();
    if (!pkt) {
        return Receipt::nothing;
    }
    const auto header = Pavo::tryHdr<BfdHdr>(pkt, 0);
    if (!header || endpoints_.rx->rxInfo().srcIpAddr != peer_) {
        ++rxDiscards_;
        return Receipt::discarded;
    }
    return session_->receive(*header) ? Receipt::taken : Receipt::discarded;
}

void BfdAgent::receiveWaiting() {
    for (uint32_t tries = 0; tries < 100 && receiveOne() == Receipt::discarded; ++tries) {
    }
}

void BfdAgent::send(const BfdHdr& pkt) {
    const auto out = Pavo::globalPktManager()->newPkt();
    new (out->newSharedHeadData(sizeof(pkt))) BfdHdr(pkt);
    endpoints_.tx->txPktIs(out);
}

}  // namespace Bfd
