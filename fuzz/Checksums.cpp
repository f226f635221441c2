// Checksums over bytes at any address, beside the plain loops that define them.

#include "Pavo/Checksum.h"
#include "Pavo/Cpu.h"
#include "Pavo/Crc32.h"

#include "fuzz/Frames.h"

namespace {

// Bit by bit, with the polynomial in reverse order.
uint32_t plainCrc(std::string_view bytes, uint32_t polynomial) {
    uint32_t crc = ~0u;
    for (const char c : bytes) {
        crc ^= static_cast<uint8_t>(c);
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ ((crc & 1) != 0 ? polynomial : 0);
        }
    }
    return ~crc;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint32_t offset = input.u8() % 16;
    const uint32_t start = input.u32();
    const std::string_view bytes = input.rest();
    const fuzz::ExactBytes memory(std::string(offset, '\0').append(bytes));
    const uint8_t* at = memory.data() + offset;
    const auto length = static_cast<uint16_t>(bytes.size());
    const auto even = static_cast<uint16_t>(length & ~1u);

    using namespace Pavo;
    Cpu::featuresIs(start);
    Mox::require(ipChecksumChunk(at, even, start) == fuzz::plainSum(bytes.substr(0, even), start),
                 "sum");
    Mox::require(
        ipChecksumCalc(at, length, start).value() == fuzz::folded(fuzz::plainSum(bytes, start)),
        "checksum");
    const IpChecksum stored(fuzz::folded(fuzz::plainSum(bytes, 0)));
    const uint16_t image = ipChksum(at, length);
    Mox::require(std::memcmp(&image, &stored, sizeof(image)) == 0, "checksum as it is stored");

    const uint32_t crc = plainCrc(bytes, 0xedb88320);
    Mox::require(Crc32::crc(at, length) == crc, "CRC");

    const uint32_t crc32c = plainCrc(bytes, 0x82f63b78);
    Mox::require(Crc32c::crc(at, length) == crc32c, "CRC-32C");
    const uint32_t first = start % (length + 1u);
    const uint32_t before = Crc32c::crc(at, first);
    Mox::require(Crc32c::crc(at + first, length - first, before) == crc32c, "a chain of CRC-32C");
    return 0;
}
