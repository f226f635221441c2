#include "Pavo/arp/ArpSettings.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace Pavo {

const char* ArpSettings::check() const {
    const double times[] = {
        reachableSeconds,    retransSeconds,          delaySeconds,    lockSeconds,
        failedRetrySeconds,  probeWaitSeconds,        probeMinSeconds, probeMaxSeconds,
        announceWaitSeconds, announceIntervalSeconds, defendSeconds,   rateLimitSeconds};
    const auto isTime = [](double seconds) { return std::isfinite(seconds) && seconds >= 0; };
    if (!std::all_of(std::begin(times), std::end(times), isTime)) {
        return "ArpSettings: a time < 0 not allowed";
    }
    // Without these, requests would follow one another at once.
    if (reachableSeconds == 0 || retransSeconds == 0 || failedRetrySeconds == 0) {
        return "ArpSettings: a period of 0 not allowed";
    }
    if (broadcastRequests == 0 || unicastRequests == 0) {
        return "ArpSettings: no requests not allowed";
    }
    return probeMinSeconds > probeMaxSeconds ? "ArpSettings: probeMin > probeMax not allowed"
                                             : nullptr;
}

}  // namespace Pavo
