// Descriptions of any bytes. They are the same however the packet is divided, and no line is empty.

#include "Pavo/Describe.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

Mox::String describeAs(const Mox::Ptr<Pkt>& pkt, uint8_t kind, uint32_t offset) {
    return kind < 3 ? describe(pkt, offset, static_cast<FirstHdr>(kind))
                    : describe(pkt, offset, static_cast<IpProtocolNumber>(kind));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint32_t privateBytes = input.u8();
    const uint8_t kind = input.u8();
    const uint32_t offset = input.u8();
    const std::string_view bytes = input.rest();
    const auto pkt = fuzz::pktOf(bytes, privateBytes);
    const Mox::String text = describeAs(pkt, kind, offset);
    Mox::require(text == describeAs(fuzz::pktOf(bytes, 0), kind, offset), "in one piece");
    Mox::require(text.view().find("\n\n") == std::string_view::npos, "no line is empty");
    Mox::require(std::count(text.begin(), text.end(), '\n') < 70, "few lines");
    Mox::require(pkt->stringValue() == bytes, "the packet is unchanged");
    pkt->linearize();
    Mox::require(pkt->isLinear() && pkt->stringValue() == bytes, "the same bytes in one piece");
    return 0;
}
