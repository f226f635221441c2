/// @file
/// What must hold for every value, and for every text and log that is read as one. What does not
/// hold is fatal.
///
/// Both libFuzzer and the replay program hand over inputs in heap memory of exactly their size, so
/// AddressSanitizer sees a reader that looks past the end.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Mox/Assert.h"
#include "Mox/Strep.h"
#include "Mox/ValueType.h"

#include "fuzz/ValueTypes.h"

namespace fuzz {

inline std::string_view asText(const uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The text of the range error that `fn` throws, or "". Any other exception ends the process.
template <class Fn>
std::string rangeErrorOf(Fn fn) {
    try {
        fn();
    } catch (const Mox::RangeException& error) {
        Mox::require(*error.what() != '\0', "a range error has a text");
        return error.what();
    }
    return "";
}

/// The text without the leading zeros of the octets that dots join, which glibc does not read.
inline std::string withoutLeadingZeros(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    const std::size_t first = colon == std::string_view::npos ? 0 : colon + 1;
    if (text.find('.', first) == std::string_view::npos) {
        return std::string(text);
    }
    std::string plain(text.substr(0, first));
    bool inOctet = false;
    for (std::size_t i = first; i < text.size(); ++i) {
        const bool lastOfOctet = i + 1 == text.size() || text[i + 1] == '.';
        inOctet = text[i] != '.' && (inOctet || text[i] != '0' || lastOfOctet);
        if (inOctet || text[i] == '.') {
            plain += text[i];
        }
    }
    return plain;
}

/// Printing into a buffer of any size is snprintf(3).
template <Mox::Value T>
void checkPrinting(const T& value) {
    const Mox::String text = value.stringValue();
    Mox::require(value.printToBuffer(nullptr, 0) == text.bytes(), "the length without a buffer");
    for (uint32_t size = 1; size <= text.bytes() + 2; ++size) {
        const std::unique_ptr<char[]> buffer(new char[size]);
        Mox::require(value.printToBuffer(buffer.get(), size) == text.bytes(), "the whole length");
        const std::string_view cut = text.view().substr(0, size - 1);
        Mox::require(std::string_view(buffer.get(), cut.size()) == cut, "as much as has room");
        Mox::require(buffer[cut.size()] == '\0', "a NUL at the end");
    }
}

/// The strep is a text of the type, and gives the value again.
template <Mox::Value T>
void checkStrep(const T& value) {
    const Mox::String strep = valueToStrep(value);
    const auto read = Mox::tryParse<T>(strep.view());
    if (readsBack(value)) {
        Mox::require(read && *read == value, "value, strep, value");
        Mox::require(read->hash() == value.hash(), "equal values, equal hashes");
    }
    if (read) {
        Mox::require(valueToStrep(*read) == strep, "strep, value, strep");
    }
}

/// The log gives the value again, and uses itself up.
template <Mox::Value T>
Mox::Bytes checkLog(const T& value) {
    Mox::NboAttrLog::Out out;
    out << value;
    const std::unique_ptr<uint8_t[]> log(new uint8_t[out.bytes.bytes()]);
    std::copy(out.bytes.begin(), out.bytes.end(), log.get());
    Mox::NboAttrLog::In in(log.get(), out.bytes.bytes());
    Mox::require(T(&in, Mox::StreamBogon()) == value, "value, log, value");
    Mox::require(in.left() == 0, "nothing is left of the log");
    return out.bytes;
}

template <Mox::Value T>
void checkValue(const T& value) {
    checkPrinting(value);
    checkStrep(value);
    checkLog(value);
}

/// Every way to read the whole of `text` says the same, for a type that has a text form beside its
/// record.
template <Mox::HasTextForm T>
void checkTextForm(std::string_view text) {
    const auto quiet = Mox::tryParse<T>(text);
    T target{};
    const std::string error = rangeErrorOf([&] { target.stringValueIs(Mox::String(text)); });
    Mox::require(quiet.has_value() == error.empty(), "throwing, quiet");
    Mox::require(target == quiet.value_or(T()), "the value of all of it");
    Mox::require(rangeErrorOf([&] { (void)T(text); }) == error, "constructed of all of it");
    if (quiet) {
        checkValue(*quiet);
    }
}

/// Every way to read `text` says the same; a failure moves nothing.
template <Mox::Value T>
void checkText(std::string_view text) {
    const char* const begin = text.data();
    const char* const end = begin + text.size();

    auto it = begin;
    T read{};
    const std::string error = rangeErrorOf([&] { sequenceToValue(it, end, &read); });
    auto constructedIt = begin;
    Mox::require(rangeErrorOf([&] { (void)T(constructedIt, end); }) == error,
                 "constructor, function");
    Mox::require(constructedIt == it && it >= begin && it <= end, "the place reached");
    Mox::require(error.empty() || (it == begin && read == T()), "a failure moves nothing");

    if constexpr (Mox::HasTextForm<T>) {
        if (!text.starts_with("Value(")) {
            checkTextForm<T>(text);
            return;
        }
    }
    const bool whole = error.empty() && it == end;
    const auto quiet = Mox::tryParse<T>(text);
    Mox::require(quiet.has_value() == whole && (!whole || *quiet == read), "throwing, quiet");
    T target{};
    const std::string wholeError = rangeErrorOf([&] { target.stringValueIs(Mox::String(text)); });
    Mox::require(wholeError == (error.empty() && !whole ? read.leftoverText() : error),
                 "all of it");
    Mox::require(target == (whole ? read : T()), "the value of all of it");
    // A name that is made of a string without a cast takes it as it is.
    if constexpr (std::is_constructible_v<T, std::string_view> &&
                  !std::is_convertible_v<const char*, T>) {
        Mox::require(rangeErrorOf([&] { (void)T(text); }) == wholeError,
                     "constructed of all of it");
    }

    if (!error.empty()) {
        return;
    }
    checkValue(read);
    // The value is that of the characters taken, whatever follows them.
    const auto alone = Mox::tryParse<T>(text.substr(0, static_cast<std::size_t>(it - begin)));
    Mox::require(alone && *alone == read, "the same without the rest");
}

template <class... T>
void checkTextAs(TypeList<T...> types, const uint8_t* data, std::size_t size) {
    forEachType(
        types, [text = asText(data, size)]<class U>(std::type_identity<U>) { checkText<U>(text); });
}

/// Any two values are ordered one way, and the order of any three is transitive.
template <class T>
void checkOrder(const std::vector<T>& values) {
    for (const T& a : values) {
        for (const T& b : values) {
            Mox::require((a == b) == (b == a) && !(a == b && a != b), "equal is mutual");
            Mox::require(!(a == b) || a.hash() == b.hash(), "equal values, equal hashes");
            if constexpr (requires { a < b; }) {
                Mox::require((a < b) + (b < a) <= 1 && !(a == b && a < b), "one way");
                Mox::require((a < b) == (b > a) && (a <= b) == !(b < a), "the four agree");
                for (const T& c : values) {
                    Mox::require(!(a < b && b < c) || a < c, "below what is below");
                }
            }
        }
    }
}

/// The values that bytes can be read as, at most three of them.
template <class T>
void checkLogs(std::string_view log) {
    Mox::NboAttrLog::In in(log.data(), static_cast<uint32_t>(log.size()));
    std::vector<T> values;
    const std::string error = rangeErrorOf([&] {
        while (values.size() < 3 && in.left() != 0) {
            const uint32_t left = in.left();
            const std::string_view image = log.substr(log.size() - left);
            values.push_back(T(&in, Mox::StreamBogon()));
            Mox::require(in.left() <= left, "reads forwards");
            const Mox::Bytes again = checkLog(values.back());
            Mox::require(asText(again.data(), again.bytes()) == image.substr(0, left - in.left()),
                         "log, value, log");
        }
    });
    for (const T& value : values) {
        checkValue(value);
    }
    checkOrder(values);
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
