// IPv6 addresses, prefixes and addresses with masks, as text.

#include <arpa/inet.h>

#include <optional>

#include "fuzz/ValueOracles.h"

namespace {

using Pavo::Ip6Addr;

std::optional<Ip6Addr> readByGlibc(std::string_view text) {
    uint8_t image[16];
    if (text.find('\0') != std::string_view::npos ||
        inet_pton(AF_INET6, std::string(text).c_str(), image) != 1) {
        return std::nullopt;
    }
    Ip6Addr address;
    address.copyFromBuffer(image);
    return address;
}

// glibc reads no octets with leading zeros, and otherwise the same, no more and no less.
void compareWithGlibc(std::string_view text) {
    const auto ours = Mox::tryParse<Ip6Addr>(text);
    if (const auto theirs = readByGlibc(text)) {
        Mox::require(ours == theirs, "what glibc reads");
    }
    if (ours) {
        Mox::require(readByGlibc(fuzz::withoutLeadingZeros(text)) == ours, "no more than glibc");
        uint8_t image[16];
        char printed[INET6_ADDRSTRLEN];
        ours->copyToBuffer(image);
        inet_ntop(AF_INET6, image, printed, sizeof(printed));
        // glibc prints v4-compatible addresses, from ::1:0 on, with a dotted quad.
        const std::string_view quad = printed;
        const bool isCompatible = quad.starts_with("::") && quad.find('.') != quad.npos;
        Mox::require(ours->stringValue() == printed || isCompatible, "what glibc prints");
        Mox::require(readByGlibc(ours->stringValue()) == ours, "glibc reads what is printed");
    }
}

// The expanded form is one of the forms that are read.
void checkExpanded(std::string_view text) {
    Ip6Addr address;
    if (fuzz::rangeErrorOf([&] { address.stringValueExpandedIs(Mox::String(text)); }).empty()) {
        Mox::require(text.size() == 39 && Mox::tryParse<Ip6Addr>(text) == address, "expanded");
    } else {
        Mox::require(address.isZero(), "unchanged");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::checkTextAs(fuzz::Ip6Types(), data, size);
    compareWithGlibc(fuzz::asText(data, size));
    checkExpanded(fuzz::asText(data, size));
    return 0;
}
