// IPv4 addresses, prefixes, addresses with masks and with ports, as text.

#include <arpa/inet.h>

#include <optional>

#include "fuzz/ValueOracles.h"

namespace {

using Pavo::IpAddr;

std::optional<IpAddr> readByGlibc(std::string_view text) {
    uint8_t image[4];
    if (text.find('\0') != std::string_view::npos ||
        inet_pton(AF_INET, std::string(text).c_str(), image) != 1) {
        return std::nullopt;
    }
    IpAddr address;
    address.copyFromBuffer(image);
    return address;
}

// glibc reads no octets with leading zeros, and otherwise the same, no more and no less.
void compareWithGlibc(std::string_view text) {
    const auto ours = Mox::tryParse<IpAddr>(text);
    const auto theirs = readByGlibc(fuzz::withoutLeadingZeros(text));
    Mox::require(ours == theirs, "what glibc reads");
    if (ours) {
        uint8_t image[4];
        char printed[INET_ADDRSTRLEN];
        ours->copyToBuffer(image);
        inet_ntop(AF_INET, image, printed, sizeof(printed));
        Mox::require(ours->stringValue() == printed, "what glibc prints");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::checkTextAs(fuzz::IpTypes(), data, size);
    compareWithGlibc(fuzz::asText(data, size));
    return 0;
}
