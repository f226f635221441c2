/// @file
/// A speaker of LLDP on one port, which also collects what its neighbours say (IEEE 802.1AB-2016).
#pragma once

#include "Pavo/EthDevPam.h"
#include "lldp/NeighbourTable.h"

namespace Lldp {

/// The group of the nearest bridge, to which frames go that no bridge forwards.
inline constexpr Pavo::EthAddr nearestBridge(0x0180, 0xc200, 0x000e);

/// An enabled endpoint for the frames of a device that are sent to that group; the kernel drops all
/// others. Tagged ones come without their tag, and the agent drops them.
/// @throws Mox::ErrnoException as `EthDevPam::enabledIs` and `EthDevPam::doJoinMcastGroup`.
Mox::Ptr<Pavo::EthDevPam> newEndpoint(const Pavo::NamespaceName& netNs, const Mox::String& device);

struct AgentConfig {
    /// The source of sent frames.
    Pavo::EthAddr mac = {};
    /// The description of the agent's system; the time to live is set by the agent.
    Pdu own = {};
    /// Seconds between frames. They are valid for `txHold` such intervals and a second.
    uint16_t txIntervalSeconds = 30;
    uint16_t txHold = 4;
};

/// Sends a frame at once and then at each interval; after a new neighbour was received, four frames
/// a second apart (9.2.5), so that it soon knows this system. A frame that was received late or
/// twice does no harm.
///
/// It takes any endpoint for Ethernet frames and any clock. An observer of the table may destroy
/// the agent.
class LldpAgent {
  public:
    static constexpr uint32_t fastFrames = 4;
    static constexpr double fastSeconds = 1;

    /// The clock has to outlive the agent.
    LldpAgent(const AgentConfig& config, Mox::Ptr<Pavo::Pam> pam, Mox::Clock* clock);
    LldpAgent(const LldpAgent&) = delete;
    LldpAgent& operator=(const LldpAgent&) = delete;

    const Mox::Ptr<NeighbourTable>& table() const { return table_; }
    /// Frames for this group that could not be read.
    uint32_t rxDiscards() const { return rxDiscards_; }

    /// Sends no more, and the neighbours remove this system at once.
    void stop();

  private:
    void sendPeriodic();
    void send(uint16_t ttlSeconds);
    void receive();
    void sendFast();

    const AgentConfig config_;
    const Mox::Ptr<Pavo::Pam> pam_;
    const Mox::Ptr<NeighbourTable> table_;
    bool isStopped_ = false;
    uint32_t fastLeft_ = 0;
    uint32_t rxDiscards_ = 0;
    double lastTx_ = 0;
    Mox::Timer tx_;
    Mox::Watch<Pavo::Pam> readable_;
};

}  // namespace Lldp
