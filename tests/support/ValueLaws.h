/// @file
/// The laws that every value type keeps, checked over samples, and the errors of texts and logs.
/// The laws themselves are those of the fuzz targets, where what does not hold is fatal.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Mox/Strep.h"
#include "Mox/ValueType.h"

#include "fuzz/ValueOracles.h"
#include "support/Errors.h"

/// The error of reading all of `text`, "" when it is good; `*value` then holds what it stands for.
/// A failure must leave `*value` unchanged, and all ways to read a text must agree.
template <class T>
std::string textErrorOf(std::string_view text, T* value) {
    // Of exactly its size, so that the address sanitizer finds a reader that goes past the end.
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    std::copy(text.begin(), text.end(), exact.get());
    fuzz::checkText<T>({exact.get(), text.size()});
    const T before = *value;
    const std::string error = rangeErrorOf([&] { value->stringValueIs(Mox::String(text)); });
    EXPECT_TRUE(error.empty() || *value == before) << text;
    return error;
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

/// Checks the laws over `samples`, which are different values, in ascending order where the type
/// has one.
template <class T>
void expectValueLaws(const std::vector<T>& samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(valueToStrep(samples[i]));
        fuzz::checkValue(samples[i]);
        for (std::size_t j = i; j < samples.size(); ++j) {
            EXPECT_EQ(samples[i] == samples[j], i == j) << valueToStrep(samples[j]);
            if constexpr (requires { samples[i] < samples[j]; }) {
                EXPECT_EQ(samples[i] < samples[j], i < j) << valueToStrep(samples[j]);
                EXPECT_FALSE(samples[j] < samples[i]) << valueToStrep(samples[j]);
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
