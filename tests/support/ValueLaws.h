/// @file
/// The laws that every value type keeps, checked over samples; and the ways to read a text, which
/// must all say the same.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Mox/GenericIf.h"
#include "Mox/Strep.h"
#include "Mox/ValueType.h"

#include "support/Errors.h"
#include "support/GuardedText.h"

/// Laws that a type does not keep, each with the reason.
struct LawExceptions {
    const char* readsBack = nullptr;  ///< The strep gives the value again.
};

/// The error of reading all of `text`, "" when it is good; `*value` then holds what it stands for.
/// On the way the doors to the parser are compared: from text in front of an unmapped page, from a
/// string, throwing and quiet. A failure must leave `*value` as it was.
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
    const std::string wholeError = error.empty() && !whole ? T::leftoverText : error;
    const auto quiet = Mox::tryParse<T>(guarded.view());
    EXPECT_EQ(quiet.has_value(), whole) << text;
    EXPECT_EQ(rangeErrorOf([&] { value->stringValueIs(Mox::String(text)); }), wholeError) << text;
    EXPECT_EQ(*value, whole ? read : before) << text;
    if (whole) {
        EXPECT_EQ(*quiet, read) << text;
    }
    return wholeError;
}

namespace laws {

template <class T>
void expectTextLaws(const T& value, const LawExceptions& exceptions) {
    const Mox::String strep = valueToStrep(value);
    std::ostringstream stream;
    stream << value;
    EXPECT_EQ(stream.str(), strep.view());
    if constexpr (Mox::HasParse<T> || !Mox::HasPrint<T>) {
        EXPECT_EQ(value.stringValue(), strep);
    }

    if (exceptions.readsBack == nullptr) {
        T read;
        EXPECT_EQ(textErrorOf(strep, &read), "");
        EXPECT_EQ(read, value);
        T fromStrep;
        Mox::strepToValue(strep, &fromStrep);
        EXPECT_EQ(fromStrep, value);
    }
    // Cut off anywhere, or with more behind it, the text is good or bad at every door alike.
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
    Mox::NboAttrLog::Out out;
    out << value;
    Mox::NboAttrLog::In in(out.bytes);
    EXPECT_EQ(T(&in, Mox::StreamBogon()), value);
    EXPECT_EQ(in.left(), 0u);
    for (uint32_t length = 0; length < out.bytes.bytes(); ++length) {
        Mox::NboAttrLog::In cut(out.bytes.data(), length);
        EXPECT_THROW(T(&cut, Mox::StreamBogon()), Mox::RangeException) << length;
    }
}

template <class T>
void expectGenericLaws(const T& value, const LawExceptions& exceptions) {
    const Mox::GenericIf& about = Mox::genericIf<T>();
    alignas(T) unsigned char memory[sizeof(T)];
    about.construct(memory);
    EXPECT_EQ(about.strRep(memory), valueToStrep(T()));
    EXPECT_EQ(about.size, sizeof(T));
    const Mox::String strep = valueToStrep(value);
    if (exceptions.readsBack == nullptr) {
        about.strepToValue(strep, memory);
        EXPECT_EQ(about.strRep(memory), strep);
        EXPECT_EQ(about.hash(memory), value.hash());
    }
    about.destroy(memory);
    EXPECT_EQ(about.typeName.substr(0, about.typeName.find("::")).empty(), false);
    EXPECT_EQ(std::hash<T>()(value), value.hash());
}

template <class T>
void expectPairLaws(const T& a, const T& b, bool sameSample) {
    EXPECT_EQ(a == b, sameSample);
    EXPECT_EQ(a != b, !sameSample);
    if constexpr (requires { a < b; }) {
        EXPECT_EQ(a < b, !sameSample);
        EXPECT_FALSE(b < a);
        EXPECT_EQ(b > a, !sameSample);
        EXPECT_EQ(a <= b, true);
        EXPECT_EQ(b <= a, sameSample);
    }
}

}  // namespace laws

/// Checks every pair and triple of `samples`, which may be any values in any order: nothing is less
/// than itself, what is less is not greater, equal values and no others stand side by side, and
/// both "less" and "side by side" carry on from one to the next.
template <class T>
void expectStrictWeakOrder(const std::vector<T>& samples) {
    for (const T& a : samples) {
        for (const T& b : samples) {
            ASSERT_FALSE(a < b && b < a) << a << " " << b;
            ASSERT_EQ(a == b, !(a < b) && !(b < a)) << a << " " << b;
            ASSERT_TRUE(a != b || a.hash() == b.hash()) << a << " " << b;
            for (const T& c : samples) {
                ASSERT_TRUE(!(a < b && b < c) || a < c) << a << " " << b << " " << c;
                ASSERT_TRUE(a != b || (a < c) == (b < c)) << a << " " << b << " " << c;
            }
        }
    }
}

/// Checks the laws over `samples`, which are different values, in ascending order where the type
/// has one.
template <class T>
void expectValueLaws(const std::vector<T>& samples, const LawExceptions& exceptions = {}) {
    EXPECT_FALSE(samples.empty());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(valueToStrep(samples[i]));
        laws::expectTextLaws(samples[i], exceptions);
        laws::expectPrintLaws(samples[i]);
        laws::expectLogLaws(samples[i]);
        laws::expectGenericLaws(samples[i], exceptions);
        for (std::size_t j = i; j < samples.size(); ++j) {
            SCOPED_TRACE(valueToStrep(samples[j]));
            laws::expectPairLaws(samples[i], samples[j], i == j);
        }
    }
}
