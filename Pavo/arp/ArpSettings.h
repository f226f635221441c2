/// @file
/// The times and numbers of ARP.
#pragma once

#include <cstdint>

#include "Pavo/base/Export.h"

namespace Pavo {

/// How an `ArpSm` works. Those of resolution have the names of the kernel's settings beside them
/// (arp(7), and ip-sysctl.rst of its documentation) and its values; those of claims are the
/// constants of RFC 5227, 1.1.
struct ArpSettings {
    /// How long a confirmation is good, times a random factor of 0.5 to 1.5
    /// (base_reachable_time_ms).
    double reachableSeconds = 30;
    /// From a request to the next one (retrans_time_ms).
    double retransSeconds = 1;
    /// Requests without an answer after which an address has failed: broadcast ones (mcast_solicit)
    /// and those to a known MAC (ucast_solicit).
    /// @{
    uint32_t broadcastRequests = 3;
    uint32_t unicastRequests = 3;
    /// @}
    /// From the use of a stale MAC to the first request (delay_first_probe_time).
    double delaySeconds = 5;
    /// How long an accepted MAC is not replaced by another one, unless that is announced: the first
    /// of several answers wins (locktime).
    double lockSeconds = 1;
    /// From a request to the next one for a failed address that is refreshed by its age
    /// (interval_probe_time_ms).
    double failedRetrySeconds = 5;
    /// The most packets that wait for one MAC; a newer one replaces the oldest. 0 drops all.
    uint32_t maxQueuedPkts = 16;
    /// Whether requests for own addresses are answered, and conflicts about them defended. False
    /// where the kernel has these addresses too, and does so. Virtual MACs are always answered
    /// with.
    bool answers = true;
    /// Whether an own address that another host uses too is announced again: RFC 5227, 2.4 (c).
    bool defends = true;

    /// The first probe is sent after a random time of up to this (PROBE_WAIT).
    double probeWaitSeconds = 1;
    /// PROBE_NUM.
    uint32_t probes = 3;
    /// From a probe to the next one: a random time between these (PROBE_MIN, PROBE_MAX).
    /// @{
    double probeMinSeconds = 1;
    double probeMaxSeconds = 2;
    /// @}
    /// From the last probe to the first announcement (ANNOUNCE_WAIT).
    double announceWaitSeconds = 2;
    /// ANNOUNCE_NUM.
    uint32_t announcements = 2;
    /// From an announcement to the next one (ANNOUNCE_INTERVAL).
    double announceIntervalSeconds = 2;
    /// From a defence to the next one (DEFEND_INTERVAL).
    double defendSeconds = 10;
    /// After this many conflicts of probed addresses (MAX_CONFLICTS) claims begin this far apart
    /// (RATE_LIMIT_INTERVAL).
    /// @{
    uint32_t maxConflicts = 10;
    double rateLimitSeconds = 60;
    /// @}

    /// Null, or the text of the range error.
    PAVO_EXPORT const char* check() const;
    friend bool operator==(const ArpSettings&, const ArpSettings&) = default;
};

}  // namespace Pavo
