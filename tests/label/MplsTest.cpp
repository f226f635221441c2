#include "Pavo/Mpls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Pavo/MplsLabelStack.h"
#include "support/ValueLaws.h"

namespace {
uint32_t allocations = 0;
}

[[gnu::noinline]] void* operator new(std::size_t bytes) {
    ++allocations;
    void* const memory = std::malloc(bytes);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    ++allocations;
    return std::malloc(bytes);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace Pavo {
namespace {

using Bounded = BoundedMplsLabelStack;
using Dynamic = DynamicMplsLabelStack;
using Error = BoundedMplsLabelStackError;
using Result = BoundedMplsLabelStackResult;

constexpr uint32_t eli = 7, el = 0x100002, none = 0x100000;
constexpr int threw = -1;  // Instead of a result: a range error.
const std::string labelText =
    "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
const std::string placeText = "MplsLabelOperation::labelStack: index out of range";

// The entries of a calculated stack from the top.
using List = std::vector<uint32_t>;

// "16*2 P" is two labels above a pair of an indicator and an entropy label.
List list(const std::string& text) {
    List entries;
    std::istringstream in(text);
    for (std::string token; in >> token;) {
        const List unit = token[0] == 'P' ? List{eli, el} : List{uint32_t(std::stoul(token))};
        const std::size_t star = token.find('*');
        for (int n = star == token.npos ? 1 : std::stoi(token.substr(star + 1)); n != 0; --n) {
            entries.insert(entries.end(), unit.begin(), unit.end());
        }
    }
    return entries;
}

bool isMarker(uint32_t entry) {
    return entry == eli || entry == el;
}

List labelsOf(List entries) {
    std::erase_if(entries, isMarker);
    return entries;
}

uint32_t mapOf(const List& entries, uint32_t marker) {
    uint32_t map = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        map |= entries[i] == marker ? uint32_t{1} << i : 0;
    }
    return map;
}

// The words that a dynamic stack is serialised to.
Mox::Bytes wordsOf(uint32_t size, const List& labels, uint32_t elMap, uint32_t eliMap) {
    Mox::NboAttrLog::Out out;
    out.u32(size);
    out.u32(elMap);
    out.u32(eliMap);
    std::for_each(labels.begin(), labels.end(), [&out](uint32_t label) { out.u32(label); });
    return out.bytes;
}

Mox::Bytes wordsOf(const List& entries) {
    const List labels = labelsOf(entries);
    return wordsOf(static_cast<uint32_t>(labels.size()), labels, mapOf(entries, el),
                   mapOf(entries, eli));
}

template <class Stack>
Stack stackOf(const List& entries) {
    const Mox::Bytes words = wordsOf(entries);
    Dynamic stack;
    stack.deserialize(words.data(), words.bytes());
    return Stack(stack);
}

Bounded bounded(const char* text) {
    return stackOf<Bounded>(list(text));
}

template <class Stack>
List listOf(const Stack& stack) {
    List entries;
    for (uint32_t i = 0; i < stack.calculatedStackSize(); ++i) {
        entries.push_back(stack.calculatedLabel(i).value());
    }
    return entries;
}

// Does one change: 'a' append, 'p' prepend, 'x' extend, 'X' extend with explicit nulls anywhere,
// 's' extend by itself, 'e' insert a pair at a position, 'l' set the label at an index, 'n' set the
// number of labels, 'i' remove implicit nulls.
template <class Stack>
int changed(Stack& stack, char change, const List& argument) {
    Result result;
    try {
        // clang-format off
        switch (change) {
            case 'a': result = stack.append(argument[0]); break;
            case 'p': result = stack.prepend(argument[0]); break;
            case 'x': result = stack.extend(stackOf<Stack>(argument)); break;
            case 's': result = stack.extend(stack); break;
            case 'e': result = stack.entropyLabelAndIndicatorIs(argument[0]); break;
            case 'l': stack.labelIs(argument[0], argument[1]); break;
            case 'n': stack.stackSizeIs(argument[0]); break;
            case 'i': stack.removeImplicitNulls(); break;
        }
        // clang-format on
        if constexpr (std::is_same_v<Stack, Bounded>) {
            if (change == 'X') {
                result = stack.extendAllowingNonBosExplicitNulls(stackOf<Stack>(argument));
            }
        }
    } catch (const Mox::RangeException&) {
        return threw;
    }
    return static_cast<int>(result.error());
}

template <class Stack>
void expectHolds(const Stack& stack, const List& entries) {
    ASSERT_EQ(listOf(stack), entries);
    ASSERT_EQ(stack, stackOf<Stack>(entries));
    std::string cli;
    for (const uint32_t entry : entries) {
        cli += entry == eli ? "ELI " : entry == el ? "EL " : std::to_string(entry) + " ";
    }
    ASSERT_EQ(stack.stringValue(), "TOP ( " + cli + ") BOTTOM");
    ASSERT_EQ(stack.cliString(), cli.substr(0, std::max<std::size_t>(cli.size(), 1) - 1));
    ASSERT_EQ(Mox::fromText<Stack>(valueToStrep(stack)), stack);
    ASSERT_EQ(rangeErrorOf([&] { (void)stack.calculatedLabel(stack.calculatedStackSize()); }),
              placeText);
    const List labels = labelsOf(entries);
    ASSERT_EQ(stack.top().value(), labels.empty() ? none : labels[0]);
    ASSERT_EQ(bool(stack), !entries.empty());

    const Dynamic dynamic(stack);
    const Mox::Bytes words = wordsOf(entries);
    ASSERT_EQ(dynamic.serializeLen(), words.bytes());
    std::vector<uint8_t> image(words.bytes());
    dynamic.serialize(image.data());
    ASSERT_EQ(Mox::Bytes(image.data(), words.bytes()), words);
    List kept = entries;  // From the top, as many labels and whole pairs as fit.
    while (labelsOf(kept).size() > 7 || kept.size() > 32 || (!kept.empty() && kept.back() == eli)) {
        kept.pop_back();
    }
    ASSERT_EQ(listOf(Bounded(dynamic)), kept);
}

// Each of `changes`, by itself, turns `before` into `after` ("=" for no change), with `result`.
struct Row {
    const char* before;
    const char* changes;
    const char* after;
    int result;
};

template <class Stack>
void expectRows(const std::vector<Row>& rows) {
    for (const auto& [before, changes, after, result] : rows) {
        std::istringstream in(changes);
        for (std::string change; std::getline(in >> std::ws, change, ';');) {
            SCOPED_TRACE(std::string(before) + " | " + change);
            auto stack = stackOf<Stack>(list(before));
            EXPECT_EQ(changed(stack, change[0], list(change.substr(1))), result);
            expectHolds(stack, list(*after == '=' ? before : after));
        }
    }
}

// clang-format off
const std::vector<Row> rowsOfAllStacks = {
    // Markers.
    {"16", "a 7; a 1048578", "=", 2}, {"", "p 7; p 1048578", "=", 2},
    // Without ordinary labels.
    {"", "a 1; p 1", "=", 2}, {"P", "a 1; p 1", "=", 2}, {"", "a 0", "0", 0},
    {"P", "a 2", "P 2", 0}, {"", "a 3; p 3", "3", 0}, {"P", "p 0", "0 P", 0},
    {"P*15", "p 17", "17 P*15", 0}, {"P*16", "p 17", "=", 4},
    // An implicit null alone.
    {"3", "a 1; a 3; p 1; p 3", "=", 2}, {"3", "a 0", "0", 2}, {"3", "a 17", "17", 2},
    {"3 P", "a 17", "P 17", 2}, {"P 3 P", "a 17", "P*2 17", 2}, {"P*14 3 P", "a 17", "P*15 17", 2},
    {"3", "p 2", "2", 2}, {"3 P", "p 17", "17 P", 2}, {"P 3 P", "p 17", "17 P*2", 2},
    {"P*15 3", "p 17", "17 P*15", 2}, {"3 16", "a 17", "3 16 17", 0},
    {"3 16", "p 17", "17 3 16", 0},
    // With ordinary labels.
    {"16", "a 3; a 0; a 2; p 3; p 0; p 2", "=", 2}, {"16", "a 1", "16 1", 0},
    {"16", "p 1", "1 16", 0}, {"16 P", "a 17", "16 P 17", 0}, {"16 P 17", "p 18", "18 16 P 17", 0},
    // Extending.
    {"16", "x P 17 P", "16 P 17 P", 0}, {"16", "x 0 17 3", "16 17", 2}, {"", "x 1 17", "17", 2},
    {"3", "x P 17 18", "P 17 18", 2}, {"16*2 P*14", "x P", "16*2 P*15", 0},
    {"16 P*15", "x P 17", "16 P*15 17", 4}, {"16 17", "s", "16 17 16 17", 0},
    {"P 16", "s", "P 16 P 16", 0}, {"3 16", "s", "3 16 16", 2},
    // Pairs at a position.
    {"16 17", "e 0", "P 16 17", 0}, {"16 17", "e 1", "16 P 17", 0}, {"16 17", "e 2", "16 17 P", 0},
    {"16 17", "e 3", "=", 6}, {"P 16", "e 0; e 2", "P*2 16", 0}, {"P 16", "e 1", "=", 6},
    {"P*15", "e 30", "P*16", 0}, {"P*15", "e 29", "=", 6}, {"16", "e 30", "=", 6},
    {"16", "e 31; e 4294967295", "=", threw},
    // A label at an index, and the number of labels.
    {"P 16 17", "l 0 18", "P 18 17", 0}, {"16 P 17", "l 1 18", "16 P 18", 0},
    {"P 16", "l 1 17; l 0 7; l 0 1048578", "=", threw}, {"P 16 P 17 P", "n 1", "P 16 P*2", 0},
    {"P 16", "n 0", "P", 0}, {"P 16", "n 3", "P 16 1048576*2", 0},
    // Implicit nulls.
    {"3 P 16", "i", "P 16", 0}, {"P 3 16 P 3 3 P 17", "i", "P 16 P*2 17", 0}, {"0 16", "i", "=", 0},
};
const std::vector<Row> rowsOfBoundedStacks = {
    {"16*7", "a 17; p 17; X 0", "=", 5}, {"16*7 P", "a 0", "=", 2}, {"16*7", "p 3", "=", 2},
    {"16*6", "x 3 17 18", "16*6 17", 5}, {"16*7", "x 17 P", "16*7 P", 5},
    {"16*7 P*12", "x 17 P", "=", 5}, {"P*16", "a 17", "=", 4}, {"P*15 16*2", "a 17; p 17", "=", 4},
    {"P*15 16", "e 0; e 1", "=", 4}, {"16", "n 8", "=", threw}, {"P*15 16*2", "n 3", "=", threw},
    {"16", "X 0 17 2", "16 0 17 2", 0}, {"16", "X 3 0", "16 0", 2},
};
const std::vector<Row> rowsOfDynamicStacks = {
    {"16*40", "a 17", "16*40 17", 0}, {"16*40", "p 17", "17 16*40", 0},
    {"P*16", "a 17", "P*16 17", 0}, {"P*16 3", "a 17", "P*16 17", 2}, {"P*16 3", "p 17", "=", 4},
    {"16*31", "x P 17", "16*31 17", 4}, {"16*30 P 17", "p 17", "=", 4},
    {"16*29 P 17", "p 17", "17 16*29 P 17", 0}, {"16*40", "e 30", "16*30 P 16*10", 0},
    {"16*28 P 16", "e 28", "16*28 P*2 16", 0}, {"16*29 P 16", "e 0", "=", 4},
    {"16*29 P 16", "e 31", "=", threw}, {"16", "n 40", "16 1048576*39", 0},
};
// clang-format on

TEST(MplsLabelStacks, KeepTheRulesOfEachChange) {
    expectRows<Bounded>(rowsOfAllStacks);
    expectRows<Dynamic>(rowsOfAllStacks);
    expectRows<Bounded>(rowsOfBoundedStacks);
    expectRows<Dynamic>(rowsOfDynamicStacks);
}

// Labels, bit maps, text and words agree on every stack that random changes lead to.
template <class Stack>
void expectHoldsAfterRandomChanges(const std::string& changes) {
    constexpr uint32_t labels[] = {0, 1, 2, 3, eli, el, 16, 17};
    std::mt19937 random(20240501);
    for (int sequence = 0; sequence < 2000; ++sequence) {
        Stack stack;
        for (int step = 0; step < 40; ++step) {
            const List argument = {static_cast<uint32_t>(random() % 16), labels[random() % 8]};
            const char change = changes[random() % changes.size()];
            const bool isLabel = change == 'a' || change == 'p';
            (void)changed(stack, change, isLabel ? List{argument[1]} : argument);
        }
        ASSERT_NO_FATAL_FAILURE(expectHolds(stack, listOf(stack)));
    }
}

TEST(MplsLabelStacks, HoldTheSameInEachFormAfterRandomChanges) {
    expectHoldsAfterRandomChanges<Bounded>("aappseeli");
    expectHoldsAfterRandomChanges<Dynamic>("aappeelni");
}

TEST(MplsLabel, KeepsTheValueLawsAndPrintsNames) {
    expectValueLaws<MplsLabel>({0u, 1u, 7u, 16u, 1048575u, none, 0x100001u, el, 0x800000u});
    expectValueLaws<MplsStackEntryIndex>({0u, 6u, 7u});
    expectValueLaws<Result>({Error::noOp, Error::other});
    expectValueLaws<Bounded>(
        {{}, bounded("P 16"), bounded("16 P"), bounded("17 P"), bounded("16*7 P*12")});
    expectValueLaws<Dynamic>({{}, stackOf<Dynamic>(list("17")), stackOf<Dynamic>(list("16*30 P"))});
    EXPECT_EQ(valueToStrep(MplsLabel(16)), "Value('Pavo::MplsLabel', ** {'value': 16})");
    EXPECT_EQ(valueToStrep(stackOf<Dynamic>(list("16 17 P"))),
              "DynamicMplsLabelStack(stackSize:2, labels:[16, 17], entropyLabelBitMap:8, "
              "entropyLabelIndicatorBitMap:4)");
    std::string pretty;
    for (const uint32_t label : {0u, 1u, 2u, 3u, 7u, 16u, none, 0x100001u, el, 0x800000u}) {
        pretty += MplsLabel(label).prettyString() + " ";
    }
    EXPECT_EQ(pretty,
              "exp-null-v4(0) router-alert(1) exp-null-v6(2) imp-null(3) entropy-indicator(7) 16 "
              "N/A (any) (entropy) (lu-withdraw) ");
    EXPECT_EQ(bounded("3 P 16").cliShowString(), "imp-null(3) ELI EL 16");
    for (uint32_t number = 0; number <= 7; ++number) {
        Result result(BoundedMplsLabelStackErrorInstance(number));
        EXPECT_EQ(result.success(), number < 3) << number;
        result.combine(Error::entropyLabelBitMapFull);
        EXPECT_EQ(static_cast<uint32_t>(result.error()), std::max(number, 4u));
    }
}

TEST(MplsLabelStacks, RefuseInvalidStacks) {
    const std::string mapText = "Entropy label bit map position index out of range";
    const std::string sizeText = "BoundedMplsLabelStack::stackSize < 0 or > 7 not allowed";
    const std::string dynamicText = "Invalid DynamicMplsLabelStack";
    struct Case {
        uint32_t size;
        List labels;
        uint32_t elMap, eliMap;
        std::string bounded, dynamic;
    };
    // clang-format off
    const std::vector<Case> cases = {
        {2, {16, 17}, 0b10, 0b01, "", ""}, {7, List(7, 16), 0xaaaaaa, 0x555555, "", ""},
        {1, {0x800000}, 0, 0, "", ""},
        // The label on top; one without the other; both at one position; a gap between them.
        {2, {16, 17}, 0b01, 0b10, mapText, mapText}, {2, {16, 17}, 0b10, 0, mapText, mapText},
        {2, {16, 17}, 0, 0b10, mapText, mapText}, {2, {16, 17}, 0b110, 0b011, mapText, mapText},
        {2, {16, 17}, 0b100, 0b001, mapText, mapText},
        // Past the stack; a label without a bit; 35 positions.
        {2, {16, 17}, 1u << 4, 1u << 3, mapText, mapText},
        {33, List(33, 16), 0, 1u << 31, sizeText, mapText},
        {7, List(7, 16), 0xaaaaaaa, 0x5555555, mapText, ""}, {1, {eli}, 0, 0, labelText, labelText},
        {1, {el}, 0, 0, labelText, labelText}, {1, {0x800001}, 0, 0, labelText, labelText},
        // Sizes that are not the number of labels, one of which makes 2^32 bytes.
        {1, {16, 17}, 0, 0, labelText, dynamicText}, {2, {16}, 0, 0, "", dynamicText},
        {8, List(7, 16), 0, 0, sizeText, dynamicText},
        {0x40000000, {}, 0, 0, sizeText, dynamicText},
        {0xffffffff, {}, 0, 0, sizeText, dynamicText},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.labels) + std::to_string(c.elMap));
        List fields = c.labels;
        fields.resize(std::max<std::size_t>(fields.size(), 7), none);
        fields.insert(fields.begin(), c.size);
        fields.insert(fields.end(), {c.elMap, c.eliMap});
        Mox::NboAttrLog::Out log;
        std::for_each(fields.begin(), fields.end(), [&log](uint32_t field) { log.u32(field); });
        Mox::NboAttrLog::In in(log.bytes);
        EXPECT_EQ(rangeErrorOf([&] { Bounded(&in, Mox::StreamBogon()); }), c.bounded);

        std::ostringstream text;
        text << "DynamicMplsLabelStack(stackSize:" << c.size << ", labels:[";
        for (const uint32_t& label : c.labels) {
            text << (&label == c.labels.data() ? "" : ", ") << label;
        }
        text << "], entropyLabelBitMap:" << c.elMap << ", entropyLabelIndicatorBitMap:" << c.eliMap
             << ")";
        Dynamic read = stackOf<Dynamic>(list("18"));
        EXPECT_EQ(textErrorOf(text.str(), &read), c.dynamic);

        const Mox::Bytes words = wordsOf(c.size, c.labels, c.elMap, c.eliMap);
        for (uint32_t length = 0; length <= words.bytes() + 1; ++length) {
            const GuardedBuffer cut(length);
            std::copy_n(words.begin(), std::min(length, words.bytes()), cut.data());
            auto* const from = reinterpret_cast<const uint8_t*>(cut.data());
            const bool isWhole = length == 12 + 4 * uint64_t{c.size};
            const bool isGood = isWhole && (c.dynamic.empty() || c.size < c.labels.size());
            Dynamic stack = stackOf<Dynamic>(list("18"));
            EXPECT_EQ(rangeErrorOf([&] { stack.deserialize(from, length); }),
                      isGood ? "" : dynamicText);
            EXPECT_EQ(stack == stackOf<Dynamic>(list("18")), !isGood);
            EXPECT_TRUE(!isGood || Dynamic::deserializeLen(from, length) == length);
            EXPECT_TRUE(isWhole || length > 12 || Dynamic::deserializeLen(from, length) == 0);
        }
    }
    std::string record(valueToStrep(bounded("P 16")).view());
    record.replace(record.find("BitMap': 2"), 10, "BitMap': 4");
    expectRefuses(bounded("17"), {{mapText.c_str(), {record.c_str()}}});
}

TEST(MplsLabelStacks, RefuseNumbersOutOfRange) {
    const char* const indexText =
        "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::nullValue "
        "not allowed";
    const char* const bitText = "Deleting bits above the bit map size";
    const auto textFrom = [](auto stack) {
        return rangeErrorOf([&] { stack.labelIs(1, 17); }) + "; " +
               rangeErrorOf([&] { (void)stack.label(0xffffffff); });
    };
    EXPECT_EQ(textFrom(bounded("16 P")),
              "BoundedMplsLabelStack::labelIs: index out of range; "
              "BoundedMplsLabelStack::label: index out of range");
    EXPECT_EQ(textFrom(Dynamic(bounded("16 P"))),
              "DynamicMplsLabelStack::labelIs: index out of range; "
              "DynamicMplsLabelStack::label: index out of range");
    EXPECT_EQ(rangeErrorOf([] { (void)Dynamic().calculatedTop(); }), placeText);
    EXPECT_EQ(rangeErrorOf([] { MplsLabel(0x800001); }), labelText);
    EXPECT_EQ(rangeErrorOf([] { MplsStackEntryIndex(8); }), indexText);
    expectRefuses(MplsStackEntryIndex(1), {{indexText, {"8", "4294967296"}}});
    EXPECT_DEATH(Bounded().deleteBitFromEntropyLabelAndIndicatorBitMaps(32), bitText);
    EXPECT_DEATH(Dynamic().deleteBitFromEntropyLabelAndIndicatorBitMaps(0xffffffff), bitText);
}

TEST(BoundedMplsLabelStack, AllocatesNothing) {
    const Bounded other = bounded("3 P 17");
    Bounded stack;
    const uint32_t before = allocations;
    for (uint32_t i = 0; i < 9; ++i) {
        (void)stack.append(i);
        (void)stack.prepend(i + 100);
        (void)stack.extend(i < 3 ? other : stack);
        (void)stack.entropyLabelAndIndicatorIs(i);
        stack.labelIs(0, stack.calculatedLabel(stack.calculatedStackSize() - 1).value() & 0xffff8);
    }
    EXPECT_EQ(allocations, before);
    const auto counted = std::make_unique<Dynamic>();
    EXPECT_EQ(allocations, before + 1);
}

TEST(MplsLabelOperation, FoldsOneIntoAnother) {
    using Action = MplsLabelAction;
    const struct {
        Action action, otherAction;
        uint8_t otherFlags;
        const char* stack;
        uint32_t error;
        bool success;
        const char* after;
    } cases[] = {
        // clang-format off
        {Action::push, Action::push, 0, "16", 0, true, "16 17 P"},
        {Action::push, Action::push, 1, "16", 1, false, "16 17 P"},
        {Action::push, Action::push, 2, "16", 4, false, "16 17 P"},
        {Action::swap, Action::push, 0, "16", 2, true, "16 17 P"},
        {Action::push, Action::pop, 0, "3", 2, true, "17 P"},
        {Action::swap, Action::swap, 3, "16", 7, false, "16 17 P"},
        {Action::push, Action::push, 0, "16*7", 0, false, "16*7 P"},
        // clang-format on
    };
    for (const auto& c : cases) {
        MplsLabelOperation into(c.action, bounded(c.stack), 3);  // Its own flags are ignored.
        const auto result =
            into.smush(MplsLabelOperation(c.otherAction, bounded("17 P"), c.otherFlags));
        EXPECT_EQ(result.smushError(), SmushResult::SmushError(c.error));
        EXPECT_EQ(result.success(), c.success);
        EXPECT_EQ(into, MplsLabelOperation(c.action, bounded(c.after), 3));
    }
    MplsLabelOperation self(Action::push, bounded("16 P"));
    EXPECT_TRUE(self.smush(self).success());
    EXPECT_EQ(self.boundedLabelStack(), bounded("16 P 16 P"));
    EXPECT_THROW(SmushResult::SmushError(8), Mox::RangeException);
}

TEST(MplsLabelOperation, IsARecordAndConvertsToUnbounded) {
    MplsLabelOperation operation(MplsLabelAction::pop, bounded("3 P 16 3"), 1);
    EXPECT_EQ(valueToStrep(operation),
              "Value('Pavo::MplsLabelOperation', ** {'operation': pop, 'rawValue': 1, "
              "'boundedLabelStack': " +
                  valueToStrep(operation.boundedLabelStack()) + "})");
    const UnboundedMplsLabelOperation unbounded = boundedOpToUnboundedOp(operation);
    EXPECT_EQ(Mox::fromText<UnboundedMplsLabelOperation>(valueToStrep(unbounded)), unbounded);
    EXPECT_EQ(unboundedOpToBoundedOp(unbounded), operation);
    std::ostringstream stream;
    stream << operation;
    EXPECT_EQ(stream.str(),
              "Operation: pop Stack Size: 3 MPLS Label Stack: TOP ( 3 ELI EL 16 3 ) BOTTOM");
    std::string kept;
    for (const uint32_t number : {0u, 1u, 2u, 3u, 4u, 15u}) {
        const MplsLabelAction action = MplsLabelActionInstance(number);
        MplsLabelOperation each(action, bounded("3 P 16 3"));
        each.removeImplicitNullForPushOrSwap();
        kept += each.boundedLabelStack() == bounded("P 16") ? "" : stringValue(action) + " ";
    }
    EXPECT_EQ(kept, "pop forward lookup none ");
    EXPECT_EQ(operation.label3(), MplsLabel());
    EXPECT_EQ(rangeErrorOf([&] { operation.label3Is(16); }), placeText);
    EXPECT_EQ(rangeErrorOf([&] { operation.labelStackIs(MplsStackEntryIndex(7), 16); }), placeText);
    EXPECT_EQ(rangeErrorOf([] { (void)MplsLabelOperation().topLabel(); }),
              "MplsLabelOperation::topLabel: label stack size 0");
}

TEST(MplsLabelAndAction, PacksALabelAboveAnAction) {
    MplsLabelAndAction packed(0xf0);
    packed.labelIs(0xfffff);
    packed.actionIs(MplsLabelAction::lookup);
    EXPECT_EQ(packed.value(), 0x0ffffff4u);
    EXPECT_TRUE(packed.isValid());
    packed.actionIs(static_cast<MplsLabelAction>(0x1f));
    EXPECT_FALSE(packed.isValid());
    EXPECT_FALSE(MplsLabelAndAction(0x10000000).isValid());
    EXPECT_EQ(MplsLabelAndAction(0x800000ff).label(), MplsLabel(0x800000));
    EXPECT_EQ(rangeErrorOf([] { (void)MplsLabelAndAction(0x80000100).label(); }), labelText);
}

TEST(MplsLabelStack, IsValidWithOneBottomAtTheBottom) {
    const MplsLabelEntry above(0x00010040), bottom(0x00011140);
    MplsLabelStack stack;
    EXPECT_FALSE(stack.valid());
    for (const auto& [index, entry, isValid] :
         {std::tuple(0u, above, false), {1u, bottom, true}, {0u, bottom, false}}) {
        stack.labelEntryIs(index, entry);
        EXPECT_EQ(stack.valid(), isValid);
    }
    EXPECT_EQ(rangeErrorOf([&] { stack.labelEntryIs(3, above); }),
              "MplsLabelStack::labelEntryIs: index out of range");
    stack.labelEntryDel(0);
    EXPECT_TRUE(stack.valid() && stack.size() == 1);
    EXPECT_EQ(valueToStrep(bottom),
              "Value('Pavo::MplsLabelEntry', ** {'v0': 0, 'v1': 1, 'v2': 17, 'v3': 64})");
    EXPECT_DEATH(stack.stringValueIs("x"),
                 "No String constructor for MplsLabelStack - has collection");
}

}  // namespace
}  // namespace Pavo
