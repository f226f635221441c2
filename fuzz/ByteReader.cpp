// Reads and writes in any order, past the end too. A reader agrees with plain loops over the bytes,
// a writer with a string that grows.

#include "Pavo/ByteReader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Mox/Assert.h"
#include "fuzz/Frames.h"

namespace {

using Mox::require;

std::string_view textOf(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

uint64_t numberOf(std::string_view bytes) {
    uint64_t number = 0;
    for (const char each : bytes) {
        number = number << 8 | static_cast<uint8_t>(each);
    }
    return number;
}

using Pavo::ByteReader;
using Pavo::ByteWriter;

struct Width {
    std::size_t bytes;
    uint64_t (*read)(ByteReader&);
    void (*write)(ByteWriter&, uint64_t);
    void (*replace)(ByteWriter&, std::size_t, uint64_t);
};
template <std::size_t bytes, auto read, auto write, auto replace>
constexpr Width width = {
    bytes, [](ByteReader& in) -> uint64_t { return (in.*read)(); },
    [](ByteWriter& out, uint64_t number) { (out.*write)(number); },
    [](ByteWriter& out, std::size_t at, uint64_t number) { (out.*replace)(at, number); }};
constexpr Width widths[] = {
    width<1, &ByteReader::u8, &ByteWriter::u8, &ByteWriter::u8At>,
    width<2, &ByteReader::u16, &ByteWriter::u16, &ByteWriter::u16At>,
    width<3, &ByteReader::u24, &ByteWriter::u24, &ByteWriter::u24At>,
    width<4, &ByteReader::u32, &ByteWriter::u32, &ByteWriter::u32At>,
    width<8, &ByteReader::u64, &ByteWriter::u64, &ByteWriter::u32At>,  // None replaces eight.
};

void checkReader(fuzz::Input steps, std::string_view bytes) {
    const fuzz::ExactBytes exact(bytes);
    ByteReader in(std::span<const uint8_t>(exact.data(), bytes.size()));
    std::string_view left = bytes;
    bool isGood = true;
    while (!steps.atEnd()) {
        const uint8_t step = steps.u8();
        const std::size_t count = step % 8 < 5 ? widths[step % 8].bytes : steps.u8();
        isGood = isGood && count <= left.size();
        const std::string_view taken = isGood ? left.substr(0, count) : std::string_view();
        left.remove_prefix(taken.size());
        if (step % 8 < 5) {
            require(widths[step % 8].read(in) == numberOf(taken), "the number");
        } else if (step % 8 == 5) {
            in.skip(count);
        } else {
            require((step % 8 == 6 ? in.text(count) : textOf(in.bytes(count))) == taken, "bytes");
        }
        require(in.ok() == isGood && in.offset() == bytes.size() - left.size(), "the place");
        require(textOf(in.rest()) == (isGood ? left : std::string_view()), "the rest");
    }
}

std::string image(uint64_t number, std::size_t width) {
    std::string bytes;
    for (std::size_t i = width; i-- > 0;) {
        bytes.push_back(static_cast<char>(number >> (8 * i)));
    }
    return bytes;
}

void checkWriter(fuzz::Input steps, std::size_t room) {
    const fuzz::ExactBytes exact{std::string(room, '\xff')};
    ByteWriter out({exact.data(), room});
    std::string written;
    bool isGood = true;
    while (!steps.atEnd()) {
        const uint8_t step = steps.u8();
        const bool isReplacing = step >= 128 && step % 8 < 4;
        const std::size_t width = step % 8 < 5 ? widths[step % 8].bytes : 0;
        // With a byte more than the field has, or with as many.
        const uint64_t number = numberOf(steps.bytes(width + (step & 64) / 64));
        const std::size_t offset = isReplacing ? steps.u8() : 0;
        std::string bytes = image(number, width);
        isGood = isGood && (width == 8 || width == 0 || number >> 8 * width == 0);
        if (isReplacing) {
            isGood = isGood && offset + width <= written.size();
            isGood ? (void)written.replace(offset, width, bytes) : void();
            widths[step % 8].replace(out, offset, number);
        } else {
            bytes = width != 0 ? bytes : std::string(step / 8, '\0');
            isGood = isGood && written.size() + bytes.size() <= room;
            written += isGood ? bytes : "";
            width != 0      ? widths[step % 8].write(out, number)
            : step % 8 == 5 ? out.zeros(bytes.size())
                            : out.text(bytes);
        }
        require(out.ok() == isGood && out.offset() == written.size(), "the place");
        require(textOf(out.written()) == written, "what is written");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint8_t room = input.u8();
    const std::string_view steps = input.bytes(input.u8());
    checkReader(fuzz::Input(steps), input.rest());
    checkWriter(fuzz::Input(steps), room);
    return 0;
}
