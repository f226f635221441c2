#include "Pavo/kernel/NsUtils.h"

#include <sched.h>

#include "Mox/Trace.h"
#include "netns/netns.h"

namespace Pavo {

namespace {
Mox::TraceFacility facility("Pavo::NsUtils");
}

constinit const char* const DEFAULT_NS = ::DEFAULT_NS;
const Mox::String defaultNsStr(::DEFAULT_NS);

int setNsByName(const char* name) {
    if (setnsByName(name, CLONE_NEWNET) == 0) {
        return 0;
    }
    MOX_TRACE(facility, 0, "Cannot setns to ", name == nullptr ? DEFAULT_NS : name, ": ",
              netnsGetTracebuffer());
    return -1;
}

}  // namespace Pavo

int setns_by_name(const char* name) {
    return Pavo::setNsByName(name);
}
