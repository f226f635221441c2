#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mox/Enum.h"
#include "Mox/GenericIf.h"
#include "Mox/NboAttrLog.h"
#include "Mox/Record.h"
#include "Mox/Strep.h"
#include "Mox/Trace.h"
#include "Mox/ValueType.h"
#include "support/ValueLaws.h"

// An agent that follows the recipe of Mox/Enum.h.
namespace agent {

using Mox::operator<<;
using Mox::enumValue;
using Mox::sequenceToValue;
using Mox::strepToValue;
using Mox::stringValue;
using Mox::valueToStrep;

enum class Colour : uint32_t { red = 1, green = 2, greenest = 2 };
constexpr auto enumDescription(Colour) {
    return Mox::enumeration<Colour>(
        "Invalid Colour",
        {{Colour::red, "red"}, {Colour::green, "green"}, {Colour::greenest, "greenest"}});
}

namespace {

class Pair : public Mox::ValueType<Pair> {
  public:
    Pair() = default;
    Pair(uint16_t left, Colour right) : left_(left), right_(right) {}
    Pair(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    friend auto operator<=>(const Pair&, const Pair&) = default;

    static constexpr auto description() {
        return Mox::record("agent::Pair", Mox::field("left", &Pair::left_),
                           Mox::field("right", &Pair::right_));
    }

  private:
    uint16_t left_ = 0;
    Colour right_ = Colour::red;
};

// A field of each kind that has a text.
class Wide : public Mox::ValueType<Wide> {
  public:
    Wide() = default;
    Wide(const Pair& pair, bool flag, int32_t delta, uint64_t big, Mox::String note)
        : pair_(pair), flag_(flag), delta_(delta), big_(big), note_(std::move(note)) {}
    Wide(TextIt& it, const TextIt& end) { readText(it, end); }
    Wide(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    friend auto operator<=>(const Wide&, const Wide&) = default;

    static constexpr auto description() {
        return Mox::record("agent::Wide", Mox::field("pair", &Wide::pair_),
                           Mox::field("flag", &Wide::flag_), Mox::field("delta", &Wide::delta_),
                           Mox::field("big", &Wide::big_), Mox::field("note", &Wide::note_));
    }

  private:
    Pair pair_;
    bool flag_ = false;
    int32_t delta_ = 0;
    uint64_t big_ = 0;
    Mox::String note_;
};

const Wide sample({80, Colour::green}, true, -2, 3, "a'\\");
const std::string sampleStrep =
    "Value('agent::Wide', ** {'pair': Value('agent::Pair', ** {'left': 80, 'right': green}), "
    "'flag': true, 'delta': -2, 'big': 3, 'note': 'a\\'\\\\'})";

TEST(ValueType, KeepsTheValueLaws) {
    std::vector<Wide> samples = {{}, {Pair(), true, -1, 1, ""}, {Pair(), true, 0, 0, "a'b"}};
    const std::size_t shortest = valueToStrep(Wide(Pair(), true, 1, 0, "")).bytes();
    for (std::size_t bytes = 255; bytes <= 257; ++bytes) {  // From 256 on, the text is allocated.
        samples.emplace_back(Pair(), true, 1, 0, std::string(bytes - shortest, 'x'));
    }
    samples.push_back({{80, Colour::green}, false, 0, 0, ""});
    expectValueLaws(samples);
}

TEST(ValueType, DerivesEveryFormFromTheDescription) {
    EXPECT_EQ(valueToStrep(sample), sampleStrep);
    EXPECT_EQ(logOf(sample),
              (Mox::Bytes{0, 0, 0, 80, 0, 0, 0, 2, 0, 0, 0, 1, 0xff, 0xff, 0xff, 0xfe,
                          0, 0, 0, 0,  0, 0, 0, 3, 0, 0, 0, 3, 'a',  '\'', '\\'}));
    EXPECT_EQ(sample.hash(5), 0x4eb257edu);  // Computed by another program.
    const auto& delta = Mox::genericIf<Wide>().attributes.at(2);
    EXPECT_EQ(delta.name, "delta");
    EXPECT_EQ(delta.strep(&sample), "-2");
}

TEST(ValueType, RefusesStrepsThatAreNotExactlyItsOwn) {
    const char* const cases[][3] = {
        // What is replaced, by what, and the error.
        {"80", "65536", "Invalid Pair"},   {", 'right': green", "", "Invalid Pair"},
        {"left", "right", "Invalid Pair"}, {"Pair", "Pear", "Invalid Pair"},
        {"green", "greenest", ""},         {"green", "greens", "Invalid Colour"},
        {"true", "1", "Invalid Wide"},     {"'a", "a", "Invalid Wide"},
        {"'})", "})", "Invalid Wide"},     {"'})", "\\", "Invalid Wide"},
    };
    for (const auto& [from, to, error] : cases) {
        std::string text = sampleStrep;
        text.replace(text.find(from), std::string_view(from).size(), to);
        Wide value;
        EXPECT_EQ(textErrorOf(text, &value), error) << text;
    }
}

// The text of an integer is that of the standard library, around all powers of ten and up to the
// bounds of its type; `below` and `above` are the numbers next to these.
template <class T>
void expectIntegerForms(const char* below, const char* above) {
    using Codec = Mox::Codec<T>;
    constexpr T max = std::numeric_limits<T>::max();
    std::vector<T> samples = {0, max, std::numeric_limits<T>::min()};
    for (T power = 1; power <= max / 10; power = static_cast<T>(power * 10)) {
        samples.insert(samples.end(), {static_cast<T>(power * 10), static_cast<T>(power * 10 - 1)});
    }
    T read = 7;
    for (const T value : samples) {
        const std::string text = std::to_string(value);
        EXPECT_EQ(Mox::printedString([&](auto& out) { Codec::print(out, value); }), text);
        Mox::TextCursor in(text);
        EXPECT_EQ(Codec::parse(in, &read, "bad"), nullptr) << text;
        EXPECT_EQ(read, value);
        EXPECT_TRUE(in.atEnd()) << text;
    }
    for (const char* text : {below, above, "", "-", "+1", " 1"}) {
        Mox::TextCursor in(text);
        EXPECT_STREQ(Codec::parse(in, &read, "bad"), "bad") << text;
        EXPECT_EQ(in.at(), text);
        EXPECT_EQ(read, samples.back());
    }
}

TEST(Record, HoldsNumbersUpToTheBoundsOfTheirFields) {
    expectIntegerForms<uint8_t>("-1", "256");
    expectIntegerForms<int16_t>("-32769", "32768");
    expectIntegerForms<uint32_t>("-1", "4294967296");
    expectIntegerForms<int32_t>("-2147483649", "2147483648");
    expectIntegerForms<uint64_t>("-1", "18446744073709551616");
    expectIntegerForms<int64_t>("-9223372036854775809", "9223372036854775808");
    EXPECT_EQ((logErrorOf<Pair>(65536u, 2u)), "NboAttrLog: value out of range");
    EXPECT_EQ((logErrorOf<Pair>(80u, 3u)), "Invalid Colour");
    EXPECT_EQ((logErrorOf<Wide>(80u, 2u, 2u)), "NboAttrLog: value out of range");
}

TEST(Enum, PrintsTheFirstOfTwoNamesAndANumberThatHasNone) {
    std::ostringstream stream;
    stream << enumValue<Colour>("greenest") << static_cast<Colour>(3);
    EXPECT_EQ(stream.str(), "green3");
    EXPECT_EQ(rangeErrorOf([] { enumValue<Colour>(3); }), "Invalid Colour");
}

TEST(Strep, HelpersMoveOnlyPastWhatTheyRead) {
    const Mox::String text("0042 left");
    auto it = text.begin();
    const auto end = text.end();
    bool flag = true;
    EXPECT_EQ(rangeErrorOf([&] { Mox::deserializeAttr(it, end, &flag); }), "Invalid text");
    EXPECT_EQ(Mox::dectol(it, end), 42u);
    EXPECT_EQ(rangeErrorOf([&] { Mox::dectol(it, end); }), "Invalid number");
    EXPECT_EQ(rangeErrorOf([&] { Mox::needString(it, end, "left"); }), "Invalid text");
    EXPECT_EQ(rangeErrorOf([&] { Mox::strepToValueEnd(it, end); }),
              "unexpected trailing characters");
    Mox::needString(it, end, " left");
    Mox::strepToValueEnd(it, end);
}

TEST(Trace, EvaluatesItsPiecesOnlyWhenEnabledAndKeepsErrno) {
    static std::string messages;
    Mox::traceSinkIs([](const char* name, int level, std::string_view text) {
        messages += std::string(name) + "/" + std::to_string(level) + ":" + std::string(text);
        errno = ENOTTY;
    });
    Mox::TraceFacility facility("agent::Unit");
    facility.enabledIs(4, true);
    int evaluated = 0;
    errno = EBADF;
    MOX_TRACE(facility, 3, ++evaluated);
    MOX_TRACE(facility, 4, " a=", ++evaluated, "  b=", Mox::String("x"), " ", errno = ERANGE);
    Mox::traceWrite(facility, 0, "direct");
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(messages, "agent::Unit/4: a=1  b=x 34agent::Unit/0:direct");
    Mox::traceSinkIs(nullptr);
}

TEST(Trace, AppliesListsOfSettings) {
    const auto levelsOf = [](const Mox::TraceFacility& facility) {
        std::string levels;
        for (int level = 0; level < Mox::TraceFacility::levels; ++level) {
            levels += facility.isEnabled(level) ? std::to_string(level) : "";
        }
        return levels;
    };
    const char* const cases[][2] = {
        {"agent::Unit/0-4", "01234"},
        {"agent::Unit/3,agent::*/5", "5"},
        {"agent::Unit/", ""},
        // Entries that cannot be read leave the levels as they were.
        {"agent::Unit,agent::Unit/10,agent::Units/1,,/", "9"},
    };
    const Mox::TraceFacility facility("agent::Unit");
    for (const auto& [settings, levels] : cases) {
        Mox::traceSettingsIs("agent::Unit/9");
        Mox::traceSettingsIs(settings);
        EXPECT_EQ(levelsOf(facility), levels) << settings;
    }
}

}  // namespace
}  // namespace agent
