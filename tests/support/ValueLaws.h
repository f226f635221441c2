/// @file
/// The laws that every value type keeps, checked over samples; and the ways to read a text, which
/// must all say the same.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Mox/Strep.h"
#include "Mox/ValueType.h"

#include "support/Errors.h"
#include "support/GuardedText.h"

/// The error of reading all of `text`, "" when it is good; `*value` then holds what it stands for.
/// Also compares the entry points to the parser: from text that ends at an unmapped page and from a
/// string, throwing and not. A failure must leave `*value` unchanged.
template <class T>
std::string textErrorOf(std::string_view text, T* value) {
    const T before = *value;
    const GuardedText guarded(text);

    auto it = guarded.begin();
    T read = before;
    const std::string error = rangeErrorOf([&] { sequenceToValue(it, guarded.end(), &read); });
    auto constructedIt = guarded.begin();
    EXPECT_EQ(rangeErrorOf([&] { T(constructedIt, guarded.end()); }), error) << text;
    EXPECT_EQ(constructedIt, it) << text;
    if (!error.empty()) {
        EXPECT_EQ(it, guarded.begin()) << text;
        // Some types clear the target first; none leaves half a value.
        EXPECT_TRUE(read == before || read == T()) << text;
    }

    const bool whole = error.empty() && it == guarded.end();
    const std::string wholeError = error.empty() && !whole ? read.leftoverText() : error;
    const auto quiet = Mox::tryParse<T>(guarded.view());
    EXPECT_EQ(rangeErrorOf([&] { value->stringValueIs(Mox::String(text)); }), wholeError) << text;
    EXPECT_EQ(*value, whole ? read : before) << text;
    if constexpr (std::is_constructible_v<T, std::string_view>) {
        EXPECT_EQ(rangeErrorOf([&] { T(guarded.view()); }), wholeError) << text;
    }
    EXPECT_EQ(quiet.has_value(), whole) << text;
    EXPECT_TRUE(!quiet || *quiet == read) << text;
    return wholeError;
}

/// A good text and the one that its value has, null where that is the same.
struct GoodText {
    const char* text;
    const char* canonical = nullptr;
};

template <class T>
void expectReads(const std::vector<GoodText>& cases) {
    for (const GoodText& c : cases) {
        T value;
        EXPECT_EQ(textErrorOf(c.text, &value), "") << c.text;
        EXPECT_EQ(value.stringValue(), c.canonical != nullptr ? c.canonical : c.text);
    }
}

/// An error and the texts that it is the answer to.
struct BadTexts {
    const char* error;
    std::vector<const char*> texts;
};

/// `before` is the value that is to stay, and best not the default.
template <class T>
void expectRefuses(const T& before, const std::vector<BadTexts>& cases) {
    for (const auto& [error, texts] : cases) {
        for (const char* text : texts) {
            T value = before;
            EXPECT_EQ(textErrorOf(text, &value), error) << text;
        }
    }
}

// Not inlined, since g++ 12 then takes the bytes of a new log for an area of size 0.
template <class Field>
[[gnu::noinline]] void logField(Mox::NboAttrLog::Out& log, const Field& field) {
    if constexpr (std::is_convertible_v<Field, uint32_t>) {
        log.u32(field);
    } else {
        log << field;
    }
}

/// The bytes that a log of the fields or values holds; a plain number takes 32 bits.
template <class... Field>
Mox::Bytes logOf(const Field&... fields) {
    Mox::NboAttrLog::Out log;
    (logField(log, fields), ...);
    return log.bytes;
}

/// The error of reading a value from such a log, "" when it is good.
template <class T, class... Field>
std::string logErrorOf(const Field&... fields) {
    const Mox::Bytes log = logOf(fields...);
    Mox::NboAttrLog::In in(log);
    return rangeErrorOf([&] { T(&in, Mox::StreamBogon()); });
}

namespace laws {

template <class T>
void expectTextLaws(const T& value, bool readsBack) {
    const Mox::String strep = valueToStrep(value);
    std::ostringstream stream;
    stream << value;
    EXPECT_EQ(stream.str(), strep.view());
    if constexpr (Mox::HasParse<T> || !Mox::HasPrint<T>) {
        EXPECT_EQ(value.stringValue(), strep);
    }
    if (readsBack) {
        T read;
        EXPECT_EQ(textErrorOf(strep, &read), "");
        EXPECT_EQ(read, value);
        T fromStrep;
        Mox::strepToValue(strep, &fromStrep);
        EXPECT_EQ(fromStrep, value);
    }
    // All entry points agree on a text that is cut off anywhere, or that goes on after its end.
    T target = value;
    for (uint32_t length = 0; length < strep.bytes(); ++length) {
        (void)textErrorOf(strep.view().substr(0, length), &target);
    }
    (void)textErrorOf((strep + "?").view(), &target);
}

template <class T>
void expectPrintLaws(const T& value) {
    const Mox::String text = value.stringValue();
    EXPECT_EQ(value.printToBuffer(nullptr, 0), text.bytes());
    for (uint32_t size = 1; size <= text.bytes() + 2; ++size) {
        const GuardedBuffer buffer(size);
        EXPECT_EQ(value.printToBuffer(buffer.data(), size), text.bytes());
        EXPECT_EQ(buffer.data(), text.view().substr(0, size - 1)) << size;
    }
}

template <class T>
void expectLogLaws(const T& value) {
    const Mox::Bytes log = logOf(value);
    Mox::NboAttrLog::In in(log);
    EXPECT_EQ(T(&in, Mox::StreamBogon()), value);
    EXPECT_EQ(in.left(), 0u);
    for (uint32_t length = 0; length < log.bytes(); ++length) {
        Mox::NboAttrLog::In cut(log.data(), length);
        EXPECT_THROW(T(&cut, Mox::StreamBogon()), Mox::RangeException) << length;
    }
}

}  // namespace laws

/// Checks the laws over `samples`, which are different values, in ascending order where the type
/// has one. `notReadBack` says why, where their streps do not give the values again.
template <class T>
void expectValueLaws(const std::vector<T>& samples, const char* notReadBack = nullptr) {
    EXPECT_FALSE(samples.empty());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(valueToStrep(samples[i]));
        laws::expectTextLaws(samples[i], notReadBack == nullptr);
        laws::expectPrintLaws(samples[i]);
        laws::expectLogLaws(samples[i]);
        EXPECT_EQ(std::hash<T>()(samples[i]), samples[i].hash());
        for (std::size_t j = i; j < samples.size(); ++j) {
            SCOPED_TRACE(valueToStrep(samples[j]));
            EXPECT_EQ(samples[i] == samples[j], i == j);
            if constexpr (requires { samples[i] < samples[j]; }) {
                EXPECT_EQ(samples[i] < samples[j], i < j);
                EXPECT_FALSE(samples[j] < samples[i]);
            }
        }
    }
}

/// The same over the values that the texts stand for.
template <class T>
void expectValueLawsOf(const std::vector<const char*>& texts) {
    std::vector<T> samples;
    for (const char* text : texts) {
        samples.push_back(Mox::fromText<T>(text));
    }
    expectValueLaws(samples);
}
