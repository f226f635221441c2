// Enumerations, as names and as numbers.

#include <cstring>

#include "fuzz/ValueOracles.h"

namespace {

using fuzz::rangeErrorOf;

template <class E>
void checkMember(E value) {
    const Mox::String name = Mox::stringValue(value);
    Mox::require(Mox::enumValue<E>(name) == value, "member, name, member");
    Mox::require(Mox::enumValue<E>(static_cast<uint32_t>(value)) == value, "member, number");
}

template <class E>
void checkName(std::string_view text) {
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    auto it = begin;
    E read{};
    const std::string error = rangeErrorOf([&] { Mox::sequenceToValue(it, end, &read); });
    Mox::require(error.empty() || error == Mox::enumTable<E>.invalidText, "the type's own text");
    Mox::require(!error.empty() == (it == begin), "a name is taken, or nothing");
    E whole{};
    const std::string wholeError =
        rangeErrorOf([&] { Mox::strepToValue(Mox::String(text), &whole); });
    Mox::require(wholeError.empty() == (error.empty() && it == end), "all of it, or not");
    if (error.empty()) {
        checkMember(read);
    }
}

// Names what is a member, and gives any other number as it is.
template <class E>
void checkNumber(uint32_t number) {
    const bool isMember = rangeErrorOf([&] { (void)Mox::enumValue<E>(number); }).empty();
    Mox::require(isMember == (Mox::findEnumerator<E>(number) != nullptr), "member or not");
    if (isMember) {
        checkMember(static_cast<E>(number));
    } else {
        const auto plain = static_cast<std::underlying_type_t<E>>(number);
        Mox::require(Mox::stringValue(static_cast<E>(number)) == std::to_string(plain), "number");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    uint32_t number = 0;
    if (size >= sizeof(number)) {
        std::memcpy(&number, data, sizeof(number));
    }
    fuzz::forEachType(fuzz::EnumTypes(), [&]<class E>(std::type_identity<E>) {
        checkName<E>(fuzz::asText(data, size));
        checkNumber<E>(number);
        checkNumber<E>(number & 0xff);
    });
    return 0;
}
