// Started by tests: traces, and prints a toggle, as the environment and the files of its user say.

#include "Mox/Trace.h"
#include "toggle/toggle.h"

int main() {
    const Mox::TraceFacility facility("probe");
    MOX_TRACE(facility, 0, "traced");
    std::puts(getToggleState("probed", "Probe.json", false) ? "on" : "off");
}
