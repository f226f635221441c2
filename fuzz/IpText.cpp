// IPv4 addresses, prefixes, addresses with masks and with ports, as text.

#include <arpa/inet.h>

#include "fuzz/ValueOracles.h"

namespace {

// glibc reads the dotted quads that have no leading zeros.
void compareWithGlibc(std::string_view text) {
    uint8_t image[4];
    if (text.find('\0') == std::string_view::npos &&
        inet_pton(AF_INET, std::string(text).c_str(), image) == 1) {
        Pavo::IpAddr theirs;
        theirs.copyFromBuffer(image);
        Mox::require(Mox::tryParse<Pavo::IpAddr>(text) == theirs, "what glibc reads");
    }
    if (const auto ours = Mox::tryParse<Pavo::IpAddr>(text)) {
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
