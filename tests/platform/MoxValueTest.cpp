#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>

#include "Mox/Enum.h"
#include "Mox/Exception.h"
#include "Mox/GenericIf.h"
#include "Mox/Hash.h"
#include "Mox/NboAttrLog.h"
#include "Mox/Strep.h"
#include "Mox/Text.h"
#include "Mox/Trace.h"
#include "Mox/ValueType.h"
#include "support/ValueLaws.h"

namespace moxtest {
namespace {

enum class Colour : uint32_t { red = 1, green = 2, greenest = 2, far = 70000 };
constexpr auto enumDescription(Colour) {
    return Mox::enumeration<Colour>("Invalid Colour", {{Colour::red, "red"},
                                                       {Colour::green, "green"},
                                                       {Colour::greenest, "greenest"},
                                                       {Colour::far, "far"}});
}

using Mox::operator<<;
using Mox::sequenceToValue;

class Pair : public Mox::ValueType<Pair> {
  public:
    Pair() = default;
    Pair(uint16_t left, Colour right) : left_(left), right_(right) {}
    Pair(TextIt& it, const TextIt& end) { readText(it, end); }
    Pair(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    friend bool operator==(const Pair&, const Pair&) = default;
    friend auto operator<=>(const Pair&, const Pair&) = default;

    static constexpr const char* leftoverText = "Invalid Pair";
    static constexpr auto description() {
        return Mox::record("moxtest::Pair", Mox::field("left", &Pair::left_),
                           Mox::field("right", &Pair::right_));
    }

  private:
    uint16_t left_ = 0;
    Colour right_ = Colour::red;
};

// A pair, and one field of each other kind: none is named outside the description.
class Wide : public Mox::ValueType<Wide> {
  public:
    Wide() = default;
    Wide(const Pair& pair, bool flag, int32_t delta, uint64_t big, Mox::String note)
        : pair_(pair), flag_(flag), delta_(delta), big_(big), note_(std::move(note)) {}
    Wide(TextIt& it, const TextIt& end) { readText(it, end); }
    Wide(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    friend bool operator==(const Wide&, const Wide&) = default;
    friend auto operator<=>(const Wide&, const Wide&) = default;

    static constexpr const char* leftoverText = "Invalid Wide";
    static constexpr auto description() {
        return Mox::record("moxtest::Wide", Mox::field("pair", &Wide::pair_),
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

const Pair sample(80, Colour::green);
const Wide wideSample(sample, true, INT32_MIN, UINT64_MAX, "it's \\ 'all'");

TEST(ValueType, KeepsTheValueLaws) {
    expectValueLaws<Pair>(
        {{0, Colour::red}, {0, Colour::green}, {80, Colour::red}, {65535, Colour::far}});
    expectValueLaws<Wide>({{},
                           {Pair(), true, -1, 1, ""},
                           {Pair(), true, 0, 0, "a"},
                           {Pair(), true, 0, 0, "a'b"},
                           wideSample});
}

TEST(ValueType, DerivesEveryFormFromTheDescriptionAlone) {
    EXPECT_EQ(valueToStrep(sample), "Value('moxtest::Pair', ** {'left': 80, 'right': green})");
    EXPECT_EQ(valueToStrep(wideSample),
              "Value('moxtest::Wide', ** {'pair': Value('moxtest::Pair', ** {'left': 80, 'right': "
              "green}), 'flag': true, 'delta': -2147483648, 'big': 18446744073709551615, 'note': "
              "'it\\'s \\\\ \\'all\\''})");
    Mox::NboAttrLog::Out log;
    log << Wide(sample, true, -2, 3, "ab");
    EXPECT_EQ(log.bytes, (Mox::Bytes{0,    0, 0, 80, 0, 0, 0, 2, 0, 0, 0, 1, 0xff, 0xff, 0xff,
                                     0xfe, 0, 0, 0,  0, 0, 0, 0, 3, 0, 0, 0, 2,    'a',  'b'}));
    EXPECT_EQ(sample.hash(5), Mox::Hash(5).mix(80).mix(2).result());
    EXPECT_EQ(Wide(sample, true, -2, 3, "ab").hash(5), Mox::Hash(5)
                                                           .mix(sample.hash())
                                                           .mix(1)
                                                           .mix(0xfffffffe)
                                                           .mix(3)
                                                           .mix(0)
                                                           .mix(2)
                                                           .mix('a')
                                                           .mix('b')
                                                           .result());
    const auto& attributes = Mox::genericIf<Wide>().attributes;
    ASSERT_EQ(attributes.size(), 5u);
    EXPECT_EQ(attributes[2].name, "delta");
    EXPECT_EQ(attributes[2].strep(&wideSample), "-2147483648");
}

TEST(ValueType, RefusesRecordsThatAreNotExactlyItsOwn) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"Value('moxtest::Pair', ** {'left': 65535, 'right': far})", ""},
        {"Value('moxtest::Pair', ** {'left': 0080, 'right': greenest})", ""},
        {"Value('moxtest::Pair', ** {'left': 65536, 'right': red})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': 65616, 'right': red})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': -1, 'right': red})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': , 'right': red})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': 1,'right': red})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'right': red, 'left': 1})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': 1})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': 1, 'right': red}", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': 1, 'right': red}))", "Invalid Pair"},
        {"Value('moxtest::Pear', ** {'left': 1, 'right': red})", "Invalid Pair"},
        {"value('moxtest::Pair', ** {'left': 1, 'right': red})", "Invalid Pair"},
        {"Value('moxtest::Pair', ** {'left': 1, 'right': blue})", "Invalid Colour"},
        {"Value('moxtest::Pair', ** {'left': 1, 'right': reds})", "Invalid Colour"},
    };
    for (const auto& c : cases) {
        Pair value = sample;
        EXPECT_EQ(textErrorOf(c.text, &value), c.error) << c.text;
    }
    const auto wide = [](const char* from, const char* to) {
        std::string text(valueToStrep(wideSample).view());
        text.replace(text.find(from), std::string_view(from).size(), to);
        return text;
    };
    for (const auto& text : {wide("true", "TRUE"), wide("true", "1"), wide("-214", "-314"),
                             wide("-2147483648", "2147483648"), wide("18446", "18447"),
                             wide("'it", "it"), wide("'})", "})"), wide("'})", "\\")}) {
        Wide value = wideSample;
        EXPECT_EQ(textErrorOf(text, &value), "Invalid Wide") << text;
    }
}

TEST(Enum, ReadsAllNamesAndPrintsTheFirst) {
    const struct {
        uint32_t number;
        const char* name;  // Null for no member.
    } numbers[] = {{0, nullptr},           {1, "red"},           {2, "green"},
                   {3, nullptr},           {255, nullptr},       {256, nullptr},
                   {70000, "far"},         {69999, nullptr},     {257, nullptr},
                   {70000 + 256, nullptr}, {UINT32_MAX, nullptr}};
    for (const auto& c : numbers) {
        EXPECT_EQ(rangeErrorOf([&] { Mox::enumValue<Colour>(c.number); }),
                  c.name == nullptr ? "Invalid Colour" : "");
        const auto member = static_cast<Colour>(c.number);
        EXPECT_EQ(Mox::stringValue(member),
                  c.name == nullptr ? std::to_string(c.number) : std::string(c.name));
    }
    EXPECT_EQ(Mox::enumValue<Colour>(Mox::String("greenest")), Colour::green);
    for (const char* name : {"", "gre", "greenes", "Red", "red ", " red", "red1", "1"}) {
        EXPECT_EQ(rangeErrorOf([&] { Mox::enumValue<Colour>(Mox::String(name)); }),
                  "Invalid Colour");
    }
}

TEST(TextCursor, ReadsNumbersThatFit) {
    const struct {
        const char* text;
        bool good;
        uint32_t value;
        const char* rest;
    } cases[] = {
        {"4294967295x", true, 4294967295u, "x"},
        {"00000000000000000007", true, 7, ""},
        {"4294967296", false, 0, "4294967296"},
        {"42949672950", false, 0, "42949672950"},
        {"8589934592", false, 0, "8589934592"},
        {"", false, 0, ""},
        {"-1", false, 0, "-1"},
        {" 1", false, 0, " 1"},
    };
    for (const auto& c : cases) {
        const GuardedText text(c.text);
        Mox::TextCursor in(text.view());
        uint32_t value = 0;
        EXPECT_EQ(in.decimal(&value), c.good) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
        EXPECT_EQ(in.rest(), c.rest);
    }
    uint64_t big = 0;
    Mox::TextCursor most("18446744073709551615");
    EXPECT_TRUE(most.decimal64(&big));
    EXPECT_EQ(big, UINT64_MAX);
    Mox::TextCursor past("18446744073709551616");
    EXPECT_FALSE(past.decimal64(&big));
}

TEST(TextCursor, TakesWholeLiteralsOrNothing) {
    const GuardedText text("ab");
    Mox::TextCursor in(text.view());
    EXPECT_FALSE(in.take(std::string_view("abc")));
    EXPECT_FALSE(in.take('b'));
    EXPECT_TRUE(in.take(std::string_view("ab")));
    EXPECT_FALSE(in.take('b'));
    EXPECT_EQ(in.peek(), '\0');
    EXPECT_FALSE(in.atDigit());
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(Mox::TextCursor::hexValue(static_cast<char>(c)) >= 0, std::isxdigit(c) != 0) << c;
    }
    EXPECT_EQ(Mox::TextCursor::hexValue('f'), 15);
    EXPECT_EQ(Mox::TextCursor::hexValue('A'), 10);
}

TEST(TextWriter, CutsOffAndCountsAsTheStandardPrinterDoes) {
    const uint64_t numbers[] = {0, 9, 10, 99, 100, 12345, 4294967295u, UINT64_MAX};
    for (uint32_t size = 0; size < 60; ++size) {
        for (const uint64_t number : numbers) {
            char expected[60];
            const int length = std::snprintf(expected, size, "<%llu|%lld>",
                                             static_cast<unsigned long long>(number),
                                             static_cast<long long>(INT64_MIN));
            const GuardedBuffer buffer(size);
            Mox::TextWriter out(buffer.data(), size);
            out.put('<');
            out.decimal(number);
            out.text("|");
            out.decimalSigned(INT64_MIN);
            out.put('>');
            EXPECT_EQ(out.finish(), static_cast<uint32_t>(length));
            if (size != 0) {
                EXPECT_STREQ(buffer.data(), expected);
            }
        }
    }
}

TEST(NboAttrLog, WritesNetworkOrderAndRefusesAShortLog) {
    Mox::NboAttrLog::Out out;
    out.u8(1);
    out.u16(0x0203);
    out.u32(0x04050607);
    out.u64(0x08090a0b0c0d0e0full);
    out.string("hi");
    EXPECT_EQ(out.bytes, (Mox::Bytes{1,  2,  3,  4,  5, 6, 7, 8, 9,   10, 11,
                                     12, 13, 14, 15, 0, 0, 0, 2, 'h', 'i'}));
    Mox::NboAttrLog::In in(out.bytes);
    EXPECT_EQ(in.u8(), 1);
    EXPECT_EQ(in.u16(), 0x0203);
    EXPECT_EQ(in.u32(), 0x04050607u);
    EXPECT_EQ(in.u64(), 0x08090a0b0c0d0e0full);

    Mox::NboAttrLog::In cut(out.bytes.end() - 6, 5);  // The length, and one byte of two.
    const char* const error = "NboAttrLog: premature end";
    uint8_t raw[6];
    EXPECT_EQ(rangeErrorOf([&] { cut.u64(); }), error);
    EXPECT_EQ(rangeErrorOf([&] { cut.raw(raw, 6); }), error);
    EXPECT_EQ(rangeErrorOf([&] { cut.string(); }), error);
    EXPECT_EQ(cut.left(), 5u);  // Nothing is consumed by a failure, not even the length.
    EXPECT_EQ(cut.u32(), 2u);
    EXPECT_EQ(in.string(), "hi");

    const uint8_t huge[] = {0xff, 0xff, 0xff, 0xff, 'x'};
    Mox::NboAttrLog::In lying(huge, sizeof(huge));
    EXPECT_EQ(rangeErrorOf([&] { lying.string(); }), error);
}

TEST(NboAttrLog, RefusesNumbersThatTheFieldCannotHold) {
    const auto errorOf = [](auto field, uint32_t number) {
        Mox::NboAttrLog::Out out;
        out.u32(number);
        Mox::NboAttrLog::In in(out.bytes);
        return rangeErrorOf([&] { Mox::Codec<decltype(field)>::fromLog(in, &field); });
    };
    const char* const error = "NboAttrLog: value out of range";
    EXPECT_EQ(errorOf(uint8_t(), 255), "");
    EXPECT_EQ(errorOf(uint8_t(), 256), error);
    EXPECT_EQ(errorOf(uint16_t(), 65535), "");
    EXPECT_EQ(errorOf(uint16_t(), 65536 + 80), error);
    EXPECT_EQ(errorOf(int8_t(), 0xffffff80), "");  // -128.
    EXPECT_EQ(errorOf(int8_t(), 0xffffff7f), error);
    EXPECT_EQ(errorOf(int8_t(), 128), error);
    EXPECT_EQ(errorOf(int32_t(), 0xffffffff), "");
    EXPECT_EQ(errorOf(bool(), 1), "");
    EXPECT_EQ(errorOf(bool(), 2), error);
    EXPECT_EQ(errorOf(Colour(), 2), "");
    EXPECT_EQ(errorOf(Colour(), 3), "Invalid Colour");
}

TEST(Strep, HelpersTakeWhatTheyNeedOrNothing) {
    const Mox::String text("0042 left");
    auto it = text.begin();
    EXPECT_EQ(Mox::dectol(it, text.end()), 42u);
    EXPECT_EQ(rangeErrorOf([&] { Mox::dectol(it, text.end()); }), "Invalid number");
    EXPECT_EQ(rangeErrorOf([&] { Mox::needString(it, text.end(), "left"); }), "Invalid text");
    Mox::needString(it, text.end(), " ");
    EXPECT_EQ(rangeErrorOf([&] { Mox::strepToValueEnd(it, text.end()); }),
              "unexpected trailing characters");
    Mox::needString(it, text.end(), "left");
    EXPECT_NO_THROW(Mox::strepToValueEnd(it, text.end()));
    const Mox::String tooLong("4294967296");
    it = tooLong.begin();
    EXPECT_EQ(rangeErrorOf([&] { Mox::dectol(it, tooLong.end()); }), "Invalid number");
    bool flag = true;
    EXPECT_EQ(rangeErrorOf([&] { Mox::deserializeAttr(it, tooLong.end(), &flag); }),
              "Invalid text");
    EXPECT_EQ(it, tooLong.begin());
    EXPECT_TRUE(flag);
}

// The word and final mixes are those of MurmurHash3, whose published vectors these are: whole words
// in little-endian order, the length being counted in words here.
TEST(Hash, DependsOnSeedOrderAndLength) {
    EXPECT_EQ(Mox::Hash(0).result(), 0u);
    EXPECT_EQ(Mox::Hash(1).result(), 0x514e28b7u);
    EXPECT_EQ(Mox::Hash(0xffffffff).result(), 0x81f16f39u);
    EXPECT_NE(Mox::Hash().mix(1).mix(2).result(), Mox::Hash().mix(2).mix(1).result());
    EXPECT_NE(Mox::Hash().mix(0).result(), Mox::Hash().mix(0).mix(0).result());
    EXPECT_EQ(Mox::Hash().mix64(0x200000001).result(), Mox::Hash().mix(1).mix(2).result());
}

class Trace : public testing::Test {
  protected:
    Trace() {
        messages.clear();
        Mox::traceSinkIs([](const char* name, int level, std::string_view text) {
            messages += std::string(name) + "/" + std::to_string(level) + ":" + std::string(text);
            errno = ENOTTY;
        });
    }
    ~Trace() override { Mox::traceSinkIs(nullptr); }

    static inline std::string messages;
    Mox::TraceFacility facility{"moxtest::Unit"};
};

TEST_F(Trace, EvaluatesNothingWhileItIsOff) {
    int evaluated = 0;
    MOX_TRACE(facility, 3, ++evaluated);
    facility.enabledIs(4, true);
    MOX_TRACE(facility, 3, ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(messages, "");
    MOX_TRACE(facility, 4, ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(messages, "moxtest::Unit/4:1");
}

TEST_F(Trace, JoinsPiecesAsTheyStand) {
    facility.enabledIs(0, true);
    MOX_TRACE(facility, 0, " a=", 1, "  b=", Mox::String("x"), " c=", sample);
    EXPECT_EQ(
        messages,
        "moxtest::Unit/0: a=1  b=x c=Value('moxtest::Pair', ** {'left': 80, 'right': green})");
}

TEST_F(Trace, KeepsErrnoThoughSinkAndPiecesChangeIt) {
    facility.enabledIs(0, true);
    errno = EBADF;
    MOX_TRACE(facility, 0, open("/nonexistent/file", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(messages, "moxtest::Unit/0:-1");
    errno = EBADF;
    Mox::traceWrite(facility, 0, "direct");
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Trace, AppliesListsOfSettings) {
    const struct {
        const char* settings;
        unsigned levels;  // A bit each.
    } cases[] = {
        {"moxtest::Unit/3", 1u << 3},
        {"moxtest::Unit/0-4", 0x1f},
        {"moxtest::Unit/0-9", 0x3ff},
        {"moxtest::Unit/", 0},
        {"moxtest::*/2", 1u << 2},
        {"*/1", 1u << 1},
        {"moxtest::Unit/3,moxtest::*/5", 1u << 5},
        {"other/1,moxtest::Unit/7,", 1u << 7},
        // What cannot be read leaves the levels as they were: here 9 alone.
        {"moxtest::Unit", 1u << 9},
        {"moxtest::Unit/10", 1u << 9},
        {"moxtest::Unit/a", 1u << 9},
        {"moxtest::Unit/0-", 1u << 9},
        {"moxtest::Unit/0-a", 1u << 9},
        {"moxtest::Uni/1", 1u << 9},
        {"moxtest::Units/1", 1u << 9},
        {"", 1u << 9},
        {",,/", 1u << 9},
    };
    for (const auto& c : cases) {
        Mox::traceSettingsIs("moxtest::Unit/9");
        Mox::traceSettingsIs(c.settings);
        unsigned levels = 0;
        for (int level = 0; level < Mox::TraceFacility::levels; ++level) {
            levels |= facility.isEnabled(level) ? 1u << level : 0;
        }
        EXPECT_EQ(levels, c.levels) << c.settings;
    }
}

TEST_F(Trace, ReadsTheEnvironmentWhenAFacilityIsMade) {
    setenv("MOX_TRACE", "moxtest::Late/1-2", 1);
    const Mox::TraceFacility late("moxtest::Late");
    unsetenv("MOX_TRACE");
    EXPECT_FALSE(late.isEnabled(0));
    EXPECT_TRUE(late.isEnabled(1) && late.isEnabled(2));
}

TEST(Exception, CarriesTheTextAndTheErrorOfTheSystem) {
    errno = ENOENT;
    try {
        Mox::throwErrnoException("setsockopt(IP_PKTINFO)");
        FAIL();
    } catch (const Mox::Exception& error) {
        const auto* withErrno = dynamic_cast<const Mox::ErrnoException*>(&error);
        ASSERT_NE(withErrno, nullptr);
        EXPECT_EQ(withErrno->errnoValue(), ENOENT);
        EXPECT_EQ(error.message(), "setsockopt(IP_PKTINFO)");
        EXPECT_STREQ(error.what(), "setsockopt(IP_PKTINFO): No such file or directory");
    }
    try {
        Mox::throwRangeException("text");
        FAIL();
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "text");
        EXPECT_NE(dynamic_cast<const Mox::RangeException*>(&error), nullptr);
        EXPECT_EQ(dynamic_cast<const Mox::ErrnoException*>(&error), nullptr);
    }
}

}  // namespace
}  // namespace moxtest
