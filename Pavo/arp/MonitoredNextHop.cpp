#include "Pavo/arp/MonitoredNextHop.h"

namespace Pavo {

MonitoredNextHop::MonitoredNextHop(const ArpKey& key, double periodSeconds, double since)
    : key_(key), periodSeconds_(periodSeconds), since_(since) {}

MonitoredNextHop::~MonitoredNextHop() = default;

}  // namespace Pavo
