#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

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
    Mox::Hash hash(5);
    for (const uint32_t word : {sample.hash(), 1u, 0xfffffffeu, 3u, 0u, 2u, 0x61u, 0x62u}) {
        hash.mix(word);
    }
    EXPECT_EQ(Wide(sample, true, -2, 3, "ab").hash(5), hash.result());
    const auto& delta = Mox::genericIf<Wide>().attributes.at(2);
    EXPECT_EQ(delta.name, "delta");
    EXPECT_EQ(delta.strep(&wideSample), "-2147483648");
}

TEST(ValueType, RefusesRecordsThatAreNotExactlyItsOwn) {
    const std::string pair = "Value('moxtest::Pair', ** {'left': 1, 'right': red})";
    const std::string wide(valueToStrep(wideSample).view());
    const struct {
        const std::string& record;
        const char* from;  // What is replaced
        const char* to;    // by this.
        const char* error;
    } cases[] = {
        {pair, "1", "65535", ""},
        {pair, "1", "65536", "Invalid Pair"},
        {pair, "1", "", "Invalid Pair"},
        {pair, "1", "-1", "Invalid Pair"},
        {pair, ", 'right': red", "", "Invalid Pair"},
        {pair, "left", "right", "Invalid Pair"},
        {pair, "Pair", "Pear", "Invalid Pair"},
        {pair, ")", "", "Invalid Pair"},
        {pair, "red", "greenest", ""},
        {pair, "red", "blue", "Invalid Colour"},
        {pair, "red", "reds", "Invalid Colour"},
        {wide, "true", "1", "Invalid Wide"},
        {wide, "-2147483648", "-2147483649", "Invalid Wide"},
        {wide, "18446744073709551615", "18446744073709551616", "Invalid Wide"},
        {wide, "18446744073709551615", "00184467440737095516150", "Invalid Wide"},
        {wide, "'it", "it", "Invalid Wide"},
        {wide, "'})", "})", "Invalid Wide"},
        {wide, "'})", "\\", "Invalid Wide"},
    };
    for (const auto& c : cases) {
        std::string text = c.record;
        text.replace(text.find(c.from), std::string_view(c.from).size(), c.to);
        Pair value;
        Wide wideValue;
        EXPECT_EQ(c.record == pair ? textErrorOf(text, &value) : textErrorOf(text, &wideValue),
                  c.error)
            << text;
    }
}

TEST(Enum, ReadsAllNamesAndPrintsTheFirst) {
    for (const uint32_t number : {0u, 257u, 70256u, UINT32_MAX}) {  // No member's.
        EXPECT_EQ(rangeErrorOf([&] { Mox::enumValue<Colour>(number); }), "Invalid Colour");
        EXPECT_EQ(Mox::stringValue(static_cast<Colour>(number)), std::to_string(number));
    }
    for (const char* name : {"", "gre", "red ", " red", "1"}) {
        EXPECT_EQ(rangeErrorOf([&] { Mox::enumValue<Colour>(name); }), "Invalid Colour") << name;
    }
    EXPECT_EQ(Mox::enumValue<Colour>(70000u), Colour::far);
    EXPECT_EQ(Mox::enumValue<Colour>("greenest"), Colour::green);
    EXPECT_EQ(Mox::stringValue(Colour::greenest), "green");
}

TEST(NboAttrLog, WritesNetworkOrderAndConsumesNothingOfAShortLog) {
    Mox::NboAttrLog::Out out;
    out.u8(1);
    out.u16(0x0203);
    out.string("hi");
    EXPECT_EQ(out.bytes, (Mox::Bytes{1, 2, 3, 0, 0, 0, 2, 'h', 'i'}));
    Mox::NboAttrLog::In in(out.bytes.begin(), out.bytes.bytes() - 1);
    EXPECT_EQ(in.u8(), 1);
    EXPECT_EQ(in.u16(), 0x0203);
    const char* const error = "NboAttrLog: premature end";
    uint8_t raw[6];
    EXPECT_EQ(rangeErrorOf([&] { in.u64(); }), error);
    EXPECT_EQ(rangeErrorOf([&] { in.raw(raw, 6); }), error);
    EXPECT_EQ(rangeErrorOf([&] { in.string(); }), error);
    EXPECT_EQ(in.u32(), 2u);  // Not even the length has gone.
}

TEST(NboAttrLog, RefusesNumbersThatTheFieldCannotHold) {
    const auto expectBounds = [](auto field, uint32_t good, uint32_t bad, const char* error) {
        for (const uint32_t number : {good, bad}) {
            Mox::NboAttrLog::Out out;
            out.u32(number);
            Mox::NboAttrLog::In in(out.bytes);
            EXPECT_EQ(rangeErrorOf([&] { Mox::Codec<decltype(field)>::fromLog(in, &field); }),
                      number == good ? "" : error)
                << number;
        }
    };
    const char* const error = "NboAttrLog: value out of range";
    expectBounds(uint8_t(), 255, 256, error);
    expectBounds(uint16_t(), 65535, 65536 + 80, error);
    expectBounds(int8_t(), 127, 128, error);
    expectBounds(int8_t(), 0xffffff80, 0xffffff7f, error);  // -128 and -129.
    expectBounds(bool(), 1, 2, error);
    expectBounds(Colour(), 2, 3, "Invalid Colour");
}

TEST(Strep, HelpersTakeWhatTheyNeedOrNothing) {
    const Mox::String text("0042 left");
    auto it = text.begin();
    bool flag = true;
    EXPECT_EQ(rangeErrorOf([&] { Mox::deserializeAttr(it, text.end(), &flag); }), "Invalid text");
    EXPECT_EQ(Mox::dectol(it, text.end()), 42u);
    EXPECT_EQ(rangeErrorOf([&] { Mox::dectol(it, text.end()); }), "Invalid number");
    EXPECT_EQ(rangeErrorOf([&] { Mox::needString(it, text.end(), "left"); }), "Invalid text");
    Mox::needString(it, text.end(), " ");
    EXPECT_EQ(rangeErrorOf([&] { Mox::strepToValueEnd(it, text.end()); }),
              "unexpected trailing characters");
    Mox::needString(it, text.end(), "left");
    EXPECT_NO_THROW(Mox::strepToValueEnd(it, text.end()));
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
        Mox::traceSinkIs([](const char* name, int level, std::string_view text) {
            messages += std::string(name) + "/" + std::to_string(level) + ":" + std::string(text);
            errno = ENOTTY;
        });
    }
    ~Trace() override { Mox::traceSinkIs(nullptr); }

    // The levels that are on, a bit each.
    static unsigned levelsOf(const Mox::TraceFacility& facility) {
        unsigned levels = 0;
        for (int level = 0; level < Mox::TraceFacility::levels; ++level) {
            levels |= facility.isEnabled(level) ? 1u << level : 0;
        }
        return levels;
    }

    static inline std::string messages;
    Mox::TraceFacility facility{"moxtest::Unit"};
};

TEST_F(Trace, EvaluatesAndWritesWhenItIsOnAndKeepsErrnoThoughSinkAndPiecesChangeIt) {
    int evaluated = 0;
    facility.enabledIs(4, true);
    errno = EBADF;
    MOX_TRACE(facility, 3, ++evaluated);
    MOX_TRACE(facility, 4, " a=", ++evaluated, "  b=", Mox::String("x"), " ", errno = ERANGE);
    Mox::traceWrite(facility, 0, "direct");
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(messages, "moxtest::Unit/4: a=1  b=x 34moxtest::Unit/0:direct");
}

TEST_F(Trace, AppliesListsOfSettings) {
    const struct {
        const char* settings;
        unsigned levels;
    } cases[] = {
        {"moxtest::Unit/0-4", 0x1f},
        {"moxtest::*/2", 1u << 2},
        {"moxtest::Unit/3,moxtest::*/5", 1u << 5},
        {"moxtest::Unit/", 0},
        // What cannot be read leaves the levels as they were: here 9 alone.
        {"moxtest::Unit", 1u << 9},
        {"moxtest::Unit/10", 1u << 9},
        {"moxtest::Units/1", 1u << 9},
        {",,/", 1u << 9},
    };
    for (const auto& c : cases) {
        Mox::traceSettingsIs("moxtest::Unit/9");
        Mox::traceSettingsIs(c.settings);
        EXPECT_EQ(levelsOf(facility), c.levels) << c.settings;
    }
    setenv("MOX_TRACE", "moxtest::Late/1-2", 1);
    EXPECT_EQ(levelsOf(Mox::TraceFacility("moxtest::Late")), 6u);
    unsetenv("MOX_TRACE");
}

TEST(ErrnoException, CarriesTheTextAndTheErrorOfTheSystem) {
    errno = ENOENT;
    try {
        Mox::throwErrnoException("setsockopt(IP_PKTINFO)");
    } catch (const Mox::ErrnoException& error) {
        EXPECT_EQ(error.errnoValue(), ENOENT);
        EXPECT_STREQ(error.what(), "setsockopt(IP_PKTINFO): No such file or directory");
    }
}

}  // namespace
}  // namespace moxtest
