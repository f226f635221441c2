// Contents of LLDP frames, from any bytes. What is read is written and read as the same.

#include "lldp/LldpPdu.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "Mox/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    constexpr std::size_t limit = 1300;  // The image of one is up to 14/13 of it; a frame has 1500.
    const auto pdu = Lldp::parse({data, size});
    if (!pdu || size > limit) {
        return 0;
    }
    const std::string image = Lldp::image(*pdu);
    const auto again = Lldp::parse({reinterpret_cast<const uint8_t*>(image.data()), image.size()});
    const auto known = pdu->ttlSeconds != 0 ? *pdu : Lldp::Pdu{.key = pdu->key};
    Mox::require(again == known, "the same");
    const std::string shown =
        Lldp::printable(pdu->systemName) + Lldp::printable(pdu->key.chassis, Lldp::chassisMac);
    Mox::require(
        std::all_of(shown.begin(), shown.end(), [](char c) { return c >= ' ' && c <= '~'; }),
        "printable");
    return 0;
}
